#include "kqimage/image/image_output.h"

#include <filesystem>

#include "kqimage/image/sha256_file.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/progress.h"

namespace kqimage {
namespace {

// The sum first: nothing is created where it can't be.
OutputFile::Existing Checked(const std::string& path, const ImageOutputOptions& options) {
  if (options.withSum) RefuseExistingSum(path, options.existing);
  return options.existing;
}

}  // namespace

ImageOutput::ImageOutput(const std::string& path, const ImageOutputOptions& options)
    : path_(path),
      options_(options),
      file_(path, Checked(path, options), OutputFile::Growth::kUnderFinalName) {}

void ImageOutput::Commit(std::optional<std::string> digest) {
  ThrowIfInterrupted();
  if (options_.withSum && !digest) {
    Progress progress("Hashing", std::filesystem::file_size(WritePath()), options_.quiet);
    digest = Sha256OfFile(WritePath(), [&](std::uint64_t done) {
      ThrowIfInterrupted();
      progress.Update(done);
    });
  }
  if (!options_.withSum) digest.reset();
  CommitWithSum(file_, path_, options_.existing, digest);
}

}  // namespace kqimage
