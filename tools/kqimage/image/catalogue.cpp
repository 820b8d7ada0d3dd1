#include "kqimage/image/catalogue.h"

#include <fmt/format.h>
#include <kqimageapi.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string_view>

#include "kqimage/image/image_file.h"
#include "kqimage/system/next_name.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

// No path has three slashes in a row, so a list can be taken apart again whatever bytes the names
// in it are made of.
constexpr std::string_view kSeparator = "///";

constexpr std::uint32_t kListFlags = KQ_LIST_FULL_PATHS | KQ_LIST_WITH_PARTS | KQ_LIST_NO_QUOTES;

bool HasImageName(const std::string& path) {
  return HasExtension(path, ".twf") || HasExtension(path, ".twi");
}

std::vector<std::string> SplitList(std::string_view list) {
  std::vector<std::string> items;
  while (true) {
    const std::size_t end = list.find(kSeparator);
    items.emplace_back(list.substr(0, end));
    if (end == std::string_view::npos) return items;
    list.remove_prefix(end + kSeparator.size());
  }
}

// Asks for the size, then for the list; nothing if the library has nothing to list.
template <class Query>
std::vector<std::string> ListOf(const Query& query) {
  std::uint32_t size = 0;
  KQStatus status = query(nullptr, &size);
  if (status.status == KQ_STATUS_NO_MORE_FILES || status.status == KQ_STATUS_FILE_NOT_FOUND) {
    return {};
  }
  std::string list;
  while (status.status == KQ_STATUS_MORE_DATA) {
    list.resize(size);
    status = query(list.data(), &size);
  }
  Check(status, "list", "the images");
  list.resize(list.find('\0'));
  return SplitList(list);
}

// Parts stand behind their file, and their names never end as a file's do.
std::vector<CataloguedFile> FilesOf(const std::vector<std::string>& paths) {
  std::vector<CataloguedFile> files;
  for (const std::string& path : paths) {
    if (HasImageName(path) || files.empty()) {
      files.push_back({path, {}});
    } else {
      files.back().parts.push_back(path);
    }
  }
  return files;
}

// The first entry of the folder that nothing can be learned of, as a link that leads nowhere.
std::string BadEntry(const std::string& folder) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code status;
    if (!std::filesystem::exists(entry->path(), status)) return entry->path().string();
  }
  return {};
}

std::string WhyLeftOut(const std::string& path) {
  std::string why;
  if (!TryReadImageFile(path, why)) return why;
  ImageFileInfo2 info;
  const KQStatus status = KQImageFileGetInfo2(path.c_str(), &info);
  if (status.status != KQ_STATUS_SUCCESS) return StatusText(status);
  if (info.recordPresent != 0 && (info.headerChecksumGood == 0 || info.extraChecksumGood == 0)) {
    return "its header is damaged: a checksum is wrong";
  }
  if (info.basic.sourceSize == 0) return "it does not say how large its volume is";
  return "it came after the folder was read, or lacks the number of its family";
}

}  // namespace

Catalogue::Catalogue() {
  Check(KQImageFilesEnumerationCreate(&handle_, 0, 0), "make", "a catalogue of images");
}

Catalogue::~Catalogue() { KQImageFilesEnumerationClose(handle_); }

void Catalogue::Add(const std::string& folder) {
  std::error_code error;
  const std::string full = std::filesystem::canonical(folder, error).string();
  if (error) FailErrno(error.value(), "search the folder", folder);
  if (!std::filesystem::is_directory(full, error)) {
    throw Failure(fmt::format("cannot search {}: it is no folder", Printable(folder)));
  }
  // A folder that can't be opened counts as added to the library, so this must be known before.
  const std::filesystem::directory_iterator opened(full, error);
  if (error) FailErrno(error.value(), "search the folder", folder);

  const std::string withSlash = full + "/";
  if (std::find(folders_.begin(), folders_.end(), withSlash) != folders_.end()) return;
  folders_.push_back(withSlash);
  const KQStatus status = KQImageFilesEnumerationAddDirectory(handle_, folder.c_str(), 0, 0);
  if (status.status == KQ_STATUS_SUCCESS) return;
  std::string problem = fmt::format("the folder {} can't be read to its end: ", Printable(folder));
  const std::string bad = BadEntry(full);
  problems_.push_back(problem + (bad.empty()
                                     ? StatusText(status)
                                     : fmt::format("{}: {}", Printable(bad), StatusText(status))));
}

std::vector<std::string> Catalogue::ChainOf(const std::string& image) const {
  return ListOf([&](char* buffer, std::uint32_t* size) {
    return KQImageFilesEnumerationQueryShortestPathToBase(handle_, image.c_str(), kSeparator.data(),
                                                          kListFlags, buffer, size);
  });
}

std::vector<CataloguedFile> Catalogue::Whole() const {
  return FilesOf(ListOf([&](char* buffer, std::uint32_t* size) {
    return KQImageFilesEnumerationQueryAllFostered(handle_, kSeparator.data(), kListFlags, buffer,
                                                   size);
  }));
}

std::vector<CataloguedFile> Catalogue::Orphans() const {
  return FilesOf(ListOf([&](char* buffer, std::uint32_t* size) {
    return KQImageFilesEnumerationQueryAllOrphans(handle_, kSeparator.data(), kListFlags, buffer,
                                                  size);
  }));
}

std::vector<LeftOutFile> Catalogue::LeftOut() const {
  std::set<std::string> known;
  for (const CataloguedFile& file : Whole()) known.insert(file.path);
  for (const CataloguedFile& file : Orphans()) known.insert(file.path);
  std::set<std::string> others;
  for (const std::string& folder : folders_) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
      const std::string path = folder + entry->path().filename().string();
      std::error_code ignored;
      // A pipe or a device under such a name is never opened.
      if (HasImageName(path) && entry->is_regular_file(ignored) && !known.contains(path)) {
        others.insert(path);
      }
    }
  }
  std::vector<LeftOutFile> leftOut;
  leftOut.reserve(others.size());
  for (const std::string& path : others) leftOut.push_back({path, WhyLeftOut(path)});
  return leftOut;
}

}  // namespace kqimage
