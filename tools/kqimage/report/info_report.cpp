#include "kqimage/report/info_report.h"

#include <fmt/format.h>
#include <kqimageformat.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>

#include "kqimage/image/image_file.h"
#include "kqimage/terminal/json_path.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

using Id = std::uint8_t[16];

bool IsZeroId(const Id& id) {
  return std::all_of(std::begin(id), std::end(id), [](std::uint8_t byte) { return byte == 0; });
}

std::string KindName(const ImageFileInfo& info) { return IsBase(info) ? "full" : "incremental"; }

class Lines {
 public:
  void Add(std::string_view label, const std::string& value) {
    text_ += fmt::format("{:<18}{}\n", label, value);
  }
  void AddIfNotZero(std::string_view label, std::uint64_t value) {
    if (value != 0) Add(label, fmt::format("{} (0x{:x})", value, value));
  }
  void AddIfNotZero(std::string_view label, const Id& bytes) {
    if (!IsZeroId(bytes)) Add(label, HexText(bytes));
  }
  std::string Take() { return std::move(text_); }

 private:
  std::string text_;
};

void AddRecord(const ImageFileInfo2& info, Lines& lines) {
  if (info.recordPresent == 0) {
    lines.Add("Record", "none, so the header has no checksums");
    return;
  }
  const auto verdict = [](bool good) { return good ? "good" : "WRONG: the header is damaged"; };
  lines.Add("Header checksum", verdict(info.headerChecksumGood != 0));
  lines.Add("Extra checksum",
            info.headerSectors < 2 ? "none needed" : verdict(info.extraChecksumGood != 0));
  lines.Add("Record flags", fmt::format("0x{:08x}", info.recordFlags));
  lines.Add("File id", GuidText(info.fileUuid));
  lines.Add("Second id", GuidText(info.secondUuid));
  if (!IsZeroId(info.snapshotSetId)) lines.Add("Snapshot set", GuidText(info.snapshotSetId));
  if (!IsZeroId(info.carriedId)) lines.Add("Carried id", GuidText(info.carriedId));
  lines.AddIfNotZero("Carried value 1", info.carriedValue1);
  lines.AddIfNotZero("Carried value 2", info.carriedValue2);
  lines.AddIfNotZero("Carried value 3", info.carriedValue3);
  lines.AddIfNotZero("Carried value 4", info.carriedValue4);
  lines.AddIfNotZero("Carried value 5", info.carriedValue5);
  lines.AddIfNotZero("Carried value 6", info.carriedValue6);
  lines.AddIfNotZero("Carried value 7", info.carriedValue7);
  lines.AddIfNotZero("Carried value 8", info.carriedValue8);
  lines.AddIfNotZero("Carried value 9", info.carriedValue9);
  lines.AddIfNotZero("Carried bytes 1", info.carriedBytes1);
  lines.AddIfNotZero("Carried bytes 2", info.carriedBytes2);
}

nlohmann::ordered_json JsonRecord(const ImageFileInfo2& info) {
  if (info.recordPresent == 0) return nullptr;
  return {{"flags", std::uint32_t{info.recordFlags}},
          {"headerChecksumGood", info.headerChecksumGood != 0},
          {"extraChecksumGood", info.extraChecksumGood != 0},
          {"fileId", GuidText(info.fileUuid)},
          {"secondId", GuidText(info.secondUuid)},
          {"snapshotSetId", GuidText(info.snapshotSetId)},
          {"carriedId", GuidText(info.carriedId)},
          {"carriedValue1", std::uint64_t{info.carriedValue1}},
          {"carriedValue2", std::uint64_t{info.carriedValue2}},
          {"carriedValue3", std::uint32_t{info.carriedValue3}},
          {"carriedValue4", std::uint64_t{info.carriedValue4}},
          {"carriedValue5", std::uint32_t{info.carriedValue5}},
          {"carriedValue6", std::uint16_t{info.carriedValue6}},
          {"carriedValue7", std::uint8_t{info.carriedValue7}},
          {"carriedValue8", std::uint32_t{info.carriedValue8}},
          {"carriedValue9", std::uint64_t{info.carriedValue9}},
          {"carriedBytes1", HexText(info.carriedBytes1)},
          {"carriedBytes2", HexText(info.carriedBytes2)}};
}

nlohmann::ordered_json JsonPassword(PasswordVerdict verdict) {
  switch (verdict) {
    case PasswordVerdict::kRight:
      return "right";
    case PasswordVerdict::kUnchecked:
      return "unchecked";
    case PasswordVerdict::kDoubtful:
      return "doubtful";
    case PasswordVerdict::kNotTried:
      break;
  }
  return nullptr;
}

}  // namespace

