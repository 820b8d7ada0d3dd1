// The .sha256 files beside images: a line that `sha256sum -c` reads.
//
// The image format has no checksum of the data. Where this file stands, kqimage verify finds every
// byte that has changed.
#ifndef KQIMAGE_IMAGE_SHA256_FILE_H
#define KQIMAGE_IMAGE_SHA256_FILE_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "kqimage/system/output_file.h"

namespace kqimage {

// NAME.sha256 beside NAME.
std::string SumPath(const std::string& path);

// Called with the bytes that are hashed so far; what it throws ends the work.
using HashProgress = std::function<void(std::uint64_t)>;

// The digest as hexadecimal digits. The file is read on a thread of its own. Throws a Failure if it
// can't be read.
std::string Sha256OfFile(const std::string& path, const HashProgress& progress);

// "HEX  NAME\n", where a name with a backslash or a line end takes the escaped form.
std::string SumLine(const std::string& digest, const std::string& name);

struct StoredSum {
  bool exists = false;                // the .sha256 file
  std::optional<std::string> digest;  // what it says of the file, in small letters
};

// What the .sha256 file beside the file says of it. Throws a Failure if it can't be read.
StoredSum ReadStoredSum(const std::string& path);

// Throws a Failure if the sum of a new file would take the place of another file.
void RefuseExistingSum(const std::string& path, OutputFile::Existing existing);

// Commits a new image, and its sum with it: complete under its name with the sum beside it, or
// without one. Nothing is left behind if it throws before the image has its name. Without a digest
// there is no sum, and one of a replaced image goes.
void CommitWithSum(OutputFile& image, const std::string& path, OutputFile::Existing existing,
                   const std::optional<std::string>& digest);

// Keeps the .sha256 of an image true while its header is mended: made before, completed after. A
// sum that is not there, tells of other files too or was wrong before is left as it is.
class MendedSum {
 public:
  MendedSum(const std::string& path, const HashProgress& progress);
  void Complete(const HashProgress& progress) const;

 private:
  std::string path_;
  bool wasGood_ = false;
};

}  // namespace kqimage

#endif
