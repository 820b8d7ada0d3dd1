#include "kqimage/commands/image_commit.h"

#include <filesystem>

#include "kqimage/image/sha256_file.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/progress.h"

namespace kqimage {
namespace {

OutputFile::Existing ExistingOf(const std::string& path, const ImageOptions& options) {
  const auto existing =
      options.force ? OutputFile::Existing::kReplace : OutputFile::Existing::kRefuse;
  if (options.withSum) RefuseExistingSum(path, existing);
  return existing;
}

}  // namespace

ImageOutput::ImageOutput(const std::string& path, const ImageOptions& options)
    : path_(path),
      options_(options),
      existing_(ExistingOf(path, options)),
      file_(path, existing_, OutputFile::Growth::kUnderFinalName) {}

void ImageOutput::Commit() {
  ThrowIfInterrupted();
  Progress progress("Hashing", std::filesystem::file_size(WritePath()), options_.quiet);
  CommitWithSum(file_, path_, existing_, options_.withSum, [&](std::uint64_t done) {
    ThrowIfInterrupted();
    progress.Update(done);
  });
}

}  // namespace kqimage
