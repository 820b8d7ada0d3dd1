// kqimage create: a full image of a volume.

#include <fmt/format.h>
#include <kqimageformat.h>

#include <filesystem>
#include <memory>

#include "kqimage/block_compare.h"
#include "kqimage/commands.h"
#include "kqimage/failure.h"
#include "kqimage/file_identity.h"
#include "kqimage/image_options.h"
#include "kqimage/image_writer.h"
#include "kqimage/interrupt.h"
#include "kqimage/next_name.h"
#include "kqimage/output_file.h"
#include "kqimage/progress.h"
#include "kqimage/text.h"
#include "kqimage/volume_source.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage create /dev/sdb1 /backup/data.twf
  kqimage create --compress lzo-huffman --comment "before the upgrade" disk.img disk.twf

What reads as zero is not stored. A volume that is no whole number of sectors is filled up with
zeros in the image; a restore gives back exactly its bytes.)";

// 512 bytes because that is the sector of every volume, so nothing is filled up, and because little
// is lost in the last sector of a chunk. The 504 bytes for a chunk's list of stretches hold about a
// hundred scattered ones, which at a file system's 4 KiB still makes chunks of 400 KiB.
constexpr std::uint32_t kDefaultSectorSize = 512;

struct CreateOptions {
  std::string source;
  std::string image;
  std::uint32_t sectorSize = kDefaultSectorSize;
  ImageOptions common;
};

std::string CheckSectorSize(const std::string& text) {
  for (const char* known : {"512", "1024", "2048", "4096"}) {
    if (text == known) return {};
  }
  if (text == "256") return "sectors of 256 bytes can be written but not read back";
  return fmt::format("{} is none of 512, 1024, 2048, 4096", Printable(text));
}

void StoreVolume(const VolumeSource& source, ImageWriter& writer, Progress& progress) {
  ReadAhead pieces(source.Pieces(VolumeSource::Holes::kJoined));
  while (const Piece* piece = pieces.Next()) {
    ThrowIfInterrupted();
    if (!piece->isZero) {
      const std::span<std::byte> bytes = piece->Bytes();
      for (const Stretch& stretch : NonZeroStretches(bytes)) {
        writer.Write(piece->offset + stretch.offset, bytes.subspan(stretch.offset, stretch.length));
      }
    }
    progress.Update(piece->offset + piece->length);
  }
  // An image without any data is removed when it is completed, so a volume that is all zero gives
  // one sector of its zeros.
  if (writer.StoredBytes() == 0) writer.WriteZeros(0, 1);
}

void Create(const CreateOptions& options) {
  if (!HasExtension(options.image, ".twf")) {
    throw UsageFailure(
        fmt::format("{}: the name of a full image ends in .twf", Printable(options.image)));
  }
  const VolumeSource source(options.source);
  if (IdentityOf(options.source) == IdentityOf(options.image)) {
    throw Failure(fmt::format("{} is the volume itself", Printable(options.image)));
  }
  OutputFile output(
      options.image,
      options.common.force ? OutputFile::Existing::kReplace : OutputFile::Existing::kRefuse,
      OutputFile::Growth::kUnderFinalName);
  const HeaderTemplate header =
      MakeBaseTemplate(options.sectorSize, options.common.compression.value_or(KQ_COMPRESSION_LZO));
  ImageWriter writer(output.WritePath(), options.image, header, source.Size());
  double seconds = 0;
  {
    Progress progress("Imaging", source.Size(), options.common.quiet);
    StoreVolume(source, writer, progress);
    writer.Finish(options.common.comment, {});
    ThrowIfInterrupted();
    output.Commit();
    seconds = progress.SecondsSoFar();
  }
  if (options.common.quiet) return;
  fmt::print("{}: full image of {}, {} of {} stored in {}, {:.1f} s\n", Printable(options.image),
             Printable(options.source), SizeText(writer.StoredBytes()), SizeText(source.Size()),
             SizeText(std::filesystem::file_size(options.image)), seconds);
}

}  // namespace

void AddCreateCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<CreateOptions>();
  CLI::App* command = app.add_subcommand("create", "Make a full image of a volume");
  command->add_option("SOURCE", options->source, "The volume: a block device or a regular file")
      ->required()
      ->type_name("");
  command->add_option("IMAGE", options->image, "The new image, NAME.twf")
      ->required()
      ->type_name("");
  command
      ->add_option("--sector-size", options->sectorSize,
                   "512, 1024, 2048 or 4096 bytes; 512 without this option")
      ->check(CheckSectorSize)
      ->type_name("BYTES");
  AddImageOptions(*command, options->common, "lzo without this option");
  command->footer(kExamples);
  command->callback([options, &run] { run = [options] { Create(*options); }; });
}

}  // namespace kqimage
