#include "kqimage/system/next_name.h"

#include <fmt/format.h>
#include <kqimageapi.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iterator>

#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

using NameQuery = KQStatus(const char* path, char* buffer, std::uint32_t* size);

KQStatus AskForName(NameQuery* query, const std::string& path, std::string& name) {
  std::uint32_t size = 0;
  KQStatus status = query(path.c_str(), nullptr, &size);
  while (status.status == KQ_STATUS_MORE_DATA) {
    name.resize(size);
    status = query(path.c_str(), name.data(), &size);
  }
  if (status.status == KQ_STATUS_SUCCESS) name.resize(name.find('\0'));
  return status;
}

std::string NextInSeries(const std::string& image,
                         NameQuery* query = KQImageGetNextAvailableImageFileName) {
  std::string next;
  const KQStatus status = AskForName(query, image, next);
  if (status.status == KQ_STATUS_INVALID_PARAMETER) {
    throw UsageFailure(fmt::format(
        "no name can be derived from {}, which ends in neither .twf nor .twi: name the new image",
        Printable(image)));
  }
  Check(status, "find a name behind", image);
  return next;
}

bool IsThere(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0;
}

}  // namespace

bool HasExtension(const std::string& path, std::string_view extension) {
  if (path.size() < extension.size()) return false;
  return std::equal(extension.begin(), extension.end(), path.end() - std::ssize(extension),
                    [](char a, char b) {
                      return std::tolower(static_cast<unsigned char>(a)) ==
                             std::tolower(static_cast<unsigned char>(b));
                    });
}

bool IsFolder(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_directory(path, error);
}

std::string NextIncrementPath(const std::string& image, const std::string& folder) {
  std::string next = NextInSeries(image);
  if (folder.empty()) return next;
  std::string inFolder =
      (std::filesystem::path(folder) / std::filesystem::path(next).filename()).string();
  // What is no regular file has no next name; whoever creates the file finds it in the way.
  std::error_code error;
  return std::filesystem::is_regular_file(inFolder, error) ? NextInSeries(inFolder) : inFolder;
}

std::string NextMountPath(const std::string& image) {
  return NextInSeries(image, KQImageGetNextAvailableMountGeneratedImageFileName);
}

std::string NextBasePath(const std::string& source, const std::string& folder) {
  const std::string stem = std::filesystem::path(source).stem().string();
  if (stem.empty() || stem == "." || stem == "..") {
    throw UsageFailure(
        fmt::format("no name can be derived from {}: name the new image", Printable(source)));
  }
  for (unsigned number = 1;; ++number) {
    std::string path =
        (std::filesystem::path(folder) / fmt::format("{}-b{:03}.twf", stem, number)).string();
    if (!IsThere(path)) return path;
  }
}

std::optional<std::string> KeyFilePath(const std::string& image) {
  std::string path;
  const KQStatus status = AskForName(KQImageFilesEnumerationQueryImageKeyFileName, image, path);
  if (status.status == KQ_STATUS_FILE_CORRUPT) return std::nullopt;
  Check(status, "find the key file's name of", image);
  return path;
}

}  // namespace kqimage
