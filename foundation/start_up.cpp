// What runs when the loader brings the library up and takes it down: the one place that knows every
// room. A client just calls exported functions.
//
// The rooms' process-wide state is constant-initialised and trivially destroyed, so it is there
// before these routines run, in whatever order the loader calls them among others of the process.
// Handles and image files that are still open at the end are abandoned: their memory and
// descriptors stay until the process ends.
#include "foundation/configuration.h"
#include "foundation/object_manager.h"
#include "image/image_room.h"

namespace kq {
namespace {

__attribute__((constructor)) void Start() {
  const Configuration configuration =
      ReadConfigurationBeside(reinterpret_cast<const void*>(&ReadConfigurationBeside));
  ImageRoomStart(configuration);
  ObjectManagerStart();
}

__attribute__((destructor)) void Finish() {
  ImageRoomFinish();
  ObjectManagerFinish();
}

}  // namespace
}  // namespace kq
