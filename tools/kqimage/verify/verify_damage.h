// What can be wrong with an image.
#ifndef KQIMAGE_VERIFY_VERIFY_DAMAGE_H
#define KQIMAGE_VERIFY_VERIFY_DAMAGE_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace kqimage {

enum class DamageKind : std::uint8_t {
  kReading,         // the disk or file system fails to deliver bytes of the file
  kHeader,          // a field of the header makes no sense
  kHeaderChecksum,  // over sector 0
  kExtraChecksum,   // over the header's other sectors
  kEnd,             // the file ends too early
  kIndexPointer,    // the last sector does not lead to the index
  kIndex,
  kGap,  // bytes between the chunks that belong to none, or to a chunk that the index lacks
  kChunkHead,
  kRunList,
  kStreamLength,
  kStream,
  kSum,  // not the bytes of which the .sha256 tells
  kMissingPart,
  kMissingParent,
};

// The name of the kind in JSON.
const char* DamageName(DamageKind kind);

struct Damage {
  DamageKind kind = DamageKind::kReading;
  std::string text;                         // in plain words, without the file's name
  std::optional<std::uint32_t> chunk = {};  // counted from 0
  std::optional<std::uint64_t> fileOffset = {};
  // No reader opens a chain with this file in it.
  bool closesChain = false;
};

}  // namespace kqimage

#endif
