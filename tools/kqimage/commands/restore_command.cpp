// kqimage restore: writes the volume that a chain of images holds to a file or a device.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>

#include "kqimage/commands/chain_argument.h"
#include "kqimage/commands/commands.h"
#include "kqimage/commands/image_options.h"
#include "kqimage/commands/search_option.h"
#include "kqimage/image/chain_readers.h"
#include "kqimage/password/password_options.h"
#include "kqimage/pieces/shared_pieces.h"
#include "kqimage/system/file_identity.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/progress.h"
#include "kqimage/terminal/text.h"
#include "kqimage/verify/chain_data.h"
#include "kqimage/verify/hidden_damage.h"
#include "kqimage/volume/volume_target.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage restore /backup/data-i003.twi --to disk.img
  kqimage restore /backup/data.twf --to /dev/sdb1 --force
  kqimage restore /backup/data-i003.twi --search /mnt/old-backups --to disk.img
  kqimage restore a.twf /elsewhere/b.twi --to disk.img
  kqimage restore --password-file /root/backup-key /backup/secret-i001.twi --to disk.img

One FILE alone is the image to go back to, and those it builds on are found in its folder and those
of --search. Several FILEs are taken as they are and must be the whole chain, in any order.)";

struct RestoreOptions {
  std::vector<std::string> files;
  std::vector<std::string> folders;
  std::string target;
  PasswordOptions password;
  bool force = false;
  bool quiet = false;
};

void WriteVolume(const ChainReaders& readers, HiddenDamage& damage, const DataCells* cells,
                 VolumeTarget& target, Progress& progress) {
  // Each thread writes what it has read. A new file has its holes already; what a device held
  // before must be overwritten.
  std::vector<PieceWork> works;
  for (const auto& each : readers.All()) {
    const ChainReader* const reader = each.get();
    works.emplace_back([=, &damage, &target](std::uint64_t offset, std::span<std::byte> bytes) {
      damage.ReadWhole(*reader, offset, bytes);
      target.Write(offset, bytes);
    });
  }
  WorkOnPieces(readers.First().VolumeSize(), target.IsDevice() ? nullptr : cells, works,
               [&progress](std::uint64_t done) {
                 ThrowIfInterrupted();
                 progress.Update(done);
               });
  target.Finish();
}

void Restore(const RestoreOptions& options) {
  const Chain chain = ResolveChain(options.files, options.folders);
  const std::string& newest = chain.back().path;
  for (const ImageFile& file : chain) {
    const auto identity = IdentityOf(file.path);
    if (identity && identity == IdentityOf(options.target)) {
      throw Failure(
          fmt::format("{} is one of the images to restore from", Printable(options.target)));
    }
  }
  RefuseUnreadable(chain);
  Password password;
  ObtainChainPassword(options.password, chain, password);
  const ChainReaders readers(chain, password.CString());
  HiddenDamage damage(chain, password.CString());
  const ChainReader& reader = readers.First();
  if (reader.VolumeSize() == 0) {
    throw Failure(fmt::format("{} does not say how large its volume is", Printable(newest)));
  }

  VolumeTarget target(options.target, reader.VolumeSize(), options.force);
  const std::optional<DataCells> cells = FindDataCells(chain);
  double seconds = 0;
  try {
    Progress progress("Restoring", reader.VolumeSize(), options.quiet);
    WriteVolume(readers, damage, cells ? &*cells : nullptr, target, progress);
    seconds = progress.SecondsSoFar();
  } catch (const Failure& failure) {
    if (!target.IsDevice()) throw;
    throw Failure(fmt::format("{}; {} is left with a part of the volume", failure.what(),
                              Printable(options.target)));
  } catch (const Interrupted&) {
    if (!target.IsDevice()) throw;
    throw Failure(fmt::format("interrupted; {} is left with a part of the volume",
                              Printable(options.target)));
  }
  if (options.quiet) return;
  fmt::print("{}: {} restored from {}, {:.1f} s\n", Printable(options.target),
             ExactSizeText(reader.VolumeSize()), Printable(newest), seconds);
  if (reader.TakesAnyPassword()) PrintPasswordDoubt();
}

}  // namespace

void AddRestoreCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<RestoreOptions>();
  CLI::App* command =
      app.add_subcommand("restore", "Write the volume of an image to a file or a device");
  command->add_option("FILE", options->files, "The image, or all files of its chain")
      ->required()
      ->type_name("");
  AddSearchOption(*command, options->folders);
  command->add_option("--to", options->target, "The file or block device to write")
      ->required()
      ->type_name("TARGET");
  command->add_flag("--force", options->force, "Replace an existing file, or overwrite a device");
  AddPasswordOptions(*command, options->password);
  AddQuietOption(*command, options->quiet);
  command->footer(kExamples);
  command->callback([options, &run] { run = [options] { Restore(*options); }; });
}

}  // namespace kqimage
