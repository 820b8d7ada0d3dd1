// Chains of one to three images, composed from the input and then damaged by it: fields and run
// lists that contradict each other, and any bytes anywhere in the finished files. Without a damage
// every byte read must be that of a flat model; with one, two reads must agree and no file change.
#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/header_bytes.h"
#include "fuzz/scratch_file.h"
#include "kqimageapi.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"

namespace {

using kqfuzz::Bytes;
using kqfuzz::FuzzInput;
using kqtest::ChunkSpec;
using kqtest::ImageSpec;

constexpr std::uint32_t kVolumeSectors = 256;
constexpr std::size_t kLargestChain = 3;
constexpr char kPassword[] = "a password";

// The volume as the images should give it, by sector.
using Model = std::map<std::uint64_t, Bytes>;

// What is known of the image so far.
struct ImageState {
  Model model;
  std::uint32_t nextSector = 0;
  // Readers search runs and chunks as sorted ones. False if they go back on the volume or meet:
  // then not all of them are found, and no model tells which.
  bool sorted = true;
};

ChunkSpec MakeChunk(FuzzInput* input, std::uint32_t sectorSize, std::uint32_t compression,
                    ImageState* image) {
  std::vector<kqtest::VolumeRun> runs;
  std::uint32_t sectors = 0;
  const std::uint32_t count = input->Between(1, 6);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t gap = input->U16();
    std::uint32_t first = image->nextSector + gap % 64;
    if (gap % 256 == 255 || first >= kVolumeSectors) {
      first = gap % kVolumeSectors;
      image->sorted &= first >= image->nextSector;
    }
    const std::uint32_t length =
        std::min(input->Between(1, i == 0 ? 20 : 4), kVolumeSectors - first);
    runs.push_back({std::uint64_t{first} * sectorSize, length});
    sectors += length;
    image->nextSector = first + length;
  }
  Bytes data = kqtest::PatternBytes(input->U8(), std::size_t{sectors} * sectorSize);
  const std::uint8_t form = input->U8();
  if (form % 4 == 1) std::fill(data.begin(), data.end(), std::uint8_t{0});
  if (form % 4 == 2) std::fill(data.begin() + 100, data.end(), form);

  std::size_t position = 0;
  for (const kqtest::VolumeRun& run : runs) {
    for (std::uint32_t i = 0; i < run.sectors; ++i, position += sectorSize) {
      const std::uint64_t place = run.offset + std::uint64_t{i} * sectorSize;
      const auto from = data.begin() + static_cast<std::ptrdiff_t>(position);
      image->model[place].assign(from, from + sectorSize);
    }
  }
  // Without compression a chunk stands there whole.
  if (compression != 0 && form % 4 == 1) return kqtest::ZeroChunk(runs);
  if (compression == 5 && form % 4 == 2) {
    Bytes stream = kqtest::LzoFrame(data);
    // A chunk of as many sectors as its data is read as data.
    const bool savesSector = sizeof(std::uint32_t) + stream.size() + sectorSize <= data.size();
    if (savesSector) return kqtest::StreamChunk(runs, std::move(stream));
  }
  return kqtest::RawChunk(runs, data);
}

void Contradict(FuzzInput* input, ChunkSpec* chunk) {
  switch (input->U8() % 8) {
    case 0:
      chunk->storedSectors = input->U32();
      break;
    case 1:
      chunk->expandedSectors = input->U32();
      break;
    case 2:
      chunk->streamLength = input->U32();
      break;
    case 3:
      chunk->runList = input->Take(input->U8());
      break;
    case 4:
      chunk->indexVolumeOffset = input->U64();
      break;
    case 5:
      chunk->indexFileOffset = input->U32();
      break;
    case 6:
      chunk->body = ChunkSpec::Body::kStream;
      chunk->data = input->Take(input->U16());
      break;
    default:
      chunk->wholeBody = Bytes(512 * std::size_t{input->U8()}, input->U8());
      break;
  }
}

bool Damage(FuzzInput* input, Bytes* file) {
  bool damaged = false;
  for (std::uint32_t count = input->U8() % 4; count > 0 && !file->empty(); --count) {
    const std::uint32_t place = input->U32() % static_cast<std::uint32_t>(file->size());
    if (input->U8() % 8 == 0) {
      file->resize(place);
    } else {
      kqtest::SetLe(file, place, input->U64(), input->Between(1, 8));
    }
    damaged = true;
  }
  return damaged;
}

void Cover(const Model& newer, Model* volume) {
  for (const auto& [place, data] : newer) (*volume)[place] = data;
}

