// kqimage compare: whether two images, or an image and a volume, hold the same bytes.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "kqimage/commands/commands.h"
#include "kqimage/commands/image_options.h"
#include "kqimage/commands/search_option.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/json_path.h"
#include "kqimage/terminal/progress.h"
#include "kqimage/terminal/text.h"
#include "kqimage/verify/compare_volumes.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage compare /backup/data-i003.twi /dev/sdb1
  kqimage compare /backup/data-i003.twi /elsewhere/data.twf
  kqimage compare --json before.twf after.twf | jq .differentBytes

A and B are images, whose chains are found in their folders and those of --search, or volumes.
Exit status: 0 the same, 3 different, 1 it could not be told, 2 the command line makes no sense.)";

constexpr std::size_t kShownRanges = 20;

struct CompareOptions {
  std::string a;
  std::string b;
  std::vector<std::string> folders;
  PasswordOptions password;
  PasswordOptions passwordOfB;
  bool json = false;
  bool quiet = false;
};

nlohmann::ordered_json RangesJson(const std::vector<VolumeRange>& ranges) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const VolumeRange& range : ranges) {
    list.push_back({{"offset", range.offset}, {"length", range.length}});
  }
  return list;
}

std::string JsonReport(const CompareOptions& options, const Comparison& result) {
  nlohmann::ordered_json json;
  AddPath(json, "a", options.a);
  AddPath(json, "b", options.b);
  json["isSame"] = nullptr;
  if (result.IsSame()) json["isSame"] = true;
  if (result.IsDifferent()) json["isSame"] = false;
  json["sizes"] = result.sizes;
  json["differentBytes"] = result.different.TotalBytes();
  json["different"] = RangesJson(result.different.First());
  json["unknownBytes"] = result.unknown.TotalBytes();
  json["unknown"] = RangesJson(result.unknown.Ranges());
  return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

// Of so many ranges, of which the first are here.
std::string RangesText(const std::vector<VolumeRange>& ranges, std::uint64_t count) {
  std::string text;
  for (std::size_t i = 0; i < ranges.size() && i < kShownRanges; ++i) {
    text += fmt::format("  bytes {} to {}\n", ranges[i].offset,
                        ranges[i].offset + ranges[i].length - 1);
  }
  if (count > kShownRanges) {
    text += fmt::format("  and {} more ranges, which --json lists\n", count - kShownRanges);
  }
  return text;
}

std::string TextReport(const CompareOptions& options, const Comparison& result) {
  std::string text;
  if (result.sizes[0] != result.sizes[1]) {
    text += fmt::format("{} has {} bytes, {} has {}\n", Printable(options.a), result.sizes[0],
                        Printable(options.b), result.sizes[1]);
  }
  if (!result.different.IsEmpty()) {
    text += fmt::format("{} of the bytes that both have are different:\n",
                        result.different.TotalBytes());
    text += RangesText(result.different.First(), result.different.Count());
  }
  if (!result.unknown.IsEmpty()) {
    text += fmt::format(
        "{} bytes could not be compared: an image has lost them, and kqimage verify tells more\n",
        result.unknown.TotalBytes());
    const std::vector<VolumeRange> unknown = result.unknown.Ranges();
    text += RangesText(unknown, unknown.size());
  }
  if (result.IsSame()) text += "SAME\n";
  if (result.IsDifferent()) text += "DIFFERENT\n";
  return text;
}

// Of B when it has options of its own, or when A's password does not open it.
const Password& PasswordOfB(const CompareOptions& options, const ComparedSide& b,
                            const Password& ofA, Password& own) {
  const ImageFile* enciphered = FirstEnciphered(b.Files());
  if (enciphered == nullptr) return ofA;
  if (!options.passwordOfB.IsGiven() && ofA.CString() != nullptr) {
    bool opens = false;
    Check(KQImageFileTestPassword(enciphered->path.c_str(), ofA.CString(), &opens),
          "try the password on", enciphered->path);
    if (opens || options.password.IsGiven()) {
      for (const ImageFile& file : b.Files()) CheckPasswordOpens(file, ofA);
      return ofA;
    }
  }
  const bool usesFirst = !options.passwordOfB.IsGiven() && ofA.CString() == nullptr;
  ObtainChainPassword(usesFirst ? options.password : options.passwordOfB, b.Files(), own);
  return own;
}

void RunCompare(const CompareOptions& options) {
  ComparedSide a(options.a, options.folders);
  ComparedSide b(options.b, options.folders);
  RefuseSharedInput(options.password, std::vector<std::string>{options.a, options.b});
  RefuseSharedInput(options.passwordOfB, std::vector<std::string>{options.a, options.b});
  Password passwordOfA;
  Password ownPasswordOfB;
  ObtainChainPassword(options.password, a.Files(), passwordOfA);
  const Password& passwordOfB = PasswordOfB(options, b, passwordOfA, ownPasswordOfB);
  a.Open(passwordOfA.CString(), ThrowIfInterrupted);
  b.Open(passwordOfB.CString(), ThrowIfInterrupted);
  Comparison result;
  {
    Progress progress("Comparing", std::min(a.Size(), b.Size()), options.quiet);
    result = Compare(a, b, options.json ? SIZE_MAX : kShownRanges, [&](std::uint64_t done) {
      ThrowIfInterrupted();
      progress.Update(done);
    });
  }
  if (options.json) {
    fmt::print("{}", JsonReport(options, result));
  } else if (!options.quiet) {
    fmt::print("{}", TextReport(options, result));
    if (a.TakesAnyPassword() || b.TakesAnyPassword()) PrintPasswordDoubt();
  }
  if (result.IsDifferent()) throw Verdict{kExitFound};
  if (!result.IsSame()) throw Verdict{kExitUnknown};
}

}  // namespace

void AddCompareCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<CompareOptions>();
  CLI::App* command =
      app.add_subcommand("compare", "Tell whether two images or volumes hold the same bytes");
  command->add_option("A", options->a, "An image, a block device or a volume in a file")
      ->required()
      ->type_name("");
  command->add_option("B", options->b, "The same")->required()->type_name("");
  AddSearchOption(*command, options->folders);
  command->add_flag("--json", options->json, "Print one JSON object");
  AddPasswordOptions(*command, options->password);
  CLI::Option* file = command
                          ->add_option("--password-file-b", options->passwordOfB.file,
                                       "Where B has another password: from the first line of FILE")
                          ->type_name("FILE");
  command
      ->add_option("--password-command-b", options->passwordOfB.command,
                   "Where B has another password: from the first line that CMD prints")
      ->excludes(file)
      ->type_name("CMD");
  AddQuietOption(*command, options->quiet);
  command->footer(kExamples);
  command->callback([options, &run] { run = [options] { RunCompare(*options); }; });
}

}  // namespace kqimage
