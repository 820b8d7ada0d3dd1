// Every kind of image that can be written, taken apart by a plain parser.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>

#include "image/new_image_test_support.h"

namespace kqtest {
namespace {

using Kind = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>;

class NewImageRoundTrip : public testing::TestWithParam<Kind> {};

struct Piece {
  std::uint64_t offset;
  Bytes data;
};

// Zeros, text and noise, in runs and gaps, each longer than a chunk now and then.
std::vector<Piece> Pieces(std::uint32_t sectorSize, std::mt19937* random) {
  std::vector<Piece> pieces;
  std::uint64_t offset = 0;
  for (int i = 0; i < 30; ++i) {
    if ((*random)() % 2 == 0) offset += std::uint64_t{(*random)() % 1000} * sectorSize;
    const std::size_t bytes = (1 + (*random)() % (i % 5 == 0 ? 60 : 8)) * sectorSize;
    Bytes data;
    switch ((*random)() % 3) {
      case 0:
        data.resize(bytes);
        break;
      case 1:
        data = Text((*random)(), bytes);
        break;
      default:
        data = Noise((*random)(), bytes);
        break;
    }
    pieces.push_back({offset, std::move(data)});
    offset += bytes;
  }
  std::shuffle(pieces.begin(), pieces.end(), *random);
  return pieces;
}

TEST_P(NewImageRoundTrip, AllDataComesBackAndTheHeaderIsRight) {
  const auto [compressionType, encryptionType, sectorSize] = GetParam();
  const std::uint32_t seed = compressionType * 100 + encryptionType * 10 + sectorSize;
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  const TempDir folder;
  constexpr char kPassword[] = "p\xC3\xA4ssword";
  const char* password = encryptionType != 0 ? kPassword : nullptr;

  ImageSpec spec;
  spec.header.sectorSize = sectorSize;
  spec.header.compressionType = compressionType;
  if (sectorSize > 256) spec.header.record = RecordFields();
  spec.header.laterSectors = LaterSectorsForBuffer(sectorSize, 40 * sectorSize);
  const Bytes laterSectors = spec.header.laterSectors;
  if (encryptionType != 0) EncipherImage(&spec, encryptionType, kPassword);
  Writer writer(folder.Path("new.twi"), BuildHeader(spec), {.password = password});
  ASSERT_EQ(writer.status().status, 0);
  const std::vector<Piece> pieces = Pieces(sectorSize, &random);
  for (const Piece& piece : pieces) {
    ASSERT_EQ(writer.Write(piece.offset, piece.data).status, 0);
  }
  ASSERT_EQ(writer.Close("round trip").status, 0);

  const ParsedImage image = ParseFile(writer.File(), password);
  EXPECT_EQ(image.header.comment, u"round trip");
  EXPECT_EQ(image.header.laterSectors, laterSectors);
  EXPECT_EQ(image.header.compressionType, compressionType);
  EXPECT_EQ(image.header.encryptionType, encryptionType);
  EXPECT_GT(image.chunks.size(), 3u);
  for (const Piece& piece : pieces) {
    ASSERT_EQ(image.ReadVolume(piece.offset, piece.data.size()), piece.data);
  }
}

INSTANTIATE_TEST_SUITE_P(AllKinds, NewImageRoundTrip,
                         testing::Combine(testing::Values(0u, 3u, 4u, 5u, 6u),
                                          testing::Values(0u, 1u, 2u, 3u, 4u),
                                          testing::Values(256u, 512u, 1024u, 2048u, 4096u)),
                         [](const auto& kind) {
                           return "Compression" + std::to_string(std::get<0>(kind.param)) +
                                  "Encryption" + std::to_string(std::get<1>(kind.param)) +
                                  "Sector" + std::to_string(std::get<2>(kind.param));
                         });

// A whole chunk of 1 MiB minus the header, the size that real images have.
TEST(NewImageFullChunks, OfEveryCompressionTypeExpand) {
  for (const std::uint32_t type : {0u, 3u, 4u, 5u, 6u}) {
    const TempDir folder;
    HeaderFields fields;
    fields.compressionType = type;
    Bytes data = Text(type, 0x180000);
    Append(&data, Noise(type, 0x80000));
    Writer writer(folder.Path("new.twf"), Template(fields));
    ASSERT_EQ(writer.Write(0x100000, data).status, 0);
    ASSERT_EQ(writer.Close().status, 0);
    const ParsedImage image = ParseFile(writer.File());
    ASSERT_EQ(image.chunks.size(), 3u);
    EXPECT_EQ(image.chunks[0].expandedSectors, 2047u);
    Bytes all;
    for (const ParsedChunk& chunk : image.chunks) Append(&all, chunk.data);
    EXPECT_TRUE(all == data) << type;
  }
}

}  // namespace
}  // namespace kqtest
