// Takes a finished image file apart without the library's own reader, for tests of writers, and
// tells the first rule of the format that the file breaks.
#ifndef KQ_TESTS_SUPPORT_IMAGE_PARSER_H
#define KQ_TESTS_SUPPORT_IMAGE_PARSER_H

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_fields.h"

namespace kqtest {

struct ParsedChunk {
  enum class Body { kRaw, kNone, kStream };

  std::uint64_t indexVolumeOffset = 0;  // as the index has it
  std::uint64_t fileOffset = 0;
  std::uint32_t storedSectors = 0;
  std::uint32_t expandedSectors = 0;
  std::vector<VolumeRun> runs;
  Bytes runList;  // the bytes behind the two counts, to the sector's end
  Body body = Body::kRaw;
  Bytes storedBody;  // as it lies in the file
  Bytes plainBody;   // deciphered
  Bytes stream;      // kStream: the L bytes
  // The data sectors in the order of the runs; empty for a stream that nobody expanded.
  Bytes data;
};

struct ParsedImage {
  std::string error;  // the first rule broken; empty for a correct file

  HeaderFields header;  // laterSectors are deciphered if a cipher was given
  std::uint32_t headerSectors = 0;
  Bytes firstSector;
  Bytes storedLaterSectors;
  std::uint64_t recordOffset = 0;  // 0: no record
  std::uint32_t headerCrc = 0;
  std::uint32_t extraCrc = 0;

  std::vector<ParsedChunk> chunks;
  std::uint64_t indexOffset = 0;
  std::uint64_t indexSectors = 0;
  std::uint32_t lastPart = 0;
  std::uint32_t indexLength = 0;
  Bytes indexPayload;

  bool ok() const { return error.empty(); }

  // True if a chunk of this file holds the byte.
  bool Holds(std::uint64_t offset) const;
  // The file's content of a volume range; the chunk first in the index wins, a hole reads as zero.
  Bytes ReadVolume(std::uint64_t offset, std::uint64_t length) const;
};

struct ParseOptions {
  // Deciphers header runs and chunk bodies (image_cipher.h); needed for the content of an
  // enciphered image.
  RunCipher decipher;
  // Expands a compressed stream to the given bytes, or refuses it. Without it streams stay as they
  // are.
  std::function<std::optional<Bytes>(std::uint32_t compressionType, const Bytes& stream,
                                     std::uint64_t expandedBytes)>
      expand;
  // "OPEN": the header of an unfinished file is taken; nothing behind it is looked at.
  std::string magic = "TWFI";
};

ParsedImage ParseImage(std::span<const std::uint8_t> file, const ParseOptions& options = {});

// The pairs of a run list up to its end byte or its last byte. *used, if given, receives the bytes
// taken without the end byte. Empty if the list is damaged.
std::optional<std::vector<std::pair<std::uint64_t, std::uint32_t>>> DecodeRunList(
    std::span<const std::uint8_t> list, std::size_t* used = nullptr);

// Expands frames of LZO1X streams with liblzo2; for ParseOptions::expand with type 5.
std::optional<Bytes> ExpandLzoFrames(const Bytes& stream, std::uint64_t expandedBytes);

}  // namespace kqtest

#endif
