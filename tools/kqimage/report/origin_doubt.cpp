#include "kqimage/report/origin_doubt.h"

#include <fmt/format.h>
#include <kqimageformat.h>

#include <algorithm>
#include <cstring>
#include <span>

#include "kqimage/report/origin_report.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

using Guid = std::uint8_t[16];

constexpr std::size_t kSignatureAt = 440;  // in an MBR
constexpr std::size_t kEntryBytesAt = 84;  // in a GPT header
constexpr std::size_t kUniqueGuidAt = 16;  // in an entry

std::string MbrName(std::uint32_t signature, std::uint64_t offset) {
  return fmt::format("the partition at byte {} of the disk with the signature 0x{:08x}", offset,
                     signature);
}

std::string GptName(const Guid& id) {
  return fmt::format("the partition with the id {}", GuidText(id));
}

std::uint32_t LoadU32(std::span<const std::byte> bytes) {
  std::uint32_t value = 0;
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

std::optional<std::string> NameIn(const DiskTables& tables, const DiskPartition& partition) {
  const std::span<const std::byte> copy(tables.copy);
  const std::uint64_t sector = tables.sectorSize;
  if (copy.size() < 2 * sector && tables.style == kStyleGpt) return std::nullopt;
  if (tables.style == kStyleGpt) {
    const std::uint64_t entryBytes = LoadU32(copy.subspan(sector + kEntryBytesAt));
    const std::uint64_t at = 2 * sector + (partition.ordinal - 1) * entryBytes + kUniqueGuidAt;
    Guid id = {};
    if (partition.ordinal == 0 || at > copy.size() || copy.size() - at < sizeof id) {
      return std::nullopt;
    }
    std::memcpy(id, copy.data() + at, sizeof id);
    return GptName(id);
  }
  if (copy.size() < sector) return std::nullopt;
  return MbrName(LoadU32(copy.subspan(kSignatureAt)), partition.offset);
}

std::optional<std::string> NameIn(const OriginReport& report) {
  const ProtectedInfoEx& info = report.info;
  if (info.diskInfoPresent == 0 || info.tableFound == 0) return std::nullopt;
  if (info.partitionStyle == kStyleMbr && report.partition) {
    return MbrName(info.disk.mbr.diskSignature, report.partition->offset);
  }
  if (info.partitionStyle != kStyleGpt || info.partitionFound == 0) return std::nullopt;
  Guid id = {};
  std::memcpy(id, info.uniqueGuid, sizeof id);
  return GptName(id);
}

std::optional<OriginReport> OriginIn(const std::string& image, const char* password) {
  try {
    return ReadOrigin(image, password);
  } catch (const Failure&) {
    return std::nullopt;  // a header that doesn't tell it says nothing against the volume
  }
}

}  // namespace

std::optional<std::string> OriginDoubt(const std::string& image, const char* password,
                                       const VolumeOrigin& origin) {
  if (!origin.tables || !origin.partition) return std::nullopt;
  const auto report = OriginIn(image, password);
  if (!report) return std::nullopt;
  const auto before = NameIn(*report);
  const auto now = NameIn(*origin.tables, *origin.partition);
  if (!before || !now || *before == *now) return std::nullopt;
  return fmt::format("it is {}, and {} was made of {}", *now, Printable(image), *before);
}

}  // namespace kqimage
