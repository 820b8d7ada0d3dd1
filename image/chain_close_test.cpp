#include <filesystem>

#include "image/chain_test_support.h"

namespace kq {
namespace {

class KQImageFilesCloseTest : public ::testing::Test {
 protected:
  ImageFolder folder_;
  ImageSpec base_;
  void SetUp() override { base_.chunks = {RawChunk({{0, 1}}, PatternBytes(1, 512))}; }
};

TEST_F(KQImageFilesCloseTest, WithoutASparseFileAllOtherArgumentsAreIgnored) {
  const std::string path = folder_.Write("base", base_);
  const std::string created = folder_.Path("created");
  const std::uint8_t id[16] = {1};
  const std::uint64_t size = 7;
  for (int form = 0; form < 3; ++form) {
    std::uint64_t handle = 0;
    ASSERT_EQ(KQImageFilesOpen(path.c_str(), nullptr, 0, &handle).status, 0);
    const char* name = created.c_str();
    const KQStatus status = form == 0   ? KQImageFilesClose(handle, name, "comment", 1)
                            : form == 1 ? KQImageFilesClose2(handle, name, "comment", 1, id)
                                        : KQImageFilesClose3(handle, name, "comment", 1, id, &size);
    EXPECT_EQ(status.status, 0);
    EXPECT_FALSE(std::filesystem::exists(created));
    EXPECT_TRUE(std::filesystem::exists(path));
  }
  EXPECT_EQ(OpenFileCount(), 0u);
}

TEST_F(KQImageFilesCloseTest, UnknownHandleIsInvalidParameterOfTheObjectManager) {
  for (const std::uint64_t handle : {std::uint64_t{0}, std::uint64_t{0x7777777777}}) {
    const KQStatus status = KQImageFilesClose(handle, nullptr, nullptr, 0);
    EXPECT_EQ(status.status, -87);
    EXPECT_STREQ(status.file, "objmgr");
  }
}

TEST_F(KQImageFilesCloseTest, ChainOverAnotherOnesFilesStaysReadable) {
  const std::string path = folder_.Write("base", base_);
  TestChain first(path);
  const TestChain second(path);
  EXPECT_EQ(first.Close().status, 0);
  EXPECT_EQ(OpenFileCount(), 1u);
  ExpectRead(second.handle, 0, PatternBytes(1, 512));
}

}  // namespace
}  // namespace kq
