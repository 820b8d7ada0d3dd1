// Looks through every block of heap memory for secrets in the moment it is freed, whoever frees it.
//
// The program that has this linked in defines malloc, calloc, posix_memalign, realloc and free, and
// with them those that the shared library uses. It takes single-threaded use for granted. While
// nobody watches, a freed block is cleared, so that nothing a test has held turns up later in
// memory that the library frees.
//
// The calls that the library reads with pass through here as well, so that they can fail, and so
// that the random device gives what the test knows.
#ifndef KQ_TESTS_SECRETS_FREE_WATCH_H
#define KQ_TESTS_SECRETS_FREE_WATCH_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace kqtest {

// From here on, any pieceBytes consecutive bytes of the secret that begin at a multiple of stride
// are a finding, but for those that begin with two zeros. The name is kept as the pointer that it
// is. A piece has 8 bytes at least.
void AddSecret(const char* name, std::span<const std::uint8_t> secret, std::size_t pieceBytes = 8,
               std::size_t stride = 1);
void ForgetSecrets();

// Freed blocks are searched while it lives. Only calls of the library belong in its scope: a block
// that the test frees there counts as well.
class FreeWatch {
 public:
  FreeWatch();
  ~FreeWatch();
  FreeWatch(const FreeWatch&) = delete;
  FreeWatch& operator=(const FreeWatch&) = delete;
};

struct Finding {
  const char* secret;      // its name
  std::size_t blockBytes;  // of the freed block
  std::size_t offset;      // in the block
  const void* freedBy;     // the code that called free
};

// Of the latest watch; of many findings the first ones.
std::span<const Finding> Findings();
// Blocks freed under the latest watch.
std::size_t FreedBlocks();

// What goes wrong under a watch. Negative: nothing does.
struct Faults {
  int allocation = -1;   // this many allocations succeed before one fails
  int alignedRead = -1;  // this many reads at a position succeed; the next gives half, then fails
  int randomBytes = -1;  // this many bytes come from the random device before it fails
};
extern Faults faults;
// True if a fault has happened under the latest watch.
bool FaultHappened();

// What the random device gives under a watch; each watch begins anew.
void SetRandomBytes(std::span<const std::uint8_t> bytes);

}  // namespace kqtest

#endif
