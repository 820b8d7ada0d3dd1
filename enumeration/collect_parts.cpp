#include <optional>

#include "enumeration/enumerated_image.h"

namespace kq {
namespace {

constexpr const char* kSuffixes[] = {".TW", ".tw", ".Tw", ".tW"};

struct FoundPart {
  std::string name;
  ImageFileInfo2 info;
};

// Looks for a part under all names that it can have: for each case of the suffix behind the name
// without its extension, and behind the whole name.
std::optional<FoundPart> FindPart(const EnumeratedFile& file, std::uint32_t partNumber) {
  const std::string stem = file.name.substr(0, file.name.rfind('.'));
  for (const char* suffix : kSuffixes) {
    const std::string numbered = suffix + std::to_string(partNumber);
    FoundPart part{stem + numbered, {}};
    // Whatever is wrong with a file under the shorter name, the part may have the longer one.
    if (!Failed(ReadImageInfo(*file.directory, part.name, &part.info))) return part;
    part.name = file.name + numbered;
    const KQStatus status = ReadImageInfo(*file.directory, part.name, &part.info);
    if (!Failed(status)) return part;
    // Only a missing file is a reason to go on; one that can't be read is the part, and bad.
    if (status.status != KQ_STATUS_FILE_NOT_FOUND) return std::nullopt;
  }
  return std::nullopt;
}

}  // namespace

void CollectParts(EnumeratedFile* file) {
  for (std::uint32_t partNumber = 1;; ++partNumber) {
    std::optional<FoundPart> found = FindPart(*file, partNumber);
    if (!found || !IsFitForEnumeration(found->info) || found->info.basic.partIndex != partNumber) {
      break;
    }
    std::unique_ptr<EnumeratedFile> part =
        MakeEnumeratedFile(*file->directory, std::move(found->name), found->info);
    if (part->imageId != file->imageId || part->parentImageId != file->parentImageId ||
        part->imageSetId != file->imageSetId) {
      break;
    }
    part->generation = file->generation;
    part->nextGeneration = file->nextGeneration;
    const bool isLast = part->lastPart != 0;
    file->parts.push_back(std::move(part));
    if (isLast) return;
  }
  file->isIncomplete = true;
}

}  // namespace kq
