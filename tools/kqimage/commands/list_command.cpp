// kqimage list: the families of images in folders.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>

#include "kqimage/commands/commands.h"
#include "kqimage/image/catalogue.h"
#include "kqimage/report/list_report.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage list /backup
  kqimage list --json /backup /mnt/old-backups

A file builds on the one above it in its column. Where several build on one, each but the longest
line begins a branch, indented. What depends on an image that is missing is marked as an orphan.)";

struct ListOptions {
  std::vector<std::string> folders;
  bool json = false;
};

std::uint64_t SizeOf(const std::string& path) {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  return error ? 0 : size;
}

// A file that has gone since the folder was read is passed over.
void AddMembers(const std::vector<CataloguedFile>& files, bool areOrphans,
                std::vector<FamilyMember>& members) {
  for (const CataloguedFile& file : files) {
    ThrowIfInterrupted();
    FamilyMember member;
    member.path = file.path;
    member.parts = file.parts;
    if (KQImageFileGetInfo2(file.path.c_str(), &member.info).status != 0) continue;
    member.size = SizeOf(file.path);
    for (const std::string& part : file.parts) member.size += SizeOf(part);
    member.isOrphan = areOrphans;
    if (areOrphans && member.info.basic.lastPart == 0) {
      ImageFileInfo last = {};
      member.isIncomplete = file.parts.empty() ||
                            KQImageFileGetInfo(file.parts.back().c_str(), &last).status != 0 ||
                            last.lastPart == 0;
    }
    members.push_back(std::move(member));
  }
}

void List(const ListOptions& options) {
  Catalogue catalogue;
  for (const std::string& folder : options.folders) catalogue.Add(folder);
  ListReport report;
  AddMembers(catalogue.Whole(), false, report.members);
  AddMembers(catalogue.Orphans(), true, report.members);
  report.families = BuildFamilies(report.members);
  report.leftOut = catalogue.LeftOut();
  fmt::print("{}", options.json ? JsonReport(report) : TextReport(report));
  if (catalogue.Problems().empty()) return;
  throw Failure(fmt::format("the list may lack images: {}", fmt::join(catalogue.Problems(), "; ")));
}

}  // namespace

void AddListCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<ListOptions>();
  CLI::App* command = app.add_subcommand("list", "Show the images in folders, as families");
  command->add_option("DIR", options->folders, "A folder; folders in it are not entered")
      ->required()
      ->type_name("");
  command->add_flag("--json", options->json, "Print one JSON object");
  command->footer(kExamples);
  command->callback([options, &run] { run = [options] { List(*options); }; });
}

}  // namespace kqimage
