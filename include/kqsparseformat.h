/* The on-disk records of a sparse file, for C and C++.
 *
 * All integers are little-endian, and no record is padded. A sparse file is a sequence of units of
 * 4096 bytes: the SparseHeaderBlock, and from offset 8192 on nodes and data in the order in which
 * they were appended. docs/sparse-format.md tells the rules behind the records.
 *
 * The records are meant to be copied from and to file buffers with memcpy; a pointer to one may
 * have any alignment.
 */
#ifndef KQSPARSEFORMAT_H
#define KQSPARSEFORMAT_H

#include "kqimageformat.h" /* KQ_PACKED and the assertions */

#define KQ_SPARSE_MAGIC "TW4K"
#define KQ_SPARSE_NODE_MAGIC "NODE"

/* Every position in the file and the file's size are multiples of this. */
#define KQ_SPARSE_UNIT 4096u

#define KQ_SPARSE_NODE_EXTENTS 291u
#define KQ_SPARSE_NODE_CHILDREN 292u

/* The block at offset 0. */
typedef struct KQ_PACKED SparseHeaderBlock {
  char Magic[4];      /* KQ_SPARSE_MAGIC */
  uint64_t RootNode;  /* file offset of the root node */
  uint8_t InUse;      /* 0 after a clean close, 1 while the nodes may be out of step with it */
  uint64_t DataBytes; /* sum of the Length of all extents ever added */
  uint8_t Zero[8171];
} SparseHeaderBlock;

KQ_FORMAT_OFFSET(SparseHeaderBlock, Magic, 0);
KQ_FORMAT_OFFSET(SparseHeaderBlock, RootNode, 4);
KQ_FORMAT_OFFSET(SparseHeaderBlock, InUse, 12);
KQ_FORMAT_OFFSET(SparseHeaderBlock, DataBytes, 13);
KQ_FORMAT_OFFSET(SparseHeaderBlock, Zero, 21);
KQ_FORMAT_ASSERT(SparseHeaderBlock_size, sizeof(SparseHeaderBlock) == 8192);

/* A stretch of the volume. Its bytes stand at Position, followed by zero up to the next unit. */
typedef struct KQ_PACKED SparseExtent {
  int64_t Offset;    /* volume offset of the first byte */
  uint32_t Length;   /* bytes */
  uint64_t Position; /* file offset of the data */
} SparseExtent;

KQ_FORMAT_OFFSET(SparseExtent, Offset, 0);
KQ_FORMAT_OFFSET(SparseExtent, Length, 8);
KQ_FORMAT_OFFSET(SparseExtent, Position, 12);
KQ_FORMAT_ASSERT(SparseExtent_size, sizeof(SparseExtent) == 20);

/* A node of the B-tree. Child i holds what lies in front of extent i, and child Count what lies
 * behind the last one. Slots beyond Count hold whatever they held. */
typedef struct KQ_PACKED SparseNode {
  char Magic[4]; /* KQ_SPARSE_NODE_MAGIC; readers don't test it */
  SparseExtent Extents[KQ_SPARSE_NODE_EXTENTS];
  uint64_t Children[KQ_SPARSE_NODE_CHILDREN]; /* file offsets; mean nothing in a leaf */
  uint32_t Count;                             /* extents in use */
  uint8_t IsLeaf;
  uint8_t Zero[27];
} SparseNode;

KQ_FORMAT_OFFSET(SparseNode, Magic, 0);
KQ_FORMAT_OFFSET(SparseNode, Extents, 4);
KQ_FORMAT_OFFSET(SparseNode, Children, 5824);
KQ_FORMAT_OFFSET(SparseNode, Count, 8160);
KQ_FORMAT_OFFSET(SparseNode, IsLeaf, 8164);
KQ_FORMAT_OFFSET(SparseNode, Zero, 8165);
KQ_FORMAT_ASSERT(SparseNode_size, sizeof(SparseNode) == 8192);

#endif
