#include "enumeration/file_list_format.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "enumeration/enumeration_test_support.h"

namespace kq {
namespace {

class FileListFormatTest : public testing::Test {
 protected:
  // Two directories; the first file is split in three, the second is not split, the third is
  // incomplete with one part found.
  FileListFormatTest() {
    prefixed_.plainPath = "C:/img/";
    first_.name = "a-b001.twf";
    first_.directory = &prefixed_;
    AddPart(&first_, "a-b001.TW1");
    AddPart(&first_, "a-b001.twf.tw2");
    second_.name = "a-b001-i001.twi";
    second_.directory = &usual_;
    second_.lastPart = 1;
    third_.name = "c.twi";
    third_.directory = &usual_;
    third_.isIncomplete = true;
    AddPart(&third_, "c.Tw1");
  }

  static void AddPart(EnumeratedFile* file, const char* name) {
    auto part = std::make_unique<EnumeratedFile>();
    part->name = name;
    part->directory = file->directory;
    file->parts.push_back(std::move(part));
  }

  std::string Format(const FileList& files, std::uint32_t flags, const char* separator) const {
    const kqtest::Listed listed = kqtest::AskForText([&](char* buffer, std::uint32_t* size) {
      return FileListFormat(files, flags, separator, buffer, size);
    });
    EXPECT_EQ(listed.status, 0);
    return listed.text;
  }

  EnumeratedDirectory prefixed_ = EnumeratedDirectory("P:/img/");
  EnumeratedDirectory usual_ = EnumeratedDirectory("/img/");
  EnumeratedFile first_;
  EnumeratedFile second_;
  EnumeratedFile third_;
};

TEST_F(FileListFormatTest, AllSixteenCombinationsOfFlags) {
  const char* const expected[16] = {
      R"("P:/img/a-b001.twf","a-b001-i001.twi","c.twi")",
      R"("P:/img/a-b001.twf","/img/a-b001-i001.twi","/img/c.twi")",
      R"("P:/img/a-b001.twf","a-b001.TW1","a-b001.twf.tw2","a-b001-i001.twi","c.twi","c.Tw1")",
      R"("P:/img/a-b001.twf","P:/img/a-b001.TW1","P:/img/a-b001.twf.tw2",)"
      R"("/img/a-b001-i001.twi","/img/c.twi","/img/c.Tw1")",
      "P:/img/a-b001.twf,a-b001-i001.twi,c.twi",
      "P:/img/a-b001.twf,/img/a-b001-i001.twi,/img/c.twi",
      "P:/img/a-b001.twf,a-b001.TW1,a-b001.twf.tw2,a-b001-i001.twi,c.twi,c.Tw1",
      "P:/img/a-b001.twf,P:/img/a-b001.TW1,P:/img/a-b001.twf.tw2,/img/a-b001-i001.twi,/img/c.twi,"
      "/img/c.Tw1",
      R"("C:/img/a-b001.twf","a-b001-i001.twi","c.twi")",
      R"("C:/img/a-b001.twf","/img/a-b001-i001.twi","/img/c.twi")",
      R"("C:/img/a-b001.twf","a-b001.TW1","a-b001.twf.tw2","a-b001-i001.twi","c.twi","c.Tw1")",
      R"("C:/img/a-b001.twf","C:/img/a-b001.TW1","C:/img/a-b001.twf.tw2",)"
      R"("/img/a-b001-i001.twi","/img/c.twi","/img/c.Tw1")",
      "C:/img/a-b001.twf,a-b001-i001.twi,c.twi",
      "C:/img/a-b001.twf,/img/a-b001-i001.twi,/img/c.twi",
      "C:/img/a-b001.twf,a-b001.TW1,a-b001.twf.tw2,a-b001-i001.twi,c.twi,c.Tw1",
      "C:/img/a-b001.twf,C:/img/a-b001.TW1,C:/img/a-b001.twf.tw2,/img/a-b001-i001.twi,/img/c.twi,"
      "/img/c.Tw1",
  };
  for (std::uint32_t flags = 0; flags < 16; ++flags) {
    EXPECT_EQ(Format({&first_, &second_, &third_}, flags, ","), expected[flags]) << flags;
  }
}

TEST_F(FileListFormatTest, FlagsHaveTheirBits) {
  EXPECT_EQ(KQ_LIST_FULL_PATHS, 1u);
  EXPECT_EQ(KQ_LIST_WITH_PARTS, 2u);
  EXPECT_EQ(KQ_LIST_NO_QUOTES, 4u);
  EXPECT_EQ(KQ_LIST_PLAIN_PATHS, 8u);
}

TEST_F(FileListFormatTest, UnknownFlagsAreIgnored) {
  EXPECT_EQ(Format({&first_, &second_}, 0xFFFFFFF0, ","),
            R"("P:/img/a-b001.twf","a-b001-i001.twi")");
}

TEST_F(FileListFormatTest, ANullSeparatorIsOneBlank) {
  EnumeratedFile base;
  base.name = "a-b001.twf";
  base.directory = &usual_;
  base.lastPart = 1;
  EXPECT_EQ(Format({&base, &second_}, 0, nullptr), R"("/img/a-b001.twf" "a-b001-i001.twi")");
  EXPECT_EQ(Format({&base, &second_}, 5, "|"), "/img/a-b001.twf|/img/a-b001-i001.twi");
}

TEST_F(FileListFormatTest, ASeparatorCanBeEmptyOrLong) {
  EXPECT_EQ(Format({&second_, &third_}, 4, ""), "/img/a-b001-i001.twic.twi");
  EXPECT_EQ(Format({&second_, &third_, &second_}, 4, "<->"),
            "/img/a-b001-i001.twi<->c.twi<->a-b001-i001.twi");
}

TEST_F(FileListFormatTest, PartsOfAFileWithLastPartSetDoNotAppear) {
  AddPart(&second_, "never.TW1");
  EXPECT_EQ(Format({&second_}, 6, ","), "/img/a-b001-i001.twi");
}

TEST_F(FileListFormatTest, NamesAreTakenAsTheyAre) {
  EnumeratedFile odd;
  odd.name = "a b\n\"\xFF|.twf";
  odd.directory = &usual_;
  EXPECT_EQ(Format({&odd, &odd}, 0, "|"), "\"/img/a b\n\"\xFF|.twf\"|\"a b\n\"\xFF|.twf\"");
}

TEST_F(FileListFormatTest, ANullBufferAsksForTheSize) {
  std::uint32_t size = 12345;
  const KQStatus status = FileListFormat({&second_}, 4, nullptr, nullptr, &size);
  EXPECT_EQ(status.status, -234);
  EXPECT_STREQ(status.file, kqtest::kModuleName);
  EXPECT_EQ(size, 21u);  // /img/a-b001-i001.twi and its NUL
}

TEST_F(FileListFormatTest, JustEnoughSucceedsAndOneLessDoesNot) {
  char buffer[32];
  std::memset(buffer, '#', sizeof buffer);
  std::uint32_t size = 20;
  EXPECT_EQ(FileListFormat({&second_}, 4, nullptr, buffer, &size).status, -234);
  EXPECT_EQ(size, 21u);
  EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(32, '#'));

