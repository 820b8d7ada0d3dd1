// The decoder of compression type 6 and its work area, one for the whole process.
//
// The work area exists while image files of type 6 are open: each holds one use from its open to
// its close. compressorMutex guards it, and is held for the decoding of a whole chunk, so chunks of
// type 6 are decoded one at a time.
#ifndef KQ_IMAGE_SHARED_COMPRESSOR_H
#define KQ_IMAGE_SHARED_COMPRESSOR_H

#include <cstdint>

#include "codec/compressor.h"
#include "foundation/mutex.h"
#include "foundation/status.h"

namespace kq {

extern Mutex compressorMutex;
extern Compressor* SharedCompressor GUARDED_BY(compressorMutex);  // null without users
extern std::uint32_t compressorUsers GUARDED_BY(compressorMutex);

// Takes a use; the first one allocates the work area. -8.
KQStatus SharedCompressorAcquire();
// Gives it back; the last one frees the work area.
void SharedCompressorRelease();

// Expands a stream of type 6 into output. *outputLength holds the room there on entry and the bytes
// written on success. False if the stream is bad in any way. The caller holds a use.
bool SharedCompressorDecode(const std::uint8_t* stream, std::uint64_t streamLength,
                            std::uint8_t* output, std::uint64_t* outputLength);

}  // namespace kq

#endif
