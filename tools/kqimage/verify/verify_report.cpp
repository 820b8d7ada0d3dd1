#include "kqimage/verify/verify_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

#include "kqimage/terminal/json_path.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr std::size_t kShownDamages = 10;  // of each file; --json has more
constexpr std::size_t kShownRanges = 10;   // of each image

using Json = nlohmann::ordered_json;

std::string SumText(SumVerdict verdict) {
  switch (verdict) {
    case SumVerdict::kAbsent:
      return ", no .sha256 beside it";
    case SumVerdict::kNoLine:
      return ", its .sha256 does not tell of it";
    case SumVerdict::kGood:
      return ", its .sha256 agrees";
    case SumVerdict::kNotChecked:
    case SumVerdict::kWrong:
      break;
  }
  return {};
}

Json SumJson(SumVerdict verdict) {
  switch (verdict) {
    case SumVerdict::kAbsent:
      return "absent";
    case SumVerdict::kNoLine:
      return "noLine";
    case SumVerdict::kGood:
      return "good";
    case SumVerdict::kWrong:
      return "wrong";
    case SumVerdict::kNotChecked:
      break;
  }
  return nullptr;
}

std::string DamageText(const Damage& damage) {
  std::string place;
  if (damage.chunk) place = fmt::format("chunk {}", std::uint64_t{*damage.chunk} + 1);
  if (damage.fileOffset) {
    place += fmt::format("{}at byte {}", place.empty() ? "" : ", ", *damage.fileOffset);
  }
  return fmt::format("  {}{}\n", damage.text, place.empty() ? "" : " (" + place + ")");
}

template <class Container, class Print>
std::string FirstOf(const Container& items, std::size_t limit, std::uint64_t total,
                    const Print& print) {
  std::string text;
  for (std::size_t i = 0; i < items.size() && i < limit; ++i) text += print(items[i]);
  const std::uint64_t shown = std::min<std::uint64_t>(items.size(), limit);
  if (total > shown) text += fmt::format("  and {} more\n", total - shown);
  return text;
}

std::vector<Damage> AllDamages(const VerifyReport& report, std::size_t file) {
  std::vector<Damage> damages = report.store->At(file).damages;
  const std::vector<Damage>& found = report.findings[file].damages;
  damages.insert(damages.end(), found.begin(), found.end());
  return damages;
}

std::string FileText(const VerifyReport& report, std::size_t file) {
  const ImageLayout& layout = report.store->At(file);
  const FileFindings& findings = report.findings[file];
  std::string text = Printable(layout.path) + ": ";
  if (report.IsFileSound(file)) {
    return text + fmt::format("sound: {} of {} chunks checked{}\n", findings.checkedChunks,
                              layout.chunks.size(), SumText(findings.sum));
  }
  const std::uint64_t total = layout.damages.size() + findings.damageCount;
  return text + "DAMAGED\n" + FirstOf(AllDamages(report, file), kShownDamages, total, DamageText);
}

std::uint64_t Total(const std::vector<VolumeRange>& ranges) {
  std::uint64_t total = 0;
  for (const VolumeRange& range : ranges) total += range.length;
  return total;
}

std::string RangesText(const char* what, const std::vector<VolumeRange>& ranges) {
  if (ranges.empty()) return {};
  return fmt::format("  {}: {} of the volume\n", what, ExactSizeText(Total(ranges))) +
         FirstOf(ranges, kShownRanges, ranges.size(), [](const VolumeRange& range) {
           return fmt::format("    bytes {} to {}\n", range.offset,
                              range.offset + range.length - 1);
         });
}

std::string LossText(const VerifyReport& report, const ImageLoss& loss) {
  std::string text = Printable(report.store->At(loss.file).path);
  if (!loss.opens) return text + ": nothing can be restored from it\n";
  if (loss.IsWhole()) {
    return text + (report.sample ? ": whole, as far as the sample tells\n" : ": whole\n");
  }
  return text + ": not whole\n" + RangesText("lost", loss.lost) +
         RangesText("in doubt, since nothing tells which bytes have changed", loss.suspect);
}

