#include "foundation/object_manager.h"
#include "image/image_chain.h"

namespace kq {

ImageChain::~ImageChain() {
  while (!Members.empty()) {
    ChainMember* member = Members.first();
    Members.Remove(member);
    OpenImageFileRelease(member->File);
    Owned<ChainMember>(member).reset();
  }
}

KQStatus ChainClose(std::uint64_t handle) {
  void* object = nullptr;
  KQ_RETURN_IF_FAILED(ObjectTake(handle, &object));
  // From here on this thread is alone with the chain. An overlay is closed before the members are
  // released, since the newest member is the parent of what it may become.
  Owned<ImageChain>(static_cast<ImageChain*>(object)).reset();
  return Success();
}

}  // namespace kq
