// The search for matches in a stretch of a frame, one position after the other, which writes what
// it finds. Each kind of processor has its own, all with the same results. Nothing here allocates
// or fails; frame, table and output are the caller's.
#ifndef KQ_CODEC_LZO_SEARCH_H
#define KQ_CODEC_LZO_SEARCH_H

#include <cstddef>
#include <cstdint>

#include "codec/lzo_wide_search.h"

namespace kq {

// What is on its way through a frame.
struct LzoFrame {
  const std::uint8_t* p;        // the position to be searched
  const std::uint8_t* pending;  // the literals from here to p aren't written yet
  const std::uint8_t* const end;
  std::uint8_t* out;
};

// Searches the positions of a stretch, which begins at the frame's p, up to its end, where the next
// one goes on or a match has led beyond. Of each position searched, and of literals before it, 32
// bytes can be read.
void LzoSearchStretchSse2(LzoFrame* frame, const LzoPositions& stretch, std::size_t length,
                          LzoTableEntry* table);
void LzoSearchStretchAvx2(LzoFrame* frame, const LzoPositions& stretch, std::size_t length,
                          LzoTableEntry* table);
// The same for the last stretch of a frame: reads no more than the frame's bytes.
void LzoSearchFrameEnd(LzoFrame* frame, const LzoPositions& stretch, std::size_t length,
                       LzoTableEntry* table);

}  // namespace kq

#endif
