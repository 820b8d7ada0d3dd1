// Nothing here may allocate. The headers of the calls that are defined here are left out where
// their declarations would be at odds with that.
#include "tests/secrets/free_watch.h"

#include <malloc.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

extern "C" {
long syscall(long number, ...);
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* memory);
}

namespace kqtest {

constinit Faults faults;

namespace {

constexpr std::size_t kPrefixBytes = sizeof(std::uint64_t);
constexpr std::size_t kMostPieces = 4096;
constexpr std::size_t kMostPieceBytes = 1 << 20;
constexpr std::size_t kMostFindings = 16;

struct Piece {
  std::uint64_t prefix;  // its first bytes
  const std::uint8_t* bytes;
  std::size_t size;
  const char* secret;
};

constinit Piece pieces[kMostPieces] = {};
constinit std::size_t pieceCount = 0;
constinit std::uint8_t pieceBytesInUse[kMostPieceBytes] = {};
constinit std::size_t pieceBytesUsed = 0;
// Which two bytes a piece begins with: one look-up tells of nearly all places that nothing is
// there.
constinit bool beginsAPiece[0x10000] = {};

constinit bool watching = false;
constinit Finding findings[kMostFindings] = {};
constinit std::size_t findingCount = 0;
constinit std::size_t freedBlocks = 0;

constinit bool faultHappened = false;
constinit std::uint8_t randomBytes[64] = {};
constinit std::size_t randomSize = 0;
constinit std::size_t randomTaken = 0;

void Search(const std::uint8_t* block, std::size_t size, const void* freedBy) {
  for (std::size_t at = 0; at + kPrefixBytes <= size; ++at) {
    std::uint64_t prefix = 0;
    std::memcpy(&prefix, block + at, kPrefixBytes);
    if (!beginsAPiece[prefix & 0xFFFF]) continue;
    for (const Piece& piece : std::span(pieces, pieceCount)) {
      if (piece.prefix != prefix || piece.size > size - at ||
          std::memcmp(piece.bytes, block + at, piece.size) != 0) {
        continue;
      }
      if (findingCount < kMostFindings) {
        findings[findingCount++] = {piece.secret, size, at, freedBy};
      }
      return;
    }
  }
}

void SearchAndFree(void* memory, const void* freedBy) {
  const std::size_t size = malloc_usable_size(memory);
  if (watching) {
    ++freedBlocks;
    Search(static_cast<const std::uint8_t*>(memory), size, freedBy);
  }
  explicit_bzero(memory, size);
  __libc_free(memory);
}

bool AllocationFails() {
  if (!watching || faults.allocation < 0 || faults.allocation-- > 0) return false;
  faultHappened = true;
  errno = ENOMEM;
  return true;
}

bool IsRandomDevice(int fd) {
  struct stat found {};
  return fstat(fd, &found) == 0 && S_ISCHR(found.st_mode) && found.st_rdev == makedev(1, 9);
}

ssize_t ReadRandom(void* buffer, std::size_t length) {
  std::size_t count = std::min(length, randomSize - randomTaken);
  if (faults.randomBytes >= 0) {
    const auto left = static_cast<std::size_t>(faults.randomBytes);
    if (left <= randomTaken) {
      faultHappened = true;
      errno = EIO;
      return -1;
    }
    count = std::min(count, left - randomTaken);
  }
  std::memcpy(buffer, randomBytes + randomTaken, count);
  randomTaken += count;
  return static_cast<ssize_t>(count);
}

}  // namespace

void AddSecret(const char* name, std::span<const std::uint8_t> secret, std::size_t pieceBytes,
               std::size_t stride) {
  if (secret.size() < pieceBytes || pieceBytes < kPrefixBytes ||
      secret.size() > kMostPieceBytes - pieceBytesUsed ||
      (secret.size() - pieceBytes) / stride + 1 > kMostPieces - pieceCount) {
    std::abort();
  }
  std::uint8_t* const copy = pieceBytesInUse + pieceBytesUsed;
  std::memcpy(copy, secret.data(), secret.size());
  pieceBytesUsed += secret.size();
  for (std::size_t at = 0; at + pieceBytes <= secret.size(); at += stride) {
    Piece piece{0, copy + at, pieceBytes, name};
    std::memcpy(&piece.prefix, piece.bytes, kPrefixBytes);
    // Memory is full of zeros: a search for such a piece would be slow.
    if ((piece.prefix & 0xFFFF) == 0) continue;
    beginsAPiece[piece.prefix & 0xFFFF] = true;
    pieces[pieceCount++] = piece;
  }
}

void ForgetSecrets() {
  pieceCount = 0;
  pieceBytesUsed = 0;
  std::fill(std::begin(beginsAPiece), std::end(beginsAPiece), false);
}

FreeWatch::FreeWatch() {
  findingCount = 0;
  freedBlocks = 0;
  faultHappened = false;
  randomTaken = 0;
  watching = true;
}

FreeWatch::~FreeWatch() { watching = false; }

std::span<const Finding> Findings() { return {findings, findingCount}; }

std::size_t FreedBlocks() { return freedBlocks; }

bool FaultHappened() { return faultHappened; }

void SetRandomBytes(std::span<const std::uint8_t> bytes) {
  if (bytes.size() > sizeof randomBytes) std::abort();
  std::copy(bytes.begin(), bytes.end(), randomBytes);
  randomSize = bytes.size();
}

}  // namespace kqtest

