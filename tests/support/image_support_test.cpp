// The builder, the ciphers and the parser are the ground that the rooms' tests stand on; here they
// are held against published values, other libraries and each other.
#include <gtest/gtest.h>
#include <lzo/lzo1x.h>

#include <string>

#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"
#include "tests/support/image_parser.h"

namespace kqtest {
namespace {

using Pairs = std::vector<std::pair<std::uint64_t, std::uint32_t>>;

TEST(PlainCrcMsbFirst, GivesTheCatalogueCheckValue) {
  const Bytes digits = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(PlainCrcMsbFirst(digits), 0xFC891918u);
}

TEST(EncodeRunList, GivesTheWorkedExamples) {
  const Pairs runs = {{0x100000, 8}, {0x200000, 8}, {0x1F0000, 16}, {0x1F2000, 16}};
  const Bytes list = {0,    0, 0x10, 0,    0,    0, 0, 0, 8,    0, 0,   0,
                      0x18, 0, 0,    0x10, 0x91, 0, 0, 8, 0x10, 0, 0x20};
  EXPECT_EQ(EncodeRunList(runs), list);

  const Pairs shrinking = {{0x1000, 9}, {0x1080, 5}};
  const Bytes shrunk = {0, 0x10, 0, 0, 0, 0, 0, 0, 9, 0, 0, 0, 0x0C, 0x80, 0xFC, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(EncodeRunList(shrinking), shrunk);

  const Pairs index = {{0, 0x2000}, {0x80000, 0xFE000}};
  const Bytes entries = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0x20, 0, 0, 0x1B, 0, 0, 8, 0, 0xC0, 0x0F};
  EXPECT_EQ(EncodeRunList(index), entries);
}

TEST(DecodeRunList, UndoesTheEncoding) {
  const Pairs runs = {{0x100000, 8},           {0x200000, 8}, {0x1F0000, 16}, {0x0, 1},
                      {0xFFFFFFFFFFFF0000, 3}, {0x1000, 0},   {0x2000, 7},    {0x2080, 7}};
  Bytes list = EncodeRunList(runs);
  const std::size_t length = list.size();
  list.push_back(0xFF);
  list.push_back(0);
  std::size_t used = 0;
  EXPECT_EQ(DecodeRunList(list, &used), runs);
  EXPECT_EQ(used, length);
  EXPECT_FALSE(DecodeRunList(std::span(list).first(length - 1)).has_value());
}

TEST(PasswordUnits, AreLittleEndianUtf16) {
  const Bytes units = {'a', 0, 0xE4, 0, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE};
  EXPECT_EQ(PasswordUnits("a\u00e4\u20ac\U0001f600"), units);
}

// Published keystream of the 128-bit key 01 02 ... 10 at offset 240; a run begins at byte 32.
TEST(EncipherWith, Rc4RunBeginsAtStreamByte32) {
  ImageKey key;
  key.type = 3;
  for (std::uint8_t i = 1; i <= 16; ++i) key.dataKey.push_back(i);
  const Bytes run = EncipherWith(key)(Bytes(512), 77);
  const Bytes expected = {0x06, 0x59, 0x02, 0xE4, 0xB6, 0x20, 0xF6, 0xCC,
                          0x36, 0xC8, 0x58, 0x9F, 0x66, 0x43, 0x2F, 0x2B};
  EXPECT_EQ(Bytes(run.begin() + 208, run.begin() + 224), expected);
}

TEST(OpenImageKey, OpensWhatMakeImageKeyMade) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    const ImageKey key = MakeImageKey(type, "pass", 3);
    const auto opened = OpenImageKey(type, "pass", key.blob);
    ASSERT_TRUE(opened.has_value()) << type;
    EXPECT_EQ(opened->dataKey, key.dataKey) << type;
    EXPECT_EQ(OpenImageKey(type, "Pass", key.blob).has_value(), type == 1) << type;
  }
}

TEST(LzoFrames, AreReadByThePeer) {
  for (const std::size_t length :
       {0u, 1u, 3u, 4u, 17u, 18u, 19u, 238u, 239u, 273u, 274u, 1000u, 100000u}) {
    const Bytes data = PatternBytes(length, length);
    for (const Bytes& frames : {LzoFrame(data), LzoFrames(data, 700), LiteralLzoFrame(data)}) {
      EXPECT_EQ(ExpandLzoFrames(frames, length), data) << length;
    }
  }
}

