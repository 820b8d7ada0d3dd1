#include "codec/lzo_wide_search.h"

#include <gtest/gtest.h>

#include <cstring>

#include "codec/lzo_block.h"
#include "codec/lzo_model.h"
#include "codec/lzo_test_data.h"
#include "tests/support/test_seed.h"

namespace {

using kqtest::Bytes;
using kqtest::LzoModelCompress;
using kqtest::LzoTable;
using kqtest::OneFrameRoom;
using kqtest::Random;

// The ways that this processor has.
std::vector<kq::LzoWideSearch> Ways() {
  std::vector<kq::LzoWideSearch> ways;
  for (const kq::LzoInstructions instructions :
       {kq::LzoInstructions::kSse2, kq::LzoInstructions::kAvx2, kq::LzoInstructions::kAvx512}) {
    if (kq::LzoSupports(instructions)) ways.push_back(kq::LzoWideSearchWith(instructions));
  }
  return ways;
}

std::optional<Bytes> CompressWith(const kq::LzoWideSearch& way, const Bytes& input,
                                  std::size_t room) {
  std::vector<std::uint64_t> table = LzoTable(0x5A5A);
  return kqtest::CompressBy(
      [&](const std::uint8_t* in, std::uint64_t length, std::uint8_t* out, std::uint64_t* outLength,
          void* hashTable) {
        return kq::LzoBlockCompressWith(way, in, length, out, outLength, hashTable);
      },
      input, room, &table);
}

void ExpectTheModelsBytes(const Bytes& input) {
  const std::size_t room = OneFrameRoom(input.size());
  const std::optional<Bytes> expected = LzoModelCompress(input, room);
  const std::vector<kq::LzoWideSearch> ways = Ways();
  for (std::size_t i = 0; i < ways.size(); ++i) {
    ASSERT_TRUE(CompressWith(ways[i], input, room) == expected)
        << "way " << i << ", " << input.size() << " bytes";
  }
}

// Noise in which three to six bytes come back now and then from where distance() says, so that
// nearly all positions are passed over and some of them have a match.
template <class Distance>
Bytes NoiseWithEchoes(Random* random, std::size_t size, const Distance& distance) {
  Bytes bytes = kqtest::RandomBytes(random, size);
  for (std::size_t at = 60; at + 20 < size; at += 8 + (*random)() % 150) {
    const std::size_t back = distance();
    if (back > at) continue;
    const std::size_t length = 3 + (*random)() % 4;
    for (std::size_t i = 0; i < length; ++i) bytes[at + i] = bytes[at + i - back];
  }
  return bytes;
}

TEST(LzoHashStretch, EachWayFollowsTheFormulaAndReadsThreeBytesBeyond) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (std::size_t count = 0; count < 300; ++count) {
    // No byte more than may be read, so that a sanitizer sees one that is.
    const Bytes bytes = kqtest::RandomBytes(&random, count + 3);
    for (const kq::LzoWideSearch& way : Ways()) {
      kq::LzoStretchSlots slots;
      std::memset(&slots, 0xA5, sizeof slots);
      way.hashStretch(bytes.data(), count, &slots);
      for (std::size_t i = 0; i < count; ++i) {
        std::uint32_t h = bytes[i + 3];
        h = h << 6 ^ bytes[i + 2];
        h = h << 5 ^ bytes[i + 1];
        h = h << 5 ^ bytes[i];
        ASSERT_EQ(slots.first[i], (h * 33 >> 5) & 0x7FFF) << i << " of " << count;
        ASSERT_EQ(slots.second[i], (h * 33 >> 5 & 0x7FF) ^ 0x401F) << i << " of " << count;
      }
      ASSERT_EQ(slots.first[count], 0xA5A5);
      ASSERT_EQ(slots.second[count], 0xA5A5);
    }
  }
}

TEST(LzoSecondSlot, IsNeverTheFirst) {
  for (std::uint32_t slot = 0; slot < kq::kLzoSlots; ++slot) {
    ASSERT_NE(kq::LzoSecondSlot(slot), slot);
    ASSERT_LT(kq::LzoSecondSlot(slot), kq::kLzoSlots);
  }
}

TEST(LzoBlockCompressWith, EachWayGivesTheModelsBytesAtAllShortLengths) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (unsigned kind = 0; kind < kqtest::kKindsOfData; ++kind) {
    const Bytes data = kqtest::DataOfKind(kind, &random, 301);
    for (std::size_t size = 0; size <= 300; ++size) {
      ExpectTheModelsBytes(Bytes(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(size)));
    }
  }
}

