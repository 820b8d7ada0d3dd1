// docs/sparse-format.md shows a whole sparse file as a hex dump. This makes the file anew from the
// public records, renders the dump, compares it with the document and with what the library makes,
// and lets the library read the file.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kqimageapi.h"
#include "kqsparseformat.h"
#include "tests/support/document_dump.h"
#include "tests/support/temp_dir.h"

namespace {

std::vector<std::uint8_t> ComposeExample() {
  std::vector<std::uint8_t> file(24576);

  SparseHeaderBlock header{};
  std::memcpy(header.Magic, KQ_SPARSE_MAGIC, sizeof header.Magic);
  header.RootNode = 8192;
  header.DataBytes = 8;
  std::memcpy(file.data(), &header, sizeof header);

  SparseNode root{};
  std::memcpy(root.Magic, KQ_SPARSE_NODE_MAGIC, sizeof root.Magic);
  root.Extents[0] = {0, 5, 20480};
  root.Extents[1] = {5, 3, 16384};
  root.Count = 2;
  root.IsLeaf = 1;
  std::memcpy(file.data() + 8192, &root, sizeof root);

  std::memset(file.data() + 16384, 0x42, 3);
  std::memset(file.data() + 20480, 0x41, 5);
  return file;
}

}  // namespace

TEST(SparseDocument, DumpShowsTheExampleFile) {
  EXPECT_EQ(kqtest::DumpInDocument(KQ_SOURCE_FOLDER "/docs/sparse-format.md"),
            kqtest::RenderDump(ComposeExample()));
}

TEST(SparseDocument, LibraryMakesTheExampleFile) {
  const kqtest::TempDir folder;
  const std::string path = folder.Path("example");
  std::uint64_t handle = 0;
  ASSERT_EQ(KQSparseFileOpen2(path.c_str(), KQ_SPARSE_CREATE_NEW, 0, 0, &handle).status, 0);
  EXPECT_EQ(KQSparseFileWrite(handle, 5, "BBB", 3, nullptr).status, 0);
  EXPECT_EQ(KQSparseFileWrite(handle, 0, "AAAAA", 5, nullptr).status, 0);
  ASSERT_EQ(KQSparseFileClose(handle, 0).status, 0);
  EXPECT_TRUE(kqtest::ReadFile(path) == ComposeExample());
}

TEST(SparseDocument, ExampleFileReadsAsTheDocumentTells) {
  const kqtest::TempDir folder;
  const std::string path = folder.Path("example");
  kqtest::WriteFile(path, ComposeExample());
  std::uint64_t handle = 0;
  ASSERT_EQ(KQSparseFileOpen2(path.c_str(), KQ_SPARSE_OPEN_EXISTING, 1, 0, &handle).status, 0);
  char bytes[] = "..........";
  EXPECT_EQ(KQSparseFileRead(handle, 0, bytes, 10, nullptr).status, 0);
  EXPECT_STREQ(bytes, "AAAAABBB..");
  std::uint64_t dataBytes = 0;
  EXPECT_EQ(KQSparseFileGetNumDataBytes(handle, &dataBytes).status, 0);
  EXPECT_EQ(dataBytes, 8u);
  EXPECT_EQ(KQSparseFileClose(handle, 0).status, 0);
}
