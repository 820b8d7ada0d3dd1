#include "kqimage/verify/verify_members.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <span>
#include <utility>

#include "kqimage/image/catalogue.h"
#include "kqimage/image/chain_finder.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr ImageId kNoImage = {};

MissingFile Missing(DamageKind kind, const ImageId& image, std::string text) {
  return {.damage = {.kind = kind,
                     .text = std::move(text),
                     .chunk = {},
                     .fileOffset = {},
                     .closesChain = true},
          .image = image};
}

void AppendPaths(const std::vector<CataloguedFile>& files, std::vector<std::string>& paths) {
  for (const CataloguedFile& file : files) {
    paths.push_back(file.path);
    paths.insert(paths.end(), file.parts.begin(), file.parts.end());
  }
}

// Walks from an image to its base through whatever files there are.
class Walk {
 public:
  Walk(LayoutStore& store, std::span<const std::string> paths) : store_(store) {
    for (const std::string& path : paths) {
      try {
        const std::size_t file = store_.Get(path);
        if (store_.At(file).hasHeader) candidates_.push_back(file);
      } catch (const Failure&) {
        // What can't be opened can't be part of the chain.
      }
    }
  }

  VerifiedChain From(const std::string& image) {
    VerifiedChain chain;
    chain.image = image;
    std::size_t at = store_.Get(image);
    if (!store_.At(at).hasHeader) {
      chain.files = {at};
      return chain;
    }
    std::set<ImageId> seen;
    while (seen.insert(IdOf(at)).second) {
      AddParts(at, at == store_.Get(image), chain);
      const ImageId parent = ParentOf(at);
      if (parent == kNoImage) return chain;
      const auto next = Find([&](std::size_t file) { return IdOf(file) == parent; });
      if (!next) {
        chain.missing.push_back(Missing(
            DamageKind::kMissingParent, IdOf(at),
            fmt::format("the parent of {} is missing: the image {}", Printable(store_.At(at).path),
                        GuidText(store_.At(at).header.ParentImageId))));
        return chain;
      }
      at = *next;
    }
    chain.missing.push_back(
        Missing(DamageKind::kMissingParent, IdOf(at),
                fmt::format("the image {} is its own ancestor", Printable(store_.At(at).path))));
    return chain;
  }

 private:
  ImageId IdOf(std::size_t file) const { return ImageIdOf(store_.At(file).header.ImageId); }
  ImageId ParentOf(std::size_t file) const {
    return ImageIdOf(store_.At(file).header.ParentImageId);
  }

  // The first that fits, of those that open if there is one.
  template <class Fits>
  std::optional<std::size_t> Find(const Fits& fits) const {
    std::optional<std::size_t> found;
    for (const std::size_t file : candidates_) {
      if (!fits(file)) continue;
      if (store_.At(file).Opens()) return file;
      if (!found) found = file;
    }
    return found;
  }

  // Puts all parts of the image in front of the chain.
  void AddParts(std::size_t sibling, bool isNamed, VerifiedChain& chain) {
    std::vector<std::size_t> parts;
    std::set<std::uint32_t> present = {PartOf(sibling)};
    bool knowsLast = false;
    for (const std::size_t file : candidates_) {
      if (IsPart(file, sibling)) present.insert(PartOf(file));
    }
    const std::uint32_t last = *present.rbegin();
    for (std::uint32_t part = 0; part <= last && !knowsLast; ++part) {
      const auto fits = [&](std::size_t file) {
        return PartOf(file) == part && IsPart(file, sibling);
      };
      const std::optional<std::size_t> found =
          isNamed && PartOf(sibling) == part ? std::optional(sibling) : Find(fits);
      if (!found) {
        AddMissingPart(sibling, part, chain);
        // To the next that is there; a damaged header can tell any number.
        part = *present.lower_bound(part) - 1;
        continue;
      }
      parts.push_back(*found);
      const std::optional<bool> isLast = store_.At(*found).isLastPart;
      knowsLast = isLast.value_or(false);
      if (part == last && isLast && !*isLast) AddMissingPart(sibling, part + 1, chain);
    }
    chain.files.insert(chain.files.begin(), parts.begin(), parts.end());
  }

  std::uint32_t PartOf(std::size_t file) const { return store_.At(file).header.PartIndex; }
  bool IsPart(std::size_t file, std::size_t sibling) const {
    return IdOf(file) == IdOf(sibling) && ParentOf(file) == ParentOf(sibling);
  }

  void AddMissingPart(std::size_t sibling, std::uint32_t part, VerifiedChain& chain) const {
    chain.missing.push_back(
        Missing(DamageKind::kMissingPart, IdOf(sibling),
                fmt::format("part number {} of the image {} is missing", std::uint64_t{part} + 1,
                            Printable(store_.At(sibling).path))));
  }

  LayoutStore& store_;
  std::vector<std::size_t> candidates_;
};

}  // namespace

