// The pieces of one read: which run of which chunk delivers which stretch of the volume.
//
// A PieceList takes pieces from the newest file to the oldest. What is in the list wins over what
// comes later: a new piece fills only what is still free, in as many parts as that takes. The list
// stays sorted by Start and its pieces never overlap.
//
// A run of 0 sectors gives an empty piece, whose End is Start - 1. It delivers no byte, but it
// keeps its place in the list and splits what is laid over it later; its chunk is decoded, and a
// damaged one fails the read.
//
// A list belongs to one request on one thread. It owns the memory of its pieces and frees it whole;
// a small request allocates nothing. A piece, once in the list, never changes.
#ifndef KQ_IMAGE_READ_PIECES_H
#define KQ_IMAGE_READ_PIECES_H

#include <cstddef>
#include <cstdint>

#include "foundation/avl_table.h"
#include "image/chunk_decode.h"

namespace kq {

struct ReadPiece {
  std::uint64_t Start = 0;  // first volume byte that the piece delivers
  std::uint64_t End = 0;    // last volume byte that it delivers, inclusive
  const ChunkPlace* Chunk = nullptr;
  std::uint64_t RunVolumeOffset = 0;  // volume offset of the run
  std::uint32_t FirstSector = 0;      // of the run, in the expanded chunk
  std::uint32_t Sectors = 0;          // of the run
};

class PieceList {
 public:
  PieceList() = default;
  PieceList(const PieceList&) = delete;
  PieceList& operator=(const PieceList&) = delete;
  ~PieceList();

  // Keeps a chunk for the pieces that point to it. Null: out of memory.
  const ChunkPlace* AddChunk(const ChunkPlace& chunk);

  // Lays a piece under those in the list. False: out of memory.
  [[nodiscard]] bool Merge(const ReadPiece& piece);

  // True if the pieces deliver every byte of the range, last included.
  bool Cover(std::uint64_t first, std::uint64_t last);

  // Calls visit(piece) for each piece in rising order, until it returns false.
  template <class Visitor>
  void ForEach(Visitor visit) const {
    for (const Node* node = first_; node != nullptr; node = node->next) {
      if (!visit(node->piece)) return;
    }
  }

 private:
  // The list is threaded through a balanced tree in the same order, which finds the place of a new
  // piece; and it knows for each unbroken stretch where that ends, so that a piece passes it in one
  // step. Both together keep n pieces, however they overlap, at n log n.
  struct Node {
    AvlItem item;     // first, so that an item is its node
    ReadPiece piece;  // whose ends the search looks at, together with the links before them
    Node* next;
    // A later node of the same unbroken stretch, or the node itself at the stretch's end.
    Node* further;
  };
  struct Block {
    Block* next;
  };

  static Node* NodeOf(AvlItem* item) { return reinterpret_cast<Node*>(item); }
  static Node* StretchEnd(Node* node);
  Node* FindPlace(const ReadPiece& piece, Node** before) const;
  bool Insert(const ReadPiece& piece, Node* before, Node* after);
  void* Take(std::size_t size);

  static constexpr std::size_t kInlineBytes = 1024;
  static constexpr std::size_t kBlockBytes = 0x10000;  // below what malloc maps and unmaps singly

  Node* first_ = nullptr;
  Node* last_ = nullptr;
  AvlItem* root_ = nullptr;

  alignas(std::max_align_t) std::uint8_t inline_[kInlineBytes];
  std::uint8_t* free_ = inline_;
  std::size_t freeBytes_ = kInlineBytes;
  Block* blocks_ = nullptr;
};

}  // namespace kq

#endif
