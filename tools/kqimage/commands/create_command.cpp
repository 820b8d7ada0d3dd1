// kqimage create: a full image of a volume.

#include <fmt/format.h>
#include <kqimageformat.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <map>
#include <memory>
#include <span>

#include "kqimage/commands/commands.h"
#include "kqimage/commands/image_options.h"
#include "kqimage/image/image_output.h"
#include "kqimage/image/image_writer.h"
#include "kqimage/password/password_options.h"
#include "kqimage/pieces/block_compare.h"
#include "kqimage/system/batch_work.h"
#include "kqimage/system/file_identity.h"
#include "kqimage/system/next_name.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/progress.h"
#include "kqimage/terminal/text.h"
#include "kqimage/volume/volume_origin.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage create /dev/sdb1 /backup/data.twf
  kqimage create /dev/sdb1 /backup          as /backup/sdb1-b001.twf, the next time -b002
  kqimage create --compress lzo-huffman --comment "before the upgrade" disk.img disk.twf
  kqimage create --partition 2 disk.img second.twf
  kqimage create --encrypt aes256 /dev/sdb1 /backup/data.twf
  kqimage create --encrypt aes256 --password-command "pass show backup" /dev/sdb1 data.twf

A password is asked for on the terminal unless an option tells where it comes from. Without it
nobody can read the image again.

What reads as zero is not stored. A volume that is no whole number of sectors is filled up with
zeros in the image; a restore gives back exactly its bytes.)";

// 512 bytes because that is the sector of most volumes, so nothing is filled up, and because little
// is lost in the last sector of a chunk. The 504 bytes for a chunk's list of stretches hold about a
// hundred scattered ones, which at a file system's 4 KiB still makes chunks of 400 KiB.
constexpr std::uint32_t kDefaultSectorSize = 512;

struct CreateOptions {
  SourceOptions source;
  std::string image;
  std::optional<std::uint32_t> sectorSize;
  std::uint32_t encryption = KQ_ENCRYPTION_NONE;
  PasswordOptions password;
  ImageOptions common;
};

using TypeNames = std::map<std::string, std::uint32_t>;

const TypeNames kEncryptions = {{"aes128", KQ_ENCRYPTION_AES128}, {"aes256", KQ_ENCRYPTION_AES256}};

// For readers that know nothing better.
const TypeNames kLegacyEncryptions = {{"aes128-unchecked", KQ_ENCRYPTION_AES128_UNCHECKED},
                                      {"rc4", KQ_ENCRYPTION_RC4}};

std::string CheckSectorSize(const std::string& text) {
  for (const char* known : {"512", "1024", "2048", "4096"}) {
    if (text == known) return {};
  }
  if (text == "256") return "sectors of 256 bytes can be written but not read back";
  return fmt::format("{} is none of 512, 1024, 2048, 4096", Printable(text));
}

CLI::Option* AddEncryptionOption(CLI::App& command, CreateOptions& options, const char* name,
                                 const TypeNames& types, const char* help) {
  return command
      .add_option_function<std::string>(
          name,
          [&options, &types](const std::string& type) { options.encryption = types.at(type); },
          help)
      ->check([&types](const std::string& type) -> std::string {
        if (types.contains(type)) return {};
        return fmt::format("\"{}\" is neither {} nor {}", Printable(type), types.begin()->first,
                           types.rbegin()->first);
      })
      ->type_name("TYPE");
}

// A password that is given shows that the image is meant to be enciphered.
void RefuseUselessPassword(const CreateOptions& options) {
  if (options.encryption != KQ_ENCRYPTION_NONE || !options.password.IsGiven()) return;
  throw UsageFailure("a password enciphers nothing without --encrypt");
}

// A header can keep the tables of a disk only if its sectors have the size of the disk's.
std::uint32_t ChooseSectorSize(const CreateOptions& options, const VolumeOrigin& origin) {
  if (options.sectorSize) return *options.sectorSize;
  return origin.tables ? origin.tables->sectorSize : kDefaultSectorSize;
}

