#include "kqimage/image/chain_finder.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <utility>

#include "kqimage/image/catalogue.h"
#include "kqimage/system/file_identity.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

using Id = std::uint8_t[16];

bool SameId(const Id& a, const Id& b) { return std::memcmp(a, b, sizeof(Id)) == 0; }

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

// The files, each once if several paths lead to it. What has become unreadable is left out.
std::vector<ImageFile> ReadFiles(const std::vector<std::string>& paths) {
  std::set<FileIdentity> seen;
  std::vector<ImageFile> files;
  for (const std::string& path : paths) {
    const auto identity = IdentityOf(path);
    if (!identity || !seen.insert(*identity).second) continue;
    std::string why;
    if (auto file = TryReadImageFile(path, why)) files.push_back(*std::move(file));
  }
  return files;
}

void AppendPaths(const std::vector<CataloguedFile>& files, std::vector<std::string>& paths) {
  for (const CataloguedFile& file : files) {
    paths.push_back(file.path);
    paths.insert(paths.end(), file.parts.begin(), file.parts.end());
  }
}

std::optional<Chain> TryAssemble(const ImageFile& newest, const std::vector<std::string>& paths) {
  try {
    return AssembleChain(newest, ReadFiles(paths), "");
  } catch (const Failure&) {
    return std::nullopt;
  }
}

std::vector<std::string> FoldersOf(const std::string& newest,
                                   const std::vector<std::string>& others) {
  std::error_code error;
  const std::filesystem::path real = std::filesystem::canonical(newest, error);
  if (error) FailErrno(error.value(), "find", newest);
  std::vector<std::string> folders = {real.parent_path().string()};
  // A folder of links may hold the rest of the chain beside the link.
  if (std::filesystem::is_symlink(newest, error)) {
    const std::string folder = std::filesystem::path(newest).parent_path().string();
    folders.push_back(folder.empty() ? "." : folder);
  }
  folders.insert(folders.end(), others.begin(), others.end());
  return folders;
}

std::string WhereText(const std::vector<std::string>& folders) {
  std::string text = folders.size() == 1 ? "in the folder " : "in the folders ";
  for (std::size_t i = 0; i < folders.size(); ++i) {
    text += (i == 0 ? "" : ", ") + Printable(folders[i]);
  }
  return text;
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

Chain FindChain(const std::string& newest, const std::vector<std::string>& otherFolders) {
  const ImageFile file = ReadImageFile(newest);
  if (IsBase(file.info) && file.info.partIndex == 0 && file.info.lastPart != 0) return {file};

  const std::vector<std::string> folders = FoldersOf(newest, otherFolders);
  Catalogue catalogue;
  for (const std::string& folder : folders) catalogue.Add(folder);
  if (auto chain = TryAssemble(file, catalogue.ChainOf(newest))) return *std::move(chain);

  // The catalogue's chain can pass an incomplete copy of an image although there is a complete one,
  // and it knows only files that are named as images, so that a chain can't be asked for by a later
  // part of a split image.
  std::vector<std::string> paths;
  AppendPaths(catalogue.Whole(), paths);
  if (auto chain = TryAssemble(file, paths)) return *std::move(chain);

  AppendPaths(catalogue.Orphans(), paths);
  try {
    return AssembleChain(file, ReadFiles(paths), WhereText(folders));
  } catch (const Failure& failure) {
    std::string message = failure.what();
    for (const std::string& problem : catalogue.Problems()) message += "; " + problem;
    const std::vector<LeftOutFile> leftOut = catalogue.LeftOut();
    if (!leftOut.empty()) message += "; these files can't be used:";
    for (const LeftOutFile& other : leftOut) {
      message += fmt::format("\n  {}: {}", Printable(other.path), other.why);
    }
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
