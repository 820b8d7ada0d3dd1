// A hash index over the items of a cache, chained through a link inside the items, which it does
// not own. A fixed number of buckets: it never allocates and never fails, and a cache that is made
// very large only walks longer chains. Whoever owns an index guards it.
#ifndef KQ_IMAGE_BUCKET_INDEX_H
#define KQ_IMAGE_BUCKET_INDEX_H

#include <cstdint>

namespace kq {

// The hash of a key that consists of an object's address and a number within it.
inline std::uint64_t HashOf(const void* object, std::uint64_t number) {
  // Two odd multipliers spread addresses and offsets, whose low bits are mostly zero, into the
  // upper bits, where the index takes its buckets from.
  return (reinterpret_cast<std::uintptr_t>(object) ^ (number * 0x9E3779B97F4A7C15u)) *
         0xD6E8FEB86659FD93u;
}

template <class T, T* T::*kNextInBucket>
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
  static constexpr unsigned kBits = 12;
  static std::uint64_t BucketOf(std::uint64_t hash) { return hash >> (64 - kBits); }

  T* buckets_[std::uint64_t{1} << kBits] = {};
};

}  // namespace kq

#endif
