// A chain of image files behind one handle, which reads as one flat volume.
//
// The chain owns its members, and each member holds one reference on an OpenImageFile. It owns its
// overlay too, from the moment that it takes the overlay's handle. The handle's mutex is held for
// each operation on a chain, so nothing here has a lock of its own. The road of a read is
// chain_read.cpp, read_pieces.cpp, chunk_header_cache.cpp, chunk_cache.cpp and chunk_decode.cpp.
#ifndef KQ_IMAGE_IMAGE_CHAIN_H
#define KQ_IMAGE_IMAGE_CHAIN_H

#include <cstdint>

#include "foundation/memory.h"
#include "foundation/status.h"
#include "image/chain_overlay.h"
#include "image/linked_list.h"
#include "image/open_image_file.h"

namespace kq {

struct ChainMember {
  OpenImageFile* File = nullptr;  // one reference
  ListLinks<ChainMember> links;
};

struct ImageChain {
  LinkedList<ChainMember, &ChainMember::links> Members;  // base image first, newest last
  ChainOverlayOwner Sparse;                              // the overlay, may be empty

  ImageChain() = default;
  ~ImageChain();  // releases all members (chain_close.cpp), then closes an overlay that is left
};

// Opens the chain that the files of the list form (chain_open.cpp). sparse is 0 or the handle of a
// sparse file, which is taken over first and consumed in any case: after a failure it is closed,
// with its changes on the disk. -18 the files form no chain; and what the sparse handle and the
// single files give. *handle is 0 on failure.
KQStatus ChainOpen(const char* files, const char* password, std::uint64_t sparse,
                   std::uint64_t* handle);

// Reads length bytes of the volume from offset, the overlay's included (chain_read.cpp). Every byte
// of the buffer is set on success; on a failure its content means nothing.
KQStatus ChainRead(const ImageChain& chain, std::uint64_t offset, std::uint8_t* buffer,
                   std::uint32_t length);

// Takes the handle out of the table, waits for calls in progress, and closes the chain, its overlay
// first (chain_close.cpp). -87 unknown handle; nothing is closed then. Any other failure is the
// overlay's, and the chain is closed all the same.
KQStatus ChainClose(std::uint64_t handle, const OverlayClosing& closing);

}  // namespace kq

#endif
