// What damage costs: which bytes of the volume each image of a chain has lost.
//
// A chain reads as its newest file that holds a byte, and within a file as the first chunk that
// does. Painting all chunks in the opposite order, the sound ones over the damaged, leaves what is
// lost; after each image it is what is lost of the volume as that image restores it.
#ifndef KQIMAGE_VERIFY_VERIFY_LOSSES_H
#define KQIMAGE_VERIFY_VERIFY_LOSSES_H

#include <cstdint>
#include <functional>
#include <vector>

#include "kqimage/verify/range_set.h"
#include "kqimage/verify/verify_members.h"
#include "kqimage/verify/verify_run.h"

namespace kqimage {

struct ImageLoss {
  std::size_t file = 0;  // in the store: the image's first part
  std::uint64_t volumeSize = 0;
  bool opens = false;  // false: nothing can be restored from it
  std::vector<VolumeRange> lost;
  // Held by files whose bytes are not those that were written, without anything that tells which.
  std::vector<VolumeRange> suspect;

  bool IsWhole() const { return opens && lost.empty() && suspect.empty(); }
};

// An entry for each image of the chain, oldest first. findings are the store's files'. Behind a
// file that is missing or opens nowhere nothing can be restored. interrupt is called now and then.
std::vector<ImageLoss> ComputeLosses(const VerifiedChain& chain, const LayoutStore& store,
                                     const std::vector<FileFindings>& findings,
                                     const std::function<void()>& interrupt);

}  // namespace kqimage

#endif
