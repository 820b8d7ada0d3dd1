#include "kqimage/report/list_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "kqimage/image/image_file.h"
#include "kqimage/terminal/json_path.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr std::size_t kColumns = 6;
using Row = std::array<std::string, kColumns + 1>;  // the last, of any width, holds the remarks

std::string FolderOf(const std::string& path) {
  return std::filesystem::path(path).parent_path().string();
}

// The numbers of the parts as people count them: the first file is number 1.
std::string Remarks(const ListReport& report, const FamilyMember& member) {
  std::vector<std::string> remarks;
  if (member.isIncomplete) {
    remarks.push_back(fmt::format("INCOMPLETE: part number {} is missing or does not fit",
                                  member.parts.size() + 2));
  } else if (!member.parts.empty()) {
    remarks.push_back(fmt::format("{} parts", member.parts.size() + 1));
  }
  if (member.isInRing) {
    remarks.emplace_back("ORPHAN: it is its own ancestor");
  } else if (member.isOrphan && !member.buildsOn && !IsBase(member.info.basic)) {
    remarks.push_back(
        fmt::format("ORPHAN: its parent {} is missing", GuidText(member.info.basic.parentImageId)));
  } else if (member.isOrphan && !member.isIncomplete) {
    remarks.emplace_back("ORPHAN");
  }
  if (member.copyOf) {
    remarks.push_back("copy of " + Printable(report.members[*member.copyOf].path));
  }
  if (!IsReadable(member.info.basic.compressionType)) remarks.emplace_back("can't be read back");
  return fmt::format("{}", fmt::join(remarks, "; "));
}

// Names stand without their folder where it is that of the family's first file.
std::vector<Row> RowsOf(const ListReport& report, const FamilyDrawing& family) {
  std::vector<Row> rows;
  std::string folder;
  for (const FamilyLine& line : family) {
    const FamilyMember& member = report.members[line.member];
    const bool isShort = !rows.empty() && FolderOf(member.path) == folder;
    if (rows.empty()) folder = FolderOf(member.path);
    const std::string name =
        isShort ? std::filesystem::path(member.path).filename().string() : member.path;
    rows.push_back({line.indent + Printable(name), fmt::format("{}", member.info.generation),
                    TimeText(member.info.basic, TimeDetail::kSeconds), SizeText(member.size),
                    CompressionText(member.info.basic.compressionType),
                    EncryptionText(member.info.basic.encryptionType), Remarks(report, member)});
  }
  return rows;
}

// Characters, where each takes one place on a terminal.
std::size_t WidthOf(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

}  // namespace

std::string TextReport(const ListReport& report) {
  std::vector<std::vector<Row>> families;
  const Row heading = {"FILE", "GENERATION", "CREATED", "SIZE", "COMPRESSION", "ENCRYPTION", ""};
  std::array<std::size_t, kColumns> widths = {};
  const auto widen = [&](const Row& row) {
    for (std::size_t i = 0; i < kColumns; ++i) widths[i] = std::max(widths[i], WidthOf(row[i]));
  };
  widen(heading);
  for (const FamilyDrawing& family : report.families) {
    families.push_back(RowsOf(report, family));
    for (const Row& row : families.back()) widen(row);
  }

  std::string text;
  const auto write = [&](const Row& row) {
    std::string line;
    for (std::size_t i = 0; i < kColumns; ++i) {
      line += row[i] + std::string(widths[i] - WidthOf(row[i]) + 2, ' ');
    }
    line += row[kColumns];
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  };
  if (!families.empty()) write(heading);
  for (const std::vector<Row>& rows : families) {
    for (const Row& row : rows) write(row);
    text += "\n";
  }
  if (families.empty()) text += "no images\n";
  if (!report.leftOut.empty()) text += "Not usable:\n";
  for (const LeftOutFile& file : report.leftOut) {
    text += fmt::format("{}: {}\n", Printable(file.path), file.why);
  }
  while (text.ends_with("\n\n")) text.pop_back();
  return text;
}

std::string JsonReport(const ListReport& report) {
  nlohmann::ordered_json families = nlohmann::ordered_json::array();
  for (const FamilyDrawing& family : report.families) {
    nlohmann::ordered_json files = nlohmann::ordered_json::array();
    for (const FamilyLine& line : family) {
      const FamilyMember& member = report.members[line.member];
      const ImageFileInfo& basic = member.info.basic;
      nlohmann::ordered_json file;
      AddPath(file, "file", member.path);
      file["buildsOn"] = nullptr;
      if (member.buildsOn) AddPath(file, "buildsOn", report.members[*member.buildsOn].path);
      file["copyOf"] = nullptr;
      if (member.copyOf) AddPath(file, "copyOf", report.members[*member.copyOf].path);
      file["parts"] = JsonPaths(member.parts);
      file["isIncomplete"] = member.isIncomplete;
      file["isOrphan"] = member.isOrphan;
      file["kind"] = IsBase(basic) ? "full" : "incremental";
      file["generation"] = std::uint32_t{member.info.generation};
      file["created"] = TimeText(basic, TimeDetail::kFull);
      file["fileSize"] = member.size;
      file["volumeSize"] = std::uint64_t{basic.sourceSize};
      file["compression"] = CompressionText(basic.compressionType);
      file["encryption"] = EncryptionText(basic.encryptionType);
      file["imageId"] = GuidText(basic.imageId);
      file["parentImageId"] = nullptr;
      if (!IsBase(basic)) file["parentImageId"] = GuidText(basic.parentImageId);
      file["imageSetId"] = GuidText(basic.imageSetId);
      files.push_back(std::move(file));
    }
    families.push_back({{"files", std::move(files)}});
  }
  nlohmann::ordered_json leftOut = nlohmann::ordered_json::array();
  for (const LeftOutFile& file : report.leftOut) {
    nlohmann::ordered_json entry;
    AddPath(entry, "file", file.path);
    entry["why"] = file.why;
    leftOut.push_back(std::move(entry));
  }
  nlohmann::ordered_json json;
  json["families"] = std::move(families);
  json["notUsable"] = std::move(leftOut);
  return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace kqimage