TEST(LzoBlockCompressWith, EachWayGivesTheModelsBytesForAllKindsOfData) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (unsigned kind = 0; kind < kqtest::kKindsOfData; ++kind) {
    ExpectTheModelsBytes(kqtest::DataOfKind(kind, &random, 150000 + random() % 5000));
  }
}

// A match whose source lies so near depends on an entry that has only just been made.
TEST(LzoBlockCompressWith, MatchesWithinTheLastSixteenPositionsAreFound) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  ExpectTheModelsBytes(NoiseWithEchoes(&random, 100000, [&] { return 1 + random() % 16; }));
}

// Around the distances where the second slot has its turn and where a candidate is too far.
TEST(LzoBlockCompressWith, MatchesAtTheBoundsOfDistanceAreFoundInNoise) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  constexpr std::size_t kBounds[] = {0x800, 0x4000, 0xBFFF};
  ExpectTheModelsBytes(
      NoiseWithEchoes(&random, 250000, [&] { return kBounds[random() % 3] - 2 + random() % 5; }));
}

// Slots are few here: positions that lie together meet in them.
TEST(LzoBlockCompressWith, PositionsThatMeetInASlotAreEnteredInTurn) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (const unsigned symbols : {3u, 6u, 40u}) {
    Bytes bytes = kqtest::RandomBytes(&random, 60000, symbols);
    // The low bits of the hash come from few bits of the bytes; the others make them differ.
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (random() % 4 != 0) bytes[i] = static_cast<std::uint8_t>(bytes[i] | random() % 8 << 5);
    }
    ExpectTheModelsBytes(bytes);
  }
}

TEST(LzoBlockCompressWith, PeriodicDataOfEachPeriod) {
  Random random(3);
  for (std::size_t period = 1; period < 70; ++period) {
    const Bytes pattern = kqtest::RandomBytes(&random, period);
    Bytes bytes = kqtest::RandomBytes(&random, 100);
    while (bytes.size() < 1500) bytes.insert(bytes.end(), pattern.begin(), pattern.end());
    ExpectTheModelsBytes(bytes);
  }
}

TEST(LzoBlockCompressWith, LiteralsOfEachCountBeforeAMatch) {
  Random random(4);
  for (std::size_t count = 0; count < 150; ++count) {
    Bytes bytes = kqtest::RandomBytes(&random, 40);
    const Bytes start = bytes;
    const Bytes literals = kqtest::RandomBytes(&random, count);
    bytes.insert(bytes.end(), literals.begin(), literals.end());
    bytes.insert(bytes.end(), start.begin() + 5, start.begin() + 30);
    const Bytes rest = kqtest::RandomBytes(&random, 60);
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    ExpectTheModelsBytes(bytes);
  }
}

// The largest frame, and the next: places go up to their highest.
TEST(LzoBlockCompressWith, AllWaysAgreeBeyondTheLargestFrame) {
  Random random(5);
  Bytes input(0xFFFFFF + 70000, 0);
  const Bytes noise = NoiseWithEchoes(&random, 0x30000, [&] { return 1 + random() % 0xC100; });
  std::copy(noise.begin(), noise.end(), input.begin() + 0xFFFFFF - 0x28000);
  const std::size_t room = OneFrameRoom(input.size());
  const std::optional<Bytes> expected = CompressWith(Ways().front(), input, room);
  ASSERT_TRUE(expected.has_value());
  for (const kq::LzoWideSearch& way : Ways()) {
    EXPECT_TRUE(CompressWith(way, input, room) == expected);
  }
  EXPECT_TRUE(kqtest::LzoModelDecompress(*expected, input.size()).output == input);
}

TEST(LzoWideSearchHere, IsTheWidestThatTheProcessorHas) {
  EXPECT_TRUE(kq::LzoSupports(kq::LzoInstructions::kSse2));  // every x86-64 has it
  const kq::LzoWideSearch here = kq::LzoWideSearchHere();
  const kq::LzoWideSearch widest = Ways().back();
  EXPECT_EQ(here.hashStretch, widest.hashStretch);
  EXPECT_EQ(here.searchStretch, widest.searchStretch);
}

}  // namespace
