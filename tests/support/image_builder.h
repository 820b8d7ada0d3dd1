// Composes image files byte by byte, without the library's own code, for tests of readers. By
// default the result is a correct finished file; every field and region can be made wrong.
//
//   ImageSpec spec;
//   spec.chunks = {RawChunk({{0x10000, 8}}, PatternBytes(1, 8 * 512))};
//   WriteFile(path, BuildImage(spec));
//
// Defects that no knob makes are patched into the finished bytes at the places that ImageLayout
// tells.
#ifndef KQ_TESTS_SUPPORT_IMAGE_BUILDER_H
#define KQ_TESTS_SUPPORT_IMAGE_BUILDER_H

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/image_fields.h"

namespace kqtest {

struct ChunkSpec {
  enum class Body { kRaw, kNone, kStream };

  std::vector<VolumeRun> runs;
  Body body = Body::kRaw;
  // kRaw: the data sectors in the order of the runs, filled up with zero to ExpandedSectors.
  // kStream: the compressed stream, which gets its u32 length in front and zero behind.
  Bytes data;

  // Overrides; what is empty follows from the above.
  std::optional<std::uint32_t> storedSectors;    // the field alone, the body stays as it is
  std::optional<std::uint32_t> expandedSectors;  // the field alone
  std::optional<std::uint32_t> streamLength;     // the u32 in front of a stream
  std::optional<Bytes> runList;                  // the list with its end byte
  std::optional<Bytes> wholeBody;                // the body before enciphering, in whole sectors
  std::optional<std::uint64_t> indexVolumeOffset;
  std::optional<std::uint64_t> indexFileOffset;  // where the index says that the chunk begins
};

ChunkSpec RawChunk(std::vector<VolumeRun> runs, Bytes data);
ChunkSpec ZeroChunk(std::vector<VolumeRun> runs);  // the form without a body
ChunkSpec StreamChunk(std::vector<VolumeRun> runs, Bytes stream);

struct IndexSpec {
  std::uint64_t zero = 0;  // the first eight bytes
  std::uint32_t lastPart = 0xFFFFFFFF;
  std::uint32_t extraSectors = 0;            // zero sectors behind the padding
  std::optional<std::uint32_t> indexLength;  // the field alone
  std::optional<Bytes> payload;              // the top-level run list with its end byte
  std::optional<std::uint64_t> pointer;      // what the IndexPointerSector says
  Bytes pointerTail;                         // its bytes from offset 8
};

// Enciphers a run whose vector is volumeOffset and eight zero bytes (image_cipher.h makes them).
using RunCipher = std::function<Bytes(Bytes run, std::uint64_t volumeOffset)>;

struct ImageSpec {
  HeaderFields header;
  std::vector<ChunkSpec> chunks;
  IndexSpec index;
  RunCipher encipher;  // for sectors 1 onward of the header and chunk bodies

  // Overrides of single fields; the layout stays.
  std::optional<std::uint32_t> sectorSizeField;
  std::optional<std::uint32_t> headerSectorsField;
  std::optional<std::uint32_t> flagsField;
  std::optional<std::uint16_t> keyBlobLengthField;
  std::optional<std::uint32_t> headerCrc;
  std::optional<std::uint32_t> extraCrc;

  std::uint32_t layoutSectorSize = 0;  // 0: header.sectorSize
  Bytes gapBeforeIndex;
  Bytes trailing;  // behind the IndexPointerSector
};

struct ImageLayout {
  std::uint64_t sectorSize = 0;
  std::uint64_t headerBytes = 0;
  std::uint64_t commentOffset = 0;
  std::uint64_t recordOffset = 0;  // 0: no record
  std::vector<std::uint64_t> chunkOffsets;
  std::uint64_t indexOffset = 0;
  std::uint64_t pointerOffset = 0;
};

Bytes BuildImage(const ImageSpec& spec, ImageLayout* layout = nullptr);

// Only the header's sectors, as a template for a new image.
Bytes BuildHeader(const ImageSpec& spec, ImageLayout* layout = nullptr);

// Sets ExtraCrc and HeaderCrc of a record at recordOffset anew, after bytes were patched.
void SetHeaderChecksums(Bytes* image, std::uint64_t recordOffset, std::uint32_t sectorSize,
                        std::uint32_t headerSectors);

// The header of an increment over parent, and of the part that continues it.
HeaderFields IncrementOf(const HeaderFields& parent, const Id& imageId);
HeaderFields NextPartOf(const HeaderFields& part);

// The run-list encoding of (offset, length) pairs, without an end byte.
Bytes EncodeRunList(std::span<const std::pair<std::uint64_t, std::uint32_t>> runs);

// CRC-32/BZIP2, bit by bit.
std::uint32_t PlainCrcMsbFirst(std::span<const std::uint8_t> bytes);

// Framed LZO streams: one frame of liblzo2's LZO1X-1(15), frames of at most frameInput bytes each,
// and a frame that holds literals only.
Bytes LzoFrame(std::span<const std::uint8_t> data);
Bytes LzoFrames(std::span<const std::uint8_t> data, std::size_t frameInput);
Bytes LiteralLzoFrame(std::span<const std::uint8_t> data);

}  // namespace kqtest

#endif
