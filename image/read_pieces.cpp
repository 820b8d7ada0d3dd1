#include "image/read_pieces.h"

#include <cstdlib>
#include <new>
#include <type_traits>

namespace kq {
namespace {

// Two neighbours without a gap between them.
bool Touch(const ReadPiece& a, const ReadPiece& b) { return a.End + 1 == b.Start; }

// True for the pieces of the list where a new one's walk stops: those that it reaches or that lie
// wholly behind it. All pieces behind such a one are such too.
bool StopsAt(const ReadPiece& present, const ReadPiece& piece) {
  return present.Start > piece.End || piece.Start <= present.End;
}

}  // namespace

PieceList::~PieceList() {
  while (blocks_ != nullptr) {
    Block* next = blocks_->next;
    std::free(blocks_);
    blocks_ = next;
  }
}

void* PieceList::Take(std::size_t size) {
  constexpr std::size_t kUnit = alignof(std::max_align_t);
  size = (size + kUnit - 1) / kUnit * kUnit;
  if (size > freeBytes_) {
    constexpr std::size_t kLinkBytes = (sizeof(Block) + kUnit - 1) / kUnit * kUnit;
    void* memory = std::malloc(kBlockBytes);
    if (memory == nullptr) return nullptr;
    blocks_ = ::new (memory) Block{blocks_};
    free_ = static_cast<std::uint8_t*>(memory) + kLinkBytes;
    freeBytes_ = kBlockBytes - kLinkBytes;
  }
  void* taken = free_;
  free_ += size;
  freeBytes_ -= size;
  return taken;
}

const ChunkPlace* PieceList::AddChunk(const ChunkPlace& chunk) {
  static_assert(std::is_trivially_destructible_v<ChunkPlace>);
  void* memory = Take(sizeof(ChunkPlace));
  return memory != nullptr ? ::new (memory) ChunkPlace(chunk) : nullptr;
}

PieceList::Node* PieceList::StretchEnd(Node* node) {
  // Halving the way for those who come later keeps it short.
  while (node->further != node) {
    node->further = node->further->further;
    node = node->further;
  }
  return node;
}

// The first node where the piece's walk stops, and the node before it.
PieceList::Node* PieceList::FindPlace(const ReadPiece& piece, Node** before) const {
  Node* place = nullptr;
  *before = nullptr;
  for (AvlItem* item = root_; item != nullptr;) {
    Node* node = NodeOf(item);
    if (StopsAt(node->piece, piece)) {
      place = node;
      item = item->left;
    } else {
      *before = node;
      item = item->right;
    }
  }
  return place;
}

// before and after are neighbours; null stands for the list's ends.
bool PieceList::Insert(const ReadPiece& piece, Node* before, Node* after) {
  static_assert(std::is_trivially_destructible_v<Node>);
  static_assert(offsetof(Node, item) == 0);
  void* memory = Take(sizeof(Node));
  if (memory == nullptr) return false;
  Node* node = ::new (memory) Node{{}, piece, after, nullptr};
  node->further = after != nullptr && Touch(piece, after->piece) ? after : node;
  (before != nullptr ? before->next : first_) = node;
  if (after == nullptr) last_ = node;
  // A neighbour that does not end its stretch already leads on to after's.
  if (before != nullptr && before->further == before && Touch(before->piece, piece)) {
    before->further = node;
  }

  // Of two neighbours in a tree, one has a free side towards the other.
  AvlItem* parent = nullptr;
  if (before != nullptr && before->item.right == nullptr) {
    parent = &before->item;
    parent->right = &node->item;
  } else if (after != nullptr) {
    parent = &after->item;
    parent->left = &node->item;
  }
  if (parent == nullptr) root_ = &node->item;
  node->item.parent = parent != nullptr ? parent : &node->item;
  AvlAfterInsert(&node->item, &root_);
  return true;
}

bool PieceList::Merge(const ReadPiece& piece) {
  if (first_ == nullptr || piece.Start > last_->piece.End) return Insert(piece, last_, nullptr);

  ReadPiece rest = piece;
  Node* before = nullptr;
  Node* after = FindPlace(rest, &before);
  while (after != nullptr && after->piece.Start <= rest.End) {
    if (rest.Start < after->piece.Start) {
      ReadPiece part = rest;
      part.End = after->piece.Start - 1;
      if (!Insert(part, before, after)) return false;
    }
    before = StretchEnd(after);
    // Also what would be left behind the volume's very last byte is used up.
    if (before->piece.End >= rest.End) return true;
    rest.Start = before->piece.End + 1;
    after = before->next;
  }
  return Insert(rest, before, after);
}

bool PieceList::Cover(std::uint64_t first, std::uint64_t last) {
  return first_ != nullptr && first_->piece.Start <= first && StretchEnd(first_)->piece.End >= last;
}

}  // namespace kq
