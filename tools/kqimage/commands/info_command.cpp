// kqimage info: what an image's header says.

#include <fmt/format.h>
#include <kqimageformat.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <span>

#include "kqimage/commands/commands.h"
#include "kqimage/commands/search_option.h"
#include "kqimage/image/image_file.h"
#include "kqimage/password/password_options.h"
#include "kqimage/report/info_report.h"
#include "kqimage/terminal/failure.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage info /backup/data.twf
  kqimage info --json /backup/data-i001.twi
  kqimage info --password-file /root/backup-key /backup/secret.twf

Without its password, all is told of an enciphered image but the volume's origin. A password that is
given is tried, and a wrong one is a failure.)";

struct InfoOptions {
  std::string file;
  std::vector<std::string> folders;
  bool json = false;
  PasswordOptions password;
};

// Nothing is asked for on the terminal: without an option there is nothing to try.
PasswordVerdict TryPassword(const InfoOptions& options, const ImageFile& file, Password& password) {
  RefuseSharedInput(options.password, std::span(&options.file, 1));
  const std::uint32_t encryption = file.info.encryptionType;
  if (!options.password.IsGiven() || encryption == KQ_ENCRYPTION_NONE) {
    return PasswordVerdict::kNotTried;
  }
  ObtainPassword(options.password, file.path, Asking::kOnce, password);
  CheckPasswordOpens(file, password);
  if (encryption != KQ_ENCRYPTION_AES128_UNCHECKED) return PasswordVerdict::kRight;
  return IsPasswordDoubtful(options.file, password) ? PasswordVerdict::kDoubtful
                                                    : PasswordVerdict::kUnchecked;
}

void Info(const InfoOptions& options) {
  const ImageFile file = ReadImageFile(options.file);
  Password password;
  InfoReport report = {.path = options.file,
                       .fileSize = std::filesystem::file_size(options.file),
                       .info = {},
                       .password = TryPassword(options, file, password)};
  Check(KQImageFileGetInfo2(options.file.c_str(), &report.info), "read the image", options.file);
  const bool isPlain = file.info.encryptionType == KQ_ENCRYPTION_NONE;
  const bool isLegible =
      isPlain || (password.CString() != nullptr && report.password != PasswordVerdict::kDoubtful);
  if (isLegible) {
    report.origin = ReadOrigin(options.file, password.CString());
  }
  report.chain = ReportChain(options.file, options.folders);
  fmt::print("{}", options.json ? JsonReport(report) : TextReport(report));
}

}  // namespace

void AddInfoCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<InfoOptions>();
  CLI::App* command = app.add_subcommand("info", "Tell what an image's header says");
  command->add_option("FILE", options->file, "The image")->required()->type_name("");
  AddSearchOption(*command, options->folders);
  command->add_flag("--json", options->json, "Print one JSON object");
  AddPasswordOptions(*command, options->password);
  command->footer(kExamples);
  command->callback([options, &run] { run = [options] { Info(*options); }; });
}

}  // namespace kqimage