// Prints what the image should tell of a partition's place, and doesn't.
void PrintOriginDoubt(const VolumeOrigin& origin, const HeaderTemplate& header,
                      const std::string& image) {
  if (origin.disk.empty()) return;
  if (!origin.tables) {
    fmt::print("{} does not tell its place on the disk: the tables of {} can't be read\n",
               Printable(image), Printable(origin.disk));
  } else if (origin.tables->sectorSize != header.sectorSize) {
    fmt::print(
        "{} does not tell its place on the disk: for that it needs --sector-size {}, as {} "
        "has it\n",
        Printable(image), origin.tables->sectorSize, Printable(origin.disk));
  }
}

void StoreVolume(const VolumeSource& source, ImageWriter& writer, Progress& progress) {
  ReadAhead pieces(source.Pieces());
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
  RefuseUselessPassword(options);
  RefuseSharedInput(options.password, std::span(&options.source.path, 1));
  const auto [source, origin] =
      OpenVolume(options.source, options.sectorSize.value_or(kDefaultSectorSize));
  HeaderTemplate header =
      MakeBaseTemplate(ChooseSectorSize(options, origin),
                       options.common.compression.value_or(KQ_COMPRESSION_LZO), options.encryption);
  CheckCommentFits(header, options.common.comment);
  if (IdentityOf(options.source.path) == IdentityOf(options.image)) {
    throw Failure(fmt::format("{} is the volume itself", Printable(options.image)));
  }
  Password password;
  if (options.encryption != KQ_ENCRYPTION_NONE) {
    ObtainPassword(options.password, "the new image " + options.image, Asking::kTwice, password);
  }
  AddHeaderSectors(header, OriginSectors(origin, header.sectorSize), password.CString());
  BeginBatchWork();  // before the first thread
  ImageOutput output(options.image, options.common.Output());
  ImageWriter writer(header, {.path = output.WritePath(),
                              .name = options.image,
                              .volumeSize = source.Size(),
                              .password = password.CString(),
                              .comment = options.common.comment,
                              .withSum = output.WantsSum()});
  double seconds = 0;
  {
    Progress progress("Imaging", source.Size(), options.common.quiet);
    StoreVolume(source, writer, progress);
    writer.Finish({});
    seconds = progress.SecondsSoFar();
  }
  output.Commit(writer.Sum());
  if (options.common.quiet) return;
  fmt::print("{}: full image of {}, {} of {} stored in {}, {:.1f} s\n", Printable(options.image),
             SourceName(options.source), SizeText(writer.StoredBytes()), SizeText(source.Size()),
             SizeText(std::filesystem::file_size(options.image)), seconds);
  PrintReadingDoubt(header, options.image);
  PrintOriginDoubt(origin, header, options.image);
}

}  // namespace

void AddCreateCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<CreateOptions>();
  CLI::App* command = app.add_subcommand("create", "Make a full image of a volume");
  AddSourceOptions(*command, options->source);
  command
      ->add_option("IMAGE", options->image,
                   "The new image, NAME.twf, or a folder, where it is named SOURCE-b001.twf")
      ->required()
      ->type_name("");
  command
      ->add_option("--sector-size", options->sectorSize,
                   "512, 1024, 2048 or 4096 bytes; without this option those of the disk that "
                   "SOURCE is a partition of, else 512")
      ->check(CheckSectorSize)
      ->type_name("BYTES");
  CLI::Option* encrypt =
      AddEncryptionOption(*command, *options, "--encrypt", kEncryptions,
                          "Encipher the image under a password: aes128 or aes256");
  AddEncryptionOption(
      *command, *options, "--encrypt-legacy", kLegacyEncryptions,
      "Encipher weakly, for old readers: aes128-unchecked can't notice a wrong password, rc4 XORs "
      "all data with one and the same keystream")
      ->excludes(encrypt);
  AddPasswordOptions(*command, options->password);
  AddImageOptions(*command, options->common, "lzo without this option");
  command->footer(kExamples);
  command->callback([options, &run] {
    run = [options] {
      if (IsFolder(options->image)) {
        options->image = NextBasePath(options->source.path, options->image);
      }
      Create(*options);
    };
  });
}

}  // namespace kqimage
