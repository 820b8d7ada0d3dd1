#include <gtest/gtest.h>
#include <lzo/lzo1x.h>

#include "codec/lzo_block.h"
#include "codec/lzo_model.h"
#include "codec/lzo_test_data.h"
#include "tests/support/test_seed.h"

namespace {

using kqtest::Bytes;
using kqtest::Compress;
using kqtest::DataOfKind;
using kqtest::LzoModelCompress;
using kqtest::LzoModelDecompress;
using kqtest::LzoTable;
using kqtest::OneFrameRoom;
using kqtest::Random;

std::size_t FrameLength(const Bytes& stream, std::size_t at) {
  return stream[at] + std::size_t{stream[at + 1]} * 256 + std::size_t{stream[at + 2]} * 65536;
}

// What a stream's frames yield, each through liblzo2.
Bytes DecodeWithPeer(const Bytes& stream, std::size_t size) {
  Bytes output(size);
  std::size_t done = 0;
  for (std::size_t at = 0; at < stream.size();) {
    const std::size_t length = FrameLength(stream, at);
    lzo_uint room = size - done;
    EXPECT_EQ(
        lzo1x_decompress_safe(stream.data() + at + 3, length, output.data() + done, &room, nullptr),
        LZO_E_OK);
    done += room;
    at += 3 + length;
  }
  output.resize(done);
  return output;
}

std::size_t FramesOf(const Bytes& stream) {
  std::size_t frames = 0;
  for (std::size_t at = 0; at < stream.size(); ++frames) {
    at += 3 + FrameLength(stream, at);
  }
  return frames;
}

// Bytes in which no three recur.
Bytes Unrepeated(std::size_t size) {
  Bytes bytes;
  for (unsigned i = 0; bytes.size() < size; ++i) {
    for (const unsigned byte : {i * 2 + 1, i >> 7, 0xFFu - i}) {
      bytes.push_back(static_cast<std::uint8_t>(byte));
    }
  }
  bytes.resize(size);
  return bytes;
}

Bytes Frame(const Bytes& stream) {
  Bytes frame;
  for (const unsigned shift : {0u, 8u, 16u}) {
    frame.push_back(static_cast<std::uint8_t>(stream.size() >> shift));
  }
  frame.insert(frame.end(), stream.begin(), stream.end());
  return frame;
}

TEST(LzoBlockCompress, NothingBecomesNothingInAnyRoom) {
  for (const std::size_t room : {std::size_t{0}, std::size_t{1}, std::size_t{100}}) {
    EXPECT_EQ(Compress({}, room), Bytes());
  }
}

TEST(LzoBlockCompress, RoomBelowSeventyIsFullForAnyInput) {
  for (std::size_t room = 0; room < 70; ++room) {
    for (const std::size_t size : {1u, 2u, 13u, 14u, 1000u}) {
      EXPECT_EQ(Compress(Bytes(size, 'a'), room), std::nullopt) << room;
    }
  }
}

// Rooms of 70 and 71 leave nothing for the first frame's input, which is then an empty frame.
TEST(LzoBlockCompress, RoomForAnEmptyFrameAloneIsFullToo) {
  EXPECT_EQ(Compress(Bytes(1, 'a'), 70), std::nullopt);
  EXPECT_EQ(Compress(Bytes(1, 'a'), 71), std::nullopt);
  EXPECT_EQ(Compress(Bytes(1, 'a'), 72), (Bytes{5, 0, 0, 18, 'a', 0x11, 0, 0}));
  EXPECT_EQ(Compress(Bytes(2, 'a'), 72), std::nullopt);
}

TEST(LzoBlockCompress, ThirteenBytesAreOneRunOfLiterals) {
  for (std::size_t size = 1; size <= 13; ++size) {
    const Bytes input(size, 'a');
    Bytes stream = {static_cast<std::uint8_t>(17 + size)};
    stream.insert(stream.end(), input.begin(), input.end());
    stream.insert(stream.end(), {0x11, 0, 0});
    const std::optional<Bytes> output = Compress(input, OneFrameRoom(size));
    EXPECT_EQ(output, Frame(stream));
    EXPECT_EQ(output->size(), 3 + 1 + size + 3);
  }
}

TEST(LzoBlockCompress, ARepeatedByteIsFiveLiteralsAndAMatch) {
  EXPECT_EQ(Compress(Bytes(20, 'a'), 200),
            (Bytes{12, 0, 0, 2, 'a', 'a', 'a', 'a', 'a', 0x2D, 0, 0, 0x11, 0, 0}));
}

TEST(LzoBlockCompress, TheSearchEndsThirteenBytesBeforeTheFrame) {
  // Positions 4 and 5 are searched in 19 bytes, 4 alone in 18.
  EXPECT_EQ(Compress(Bytes(19, 'a'), 200),
            (Bytes{12, 0, 0, 2, 'a', 'a', 'a', 'a', 'a', 0x2C, 0, 0, 0x11, 0, 0}));
  Bytes literals = {17 + 18};
  literals.resize(19, 'a');
  literals.insert(literals.end(), {0x11, 0, 0});
  EXPECT_EQ(Compress(Bytes(18, 'a'), 200), Frame(literals));
}

TEST(LzoBlockCompress, RunsOfLiteralsHaveTheirForms) {
  const struct {
    std::size_t count;
    Bytes head;
  } kCases[] = {{14, {31}},      {238, {255}},     {239, {0, 221}},    {272, {0, 254}},
                {273, {0, 255}}, {274, {0, 0, 1}}, {528, {0, 0, 255}}, {529, {0, 0, 0, 1}}};
  for (const auto& one : kCases) {
    const Bytes input = Unrepeated(one.count);
    Bytes stream = one.head;
    stream.insert(stream.end(), input.begin(), input.end());
    stream.insert(stream.end(), {0x11, 0, 0});
    EXPECT_EQ(Compress(input, OneFrameRoom(one.count)), Frame(stream)) << one.count;
  }
}

TEST(LzoBlockCompress, MatchesTheModelAtShortLengths) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (unsigned kind = 0; kind < kqtest::kKindsOfData; ++kind) {
    for (std::size_t size = 0; size < 600; size += 1 + size / 20) {
      const Bytes input = DataOfKind(kind, &random, size);
      const std::optional<Bytes> output = Compress(input, OneFrameRoom(size));
      ASSERT_TRUE(output.has_value()) << kind << " " << size;
      ASSERT_EQ(output, LzoModelCompress(input, OneFrameRoom(size))) << kind << " " << size;
      ASSERT_EQ(LzoModelDecompress(*output, size).output, input);
    }
  }
}

