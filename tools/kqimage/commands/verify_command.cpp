// kqimage verify: whether a backup can be relied on, and what is left of one that is damaged.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <set>

#include "kqimage/commands/commands.h"
#include "kqimage/commands/image_options.h"
#include "kqimage/commands/search_option.h"
#include "kqimage/password/password_options.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/progress.h"
#include "kqimage/terminal/text.h"
#include "kqimage/verify/verify_report.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage verify /backup/data-i003.twi              the image and all that it builds on
  kqimage verify --sample 5% /backup/data-i003.twi  a quick look
  kqimage verify --json /backup/*.tw? | jq .isSound

Exit status: 0 sound, 3 damaged, 1 it could not be told, 2 the command line makes no sense.)";

struct VerifyOptions {
  std::vector<std::string> images;
  std::vector<std::string> folders;
  PasswordOptions password;
  std::optional<double> sample;
  bool json = false;
  bool quiet = false;
};

// "5%" or "5": the share, above 0 and at most 1.
std::optional<double> ParseShare(const std::string& text) {
  char* end = nullptr;
  const double percent = std::strtod(text.c_str(), &end);
  const std::string rest = end;
  const bool isShare = end != text.c_str() && (rest.empty() || rest == "%") &&
                       std::isfinite(percent) && percent > 0 && percent <= 100;
  return isShare ? std::optional(percent / 100) : std::nullopt;
}

// The keys of the files, at their places in the store; null for those that need none.
std::vector<std::unique_ptr<DataKey>> OpenKeys(const VerifyOptions& options,
                                               const std::vector<std::size_t>& files,
                                               LayoutStore& store) {
  std::vector<std::unique_ptr<DataKey>> keys(store.All().size());
  std::vector<std::string> paths;
  paths.reserve(files.size());
  for (const std::size_t file : files) paths.push_back(store.At(file).path);
  RefuseSharedInput(options.password, paths);
  Password password;
  for (const std::size_t file : files) {
    const ImageLayout& layout = store.At(file);
    const bool isNeeded = layout.Opens() && layout.header.EncryptionType != KQ_ENCRYPTION_NONE;
    if (!isNeeded) continue;
    if (password.CString() == nullptr) {
      ObtainPassword(options.password, options.images.front(), Asking::kOnce, password);
    }
    keys[file] = DataKey::Open(layout, password.CString());
    if (keys[file] == nullptr) {
      if (layout.damages.empty()) {
        throw Failure(
            fmt::format("the password is wrong: it does not open {}", Printable(layout.path)));
      }
      store.AddDamage(file, {.kind = DamageKind::kHeader,
                             .text = "the password does not open it: its key is damaged, or the "
                                     "password is wrong",
                             .chunk = {},
                             .fileOffset = {},
                             .closesChain = true});
    } else if (layout.header.EncryptionType == KQ_ENCRYPTION_AES128_UNCHECKED &&
               layout.damages.empty() && IsPasswordDoubtful(layout.path, password)) {
      throw Failure(
          fmt::format("the password is probably wrong: with it the header of {} makes no "
                      "sense",
                      Printable(layout.path)));
    }
  }
  return keys;
}

// An encryption that takes any password makes every stream of a file nonsense under a wrong one.
void RefuseDoubtfulPassword(const VerifyReport& report) {
  for (const std::size_t file : report.files) {
    const ImageLayout& layout = report.store->At(file);
    const FileFindings& findings = report.findings[file];
    if (!layout.hasHeader || layout.header.EncryptionType != KQ_ENCRYPTION_AES128_UNCHECKED ||
        findings.streams == 0 || findings.badStreams != findings.streams) {
      continue;
    }
    throw Failure(
        fmt::format("with this password all compressed data of {} make no sense: the password is "
                    "wrong, which its encryption can't tell, or all of it is damaged",
                    Printable(layout.path)));
  }
}

void AddDependents(const VerifyOptions& options, VerifyReport& report) {
  std::vector<ImageId> damaged;
  std::vector<std::string> folders;
  for (const std::size_t file : report.files) {
    const ImageLayout& layout = report.store->At(file);
    if (report.IsFileSound(file) || !layout.hasHeader) continue;
    damaged.push_back(ImageIdOf(layout.header.ImageId));
    for (std::string& folder : FamilyFolders(layout.path, options.folders)) {
      folders.push_back(std::move(folder));
    }
  }
  if (!damaged.empty()) report.dependents = FindDependents(damaged, folders, *report.store);
}

void Verify(const VerifyOptions& options) {
  LayoutStore store;
  VerifyReport report;
  report.store = &store;
  report.sample = options.sample;
  std::set<std::size_t> files;
  for (const std::string& image : options.images) {
    ThrowIfInterrupted();
    report.chains.push_back(FindVerifiedChain(image, options.folders, store));
    for (const std::size_t file : report.chains.back().files) {
      if (files.insert(file).second) report.files.push_back(file);
    }
  }
  const std::vector<std::unique_ptr<DataKey>> keys = OpenKeys(options, report.files, store);

  std::vector<FileTask> tasks;
  for (const std::size_t file : report.files) {
    tasks.push_back({.layout = &store.At(file), .key = keys[file].get()});
  }
  const VerifyScope scope = {.sample = options.sample, .withSums = true};
  report.findings.resize(store.All().size());
  {
    Progress progress("Verifying", VerifyTotal(tasks, scope), options.quiet);
    std::vector<FileFindings> findings = VerifyFiles(tasks, scope, [&](std::uint64_t done) {
      ThrowIfInterrupted();
      progress.Update(done);
    });
    for (std::size_t i = 0; i < findings.size(); ++i) {
      report.findings[report.files[i]] = std::move(findings[i]);
    }
    RefuseDoubtfulPassword(report);
    for (const VerifiedChain& chain : report.chains) {
      report.losses.push_back(ComputeLosses(chain, store, report.findings, ThrowIfInterrupted));
    }
    report.seconds = progress.SecondsSoFar();
  }
  AddDependents(options, report);
  if (options.json) {
    fmt::print("{}", JsonReport(report));
  } else if (!options.quiet || !report.IsSound()) {
    fmt::print("{}", TextReport(report));
  }
  if (!report.IsSound()) throw Verdict{kExitFound};
}

}  // namespace

void AddVerifyCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<VerifyOptions>();
  CLI::App* command =
      app.add_subcommand("verify", "Tell whether images can be relied on, and what is damaged");
  command->add_option("IMAGE", options->images, "An image; all that it builds on is looked at too")
      ->required()
      ->type_name("");
  AddSearchOption(*command, options->folders);
  command
      ->add_option_function<std::string>(
          "--sample", [options](const std::string& text) { options->sample = ParseShare(text); },
          "Look at this share of the chunks only, as 5%, spread over each file")
      ->check([](const std::string& text) -> std::string {
        if (ParseShare(text)) return {};
        return fmt::format("\"{}\" is no share between 0% and 100%", Printable(text));
      })
      ->type_name("SHARE");
  command->add_flag("--json", options->json, "Print one JSON object");
  AddPasswordOptions(*command, options->password);
  AddQuietOption(*command, options->quiet);
  command->footer(kExamples);
  command->callback([options, &run] { run = [options] { Verify(*options); }; });
}

}  // namespace kqimage
