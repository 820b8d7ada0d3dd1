// Watches in which order locks are taken while a test runs. Of a library it tells the locks that
// live as long as the library (they lie in its own memory) from those of handles (on the heap).
//
// The order: a handle's lock, then one of the library's; never two of the library's at once, never
// a handle's under one of the library's, and the object manager's never together with a handle's.
#ifndef KQ_TESTS_CAMPAIGNS_LOCK_ORDER_H
#define KQ_TESTS_CAMPAIGNS_LOCK_ORDER_H

#include <cstddef>
#include <functional>

namespace kqtest {

struct LockReport {
  std::size_t libraryLocks = 0;  // different ones that were taken
  std::size_t nested = 0;        // how often one was taken under a handle's
  // Violations.
  std::size_t twoLibraryLocks = 0;
  std::size_t handleUnderLibrary = 0;
  std::size_t managerUnderHandle = 0;
};

// From now on, in all threads; of the library or program whose memory holds the address.
// takeManager must take and release the object manager's lock, and no other.
void WatchLocks(const void* inLibrary, const std::function<void()>& takeManager);

// Ends it.
LockReport EndOfWatch();

}  // namespace kqtest

#endif
