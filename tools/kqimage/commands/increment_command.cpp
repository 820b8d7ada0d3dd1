// kqimage increment: an image of what has changed since an earlier one.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>

#include "kqimage/commands/commands.h"
#include "kqimage/commands/image_options.h"
#include "kqimage/commands/search_option.h"
#include "kqimage/image/chain_finder.h"
#include "kqimage/image/chain_readers.h"
#include "kqimage/image/image_output.h"
#include "kqimage/image/image_writer.h"
#include "kqimage/password/password_options.h"
#include "kqimage/pieces/piece_pairs.h"
#include "kqimage/report/origin_doubt.h"
#include "kqimage/system/file_identity.h"
#include "kqimage/system/next_name.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/progress.h"
#include "kqimage/terminal/text.h"
#include "kqimage/verify/chain_data.h"
#include "kqimage/volume/volume_origin.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage increment /dev/sdb1 /backup/data.twf
  kqimage increment /dev/sdb1 /backup/data-i001.twi /backup/tuesday.twi
  kqimage increment /dev/sdb1 /backup/data-i001.twi /mnt/other --search /mnt/old
  kqimage increment disk.img b.twi c.twi --chain /elsewhere/a.twf
  kqimage increment --password-file /root/backup-key /dev/sdb1 /backup/secret.twf

The images that IMAGE builds on are found in its folder by what their headers say, whatever their
names are. If nothing has changed, no file is made. An increment on an enciphered image is enciphered
in the same way, under the same password.)";

struct IncrementOptions {
  SourceOptions source;
  std::string image;
  std::string out;
  std::vector<std::string> chain;
  std::vector<std::string> folders;
  PasswordOptions password;
  ImageOptions common;
};

Chain ResolveChain(const IncrementOptions& options) {
  if (options.chain.empty()) return FindChain(options.image, options.folders);
  std::vector<std::string> files = options.chain;
  files.push_back(options.image);
  Chain chain = OrderChain(files);
  const ImageFile image = ReadImageFile(options.image);
  if (std::memcmp(image.info.imageId, chain.back().info.imageId, sizeof image.info.imageId) != 0) {
    throw Failure(fmt::format("{} is newer than {}: the chain must end at IMAGE",
                              Printable(chain.back().path), Printable(options.image)));
  }
  return chain;
}

void RefuseOwnInput(const std::string& out, const std::string& source, const Chain& chain) {
  const auto identity = IdentityOf(out);
  if (!identity) return;
  if (identity == IdentityOf(source)) {
    throw Failure(fmt::format("{} is the volume itself", Printable(out)));
  }
  for (const ImageFile& file : chain) {
    if (identity == IdentityOf(file.path)) {
      throw Failure(
          fmt::format("{} belongs to the chain that the new image is to build on", Printable(out)));
    }
  }
}

// A password that is given shows that the new image is believed to become an enciphered one.
void RefuseUselessPassword(const IncrementOptions& options, const Chain& chain) {
  if (!options.password.IsGiven() || FirstEnciphered(chain) != nullptr) return;
  throw UsageFailure(
      fmt::format("{} is not enciphered, and so its increment would not be: leave out the password",
                  Printable(options.image)));
}

// Before the work, so that it can be broken off.
void PrintOriginDoubt(const IncrementOptions& options, const std::optional<std::string>& doubt) {
  if (!doubt) return;
  fmt::print(stderr, "kqimage: {} may be another volume than that of {}: {}\n",
             SourceName(options.source), Printable(options.image), *doubt);
}

void StoreDifferences(const VolumeSource& source, const ChainReaders& chain, const DataCells* cells,
                      ImageWriter& writer, Progress& progress) {
  ReadAhead newPieces(source.Pieces());
  ReadAhead oldPieces(chain.Pieces(source.Size(), cells));
  PiecePairs pairs(newPieces, oldPieces);
  while (const PiecePair* pair = pairs.Next()) {
    ThrowIfInterrupted();
    for (const Stretch& stretch : pair->Differences()) {
      if (pair->first) {
        writer.Write(pair->offset + stretch.offset,
                     pair->first->subspan(stretch.offset, stretch.length));
      } else {
        // What became zero must be stored: a hole of the increment would show the parent's bytes.
        writer.WriteZeros(pair->offset + stretch.offset, stretch.length);
      }
    }
    progress.Update(pair->offset + pair->length);
  }
}

