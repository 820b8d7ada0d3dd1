// The file that a new image grows in, and its last step: the file gets its name, and its .sha256.
#ifndef KQIMAGE_IMAGE_IMAGE_OUTPUT_H
#define KQIMAGE_IMAGE_IMAGE_OUTPUT_H

#include <optional>
#include <string>

#include "kqimage/system/output_file.h"

namespace kqimage {

struct ImageOutputOptions {
  OutputFile::Existing existing = OutputFile::Existing::kRefuse;
  bool withSum = true;  // write NAME.sha256 beside the image
  bool quiet = false;   // show no progress
};

class ImageOutput {
 public:
  // Throws a Failure also if the .sha256 would take the place of another file.
  ImageOutput(const std::string& path, const ImageOutputOptions& options);

  const std::string& WritePath() const { return file_.WritePath(); }

  bool WantsSum() const { return options_.withSum; }

  // For the finished image, whose SHA-256 the caller may know; otherwise the file is read for it.
  // Throws Interrupted as well, and then leaves nothing.
  void Commit(std::optional<std::string> digest = {});

 private:
  std::string path_;
  ImageOutputOptions options_;
  OutputFile file_;
};

}  // namespace kqimage

#endif
