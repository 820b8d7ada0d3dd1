#include "image/chain_order.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

using List = LinkedList<ChainCandidate, &ChainCandidate::links>;

bool IsZeroId(const std::uint8_t (&id)[16]) {
  return std::all_of(std::begin(id), std::end(id), [](std::uint8_t byte) { return byte == 0; });
}

bool SameId(const std::uint8_t (&a)[16], const std::uint8_t (&b)[16]) {
  return std::memcmp(a, b, sizeof a) == 0;
}

bool IsBase(const ImageHeader& header) {
  return !IsZeroId(header.ImageId) && IsZeroId(header.ParentImageId) && header.PartIndex == 0;
}

// True if b is the next image behind a, or the part that continues a.
bool Follows(const ChainCandidate& b, const ChainCandidate& a) {
  if (IsZeroId(a.header.ImageId) || IsZeroId(b.header.ImageId)) return false;
  if (b.header.PartIndex == 0) {
    return a.lastPart != 0 && SameId(b.header.ParentImageId, a.header.ImageId);
  }
  // PartIndex is above 0 here, so the sum that wraps around equals nothing.
  return a.lastPart == 0 && b.header.PartIndex == a.header.PartIndex + 1 &&
         SameId(b.header.ImageId, a.header.ImageId) &&
         SameId(b.header.ParentImageId, a.header.ParentImageId);
}

template <class Predicate>
ChainCandidate* FindFirst(const List& list, Predicate matches) {
  ChainCandidate* item = list.first();
  while (item != nullptr && !matches(*item)) item = List::Next(item);
  return item;
}

}  // namespace

CandidateList::~CandidateList() {
  while (!items.empty()) {
    ChainCandidate* item = items.first();
    items.Remove(item);
    Owned<ChainCandidate>(item).reset();
  }
}

KQStatus OrderCandidates(CandidateList* named, CandidateList* chain) {
  ChainCandidate* next =
      FindFirst(named->items, [](const ChainCandidate& item) { return IsBase(item.header); });
  if (next == nullptr) return KQ_FAIL(kNoMoreFiles);
  while (next != nullptr) {
    named->items.Remove(next);
    chain->items.PushBack(next);
    const ChainCandidate& last = *next;
    next = FindFirst(named->items,
                     [&last](const ChainCandidate& item) { return Follows(item, last); });
  }
  if (chain->items.last()->lastPart == 0 || !named->items.empty()) return KQ_FAIL(kNoMoreFiles);
  return Success();
}

}  // namespace kq