// Stores the volume's first block although it is the same: a volume that has only changed its size
// needs an image that says so, and an image without any data is removed when it is completed.
void StoreUnchangedBlock(const ChainReader& chain, std::uint64_t volumeSize, ImageWriter& writer) {
  std::vector<std::byte> block(kBlockBytes);
  const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(volumeSize, kBlockBytes));
  chain.Read(0, std::span(block).first(length));
  writer.Write(0, std::span(block).first(length));
}

// Without a name of its own, the new image continues the series that IMAGE is in.
std::string OutPath(const IncrementOptions& options) {
  if (options.out.empty() || IsFolder(options.out)) {
    return NextIncrementPath(options.image, options.out);
  }
  return options.out;
}

void Increment(const IncrementOptions& options) {
  const std::string out = OutPath(options);
  if (!HasExtension(out, ".twi")) {
    throw UsageFailure(fmt::format("{}: the name of an increment ends in .twi", Printable(out)));
  }
  const Chain chain = ResolveChain(options);
  const auto [source, origin] = OpenVolume(options.source, chain.back().info.sectorSize);
  RefuseUnreadable(chain);
  RefuseOwnInput(out, options.source.path, chain);
  RefuseUselessPassword(options, chain);
  RefuseSharedInput(options.password, std::span(&options.source.path, 1));
  const ImageFile& parent = chain.back();
  const HeaderTemplate header = MakeIncrementTemplate(
      parent, options.common.compression.value_or(parent.info.compressionType));
  CheckCommentFits(header, options.common.comment);
  Password password;
  ObtainChainPassword(options.password, chain, password);
  if (!options.common.quiet)
    PrintOriginDoubt(options, OriginDoubt(parent.path, password.CString(), origin));
  const ChainReaders readers(chain, password.CString());
  const ChainReader& reader = readers.First();
  const std::optional<DataCells> cells = FindDataCells(chain, source.Size());

  ImageOutput output(out, options.common.Output());
  ImageWriter writer(header, {.path = output.WritePath(),
                              .name = out,
                              .volumeSize = source.Size(),
                              .password = password.CString(),
                              .comment = options.common.comment,
                              .withSum = output.WantsSum()});
  double seconds = 0;
  {
    Progress progress("Comparing", source.Size(), options.common.quiet);
    StoreDifferences(source, readers, cells ? &*cells : nullptr, writer, progress);
    if (writer.StoredBytes() == 0 && source.Size() != reader.VolumeSize()) {
      StoreUnchangedBlock(reader, source.Size(), writer);
    }
    if (writer.StoredBytes() > 0) writer.Finish(chain);
    seconds = progress.SecondsSoFar();
  }
  if (writer.StoredBytes() > 0) output.Commit(writer.Sum());
  if (options.common.quiet) return;
  if (reader.TakesAnyPassword()) PrintPasswordDoubt();
  PrintReadingDoubt(header, out);
  if (writer.StoredBytes() == 0) {
    fmt::print("{} has not changed since {}: no image made\n", SourceName(options.source),
               Printable(options.image));
    return;
  }
  fmt::print("{}: increment of {} since {}, {} of {} stored in {}, {:.1f} s\n", Printable(out),
             SourceName(options.source), Printable(options.image), SizeText(writer.StoredBytes()),
             SizeText(source.Size()), SizeText(std::filesystem::file_size(out)), seconds);
}

}  // namespace

void AddIncrementCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<IncrementOptions>();
  CLI::App* command =
      app.add_subcommand("increment", "Make an image of what has changed since an earlier image");
  AddSourceOptions(*command, options->source);
  command->add_option("IMAGE", options->image, "The image to build on")->required()->type_name("");
  command
      ->add_option("OUT", options->out,
                   "The new image, NAME.twi, or a folder, where it gets the next free name; "
                   "without it the next free name beside IMAGE")
      ->type_name("");
  CLI::Option* search = AddSearchOption(*command, options->folders);
  command
      ->add_option("--chain", options->chain,
                   "A file that IMAGE builds on; give it for each of them, then no folder is "
                   "searched")
      ->allow_extra_args(false)
      ->excludes(search)
      ->type_name("FILE");
  AddPasswordOptions(*command, options->password);
  AddImageOptions(*command, options->common, "IMAGE's own without this option");
  command->footer(kExamples);
  command->callback([options, &run] { run = [options] { Increment(*options); }; });
}

}  // namespace kqimage
