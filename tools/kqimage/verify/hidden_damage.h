// Tells zeros that a chain holds from those that hide a damaged chunk.
//
// To the library's reader a chunk whose stream can't be decoded is zero, and so is the rest of the
// same read, under a status of success. So where a read ends in zeros, this looks at the chunks
// that they come from, each of them once.
#ifndef KQIMAGE_VERIFY_HIDDEN_DAMAGE_H
#define KQIMAGE_VERIFY_HIDDEN_DAMAGE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "kqimage/image/chain_reader.h"
#include "kqimage/image/image_file.h"
#include "kqimage/verify/range_set.h"
#include "kqimage/verify/verify_chunk.h"
#include "kqimage/verify/verify_layout.h"

namespace kqimage {

class HiddenDamage {
 public:
  // Opens the files of the chain, for which the password is good, once more. Throws a Failure.
  HiddenDamage(const Chain& chain, const char* password);

  // Fills bytes from the volume's offset, and throws a Failure if a part of them is lost. What lies
  // over the chain in a sparse file may hide that.
  void ReadWhole(const ChainReader& reader, std::uint64_t offset, std::span<std::byte> bytes);

  // bytes: what one read of the chain gave for the volume's offset. True if a chunk that should
  // have filled a part of them can't be decoded. For any thread; one looks at a time.
  bool IsIn(std::uint64_t offset, std::span<const std::byte> bytes);

 private:
  struct File {
    ImageLayout layout;
    std::unique_ptr<DataKey> key;
    std::vector<bool> isSound;  // of each chunk; false: not looked at
  };

  // delivered: the place of a byte that came out of its chunk.
  bool Hides(File& file, const std::optional<std::uint64_t>& delivered, RangeSet& open);
  bool IsDamaged(File& file, std::uint32_t chunk, const ChunkHeadReading& head);

  std::mutex mutex_;  // guards all below
  std::vector<File> files_;
  ChunkChecker checker_;
};

}  // namespace kqimage

#endif
