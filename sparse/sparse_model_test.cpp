#include "sparse/sparse_model_test.h"

#include <algorithm>

namespace kqtest {
namespace {

constexpr std::uint64_t kUnit = 4096;
constexpr std::uint64_t kNodeBytes = 8192;
constexpr std::uint32_t kMostExtents = 291;

ModelNode ParseNode(const Bytes& file, std::uint64_t position) {
  ModelNode node;
  for (std::size_t i = 0; i < 291; ++i) {
    const std::uint64_t at = position + 4 + 20 * i;
    node.extents[i].offset = static_cast<std::int64_t>(GetLe(file, at, 8));
    node.extents[i].length = static_cast<std::uint32_t>(GetLe(file, at + 8, 4));
    node.extents[i].position = GetLe(file, at + 12, 8);
  }
  for (std::size_t i = 0; i < 292; ++i) node.children[i] = GetLe(file, position + 5824 + 8 * i, 8);
  node.count = static_cast<std::uint32_t>(GetLe(file, position + 8160, 4));
  node.leaf = file[position + 8164] != 0;
  return node;
}

void RenderNode(const ModelNode& node, std::uint64_t position, Bytes* file) {
  const std::uint8_t magic[] = {'N', 'O', 'D', 'E'};
  SetBytes(file, position, magic);
  for (std::size_t i = 0; i < 291; ++i) {
    const std::uint64_t at = position + 4 + 20 * i;
    Set64(file, at, static_cast<std::uint64_t>(node.extents[i].offset));
    Set32(file, at + 8, node.extents[i].length);
    Set64(file, at + 12, node.extents[i].position);
  }
  for (std::size_t i = 0; i < 292; ++i) Set64(file, position + 5824 + 8 * i, node.children[i]);
  Set32(file, position + 8160, node.count);
  (*file)[position + 8164] = node.leaf ? 1 : 0;
}

}  // namespace

SparseModel::SparseModel() : data_(kNodeBytes) { root_ = AppendNode(ModelNode()); }

SparseModel::SparseModel(const Bytes& file)
    : data_(file), root_(GetLe(file, 4, 8)), dataBytes_(GetLe(file, 13, 8)) {
  CollectExtents();
}

void SparseModel::CollectExtents() {
  sorted_.clear();
  Collect(root_);
}

void SparseModel::Collect(std::uint64_t position) {
  const ModelNode& node = nodes_.try_emplace(position, ParseNode(data_, position)).first->second;
  for (std::uint32_t i = 0; i < node.count; ++i) sorted_[node.extents[i].offset] = node.extents[i];
  for (std::uint32_t i = 0; !node.leaf && i <= node.count; ++i) Collect(node.children[i]);
}

std::uint64_t SparseModel::AppendNode(const ModelNode& node) {
  const std::uint64_t position = data_.size();
  data_.resize(position + kNodeBytes);
  nodes_[position] = node;
  return position;
}

std::uint64_t SparseModel::AppendData(const Bytes& data) {
  const std::uint64_t position = data_.size();
  Append(&data_, data);
  data_.resize((data_.size() + kUnit - 1) / kUnit * kUnit);
  return position;
}

void SparseModel::Write(std::int64_t offset, const Bytes& data) {
  const std::int64_t end = offset + static_cast<std::int64_t>(data.size());
  const auto slice = [&](std::int64_t from, std::int64_t to) {
    return Bytes(data.begin() + (from - offset), data.begin() + (to - offset));
  };
  // What is there already is overwritten where it is; what is between becomes extents of its own.
  std::vector<std::pair<std::int64_t, std::int64_t>> gaps;
  std::int64_t cursor = offset;
  for (const auto& [start, extent] : sorted_) {
    const std::int64_t extentEnd = start + extent.length;
    if (extentEnd <= offset || start >= end) continue;
    if (start > cursor) gaps.emplace_back(cursor, start);
    const std::int64_t from = std::max(start, offset);
    cursor = std::min(extentEnd, end);
    SetBytes(&data_, extent.position + static_cast<std::uint64_t>(from - start),
             slice(from, cursor));
  }
  if (cursor < end) gaps.emplace_back(cursor, end);
  for (const auto& [from, to] : gaps) Add(from, slice(from, to));
}

void SparseModel::Add(std::int64_t offset, const Bytes& data) {
  const ModelExtent extent{offset, static_cast<std::uint32_t>(data.size()), AppendData(data)};
  dataBytes_ += data.size();
  sorted_[offset] = extent;
  Insert(extent);
}

void SparseModel::Insert(const ModelExtent& extent) {
  if (nodes_.at(root_).count == kMostExtents) {
    ModelNode top;
    top.leaf = false;
    top.children[0] = root_;
    root_ = AppendNode(top);
    Split(root_, 0);
  }
  InsertBelow(root_, extent);
}

void SparseModel::InsertBelow(std::uint64_t position, const ModelExtent& extent) {
  ModelNode& node = nodes_.at(position);
  std::uint32_t index = 0;
  while (index < node.count && node.extents[index].offset < extent.offset) ++index;
  if (node.leaf) {
    for (std::uint32_t i = node.count; i > index; --i) node.extents[i] = node.extents[i - 1];
    node.extents[index] = extent;
    ++node.count;
    return;
  }
  if (nodes_.at(node.children[index]).count == kMostExtents) {
    Split(position, index);
    if (node.extents[index].offset < extent.offset) ++index;
  }
  InsertBelow(node.children[index], extent);
}

void SparseModel::Split(std::uint64_t parent, std::uint32_t index) {
  const std::uint64_t left = nodes_.at(parent).children[index];
  ModelNode right;
  right.count = 145;
  right.leaf = nodes_.at(left).leaf;
  for (std::size_t i = 0; i < 145; ++i) right.extents[i] = nodes_.at(left).extents[146 + i];
  for (std::size_t i = 0; !right.leaf && i < 146; ++i) {
    right.children[i] = nodes_.at(left).children[146 + i];
  }
  const std::uint64_t rightPosition = AppendNode(right);
  nodes_.at(left).count = 145;

  ModelNode& above = nodes_.at(parent);
  for (std::uint32_t i = above.count; i > index; --i) {
    above.extents[i] = above.extents[i - 1];
    above.children[i + 1] = above.children[i];
  }
  above.extents[index] = nodes_.at(left).extents[145];
  above.children[index + 1] = rightPosition;
  ++above.count;
}

Bytes SparseModel::Read(std::int64_t offset, std::size_t size, std::uint8_t fill) const {
  Bytes result(size, fill);
  const std::int64_t end = offset + static_cast<std::int64_t>(size);
  for (const auto& [start, extent] : sorted_) {
    const std::int64_t from = std::max(start, offset);
    const std::int64_t to = std::min(start + extent.length, end);
    const auto at = data_.begin() + static_cast<std::int64_t>(extent.position) - start;
    if (from < to) std::copy(at + from, at + to, result.begin() + (from - offset));
  }
  return result;
}

Bytes SparseModel::File(std::uint8_t inUse) const {
  Bytes file = data_;
  for (const auto& [position, node] : nodes_) RenderNode(node, position, &file);
  const std::uint8_t magic[] = {'T', 'W', '4', 'K'};
  SetBytes(&file, 0, magic);
  Set64(&file, 4, root_);
  file[12] = inUse;
  Set64(&file, 13, dataBytes_);
  return file;
}

}  // namespace kqtest