TEST(LzoBlockCompress, MatchesTheModelAndThePeerReadsIt) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  std::vector<std::uint64_t> table = LzoTable();
  for (unsigned kind = 0; kind < kqtest::kKindsOfData; ++kind) {
    for (const std::size_t size : {std::size_t{3000}, std::size_t{70000}, std::size_t{220000}}) {
      const Bytes input = DataOfKind(kind, &random, size + random() % 1000);
      // One frame, about the writer's room, and rooms that split it into more or don't suffice.
      for (const std::size_t room :
           {OneFrameRoom(input.size()), input.size() - 4, input.size() / 2, input.size() / 3}) {
        const std::optional<Bytes> output = Compress(input, room, &table);
        ASSERT_EQ(output, LzoModelCompress(input, room)) << kind << " " << size << " " << room;
        if (output) {
          ASSERT_EQ(DecodeWithPeer(*output, input.size()), input);
        }
      }
    }
  }
}

TEST(LzoBlockCompress, WorstCaseRoomKeepsOneFrameAndLessMakesMore) {
  Random random(1);
  for (const std::size_t size : {std::size_t{16}, std::size_t{160}, std::size_t{4992}}) {
    const Bytes input = kqtest::RandomBytes(&random, size);
    const std::size_t room = 3 + 67 + size + size / 16;
    const std::optional<Bytes> whole = Compress(input, room);
    ASSERT_TRUE(whole.has_value());
    EXPECT_EQ(FramesOf(*whole), 1u);
    // One byte less, and the last byte of input needs a frame of its own. The shortest input leaves
    // no room for one.
    const std::optional<Bytes> more = Compress(input, room - 1);
    EXPECT_EQ(more.has_value(), size > 16);
    if (more) {
      EXPECT_EQ(FramesOf(*more), 2u);
    }
  }
  const Bytes text(5000, 'a');
  const std::optional<Bytes> split = Compress(text, 600);
  ASSERT_TRUE(split.has_value());
  EXPECT_GT(FramesOf(*split), 1u);
  EXPECT_EQ(LzoModelDecompress(*split, text.size()).output, text);
}

TEST(LzoBlockCompress, FramesFillTheRoomThatIsLeft) {
  const Bytes input(2000, 'a');
  for (std::size_t room = 70; room < 900; room += 1 + room / 50) {
    ASSERT_EQ(Compress(input, room), LzoModelCompress(input, room)) << room;
  }
}

// The table's owner never clears it, and what it holds may come from anywhere.
TEST(LzoBlockCompress, WhatTheTableHeldChangesNothing) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  const Bytes input = DataOfKind(4, &random, 100000);
  const Bytes other = DataOfKind(3, &random, 120000);
  const std::optional<Bytes> expected = LzoModelCompress(input, OneFrameRoom(input.size()));

  std::vector<std::uint64_t> table = LzoTable();
  ASSERT_TRUE(Compress(other, OneFrameRoom(other.size()), &table).has_value());
  EXPECT_EQ(Compress(input, OneFrameRoom(input.size()), &table), expected);
  EXPECT_EQ(Compress(input, OneFrameRoom(input.size()), &table), expected);
  for (const std::uint64_t fill : {~std::uint64_t{0}, std::uint64_t{0x0001'0000'0001'0000}}) {
    table = LzoTable(fill);
    EXPECT_EQ(Compress(input, OneFrameRoom(input.size()), &table), expected);
  }
  for (std::uint64_t& entry : table) entry = random();
  EXPECT_EQ(Compress(input, OneFrameRoom(input.size()), &table), expected);
}

// A frame of the largest size, whose positions pass what an entry of the table can tell apart.
TEST(LzoBlockCompress, TheLargestFrameFindsItsMatchesToTheEnd) {
  constexpr std::size_t kLargest = 0xFFFFFF;
  Random random(7);
  Bytes input(kLargest + 1000, 0);
  const Bytes tail = DataOfKind(4, &random, 0x18000);
  std::copy(tail.begin(), tail.end(), input.begin() + kLargest - 0x18000);
  // Noise that stays in the table until it is long out of reach.
  const Bytes noise = DataOfKind(0, &random, 0x8000);
  std::copy(noise.begin(), noise.end(), input.begin() + 100);
  const std::optional<Bytes> output = Compress(input, OneFrameRoom(input.size()));
  ASSERT_TRUE(output.has_value());
  EXPECT_EQ(FramesOf(*output), 2u);
  EXPECT_TRUE(output == LzoModelCompress(input, OneFrameRoom(input.size())));
  EXPECT_TRUE(DecodeWithPeer(*output, input.size()) == input);
}

}  // namespace