Bytes ModelRange(const Model& volume, std::uint32_t sectorSize, std::uint64_t offset,
                 std::uint32_t length) {
  Bytes bytes(length);
  const std::uint64_t end = offset + length;
  for (auto at = volume.lower_bound(offset - offset % sectorSize);
       at != volume.end() && at->first < end; ++at) {
    const auto& [place, sector] = *at;
    const std::uint64_t from = std::max(place, offset);
    const std::uint64_t to = std::min(place + sectorSize, end);
    std::copy(sector.begin() + static_cast<std::ptrdiff_t>(from - place),
              sector.begin() + static_cast<std::ptrdiff_t>(to - place),
              bytes.begin() + static_cast<std::ptrdiff_t>(from - offset));
  }
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  static const std::array<kqfuzz::ScratchFile, kLargestChain> scratch;
  const std::uint32_t sectorSize = 256u << input.Between(0, 4);
  const std::uint8_t kind = input.U8();
  const std::uint32_t encryption = kind % 4 == 3 ? input.Between(1, 4) : 0;
  const std::size_t images = input.Between(1, kLargestChain);

  Model volume;
  // Sectors of 256 bytes are read in units of 512, which makes nonsense of the file.
  bool damaged = sectorSize < 512;
  bool sorted = true;
  std::vector<Bytes> files;
  std::string paths;
  kqtest::HeaderFields parent;
  for (std::size_t i = 0; i < images; ++i) {
    ImageSpec spec;
    spec.header =
        i == 0 ? kqtest::HeaderFields()
               : kqtest::IncrementOf(parent, kqtest::MakeId(static_cast<std::uint32_t>(10 + i)));
    spec.header.sectorSize = sectorSize;
    spec.header.sourceSize = std::uint64_t{kVolumeSectors} * sectorSize;
    spec.header.compressionType = kind / 4 % 2 == 0 ? 0 : 5;
    spec.header.record = sectorSize < 512 || kind / 8 % 2 == 0
                             ? std::nullopt
                             : std::optional(kqtest::RecordFields());
    ImageState image;
    for (std::uint32_t chunks = input.Between(1, 4); chunks > 0; --chunks) {
      spec.chunks.push_back(MakeChunk(&input, sectorSize, spec.header.compressionType, &image));
      if (input.U8() % 8 == 1) {
        Contradict(&input, &spec.chunks.back());
        damaged = true;
      }
    }
    Cover(image.model, &volume);
    sorted &= image.sorted;
    parent = spec.header;
    if (encryption != 0) {
      // With the identity of the file alone, so that a parent's blob stays its own.
      kqtest::EncipherImage(&spec, encryption, kPassword, i + 1);
    }
    Bytes file = kqtest::BuildImage(spec);
    if (Damage(&input, &file)) {
      damaged = true;
      kqfuzz::LimitClaims(&file);
      if (input.U8() % 2 == 0) kqfuzz::MendChecksums(&file);
    }
    scratch[i].Write(file);
    files.push_back(std::move(file));
    if (i > 0) paths += '|';
    paths += scratch[i].Path();
  }

  std::uint64_t handle = 1;
  const KQStatus opened =
      KQImageFilesOpen(paths.c_str(), encryption != 0 ? kPassword : nullptr, 0, &handle);
  FUZZ_CHECK((opened.status == 0) == (handle != 0));
  FUZZ_CHECK(damaged || opened.status == 0);
  if (opened.status == 0) {
    for (std::uint32_t reads = input.Between(1, 6); reads > 0; --reads) {
      const std::uint64_t offset =
          input.U8() % 16 == 0 ? input.U64()
                               : input.U32() % (std::uint64_t{kVolumeSectors + 64} * sectorSize);
      const std::uint32_t length = input.U32() % (24 * sectorSize);
      Bytes first(length, 0xAA);
      Bytes second(length, 0x55);
      std::uint32_t count = 0;
      const KQStatus one = KQImageFilesRead(handle, offset, first.data(), length, &count);
      FUZZ_CHECK(count == (one.status == 0 ? length : 0));
      const KQStatus two = KQImageFilesRead(handle, offset, second.data(), length, &count);
      FUZZ_CHECK(one.status == two.status);
      FUZZ_CHECK(first == second);
      if (!damaged) {
        FUZZ_CHECK((one.status == 0) == (length != 0));
        FUZZ_CHECK(one.status != 0 || !sorted ||
                   first == ModelRange(volume, sectorSize, offset, length));
      }
    }
    FUZZ_CHECK(KQImageFilesClose(handle, nullptr, nullptr, 0).status == 0);
  }
  for (std::size_t i = 0; i < images; ++i) FUZZ_CHECK(scratch[i].Holds(files[i]));
  return 0;
}