std::string TextReport(const InfoReport& report) {
  const ImageFileInfo& basic = report.info.basic;
  Lines lines;
  lines.Add("File", Printable(report.path));
  lines.Add("File size", ExactSizeText(report.fileSize));
  lines.Add("Kind", KindName(basic) + " image");
  lines.Add("Created", TimeText(basic, TimeDetail::kSeconds));
  lines.Add("Volume size", ExactSizeText(basic.sourceSize));
  lines.Add("Sector size", fmt::format("{} bytes", basic.sectorSize));
  lines.Add("Compression",
            CompressionText(basic.compressionType) +
                (IsReadable(basic.compressionType) ? "" : ", which this program can't read back"));
  lines.Add("Encryption", EncryptionText(basic.encryptionType));
  if (report.password == PasswordVerdict::kRight) lines.Add("Password", "right");
  if (report.password == PasswordVerdict::kUnchecked) {
    lines.Add("Password", "can't be checked with this encryption");
  }
  if (report.password == PasswordVerdict::kDoubtful) {
    lines.Add("Password", "probably wrong: with it the header makes no sense");
  }
  lines.Add("Part", fmt::format("{}{}", std::uint64_t{basic.partIndex} + 1,
                                basic.lastPart != 0 ? " (the last)" : " (more follow)"));
  lines.Add("Part marker", basic.partMarker != 0 ? "set" : "not set");
  lines.Add("Image", GuidText(basic.imageId));
  lines.Add("Parent image", IsBase(basic) ? "none" : GuidText(basic.parentImageId));
  lines.Add("Image set", GuidText(basic.imageSetId));
  lines.Add("Generation", fmt::format("{}", report.info.generation));
  lines.Add("Next generation", fmt::format("{}", report.info.nextGeneration));
  lines.Add("Header sectors", fmt::format("{}", report.info.headerSectors));
  lines.Add("Flags", fmt::format("0x{:08x} (bit 0 {}, bit 2 {}, upper byte 0x{:02x})",
                                 report.info.flags, basic.flagBit0 != 0 ? "set" : "not set",
                                 basic.flagBit2 != 0 ? "set" : "not set", basic.flagByte));
  AddRecord(report.info, lines);
  if (report.origin) {
    for (const auto& [label, value] : OriginLines(*report.origin)) lines.Add(label, value);
  } else if (report.info.headerSectors > 1) {
    lines.Add("Origin", "enciphered; with the password it is shown");
  }
  const bool isEnciphered = basic.encryptionType != KQ_ENCRYPTION_NONE;
  for (const auto& [label, value] : ChainLines(report.chain, isEnciphered)) lines.Add(label, value);
  const std::string comment = Utf8FromUtf16(basic.comment);
  lines.Add("Comment", comment.empty() ? "none" : Printable(comment));
  return lines.Take();
}

std::string JsonReport(const InfoReport& report) {
  const ImageFileInfo& basic = report.info.basic;
  nlohmann::ordered_json json;
  AddPath(json, "file", report.path);
  json["fileSize"] = report.fileSize;
  json["kind"] = KindName(basic);
  json["created"] = TimeText(basic, TimeDetail::kFull);
  json["creationTime"] = std::uint64_t{basic.creationTime};
  json["timeZoneBias"] = std::int32_t{basic.timeZoneBias};
  json["daylightBias"] = std::int32_t{basic.daylightBias};
  json["volumeSize"] = std::uint64_t{basic.sourceSize};
  json["sectorSize"] = std::uint32_t{basic.sectorSize};
  json["compression"] = {{"type", std::uint32_t{basic.compressionType}},
                         {"name", CompressionText(basic.compressionType)},
                         {"isReadable", IsReadable(basic.compressionType)}};
  json["encryption"] = {{"type", std::uint32_t{basic.encryptionType}},
                        {"name", EncryptionText(basic.encryptionType)}};
  json["password"] = JsonPassword(report.password);
  json["partIndex"] = std::uint32_t{basic.partIndex};
  json["isLastPart"] = basic.lastPart != 0;
  json["partMarker"] = basic.partMarker != 0;
  json["imageId"] = GuidText(basic.imageId);
  json["parentImageId"] = nullptr;
  if (!IsBase(basic)) json["parentImageId"] = GuidText(basic.parentImageId);
  json["imageSetId"] = GuidText(basic.imageSetId);
  json["generation"] = std::uint32_t{report.info.generation};
  json["nextGeneration"] = std::uint32_t{report.info.nextGeneration};
  json["headerSectors"] = std::uint32_t{report.info.headerSectors};
  json["flags"] = std::uint32_t{report.info.flags};
  json["flagBit0"] = basic.flagBit0 != 0;
  json["flagBit2"] = basic.flagBit2 != 0;
  json["flagByte"] = basic.flagByte;
  json["record"] = JsonRecord(report.info);
  json["origin"] = nullptr;
  if (report.origin) json["origin"] = OriginJson(*report.origin);
  AddChain(json, report.chain);
  json["comment"] = Utf8FromUtf16(basic.comment);
  // A path may be any bytes; what is not UTF-8 in it is replaced, and told beside it.
  return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace kqimage
