// The last step of the commands that make images: the file gets its name, and its .sha256.
#ifndef KQIMAGE_COMMANDS_IMAGE_COMMIT_H
#define KQIMAGE_COMMANDS_IMAGE_COMMIT_H

#include <string>

#include "kqimage/commands/image_options.h"
#include "kqimage/system/output_file.h"

namespace kqimage {

// The file that a new image grows in. Throws a Failure also if its .sha256 would take the place of
// another file.
class ImageOutput {
 public:
  ImageOutput(const std::string& path, const ImageOptions& options);

  const std::string& WritePath() const { return file_.WritePath(); }

  // For the finished image. Throws Interrupted as well, and then leaves nothing.
  void Commit();

 private:
  std::string path_;
  const ImageOptions& options_;
  OutputFile::Existing existing_;
  OutputFile file_;
};

}  // namespace kqimage

#endif
