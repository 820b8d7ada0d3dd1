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

KQStatus ChainClose(std::uint64_t handle, const OverlayClosing& closing) {
  void* object = nullptr;
  KQ_RETURN_IF_FAILED(ObjectTake(handle, &object));
  // From here on this thread is alone with the chain.
  const Owned<ImageChain> chain(static_cast<ImageChain*>(object));
  if (!chain->Sparse) return Success();
  // Before the members are released: the newest is the parent of what the overlay may become.
  return chain->Sparse.release()->CloseAndFree(chain->Members.last()->File, closing);
}

}  // namespace kq
