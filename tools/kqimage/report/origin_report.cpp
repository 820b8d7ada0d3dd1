#include "kqimage/report/origin_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <nlohmann/json.hpp>

#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr std::uint32_t kNoPartition = 0xFFFFFFFF;

// The text that a packed pointer leads to.
std::string TextAt(const std::uint16_t* text) {
  std::size_t length = 0;
  while (text[length] != 0) ++length;
  return Utf8FromUtf16({text, length});
}

// The header's sectors behind the one that describes the volume, up to those that are no tables.
std::vector<std::byte> TableCopy(const std::string& path, const char* password,
                                 const ProtectedInfoEx& info, std::uint32_t sectorSize) {
  std::uint32_t size = info.extraBytes;
  std::vector<std::byte> copy(size);
  if (size == 0) return copy;
  Check(KQImageFileGetExtraSectors(path.c_str(), password, copy.data(), &size),
        "read the partition tables in", path);
  const std::uint64_t trailing = std::uint64_t{info.trailingSectors} * sectorSize;
  copy.resize(trailing < copy.size() ? copy.size() - trailing : 0);
  return copy;
}

// The library takes the last one for the number 0.
std::optional<DiskPartition> FindByOrdinal(const DiskTables& tables, std::uint32_t ordinal) {
  for (const DiskPartition& partition : tables.partitions) {
    if (partition.ordinal == ordinal) return partition;
  }
  if (ordinal == 0 && !tables.partitions.empty()) return tables.partitions.back();
  return std::nullopt;
}

const char* StyleName(std::uint32_t style) {
  switch (style) {
    case kStyleNone:
      return "none";
    case kStyleMbr:
      return "mbr";
    case kStyleGpt:
      return "gpt";
    default:
      return "unknown";
  }
}

std::string NameOf(const ProtectedInfoEx& info) {
  std::array<std::uint16_t, sizeof info.name / sizeof info.name[0]> name = {};
  std::memcpy(name.data(), info.name, sizeof name);
  return Utf8FromUtf16(name);
}

bool HasGptPartition(const ProtectedInfoEx& info) {
  return info.partitionStyle == kStyleGpt && info.partitionFound != 0;
}

std::string DiskText(const OriginReport& report) {
  const ProtectedInfoEx& info = report.info;
  std::string text = report.disk.empty() ? "of unknown name" : Printable(report.disk);
  if (info.tableFound == 0) {
    return text + (info.partitionStyle == kStyleNone ? ", without its tables"
                                                     : ", whose tables are damaged");
  }
  if (info.partitionStyle == kStyleGpt) {
    return text + fmt::format(" (GPT, {})", GuidText(info.disk.gptDiskGuid));
  }
  return text + fmt::format(" (MBR, signature 0x{:08x})", info.disk.mbr.diskSignature);
}

void AddGptLines(const ProtectedInfoEx& info, LabelledLines& lines) {
  lines.emplace_back("Partition type", GuidText(info.typeGuid));
  lines.emplace_back("Partition id", GuidText(info.uniqueGuid));
  const std::string name = NameOf(info);
  if (!name.empty()) lines.emplace_back("Partition name", Printable(name));
  if (info.attributes != 0) {
    lines.emplace_back("Attributes", fmt::format("0x{:016x}", std::uint64_t{info.attributes}));
  }
}

std::string PlaceText(std::uint32_t number, std::uint64_t length, std::uint64_t offset) {
  return fmt::format("{}, {} at byte {}", number, ExactSizeText(length), offset);
}

nlohmann::ordered_json PartitionJson(const OriginReport& report) {
  const ProtectedInfoEx& info = report.info;
  if (report.partition) {
    const DiskPartition& partition = *report.partition;
    return {{"number", partition.number},     {"offset", partition.offset},
            {"size", partition.length},       {"type", fmt::format("{:x}", partition.type)},
            {"isActive", partition.isActive}, {"isLogical", partition.isLogical}};
  }
  if (!HasGptPartition(info)) return nullptr;
  return {{"number", std::uint32_t{info.partitionNumber}},
          {"offset", std::uint64_t{info.partitionOffset}},
          {"size", std::uint64_t{info.partitionLength}},
          {"type", GuidText(info.typeGuid)},
          {"id", GuidText(info.uniqueGuid)},
          {"name", NameOf(info)},
          {"attributes", std::uint64_t{info.attributes}}};
}

nlohmann::ordered_json TableJson(const ProtectedInfoEx& info) {
  if (info.tableFound == 0) return nullptr;
  if (info.partitionStyle == kStyleMbr) {
    return {{"signature", std::uint32_t{info.disk.mbr.diskSignature}}};
  }
  return {{"id", GuidText(info.disk.gptDiskGuid)},
          {"usableOffset", std::uint64_t{info.usableOffset}},
          {"usableSize", std::uint64_t{info.usableLength}},
          {"entryCount", std::uint32_t{info.entryCount}},
          {"hasProtectiveMbr", info.protectiveMbr != 0}};
}

}  // namespace