std::size_t LayoutStore::Get(const std::string& path) {
  const auto identity = IdentityOf(path);
  if (identity) {
    const auto found = known_.find(*identity);
    if (found != known_.end()) return found->second;
  }
  layouts_.push_back(ReadLayout(path));
  const std::size_t place = layouts_.size() - 1;
  if (identity) known_.emplace(*identity, place);
  return place;
}

std::vector<std::string> FamilyFolders(const std::string& file,
                                       const std::vector<std::string>& others) {
  std::error_code error;
  const std::filesystem::path real = std::filesystem::canonical(file, error);
  if (error) FailErrno(error.value(), "find", file);
  std::vector<std::string> folders = {real.parent_path().string()};
  if (std::filesystem::is_symlink(file, error)) {
    const std::string folder = std::filesystem::path(file).parent_path().string();
    folders.push_back(folder.empty() ? "." : folder);
  }
  folders.insert(folders.end(), others.begin(), others.end());
  return folders;
}

VerifiedChain FindVerifiedChain(const std::string& image, const std::vector<std::string>& folders,
                                LayoutStore& store) {
  const std::size_t place = store.Get(image);
  const ImageLayout& named = store.At(place);
  const bool isAlone =
      !named.hasHeader || (ImageIdOf(named.header.ParentImageId) == kNoImage &&
                           named.header.PartIndex == 0 && named.isLastPart == true);
  if (isAlone) return Walk(store, {}).From(image);

  // What restore and increment would take, if they find a chain at all.
  std::vector<std::string> paths;
  try {
    for (const ImageFile& file : FindChain(image, folders)) paths.push_back(file.path);
    return Walk(store, paths).From(image);
  } catch (const Failure&) {
    paths.clear();
  }
  Catalogue catalogue;
  for (const std::string& folder : FamilyFolders(image, folders)) catalogue.Add(folder);
  AppendPaths(catalogue.Whole(), paths);
  AppendPaths(catalogue.Orphans(), paths);
  const std::vector<LeftOutFile> leftOut = catalogue.LeftOut();
  for (const LeftOutFile& file : leftOut) paths.push_back(file.path);
  VerifiedChain chain = Walk(store, paths).From(image);
  if (chain.missing.empty()) return chain;
  for (const LeftOutFile& file : leftOut) {
    const auto isUsed = [&](std::size_t used) {
      return IdentityOf(store.At(used).path) == IdentityOf(file.path);
    };
    if (std::none_of(chain.files.begin(), chain.files.end(), isUsed)) {
      chain.notes.push_back(fmt::format("{} can't be used: {}", Printable(file.path), file.why));
    }
  }
  chain.notes.insert(chain.notes.end(), catalogue.Problems().begin(), catalogue.Problems().end());
  return chain;
}

std::vector<std::string> FindDependents(const std::vector<ImageId>& ids,
                                        const std::vector<std::string>& folders,
                                        const LayoutStore& store) {
  struct Member {
    std::string path;
    ImageId id;
    ImageId parent;
    std::uint32_t part;
  };
  std::vector<Member> members;
  std::set<FileIdentity> seen;
  const auto add = [&](const std::string& path, const ImageHeader& header) {
    const auto identity = IdentityOf(path);
    if (!identity || !seen.insert(*identity).second) return;
    members.push_back(
        {path, ImageIdOf(header.ImageId), ImageIdOf(header.ParentImageId), header.PartIndex});
  };
  for (const ImageLayout& layout : store.All()) {
    if (layout.hasHeader) add(layout.path, layout.header);
  }
  Catalogue catalogue;
  for (const std::string& folder : folders) catalogue.Add(folder);
  std::vector<std::string> paths;
  AppendPaths(catalogue.Whole(), paths);
  AppendPaths(catalogue.Orphans(), paths);
  for (const std::string& path : paths) {
    ImageFileInfo info = {};
    if (KQImageFileGetInfo(path.c_str(), &info).status != KQ_STATUS_SUCCESS) continue;
    const auto identity = IdentityOf(path);
    if (!identity || !seen.insert(*identity).second) continue;
    members.push_back(
        {path, ImageIdOf(info.imageId), ImageIdOf(info.parentImageId), info.partIndex});
  }
  const std::set<ImageId> damaged(ids.begin(), ids.end());
  std::set<ImageId> reached = damaged;
  for (bool hasGrown = true; hasGrown;) {
    hasGrown = false;
    for (const Member& member : members) {
      if (reached.contains(member.parent) && reached.insert(member.id).second) hasGrown = true;
    }
  }
  std::vector<std::string> dependents;
  for (const Member& member : members) {
    if (member.part != 0 || damaged.contains(member.id) || !reached.contains(member.id)) continue;
    dependents.push_back(member.path);
  }
  std::sort(dependents.begin(), dependents.end());
  return dependents;
}

}  // namespace kqimage
