// An independent model of a sparse file: the whole file as it must be after a clean close, held as
// plain numbers in standard containers. It knows no cache, no transfer and no code of the library.
#ifndef KQ_SPARSE_SPARSE_MODEL_TEST_H
#define KQ_SPARSE_SPARSE_MODEL_TEST_H

#include <cstdint>
#include <map>
#include <vector>

#include "tests/support/bytes.h"

namespace kqtest {

struct ModelExtent {
  std::int64_t offset = 0;
  std::uint32_t length = 0;
  std::uint64_t position = 0;

  bool operator==(const ModelExtent&) const = default;
};

// All slots of a node, also those not in use: what they hold is part of the file's bytes.
struct ModelNode {
  std::vector<ModelExtent> extents = std::vector<ModelExtent>(291);
  std::vector<std::uint64_t> children = std::vector<std::uint64_t>(292);
  std::uint32_t count = 0;
  bool leaf = true;
};

class SparseModel {
 public:
  // A new file: the header block and an empty leaf.
  SparseModel();
  // The file as it lies on the disk.
  explicit SparseModel(const Bytes& file);

  void Write(std::int64_t offset, const Bytes& data);
  // The bytes of the range; what no extent holds is fill.
  Bytes Read(std::int64_t offset, std::size_t size, std::uint8_t fill) const;

  // The whole file; inUse is the field of the header block.
  Bytes File(std::uint8_t inUse = 0) const;

  // The extents by their offset.
  const std::map<std::int64_t, ModelExtent>& extents() const { return sorted_; }
  std::uint64_t dataBytes() const { return dataBytes_; }
  std::uint64_t root() const { return root_; }
  const std::map<std::uint64_t, ModelNode>& nodes() const { return nodes_; }

  // For trees that are composed by hand: a node at the file's end, a unit of data there.
  std::uint64_t AppendNode(const ModelNode& node);
  std::uint64_t AppendData(const Bytes& data);
  void SetRoot(std::uint64_t position) { root_ = position; }
  ModelNode& NodeAt(std::uint64_t position) { return nodes_.at(position); }
  void SetDataBytes(std::uint64_t count) { dataBytes_ = count; }
  // Takes the extents from the tree, after it was composed.
  void CollectExtents();

 private:
  void Collect(std::uint64_t position);
  void Add(std::int64_t offset, const Bytes& data);
  void Insert(const ModelExtent& extent);
  void InsertBelow(std::uint64_t position, const ModelExtent& extent);
  void Split(std::uint64_t parent, std::uint32_t index);

  Bytes data_;  // the whole file; nodes and the header block are put over it by File
  std::map<std::uint64_t, ModelNode> nodes_;
  std::map<std::int64_t, ModelExtent> sorted_;
  std::uint64_t root_ = 8192;
  std::uint64_t dataBytes_ = 0;
};

}  // namespace kqtest

#endif
