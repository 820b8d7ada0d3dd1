#include "kqimage/chain_finder.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <set>
#include <utility>

#include "kqimage/failure.h"
#include "kqimage/file_identity.h"
#include "kqimage/text.h"

namespace kqimage {
namespace {

using Id = std::uint8_t[16];

bool SameId(const Id& a, const Id& b) { return std::memcmp(a, b, sizeof(Id)) == 0; }

// .twf and .twi, and the names of further parts of a split image: .tw1, .tw2, ...
bool HasImageExtension(const std::filesystem::path& path) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (extension == ".twf" || extension == ".twi") return true;
  return extension.size() > 3 && extension.starts_with(".tw") &&
         std::all_of(extension.begin() + 3, extension.end(),
                     [](unsigned char c) { return std::isdigit(c) != 0; });
}

std::string KindText(const ImageFileInfo& info) {
  return IsBase(info) ? "full image" : "increment";
}

// The file with the given part of an image. The file that was named wins over its copies.
const ImageFile& FindPart(const ImageFile& sibling, std::uint32_t part, const ImageFile& newest,
                          std::span<const ImageFile> candidates, const std::string& where) {
  const auto fits = [&](const ImageFile& file) {
    return file.info.partIndex == part && SameId(file.info.imageId, sibling.info.imageId) &&
           SameId(file.info.parentImageId, sibling.info.parentImageId);
  };
  if (fits(newest)) return newest;
  const ImageFile* found = nullptr;
  for (const ImageFile& file : candidates) {
    if (!fits(file)) continue;
    if (found != nullptr) {
      throw Failure(fmt::format(
          "{} and {} are the same image ({}): name all files of the chain to say which one counts",
          Printable(found->path), Printable(file.path), GuidText(file.info.imageId)));
    }
    found = &file;
  }
  if (found == nullptr) {
    throw Failure(fmt::format("part number {} of the image {} is missing: no file {} holds it",
                              part + 1, Printable(sibling.path), where));
  }
  return *found;
}

// All parts of the image that sibling belongs to, in order.
Chain FindParts(const ImageFile& sibling, const ImageFile& newest,
                std::span<const ImageFile> candidates, const std::string& where) {
  Chain parts;
  do {
    parts.push_back(
        FindPart(sibling, static_cast<std::uint32_t>(parts.size()), newest, candidates, where));
  } while (parts.back().info.lastPart == 0);
  return parts;
}

// The image files of a folder, those first-named that are the same file under several names.
std::vector<ImageFile> ReadFolder(const std::filesystem::path& folder, const std::string& named,
                                  std::vector<std::string>& unreadable) {
  std::vector<std::string> paths;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code ignored;
    // A pipe or a device under such a name is never opened.
    if (!HasImageExtension(entry->path()) || !entry->is_regular_file(ignored)) continue;
    paths.push_back(entry->path().string());
  }
  if (error) FailErrno(error.value(), "search the folder", folder.string());
  std::sort(paths.begin(), paths.end());

  std::set<FileIdentity> seen;
  if (const auto identity = IdentityOf(named)) seen.insert(*identity);
  std::vector<ImageFile> files;
  for (const std::string& path : paths) {
    const auto identity = IdentityOf(path);
    if (!identity || !seen.insert(*identity).second) continue;
    std::string why;
    if (auto file = TryReadImageFile(path, why)) {
      files.push_back(*std::move(file));
    } else {
      unreadable.push_back(fmt::format("{}: {}", Printable(path), why));
    }
  }
  return files;
}

}  // namespace

Chain AssembleChain(const ImageFile& newest, std::span<const ImageFile> candidates,
                    const std::string& where) {
  Chain chain;
  std::vector<const ImageFile*> images;  // one file of each image so far
  const ImageFile* image = &newest;
  while (true) {
    const bool isCircle = std::any_of(images.begin(), images.end(), [&](const ImageFile* other) {
      return SameId(other->info.imageId, image->info.imageId);
    });
    if (isCircle) {
      throw Failure(fmt::format("the image {} is its own ancestor: its header is damaged",
                                Printable(image->path)));
    }
    images.push_back(image);
    const Chain parts = FindParts(*image, newest, candidates, where);
    chain.insert(chain.begin(), parts.begin(), parts.end());
    if (IsBase(image->info)) return chain;

    const auto isParent = [&](const ImageFile& file) {
      return SameId(file.info.imageId, image->info.parentImageId);
    };
    if (isParent(newest)) {
      image = &newest;
      continue;
    }
    const auto parent = std::find_if(candidates.begin(), candidates.end(), isParent);
    if (parent == candidates.end()) {
      throw Failure(fmt::format("the parent of {} is missing: no file {} is the image {}",
                                Printable(image->path), where,
                                GuidText(image->info.parentImageId)));
    }
    image = &*parent;
  }
}

Chain FindChain(const std::string& newest) {
  const ImageFile file = ReadImageFile(newest);
  if (IsBase(file.info) && file.info.partIndex == 0 && file.info.lastPart != 0) return {file};

  std::filesystem::path folder = std::filesystem::path(newest).parent_path();
  if (folder.empty()) folder = ".";
  std::vector<std::string> unreadable;
  const std::vector<ImageFile> candidates = ReadFolder(folder, newest, unreadable);
  try {
    return AssembleChain(file, candidates,
                         fmt::format("in the folder {}", Printable(folder.string())));
  } catch (const Failure& failure) {
    if (unreadable.empty()) throw;
    std::string message = failure.what();
    message += "; these files of the folder can't be read:";
    for (const std::string& line : unreadable) message += "\n  " + line;
    throw Failure(message);
  }
}

Chain OrderChain(const std::vector<std::string>& paths) {
  std::vector<ImageFile> files;
  files.reserve(paths.size());
  for (const std::string& path : paths) files.push_back(ReadImageFile(path));
  for (auto file = files.begin(); file != files.end(); ++file) {
    const auto identity = IdentityOf(file->path);
    const auto twin = std::find_if(files.begin(), file, [&](const ImageFile& other) {
      return identity && IdentityOf(other.path) == identity;
    });
    if (twin != file) {
      throw UsageFailure(fmt::format("{} is given twice", Printable(file->path)));
    }
  }

  // The newest image is the one that is nobody's parent.
  const ImageFile* newest = nullptr;
  for (const ImageFile& file : files) {
    const bool isParent = std::any_of(files.begin(), files.end(), [&](const ImageFile& other) {
      return SameId(other.info.parentImageId, file.info.imageId);
    });
    if (isParent) continue;
    if (newest != nullptr && !SameId(newest->info.imageId, file.info.imageId)) {
      throw Failure(fmt::format("{} and {} do not belong to one chain: neither follows the other",
                                Printable(newest->path), Printable(file.path)));
    }
    newest = &file;
  }
  if (newest == nullptr) {
    throw Failure("the files form a circle: each is the parent of another");
  }

  Chain chain = AssembleChain(*newest, files, "among those given");
  for (const ImageFile& file : files) {
    const bool isUsed = std::any_of(chain.begin(), chain.end(),
                                    [&](const ImageFile& used) { return used.path == file.path; });
    if (!isUsed) {
      throw Failure(fmt::format("the {} {} does not belong to the chain of {}", KindText(file.info),
                                Printable(file.path), Printable(newest->path)));
    }
  }
  return chain;
}

}  // namespace kqimage
