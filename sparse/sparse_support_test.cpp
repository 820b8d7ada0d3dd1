#include "sparse/sparse_support_test.h"

#include <regex>

namespace kqtest {
namespace {

std::string TransferLine(const char* name, int retries, const char* status) {
  return std::string(name) + " line=# retries=" + std::to_string(retries) + " status=" + status +
         "\n";
}

}  // namespace

std::string WithoutLineNumbers(const std::string& log) {
  return std::regex_replace(log, std::regex("line=[1-9][0-9]*"), "line=#");
}

std::string ReaderLine(int retries, const char* status) {
  return TransferLine("SparseFileReader", retries, status);
}
std::string WriterLine(int retries, const char* status) {
  return TransferLine("SparseFileWriter_BufferAddressHelper", retries, status);
}

kq::SparseFileOwner SparseTest::Open(kq::SparseMode mode, std::uint16_t cacheNodes, bool readOnly) {
  kq::SparseFileOwner file;
  EXPECT_EQ(kq::UtSparseFileOpen(path_.c_str(), mode, readOnly, cacheNodes, &file).status, 0);
  return file;
}

kq::SparseFileOwner SparseTest::OpenModel(const SparseModel& model, std::uint16_t cacheNodes,
                                          bool readOnly) {
  WriteFile(path_, model.File());
  return Open(kq::SparseMode::kOpenExisting, cacheNodes, readOnly);
}

std::uint64_t SparseTest::OpenHandle(std::int32_t mode, std::uint16_t cacheNodes,
                                     std::uint8_t readOnly) {
  std::uint64_t handle = 0;
  EXPECT_EQ(KQSparseFileOpen2(path_.c_str(), mode, readOnly, cacheNodes, &handle).status, 0);
  EXPECT_NE(handle, 0U);
  return handle;
}

std::uint64_t SparseTest::OpenModelHandle(const SparseModel& model, std::uint16_t cacheNodes,
                                          std::uint8_t readOnly) {
  WriteFile(path_, model.File());
  return OpenHandle(KQ_SPARSE_OPEN_EXISTING, cacheNodes, readOnly);
}

SparseModel FullTree() {
  SparseModel model;
  const std::uint64_t data = model.AppendData(Bytes(1, 0x77));
  std::int64_t offset = 0;
  const auto next = [&] {
    const ModelExtent extent{offset, 1, data};
    offset += 2;
    return extent;
  };
  ModelNode root;
  root.leaf = false;
  root.count = 291;
  for (std::size_t i = 0; i < 292; ++i) {
    ModelNode leaf;
    leaf.count = 291;
    for (ModelExtent& extent : leaf.extents) extent = next();
    root.children[i] = model.AppendNode(leaf);
    if (i < 291) root.extents[i] = next();
  }
  model.SetRoot(model.AppendNode(root));
  model.SetDataBytes(291 + 292 * 291);
  model.CollectExtents();
  return model;
}

}  // namespace kqtest
