// A command that goes on behind the terminal.
#ifndef KQIMAGE_MOUNT_BACKGROUND_H
#define KQIMAGE_MOUNT_BACKGROUND_H

#include <string>

namespace kqimage {

// Lets the process that was started end with success, while the work goes on in a child of it that
// has no terminal, whose standard output and error go to the file at the path (appended; /dev/null
// for none) and whose folder is "/". Only in the child this returns. No other thread may be
// running. Throws a Failure, in the process that was started.
void ContinueInBackground(const std::string& outputPath);

}  // namespace kqimage

#endif
