#include <algorithm>
#include <cstring>
#include <utility>

#include "foundation/object_manager.h"
#include "header/read_header.h"
#include "image/chain_order.h"
#include "image/image_chain.h"

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

constexpr char kSeparator = '|';

// The name that starts at text: up to the next separator, and no more than kLongestPath of it.
HeapString CopyName(const char* text, std::size_t length) {
  const std::size_t kept = std::min<std::size_t>(length, kLongestPath);
  HeapString name(static_cast<char*>(std::malloc(kept + 1)));
  if (name) {
    std::memcpy(name.get(), text, kept);
    name.get()[kept] = '\0';
  }
  return name;
}

// Reads of a file what decides its place in the chain. No key is needed for it.
KQStatus ReadCandidate(ChainCandidate* candidate) {
  HeapBuffer sector;
  ChunkIndexHead indexHead;
  KQ_RETURN_IF_FAILED(ReadHeaderAndIndexHead(candidate->name.get(), 1, &sector, &indexHead));
  std::memcpy(&candidate->header, sector.data(), sizeof candidate->header);
  candidate->lastPart = indexHead.LastPart;
  return Success();
}

// Cuts the list into names. A separator at the very end is no further name, while an empty name
// anywhere else is one, and fails as a file that does not exist.
KQStatus ReadCandidates(const char* files, CandidateList* candidates) {
  const char* rest = files;
  do {
    const std::size_t length = static_cast<std::size_t>(strchrnul(rest, kSeparator) - rest);
    Owned<ChainCandidate> candidate = MakeOwned<ChainCandidate>();
    if (!candidate) return KQ_FAIL(kNotEnoughMemory);
    candidate->name = CopyName(rest, length);
    if (!candidate->name) return KQ_FAIL(kNotEnoughMemory);
    KQ_RETURN_IF_FAILED(ReadCandidate(candidate.get()));
    candidates->items.PushBack(candidate.release());
    rest += length;
    if (*rest == kSeparator) ++rest;
  } while (*rest != '\0');
  return Success();
}

KQStatus OpenMembers(const CandidateList& candidates, const char* password, ImageChain* chain) {
  for (const ChainCandidate* candidate = candidates.items.first(); candidate != nullptr;
       candidate = candidates.items.Next(candidate)) {
    Owned<ChainMember> member = MakeOwned<ChainMember>();
    if (!member) return KQ_FAIL(kNotEnoughMemory);
    KQ_RETURN_IF_FAILED(OpenImageFileOpen(candidate->name.get(), password, &member->File));
    chain->Members.PushBack(member.release());
  }
  return Success();
}

}  // namespace

KQStatus ChainOpen(const char* files, const char* password, std::uint64_t sparse,
                   std::uint64_t* handle) {
  *handle = 0;
  // The overlay belongs to this chain from here on, also if the open fails below.
  ChainOverlayOwner overlay;
  if (sparse != 0) {
    void* object = nullptr;
    KQ_RETURN_IF_FAILED(ObjectTake(sparse, &object));
    overlay.reset(static_cast<ChainOverlay*>(object));
  }
  Owned<ImageChain> chain = MakeOwned<ImageChain>();
  if (!chain) return KQ_FAIL(kNotEnoughMemory);
  chain->Sparse = std::move(overlay);

  CandidateList named;
  KQ_RETURN_IF_FAILED(ReadCandidates(files, &named));
  CandidateList ordered;
  KQ_RETURN_IF_FAILED(OrderCandidates(&named, &ordered));
  KQ_RETURN_IF_FAILED(OpenMembers(ordered, password, chain.get()));
  KQ_RETURN_IF_FAILED(ObjectCreate(chain.get(), handle));
  static_cast<void>(chain.release());
  return Success();
}

}  // namespace kq
