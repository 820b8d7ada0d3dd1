// The process-wide state of chains: its set-up at load and its end at unload.
//
// All of it is constant-initialised with the default limits, so that it works before the start as
// well. Nothing here may run while an exported call is in progress.
#ifndef KQ_IMAGE_IMAGE_ROOM_H
#define KQ_IMAGE_IMAGE_ROOM_H

#include "foundation/configuration.h"

namespace kq {

// Sets the limits of the caches, and empties them.
void ImageRoomStart(const Configuration& configuration);

// Frees the caches. Files that are still open are abandoned: their memory and descriptors stay.
void ImageRoomFinish();

}  // namespace kq

#endif
