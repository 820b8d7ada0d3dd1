// kqimage info: what an image's header says.

#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "kqimage/commands.h"
#include "kqimage/image_file.h"
#include "kqimage/text.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage info /backup/data.twf
  kqimage info --json /backup/data-i001.twi)";

struct InfoOptions {
  std::string file;
  bool json = false;
};

std::string KindName(const ImageFileInfo& info) { return IsBase(info) ? "full" : "incremental"; }

void PrintText(const ImageFile& file, std::uint64_t fileSize) {
  const ImageFileInfo& info = file.info;
  const auto line = [](std::string_view label, const std::string& value) {
    fmt::print("{:<16}{}\n", label, value);
  };
  line("File", Printable(file.path));
  line("File size", ExactSizeText(fileSize));
  line("Kind", KindName(info) + " image");
  line("Created", TimeText(info, TimeDetail::kSeconds));
  line("Volume size", ExactSizeText(info.sourceSize));
  line("Sector size", fmt::format("{} bytes", info.sectorSize));
  line("Compression", CompressionText(info.compressionType));
  line("Encryption", EncryptionText(info.encryptionType));
  line("Part", fmt::format("{}{}", std::uint64_t{info.partIndex} + 1,
                           info.lastPart != 0 ? " (the last)" : " (more follow)"));
  line("Image", GuidText(info.imageId));
  line("Parent image", IsBase(info) ? "none" : GuidText(info.parentImageId));
  line("Image set", GuidText(info.imageSetId));
  line("Flags", fmt::format("bit 0 {}, bit 2 {}, upper byte 0x{:02x}, part marker {}",
                            info.flagBit0, info.flagBit2, info.flagByte, info.partMarker));
  const std::string comment = Utf8FromUtf16(info.comment);
  line("Comment", comment.empty() ? "none" : Printable(comment));
}

void PrintJson(const ImageFile& file, std::uint64_t fileSize) {
  const ImageFileInfo& info = file.info;
  nlohmann::ordered_json json;
  json["file"] = file.path;
  json["fileSize"] = fileSize;
  json["kind"] = KindName(info);
  json["created"] = TimeText(info, TimeDetail::kFull);
  json["creationTime"] = std::uint64_t{info.creationTime};
  json["timeZoneBias"] = std::int32_t{info.timeZoneBias};
  json["daylightBias"] = std::int32_t{info.daylightBias};
  json["volumeSize"] = std::uint64_t{info.sourceSize};
  json["sectorSize"] = std::uint32_t{info.sectorSize};
  json["compression"] = {{"type", std::uint32_t{info.compressionType}},
                         {"name", CompressionText(info.compressionType)}};
  json["encryption"] = {{"type", std::uint32_t{info.encryptionType}},
                        {"name", EncryptionText(info.encryptionType)}};
  json["partIndex"] = std::uint32_t{info.partIndex};
  json["isLastPart"] = info.lastPart != 0;
  json["imageId"] = GuidText(info.imageId);
  json["parentImageId"] = nullptr;
  if (!IsBase(info)) json["parentImageId"] = GuidText(info.parentImageId);
  json["imageSetId"] = GuidText(info.imageSetId);
  json["flagBit0"] = info.flagBit0 != 0;
  json["flagBit2"] = info.flagBit2 != 0;
  json["flagByte"] = info.flagByte;
  json["partMarker"] = info.partMarker != 0;
  json["comment"] = Utf8FromUtf16(info.comment);
  // A path may be any bytes; what is not UTF-8 in it is replaced.
  fmt::print("{}\n", json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

void Info(const InfoOptions& options) {
  const ImageFile file = ReadImageFile(options.file);
  const std::uint64_t fileSize = std::filesystem::file_size(options.file);
  if (options.json) {
    PrintJson(file, fileSize);
  } else {
    PrintText(file, fileSize);
  }
}

}  // namespace

void AddInfoCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<InfoOptions>();
  CLI::App* command = app.add_subcommand("info", "Tell what an image's header says");
  command->add_option("FILE", options->file, "The image")->required()->type_name("");
  command->add_flag("--json", options->json, "Print one JSON object");
  command->footer(kExamples);
  command->callback([options, &run] { run = [options] { Info(*options); }; });
}

}  // namespace kqimage