// An image with everything in it, for each encryption type.
ImageSpec RichImage(std::uint32_t encryptionType) {
  ImageSpec spec;
  HeaderFields& header = spec.header;
  header.sectorSize = 1024;
  header.flags = 0xAB000005;
  header.parentImageId = MakeId(9);
  header.generation = 4;
  header.nextGeneration = 7;
  header.compressionType = 5;
  header.comment = u"A comment \u00e4";
  header.record.emplace();
  header.record->carriedValue9 = 0x1122334455667788;
  header.laterSectors = PatternBytes(5, 3ul * 1024);
  const Bytes compressible(6ul * 1024, 0x5A);
  spec.chunks = {RawChunk({{0x10000, 3}, {0x4000, 1}}, PatternBytes(1, 4ul * 1024)),
                 ZeroChunk({{0x20000, 100}}), StreamChunk({{0x80000, 6}}, LzoFrame(compressible))};
  if (encryptionType != 0) EncipherImage(&spec, encryptionType, "secret");
  return spec;
}

TEST(ParseImage, FindsWhatBuildImageComposed) {
  for (std::uint32_t type = 0; type <= 4; ++type) {
    SCOPED_TRACE(type);
    const ImageSpec spec = RichImage(type);
    ImageLayout layout;
    const Bytes file = BuildImage(spec, &layout);
    ParseOptions options;
    if (type != 0) options.decipher = DecipherWith(MakeImageKey(type, "secret"));
    options.expand = [](std::uint32_t, const Bytes& stream, std::uint64_t bytes) {
      return ExpandLzoFrames(stream, bytes);
    };
    const ParsedImage image = ParseImage(file, options);
    ASSERT_EQ(image.error, "");

    HeaderFields expected = spec.header;
    expected.flags |= 2;
    EXPECT_EQ(image.header, expected);
    EXPECT_EQ(image.headerSectors, 4u);
    EXPECT_EQ(image.recordOffset, layout.recordOffset);
    EXPECT_EQ(image.lastPart, 0xFFFFFFFF);
    EXPECT_EQ(image.indexOffset, layout.indexOffset);
    ASSERT_EQ(image.chunks.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(image.chunks[i].fileOffset, layout.chunkOffsets[i]);
      EXPECT_EQ(image.chunks[i].runs, spec.chunks[i].runs);
    }
    EXPECT_EQ(image.chunks[0].data, spec.chunks[0].data);
    EXPECT_EQ(image.chunks[0].storedBody == spec.chunks[0].data, type == 0);
    EXPECT_EQ(image.chunks[1].storedSectors, 1u);
    EXPECT_EQ(image.chunks[2].data, Bytes(6ul * 1024, 0x5A));

    EXPECT_TRUE(image.Holds(0x4000));
    EXPECT_FALSE(image.Holds(0x4400));
    Bytes around(0x500);
    for (std::size_t i = 0; i < 0x400; ++i) around[0x100 + i] = spec.chunks[0].data[3ul * 1024 + i];
    EXPECT_EQ(image.ReadVolume(0x3F00, 0x500), around);
  }
}

TEST(ParseImage, TellsEachDefect) {
  const auto errorOf = [](const auto& change) {
    ImageSpec spec = RichImage(0);
    change(&spec);
    return ParseImage(BuildImage(spec)).error;
  };
  const auto mentions = [](const std::string& text, const char* word) {
    return text.find(word) != std::string::npos;
  };
  using Spec = ImageSpec*;
  EXPECT_EQ(errorOf([](Spec) {}), "");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->header.magic = "OPEN"; }), "magic");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->headerCrc = 1; }), "HeaderCrc");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->extraCrc = 1; }), "ExtraCrc");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->gapBeforeIndex = Bytes(1024); }), "last chunk");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->trailing = Bytes(5); }), "whole number");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->index.pointerTail = {0, 1}; }), "not zero");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->index.pointer = 12345; }), "can't be");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->index.zero = 1; }), "zero bytes");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->index.extraSectors = 2; }), "takes");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->index.payload = Bytes{1}; }), "damaged");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->chunks[1].indexFileOffset = 0x5000; }), "at");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->chunks[0].storedSectors = 9; }), "Stored");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->chunks[0].expandedSectors = 6; }), "runs make");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->chunks[0].indexVolumeOffset = 3; }), "volume");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->chunks[2].streamLength = 9000; }), "stream");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->header.compressionType = 0; }), "no body");
  EXPECT_PRED2(mentions, errorOf([](Spec s) { s->header.comment.resize(1000, u'x'); }), "NUL");
}

}  // namespace
}  // namespace kqtest