// The newest image of the chain that restores whole; null if there is none.
const ImageLoss* NewestWhole(const std::vector<ImageLoss>& losses) {
  const auto found = std::find_if(losses.rbegin(), losses.rend(),
                                  [](const ImageLoss& loss) { return loss.IsWhole(); });
  return found == losses.rend() ? nullptr : &*found;
}

bool HasDamage(const VerifyReport& report, DamageKind kind) {
  return std::any_of(report.files.begin(), report.files.end(), [&](std::size_t file) {
    const std::vector<Damage> damages = AllDamages(report, file);
    return std::any_of(damages.begin(), damages.end(),
                       [&](const Damage& damage) { return damage.kind == kind; });
  });
}

std::vector<std::string> Advice(const VerifyReport& report) {
  std::vector<std::string> advice;
  if (HasDamage(report, DamageKind::kReading)) {
    advice.emplace_back(
        "The disk fails to deliver bytes of a file: copy what it still gives to another one "
        "first.");
  }
  for (const VerifiedChain& chain : report.chains) {
    if (chain.missing.empty()) continue;
    advice.emplace_back(
        "Find the files that are missing, and name their folder with --search DIR.");
    break;
  }
  for (const std::size_t file : report.files) {
    if (report.IsFileSound(file)) continue;
    advice.push_back(
        fmt::format("If there is another copy of {}, try it with kqimage verify, and "
                    "put it in the place of the damaged one if it is sound.",
                    Printable(report.store->At(file).path)));
  }
  std::set<std::size_t> told;
  for (const std::vector<ImageLoss>& losses : report.losses) {
    const ImageLoss* whole = NewestWhole(losses);
    if (whole != nullptr && told.insert(whole->file).second) {
      advice.push_back(fmt::format("{} still restores whole: keep it and what it builds on.",
                                   Printable(report.store->At(whole->file).path)));
    }
  }
  advice.emplace_back(
      "While the volume is still there, make a new full image of it: kqimage create. An increment "
      "on a damaged image carries the damage on.");
  if (report.sample) {
    advice.emplace_back("This was a sample: without --sample all damage is found.");
  }
  return advice;
}

Json RangesJson(const std::vector<VolumeRange>& ranges) {
  Json list = Json::array();
  for (const VolumeRange& range : ranges) {
    list.push_back({{"offset", range.offset}, {"length", range.length}});
  }
  return list;
}

Json DamageJson(const Damage& damage) {
  Json json;
  json["kind"] = DamageName(damage.kind);
  json["text"] = damage.text;
  json["chunk"] = nullptr;
  if (damage.chunk) json["chunk"] = *damage.chunk;
  json["fileOffset"] = nullptr;
  if (damage.fileOffset) json["fileOffset"] = *damage.fileOffset;
  return json;
}

Json FileJson(const VerifyReport& report, std::size_t file) {
  const ImageLayout& layout = report.store->At(file);
  const FileFindings& findings = report.findings[file];
  Json json;
  AddPath(json, "file", layout.path);
  json["isSound"] = report.IsFileSound(file);
  json["opens"] = layout.Opens();
  json["hasHeaderChecksums"] = layout.hasRecord;
  json["sha256"] = SumJson(findings.sum);
  json["chunks"] = layout.chunks.size();
  json["checkedChunks"] = findings.checkedChunks;
  json["damageCount"] = layout.damages.size() + findings.damageCount;
  json["damages"] = Json::array();
  for (const Damage& damage : AllDamages(report, file)) {
    json["damages"].push_back(DamageJson(damage));
  }
  return json;
}

Json ChainJson(const VerifyReport& report, std::size_t chain) {
  const VerifiedChain& verified = report.chains[chain];
  Json json;
  AddPath(json, "image", verified.image);
  std::vector<std::string> paths;
  for (const std::size_t file : verified.files) paths.push_back(report.store->At(file).path);
  json["chain"] = JsonPaths(paths);
  json["missing"] = Json::array();
  for (const MissingFile& missing : verified.missing) {
    json["missing"].push_back(DamageJson(missing.damage));
  }
  json["notes"] = verified.notes;
  json["images"] = Json::array();
  for (const ImageLoss& loss : report.losses[chain]) {
    Json image;
    AddPath(image, "file", report.store->At(loss.file).path);
    image["volumeSize"] = loss.volumeSize;
    image["opens"] = loss.opens;
    image["isWhole"] = loss.IsWhole();
    image["lostBytes"] = Total(loss.lost);
    image["lost"] = RangesJson(loss.lost);
    image["inDoubtBytes"] = Total(loss.suspect);
    image["inDoubt"] = RangesJson(loss.suspect);
    json["images"].push_back(std::move(image));
  }
  return json;
}

