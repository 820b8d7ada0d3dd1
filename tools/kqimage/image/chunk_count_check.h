// Checks that an image has all chunks that were written, without reading what is in them: for
// compressions that the library writes and can't read back.
#ifndef KQIMAGE_IMAGE_CHUNK_COUNT_CHECK_H
#define KQIMAGE_IMAGE_CHUNK_COUNT_CHECK_H

#include <cstdint>
#include <string>

namespace kqimage {

// Walks from chunk to chunk by their heads. Throws a Failure that names the image unless the chunks
// fill the file from its header to its index and hold storedBytes of the volume together. A last
// chunk that could not be written, or not wholly, is found by that: the library completes the image
// all the same.
void CheckChunkCount(const std::string& path, const std::string& name, std::uint64_t storedBytes);

}  // namespace kqimage

#endif
