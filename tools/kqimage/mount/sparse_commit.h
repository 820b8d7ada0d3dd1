// A sparse file becomes a new increment of the image that it was laid over.
#ifndef KQIMAGE_MOUNT_SPARSE_COMMIT_H
#define KQIMAGE_MOUNT_SPARSE_COMMIT_H

#include <cstdint>
#include <string>

#include "kqimage/image/image_file.h"
#include "kqimage/image/image_output.h"

namespace kqimage {

struct SparseCommit {
  std::string sparse;  // closed, and locked by the caller
  std::string out;
  ImageOutputOptions output = {};
  std::string comment;
};

// Makes the increment on the chain and opens the chain with it, to compare every byte that the
// sparse file holds with what the volume reads there now. Only then the image gets its name for
// good; on every failure, thrown as a Failure or Interrupted, no image is left and the sparse file
// is as it was. Returns the bytes stored; 0 if the sparse file holds nothing, then no image is
// made.
std::uint64_t CommitSparse(const SparseCommit& commit, const Chain& chain, const char* password);

}  // namespace kqimage

#endif