std::string MissingText(const VerifyReport& report) {
  std::string text;
  for (const VerifiedChain& chain : report.chains) {
    for (const MissingFile& missing : chain.missing) {
      text += fmt::format("MISSING: {}\n", missing.damage.text);
    }
    for (const std::string& note : chain.notes) text += fmt::format("  {}\n", note);
  }
  return text;
}

// What the owner should know of files that are taken for sound.
std::string LimitsText(const VerifyReport& report) {
  const bool lacksSum =
      std::any_of(report.files.begin(), report.files.end(), [&](std::size_t file) {
        const SumVerdict sum = report.findings[file].sum;
        return sum == SumVerdict::kAbsent || sum == SumVerdict::kNoLine;
      });
  std::string text;
  if (report.sample) {
    text += fmt::format("Only {:.6g}% of the chunks were looked at, and no .sha256.\n",
                        *report.sample * 100);
  } else if (lacksSum) {
    text +=
        "Where no .sha256 stands beside a file, bytes of its data can have changed unnoticed: the "
        "format has no checksum of them.\n";
  }
  for (const std::size_t file : report.files) {
    const ImageLayout& layout = report.store->At(file);
    if (!layout.hasHeader) continue;
    const std::uint32_t compression = layout.header.CompressionType;
    if (!IsReadable(compression)) {
      text += fmt::format("{} is compressed as {}: other readers restore it, kqimage does not.\n",
                          Printable(layout.path), CompressionText(compression));
    } else if (layout.header.SectorSize == 256) {
      text += fmt::format("{} has sectors of 256 bytes: kqimage can't restore it.\n",
                          Printable(layout.path));
    }
  }
  return text;
}

}  // namespace

bool VerifyReport::IsFileSound(std::size_t file) const {
  return store->At(file).damages.empty() && findings[file].damageCount == 0;
}

bool VerifyReport::IsSound() const {
  return std::all_of(files.begin(), files.end(),
                     [this](std::size_t file) { return IsFileSound(file); }) &&
         std::all_of(chains.begin(), chains.end(),
                     [](const VerifiedChain& chain) { return chain.missing.empty(); });
}

std::string TextReport(const VerifyReport& report) {
  std::string text;
  for (const std::size_t file : report.files) text += FileText(report, file);
  text += MissingText(report);
  text += LimitsText(report);
  if (report.IsSound()) {
    return text + fmt::format("SOUND{}, {:.1f} s\n",
                              report.sample ? ", as far as the sample tells" : "", report.seconds);
  }
  text += "\nWhat restores:\n";
  std::set<std::size_t> told;
  for (const std::vector<ImageLoss>& losses : report.losses) {
    for (const ImageLoss& loss : losses) {
      if (told.insert(loss.file).second) text += LossText(report, loss);
    }
  }
  if (!report.dependents.empty()) text += "\nImages that build on damaged ones:\n";
  for (const std::string& path : report.dependents) text += Printable(path) + "\n";
  text += "\nWhat to do:\n";
  for (const std::string& line : Advice(report)) text += "- " + line + "\n";
  return text + fmt::format("\nDAMAGED, {:.1f} s\n", report.seconds);
}

std::string JsonReport(const VerifyReport& report) {
  Json json;
  json["isSound"] = report.IsSound();
  json["sample"] = nullptr;
  if (report.sample) json["sample"] = *report.sample;
  json["files"] = Json::array();
  for (const std::size_t file : report.files) json["files"].push_back(FileJson(report, file));
  json["chains"] = Json::array();
  for (std::size_t i = 0; i < report.chains.size(); ++i) {
    json["chains"].push_back(ChainJson(report, i));
  }
  json["dependents"] = JsonPaths(report.dependents);
  json["advice"] = report.IsSound() ? std::vector<std::string>{} : Advice(report);
  return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace kqimage