std::optional<OriginReport> ReadOrigin(const std::string& path, const char* password) {
  ImageFileInfo2 header = {};
  Check(KQImageFileGetInfo2(path.c_str(), &header), "read the image", path);
  if (header.headerSectors < 2) return std::nullopt;
  std::uint32_t size = 0;
  const KQStatus asked = KQImageFileGetInfoProtectedEx(path.c_str(), password, 0, nullptr, &size);
  if (asked.status != KQ_STATUS_MORE_DATA) Check(asked, "read the volume's origin in", path);
  std::vector<std::byte> place(std::max<std::size_t>(size, sizeof(ProtectedInfoEx)));
  auto* const found = reinterpret_cast<ProtectedInfoEx*>(place.data());
  Check(KQImageFileGetInfoProtectedEx(path.c_str(), password, 0, found, &size),
        "read the volume's origin in", path);
  OriginReport report = {.info = *found,
                         .label = TextAt(found->firstText),
                         .fileSystem = TextAt(found->secondText),
                         .disk = TextAt(found->thirdText),
                         .list = TextAt(found->list)};
  if (found->diskInfoPresent != 0 && found->partitionStyle == kStyleMbr && found->tableFound != 0) {
    const std::vector<std::byte> copy = TableCopy(path, password, *found, header.basic.sectorSize);
    if (const auto tables = ParseMbrCopy(copy, header.basic.sectorSize)) {
      report.partition = FindByOrdinal(*tables, found->partitionNumber);
    }
  }
  return report;
}

LabelledLines OriginLines(const OriginReport& report) {
  const ProtectedInfoEx& info = report.info;
  LabelledLines lines;
  if (!report.label.empty()) lines.emplace_back("Volume label", Printable(report.label));
  if (!report.fileSystem.empty()) lines.emplace_back("File system", Printable(report.fileSystem));
  if (info.diskInfoPresent == 0) return lines;
  lines.emplace_back("Disk", DiskText(report));
  if (report.partition) {
    const DiskPartition& partition = *report.partition;
    lines.emplace_back("Partition",
                       PlaceText(partition.number, partition.length, partition.offset));
    lines.emplace_back("Partition type", fmt::format("0x{:02x}{}{}", partition.type,
                                                     partition.isLogical ? ", logical" : "",
                                                     partition.isActive ? ", active" : ""));
  } else if (HasGptPartition(info)) {
    lines.emplace_back("Partition",
                       PlaceText(info.partitionNumber, info.partitionLength, info.partitionOffset));
    AddGptLines(info, lines);
  } else if (info.partitionNumber != kNoPartition) {
    lines.emplace_back("Partition", fmt::format("{}", std::uint32_t{info.partitionNumber}));
  }
  return lines;
}

nlohmann::ordered_json OriginJson(const OriginReport& report) {
  const ProtectedInfoEx& info = report.info;
  nlohmann::ordered_json json = {{"label", report.label},
                                 {"fileSystem", report.fileSystem},
                                 {"disk", report.disk},
                                 {"list", report.list},
                                 {"volumeValue1", std::uint32_t{info.volumeValue1}},
                                 {"volumeValue2", std::uint32_t{info.volumeValue2}},
                                 {"volumeValue3", std::uint32_t{info.volumeValue3}},
                                 {"volumeValue4", std::uint32_t{info.volumeValue4}},
                                 {"volumeValue5", std::uint32_t{info.volumeValue5}},
                                 {"volumeValue6", std::uint16_t{info.volumeValue6}},
                                 {"extraBytes", std::uint32_t{info.extraBytes}},
                                 {"trailingSectors", std::uint32_t{info.trailingSectors}},
                                 {"hasDiskInfo", info.diskInfoPresent != 0}};
  for (const char* key : {"diskValue1", "diskValue2", "diskValue3", "partitionStyle",
                          "partitionNumber", "table", "partition"}) {
    json[key] = nullptr;
  }
  if (info.diskInfoPresent == 0) return json;
  json["diskValue1"] = std::uint64_t{info.diskValue1};
  json["diskValue2"] = std::uint32_t{info.diskValue2};
  json["diskValue3"] = std::uint32_t{info.diskValue3};
  json["partitionStyle"] = StyleName(info.partitionStyle);
  json["partitionNumber"] = std::uint32_t{info.partitionNumber};
  json["table"] = TableJson(info);
  json["partition"] = PartitionJson(report);
  return json;
}

}  // namespace kqimage
