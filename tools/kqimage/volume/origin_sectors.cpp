// The header sectors that tell a volume's origin.

#include <kqimageformat.h>

#include <algorithm>
#include <cstring>

#include "kqimage/terminal/text.h"
#include "kqimage/volume/volume_origin.h"

namespace kqimage {
namespace {

constexpr std::uint32_t kPresent = 0xFFFFFFFF;
constexpr std::uint32_t kNoPartition = 0xFFFFFFFF;

// Units with the NUL: together they fit in the smallest sector, and each in the field that
// KQImageFileGetInfoProtected has for it.
constexpr std::size_t kLabelUnits = 128;
constexpr std::size_t kNameUnits = 32;
constexpr std::size_t kDiskUnits = 64;
static_assert(sizeof(ProtectedSector) + 2 * (kLabelUnits + kNameUnits + kDiskUnits + 1) <= 512);

class TextWriter {
 public:
  explicit TextWriter(std::span<std::byte> place) : place_(place) {}

  // Puts the text, cut to fewer units than most, and its NUL.
  void Put(const std::string& text, std::size_t most) {
    std::vector<std::uint16_t> units = Utf16FromUtf8(text);
    if (units.size() >= most) {
      units.resize(most - 1);
      const bool endsInHalf = (units.back() & 0xFC00) == 0xD800;
      if (endsInHalf) units.pop_back();
    }
    units.push_back(0);
    const auto bytes = std::as_bytes(std::span(units));
    std::copy(bytes.begin(), bytes.end(), place_.begin());
    place_ = place_.subspan(bytes.size());
  }

 private:
  std::span<std::byte> place_;
};

}  // namespace

std::vector<std::byte> OriginSectors(const VolumeOrigin& origin, std::uint32_t sectorSize) {
  const FileSystem& fileSystem = origin.fileSystem;
  if (origin.disk.empty() && fileSystem.name.empty() && fileSystem.label.empty()) return {};
  const bool hasTables = origin.tables && origin.tables->sectorSize == sectorSize;
  ProtectedSector fields = {};
  fields.PartitionNumber = kNoPartition;
  if (!origin.disk.empty()) fields.DiskInfoPresent = kPresent;
  if (hasTables) {
    fields.PartitionStyle = origin.tables->style;
    fields.PartitionNumber = origin.partition->ordinal;
  } else if (origin.partition) {
    fields.PartitionNumber = origin.partition->number;
  }
  std::vector<std::byte> sectors(sectorSize);
  std::memcpy(sectors.data(), &fields, sizeof fields);
  TextWriter texts{std::span(sectors).subspan(sizeof fields)};
  texts.Put(fileSystem.label, kLabelUnits);
  texts.Put(fileSystem.name, kNameUnits);
  texts.Put(origin.disk, kDiskUnits);
  if (hasTables) {
    sectors.insert(sectors.end(), origin.tables->copy.begin(), origin.tables->copy.end());
  }
  return sectors;
}

}  // namespace kqimage