  EXPECT_EQ(FileListFormat({&second_}, 4, nullptr, buffer, &size).status, 0);
  EXPECT_EQ(size, 21u);
  EXPECT_STREQ(buffer, "/img/a-b001-i001.twi");
  EXPECT_EQ(buffer[21], '#');
}

TEST_F(FileListFormatTest, ABiggerSizeStaysAsItIs) {
  char buffer[100];
  std::uint32_t size = 100;
  EXPECT_EQ(FileListFormat({&second_}, 4, nullptr, buffer, &size).status, 0);
  EXPECT_EQ(size, 100u);
}

TEST_F(FileListFormatTest, ATextBeyond32BitsIsRefused) {
  second_.name = std::string(0x10000, 'n');
  const std::string separator(0xFFFF, '-');
  // 2^15 items of 2^17 - 1 bytes, and the first directory: 4 GiB less 32 KiB, and then above.
  const FileList fits(0x8000, &second_);
  std::uint32_t size = 0;
  EXPECT_EQ(FileListFormat(fits, 4, separator.c_str(), nullptr, &size).status, -234);
  EXPECT_EQ(size, 0x8000u * 0x1FFFFu - 0xFFFFu + 5 + 1);
  const FileList exceeds(0x8001, &second_);
  size = 77;
  EXPECT_EQ(FileListFormat(exceeds, 4, separator.c_str(), nullptr, &size).status, -8);
  EXPECT_EQ(size, 77u);
}

TEST(DeliverText, FollowsTheProtocolOfLists) {
  char buffer[8] = "#######";
  std::uint32_t size = 3;
  EXPECT_EQ(DeliverText("abc", buffer, &size).status, -234);
  EXPECT_EQ(size, 4u);
  EXPECT_STREQ(buffer, "#######");
  size = 8;
  EXPECT_EQ(DeliverText("abc", buffer, &size).status, 0);
  EXPECT_EQ(size, 8u);
  EXPECT_STREQ(buffer, "abc");
  EXPECT_EQ(buffer[4], '#');
  EXPECT_EQ(DeliverText("abc", nullptr, &size).status, -234);
  EXPECT_EQ(size, 4u);
}

}  // namespace
}  // namespace kq