// The project hides its symbols by default; these must be seen by the shared library.
#define KQ_SEEN_BY_ALL __attribute__((visibility("default")))

extern "C" {

KQ_SEEN_BY_ALL void* malloc(std::size_t size) {
  return kqtest::AllocationFails() ? nullptr : __libc_malloc(size);
}

KQ_SEEN_BY_ALL void* calloc(std::size_t count, std::size_t size) {
  return kqtest::AllocationFails() ? nullptr : __libc_calloc(count, size);
}

KQ_SEEN_BY_ALL int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  if (kqtest::AllocationFails()) return ENOMEM;
  void* const made = __libc_memalign(alignment, size);
  if (made == nullptr) return ENOMEM;
  *memory = made;
  return 0;
}

KQ_SEEN_BY_ALL void free(void* memory) {
  if (memory != nullptr) kqtest::SearchAndFree(memory, __builtin_return_address(0));
}

// Always moves, so that what a move leaves behind is searched.
KQ_SEEN_BY_ALL void* realloc(void* memory, std::size_t size) {
  if (memory != nullptr && size == 0) {
    kqtest::SearchAndFree(memory, __builtin_return_address(0));
    return nullptr;
  }
  void* const made = kqtest::AllocationFails() ? nullptr : __libc_malloc(size);
  if (made == nullptr || memory == nullptr) return made;
  std::memcpy(made, memory, std::min(size, malloc_usable_size(memory)));
  kqtest::SearchAndFree(memory, __builtin_return_address(0));
  return made;
}

KQ_SEEN_BY_ALL ssize_t read(int fd, void* buffer, std::size_t length) {
  if (kqtest::watching && kqtest::IsRandomDevice(fd)) return kqtest::ReadRandom(buffer, length);
  return syscall(SYS_read, fd, buffer, length);
}

KQ_SEEN_BY_ALL ssize_t pread64(int fd, void* buffer, std::size_t length, off64_t offset) {
  constexpr int kFailing = -2;  // the read has given half and now fails
  using kqtest::faults;
  if (kqtest::watching && faults.alignedRead == kFailing) {
    faults.alignedRead = -1;
    kqtest::faultHappened = true;
    errno = EIO;
    return -1;
  }
  if (kqtest::watching && faults.alignedRead >= 0 && faults.alignedRead-- == 0) {
    faults.alignedRead = kFailing;
    length = (length + 1) / 2;
  }
  return syscall(SYS_pread64, fd, buffer, length, offset);
}

}  // extern "C"
