// kqimage repair: the defects of a header that the library knows, shown and mended.

#include <fmt/format.h>
#include <kqimageformat.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "kqimage/commands/commands.h"
#include "kqimage/image/image_file.h"
#include "kqimage/image/sha256_file.h"
#include "kqimage/password/password_options.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage repair --check /backup/data.twf
  kqimage repair /backup/data.twf
  kqimage repair --forget-gpt /backup/data.twf

Only the header of FILE is changed, in place. No copy of it is kept.

A GPT that the header keeps is no defect for kqimage. For a program that can't do with it,
--forget-gpt makes the header say nothing of it.)";

struct RepairOptions {
  std::string file;
  bool check = false;
  bool forgetGpt = false;
  PasswordOptions password;
};

// The library's ids.
constexpr std::uint64_t kWrongGeneration = 1;
constexpr std::uint64_t kGptPresent = 2;

// What came of each issue that was looked for.
using Reports = std::vector<HeaderIssueReport>;

Reports FixHeader(const std::string& path, const char* password, std::uint64_t issues, bool check) {
  Reports reports;
  const KQStatus status = KQImageFileFixHeader(
      path.c_str(), password, &issues, check ? 1 : 0,
      [](void* argument, const HeaderIssueReport* report) {
        static_cast<Reports*>(argument)->push_back(*report);
        return true;
      },
      &reports);
  if (status.status == KQ_STATUS_FILE_CORRUPT) {
    throw Failure(
        fmt::format("the header of {} is damaged in a way that can't be mended (status "
                    "{})",
                    Printable(path), status.status));
  }
  Check(status, check ? "check the header of" : "repair the header of", path);
  return reports;
}

// The library's own words name what only its maintainers know.
std::string IssueText(const HeaderIssueReport& report) {
  switch (report.issueId) {
    case kWrongGeneration:
      return "a full image with the generation of an increment";
    case kGptPresent:
      return "a GPT in the header";
    default:
      return report.message;
  }
}

std::string ResultText(const HeaderIssueReport& report, bool check) {
  if (report.skipped != 0) {
    if (report.status.status == KQ_STATUS_SUCCESS) return "not found";
    return report.status.status == KQ_STATUS_FILE_CORRUPT
               ? "can't be looked for: the password is probably wrong"
               : "can't be looked for without the password";
  }
  if (report.present == 0) return "not found";
  if (!check) return "mended";
  return report.issueId == kGptPresent ? "found; no defect, and --forget-gpt drops it" : "found";
}

// The password matters only to what stands in the enciphered part of the header. It is asked for if
// that is to be changed.
void ObtainRepairPassword(const RepairOptions& options, const ImageFile& file, Password& password) {
  RefuseSharedInput(options.password, std::span(&options.file, 1));
  if (file.info.encryptionType == KQ_ENCRYPTION_NONE) return;
  if (!options.password.IsGiven() && !options.forgetGpt) return;
  ObtainPassword(options.password, file.path, Asking::kOnce, password);
  CheckPasswordOpens(file, password);
}

void Repair(const RepairOptions& options) {
  const ImageFile file = ReadImageFile(options.file);
  Password password;
  ObtainRepairPassword(options, file, password);
  const std::uint64_t wanted = kWrongGeneration | (options.forgetGpt ? kGptPresent : 0);
  const auto ignore = [](std::uint64_t) { ThrowIfInterrupted(); };
  std::optional<MendedSum> sum;
  if (!options.check) sum.emplace(options.file, ignore);
  bool isDefect = false;
  for (const HeaderIssueReport& report :
       FixHeader(options.file, password.CString(), wanted, options.check)) {
    fmt::print("{}: {}: {}\n", Printable(options.file), IssueText(report),
               ResultText(report, options.check));
    if (options.check && report.present != 0 && report.issueId != kGptPresent) isDefect = true;
  }
  if (sum) sum->Complete([](std::uint64_t) {});
  if (isDefect) {
    throw Failure(
        fmt::format("{} has a defect that kqimage repair mends", Printable(options.file)));
  }
}

}  // namespace

void AddRepairCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<RepairOptions>();
  CLI::App* command =
      app.add_subcommand("repair", "Show defects of an image's header and mend them");
  command->add_option("FILE", options->file, "The image")->required()->type_name("");
  CLI::Option* check = command->add_flag(
      "--check", options->check, "Change nothing; the exit status is 1 if there is a defect");
  command->add_flag("--forget-gpt", options->forgetGpt, "Drop what the header tells of a GPT")
      ->excludes(check);
  AddPasswordOptions(*command, options->password);
  command->footer(kExamples);
  command->callback([options, &run] { run = [options] { Repair(*options); }; });
}

}  // namespace kqimage
