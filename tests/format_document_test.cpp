// docs/image-format.md shows a whole image as a hex dump. This makes the image anew from the public
// records, renders the dump, compares it with the document, and lets the library read the file.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kqimageapi.h"
#include "kqimageformat.h"
#include "tests/support/document_dump.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr std::size_t kSector = 512;

std::vector<std::uint8_t> ComposeExample() {
  std::vector<std::uint8_t> file(5 * kSector);

  ImageHeader header{};
  std::memcpy(header.Magic, KQ_MAGIC_FINISHED, sizeof header.Magic);
  header.SectorSize = kSector;
  header.HeaderSectors = 1;
  header.SourceSize = 0x100000;
  header.CreationTime = 0x01DC5A0000000000;
  for (std::uint8_t i = 0; i < 16; ++i) {
    header.ImageId[i] = static_cast<std::uint8_t>(0x10 + i);
    header.ImageSetId[i] = static_cast<std::uint8_t>(0x30 + i);
  }
  header.NextGeneration = 1;
  std::memcpy(file.data(), &header, sizeof header);
  std::memcpy(file.data() + sizeof header, u"hi", 2 * 3);

  // A full-form run entry: offset 0x1000, length 1 sector or 0x200 bytes, and the end of the list.
  const auto put = [&file](std::size_t at, std::initializer_list<int> bytes) {
    for (int byte : bytes) file[at++] = static_cast<std::uint8_t>(byte);
  };
  const ChunkHead head{2, 2};
  std::memcpy(file.data() + kSector, &head, sizeof head);
  put(kSector + sizeof head, {0, 0x10, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0xFF});
  std::memset(file.data() + 2 * kSector, 0x41, kSector);

  const ChunkIndexHead index{0, 0xFFFFFFFF, 13};
  std::memcpy(file.data() + 3 * kSector, &index, sizeof index);
  put(3 * kSector + sizeof index, {0, 0x10, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0xFF});
  const IndexPointerSector pointer{3 * kSector};
  std::memcpy(file.data() + 4 * kSector, &pointer, sizeof pointer);
  return file;
}

}  // namespace

TEST(FormatDocument, DumpShowsTheExampleImage) {
  EXPECT_EQ(kqtest::DumpInDocument(KQ_SOURCE_FOLDER "/docs/image-format.md"),
            kqtest::RenderDump(ComposeExample()));
}

TEST(FormatDocument, ExampleImageReadsAsTheDocumentTells) {
  const kqtest::TempDir folder;
  const std::string path = folder.Path("example.twf");
  kqtest::WriteFile(path, ComposeExample());

  ImageFileInfo info;
  ASSERT_EQ(KQImageFileGetInfo(path.c_str(), &info).status, 0);
  EXPECT_EQ(info.sectorSize, kSector);
  EXPECT_EQ(info.sourceSize, 0x100000u);
  EXPECT_EQ(info.lastPart, 0xFFFFFFFFu);
  EXPECT_EQ(info.comment[0], u'h');
  EXPECT_EQ(info.comment[1], u'i');
  EXPECT_EQ(info.comment[2], 0);

  std::uint64_t chain = 0;
  ASSERT_EQ(KQImageFilesOpen(path.c_str(), nullptr, 0, &chain).status, 0);
  std::vector<std::uint8_t> around(3 * kSector, 0xEE);
  std::uint32_t count = 0;
  ASSERT_EQ(KQImageFilesRead(chain, 0x1000 - kSector, around.data(),
                             static_cast<std::uint32_t>(around.size()), &count)
                .status,
            0);
  EXPECT_EQ(count, around.size());
  std::vector<std::uint8_t> expected(3 * kSector);
  std::memset(expected.data() + kSector, 0x41, kSector);
  EXPECT_EQ(around, expected);
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}
