// A hash index over items, chained through a link inside them, which it does not own. A fixed
// number of buckets: it never allocates and never fails, and very many items only make longer
// chains. Items of one hash stand in their chain in the opposite order of their coming, the last
// first. Whoever owns an index guards it.
#ifndef KQ_IMAGE_BUCKET_INDEX_H
#define KQ_IMAGE_BUCKET_INDEX_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>

namespace kq {

// The hash of a key that consists of an object's address and a number within it.
inline std::uint64_t HashOf(const void* object, std::uint64_t number) {
  // Two odd multipliers spread addresses and offsets, whose low bits are mostly zero, into the
  // upper bits, where the index takes its buckets from.
  return (reinterpret_cast<std::uintptr_t>(object) ^ (number * 0x9E3779B97F4A7C15u)) *
         0xD6E8FEB86659FD93u;
}

// The hash of a key that consists of bytes and a number. Eight bytes at a time, each of them spread
// over the upper half, which is folded back so that it takes part in the next step.
inline std::uint64_t HashOfBytes(std::span<const std::uint8_t> bytes, std::uint64_t number) {
  std::uint64_t hash = bytes.size() ^ (number * 0x9E3779B97F4A7C15u);
  while (!bytes.empty()) {
    const std::size_t count = std::min<std::size_t>(bytes.size(), sizeof(std::uint64_t));
    std::uint64_t word = 0;
    std::memcpy(&word, bytes.data(), count);
    hash = (hash ^ word) * 0xD6E8FEB86659FD93u;
    hash ^= hash >> 32;
    bytes = bytes.subspan(count);
  }
  return hash;
}

template <class T, T* T::*kNextInBucket, unsigned kBits = 12>
class BucketIndex {
 public:
  constexpr BucketIndex() = default;

  T* First(std::uint64_t hash) const { return buckets_[BucketOf(hash)]; }
  static T* Next(const T* item) { return item->*kNextInBucket; }

  void Add(std::uint64_t hash, T* item) {
    T*& bucket = buckets_[BucketOf(hash)];
    item->*kNextInBucket = bucket;
    bucket = item;
  }

  void Remove(std::uint64_t hash, T* item) {
    T** link = &buckets_[BucketOf(hash)];
    while (*link != item) link = &((*link)->*kNextInBucket);
    *link = item->*kNextInBucket;
    item->*kNextInBucket = nullptr;
  }

 private:
  static std::uint64_t BucketOf(std::uint64_t hash) { return hash >> (64 - kBits); }

  T* buckets_[std::uint64_t{1} << kBits] = {};
};

}  // namespace kq

#endif
