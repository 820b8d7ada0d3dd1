#include "image/chain_order.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "image/bucket_index.h"

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

// The candidates by what they follow, those of one chain in the order the client gave. Clients name
// chains newest first as often as base first, and a thousand files must not be searched a thousand
// times.
class Followers {
 public:
  explicit Followers(const List& named) {
    for (ChainCandidate* item = named.last(); item != nullptr; item = List::Previous(item)) {
      index_.Add(HashOfPlace(item->header), item);
    }
  }

  void Remove(ChainCandidate* item) { index_.Remove(HashOfPlace(item->header), item); }

  // The first that follows a, or null.
  ChainCandidate* FirstBehind(const ChainCandidate& a) const {
    const std::uint32_t part = a.lastPart != 0 ? 0 : a.header.PartIndex + 1;
    ChainCandidate* item = index_.First(HashOfBytes(a.header.ImageId, part));
    while (item != nullptr && !Follows(*item, a)) item = index_.Next(item);
    return item;
  }

 private:
  // What the file that it follows is searched by: the parent's identifier, or the part's own.
  static std::uint64_t HashOfPlace(const ImageHeader& header) {
    return HashOfBytes(header.PartIndex == 0 ? header.ParentImageId : header.ImageId,
                       header.PartIndex);
  }

  // Small, since most chains are short and it is on the stack.
  BucketIndex<ChainCandidate, &ChainCandidate::nextInBucket, 9> index_;
};

ChainCandidate* FindBase(const List& list) {
  ChainCandidate* item = list.first();
  while (item != nullptr && !IsBase(item->header)) item = List::Next(item);
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
  ChainCandidate* next = FindBase(named->items);
  if (next == nullptr) return KQ_FAIL(kNoMoreFiles);
  Followers followers(named->items);
  while (next != nullptr) {
    named->items.Remove(next);
    followers.Remove(next);
    chain->items.PushBack(next);
    next = followers.FirstBehind(*next);
  }
  if (chain->items.last()->lastPart == 0 || !named->items.empty()) return KQ_FAIL(kNoMoreFiles);
  return Success();
}

}  // namespace kq
