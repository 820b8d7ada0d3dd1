// Which files form a chain, told from their headers alone.
#ifndef KQ_IMAGE_CHAIN_ORDER_H
#define KQ_IMAGE_CHAIN_ORDER_H

#include <cstdint>

#include "foundation/memory.h"
#include "foundation/status.h"
#include "image/linked_list.h"
#include "kqimageformat.h"

namespace kq {

// A file that was named for a chain, and what decides its place.
struct ChainCandidate {
  HeapString name;
  ImageHeader header{};
  std::uint32_t lastPart = 0;  // from its ChunkIndex
  ListLinks<ChainCandidate> links;
  ChainCandidate* nextInBucket = nullptr;
};

// Owns its candidates.
struct CandidateList {
  LinkedList<ChainCandidate, &ChainCandidate::links> items;

  CandidateList() = default;
  ~CandidateList();
};

// Moves the candidates from named, which is in the order the client gave, to chain, base image
// first. -18 if they do not form exactly one whole chain.
KQStatus OrderCandidates(CandidateList* named, CandidateList* chain);

}  // namespace kq

#endif
