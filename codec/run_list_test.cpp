#include "codec/run_list.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/support/test_seed.h"

namespace kq {

static std::ostream& operator<<(std::ostream& out, const Run& run) {
  return out << "(" << std::hex << run.offset << ", " << run.length << ")";
}

namespace {

using Bytes = std::vector<std::uint8_t>;
using Pair = Run;  // the tests' own class has a member named Run
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr std::uint64_t kMax64 = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint32_t kMax32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint8_t kUntouched = 0xA5;

// A writer on space of its own, sized exactly so that a sanitizer sees a byte too many.
struct List {
  explicit List(std::size_t space, std::uint64_t mergeUnit = 0) : room(space) {
    bytes = std::make_unique<std::uint8_t[]>(space);
    std::fill_n(bytes.get(), space, kUntouched);
    writer.Cursor = bytes.get();
    writer.End = bytes.get() + space;
    writer.MergeUnit = mergeUnit;
  }
  bool Append(const Pair& run) { return PutRun(&writer, writer.Cursor, writer.LastRun, run); }
  Bytes Written() const { return Bytes(bytes.get(), bytes.get() + (writer.Cursor - bytes.get())); }
  Bytes All() const { return {bytes.get(), bytes.get() + room}; }

  std::size_t room;
  std::unique_ptr<std::uint8_t[]> bytes;
  RunWriter writer;
};

struct ReadResult {
  std::vector<Pair> runs;
  std::string log;
  std::size_t consumed = 0;
  Pair running;
};

// Reads until false; the bytes are copied to memory that ends with them.
ReadResult ReadAll(const Bytes& bytes, const Pair& running = {}) {
  const auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), copy.get());
  RunReader reader{copy.get(), copy.get() + bytes.size(), running.offset, running.length};
  ReadResult result;
  Pair run{0x1111, 0x2222};
  Pair before = run;
  CaptureStderr();
  while (NextRun(&reader, &run.offset, &run.length)) {
    result.runs.push_back(run);
    before = run;
  }
  result.log = GetCapturedStderr();
  EXPECT_EQ(run, before) << "a failed read changed the results";
  result.consumed = static_cast<std::size_t>(reader.Cursor - copy.get());
  result.running = {reader.Offset, reader.Length};
  return result;
}

// The encoding told once more: one byte after the other, with no wide arithmetic.
Bytes ModelEntry(const Pair& previous, const Pair& next) {
  std::array<std::uint8_t, 8> d{};
  std::array<std::uint8_t, 4> e{};
  int borrow = 0;
  for (unsigned i = 0; i < 8; ++i) {
    const int difference = static_cast<int>(next.offset >> (8 * i) & 0xFF) -
                           static_cast<int>(previous.offset >> (8 * i) & 0xFF) - borrow;
    borrow = difference < 0 ? 1 : 0;
    d[i] = static_cast<std::uint8_t>(difference + 256 * borrow);
  }
  borrow = 0;
  for (unsigned i = 0; i < 4; ++i) {
    const int difference = static_cast<int>(next.length >> (8 * i) & 0xFF) -
                           static_cast<int>(previous.length >> (8 * i) & 0xFF) - borrow;
    borrow = difference < 0 ? 1 : 0;
    e[i] = static_cast<std::uint8_t>(difference + 256 * borrow);
  }
  Bytes entry;
  if (previous.length == 0) {
    entry.insert(entry.end(), d.begin(), d.end());
    entry.insert(entry.end(), e.begin(), e.end());
    return entry;
  }
  const bool negative = d[7] >= 0x80;
  unsigned p = 0;
  unsigned q = 0;
  for (unsigned i = 0; i < 8; ++i) {
    if (d[i] != (negative ? 0xFF : 0)) p = i + 1;
  }
  for (unsigned i = 0; i < 4; ++i) {
    if (e[i] != 0) q = i + 1;
  }
  entry.push_back(static_cast<std::uint8_t>((negative ? 128 : 0) + 8 * p + q));
  entry.insert(entry.end(), d.begin(), d.begin() + p);
  entry.insert(entry.end(), e.begin(), e.begin() + q);
  return entry;
}

const std::vector<Pair> kChunkRuns = {{0x100000, 8}, {0x200000, 8}, {0x1F0000, 16}, {0x1F2000, 16}};
const Bytes kChunkList = {0x00, 0x00, 0x10, 0,    0,    0,    0,    0, 8,    0,    0,   0,
                          0x18, 0x00, 0x00, 0x10, 0x91, 0x00, 0x00, 8, 0x10, 0x00, 0x20};

TEST(PutRun, WritesTheListOfFourRuns) {
  List list(64);
  for (const Pair& run : kChunkRuns) ASSERT_TRUE(list.Append(run));
  EXPECT_EQ(list.Written(), kChunkList);
}

TEST(NextRun, ReadsTheListOfFourRunsUpToItsEndMark) {
  Bytes bytes = kChunkList;
  bytes.push_back(kRunListEnd);
  EXPECT_EQ(bytes.size(), 24u);
  bytes.resize(504);
  const ReadResult result = ReadAll(bytes);
  EXPECT_EQ(result.runs, kChunkRuns);
  EXPECT_EQ(result.consumed, 23u);
  EXPECT_EQ(result.log, "");
}

TEST(PutRun, WritesTheIndexOfTwoChunks) {
  List list(64);
  ASSERT_TRUE(list.Append({0, 0x2000}));
  ASSERT_TRUE(list.Append({0x80000, 0xFE000}));
  const Bytes expected = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0x20, 0, 0, 0x1B, 0, 0, 8, 0, 0xC0, 0x0F};
  EXPECT_EQ(list.Written(), expected);
  EXPECT_EQ(ReadAll(expected).runs, (std::vector<Pair>{{0, 0x2000}, {0x80000, 0xFE000}}));
}

TEST(PutRun, AShrinkingLengthTakesFourBytes) {
  List list(64);
  ASSERT_TRUE(PutRun(&list.writer, list.writer.Cursor, {0x1000, 9}, {0x1080, 5}));
  EXPECT_EQ(list.Written(), (Bytes{0x0C, 0x80, 0xFC, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(ReadAll(list.Written(), {0x1000, 9}).runs, (std::vector<Pair>{{0x1080, 5}}));
}

TEST(PutRun, TheSignIsInTheHeaderAlone) {
  const struct {
    std::uint64_t difference;
    Bytes entry;
  } kCases[] = {
      {127, {0x09, 0x7F, 1}},
      {128, {0x09, 0x80, 1}},
      {255, {0x09, 0xFF, 1}},
      {256, {0x11, 0x00, 0x01, 1}},
      {0, {0x01, 1}},
      {kMax64, {0x81, 1}},
      {kMax64 - 1, {0x89, 0xFE, 1}},
      {0 - std::uint64_t{256}, {0x89, 0x00, 1}},
      {0 - std::uint64_t{257}, {0x91, 0xFF, 0xFE, 1}},
      {0x7FFF'FFFF'FFFF'FFFF, {0x41, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 1}},
      {0x8000'0000'0000'0000, {0xC1, 0, 0, 0, 0, 0, 0, 0, 0x80, 1}},
      {0xFF00'0000'0000'0000, {0xB9, 0, 0, 0, 0, 0, 0, 0, 1}},
  };
  for (const auto& one : kCases) {
    const Pair previous{0x4000, 7};
    const Pair next{0x4000 + one.difference, 8};
    List list(13);
    ASSERT_TRUE(PutRun(&list.writer, list.writer.Cursor, previous, next));
    EXPECT_EQ(list.Written(), one.entry) << one.difference;
    EXPECT_EQ(ReadAll(one.entry, previous).runs, std::vector<Pair>{next}) << one.difference;
  }
}

TEST(PutRun, TheLongestEntryTakesThirteenBytes) {
  List list(kLongestRunEntry);
  ASSERT_TRUE(PutRun(&list.writer, list.writer.Cursor, {0, 2}, {0x8000'0000'0000'0000, 1}));
  EXPECT_EQ(list.Written(), (Bytes{0xC4, 0, 0, 0, 0, 0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(PutRun, ARunThatDiffersInNothingIsWrittenAndUnreadable) {
  List list(1);
  ASSERT_TRUE(PutRun(&list.writer, list.writer.Cursor, {5, 5}, {5, 5}));
  EXPECT_EQ(list.Written(), Bytes{0x00});
  List minusOne(1);
  ASSERT_TRUE(PutRun(&minusOne.writer, minusOne.writer.Cursor, {5, 5}, {4, 5}));
  EXPECT_EQ(minusOne.Written(), Bytes{0x80});
}

TEST(PutRun, NeedsExactlyItsEntrysRoomAndElseChangesNothing) {
  const struct {
    Pair previous;
    Pair next;
  } kCases[] = {
      {{0, 0}, {0x1000, 8}}, {{0x1000, 8}, {0x2000, 8}},           {{0x1000, 8}, {0x1000, 8}},
      {{0x1000, 8}, {0, 7}}, {{0, 2}, {0x8000'0000'0000'0000, 1}}, {{77, 0}, {78, 0}}};
  for (const auto& one : kCases) {
    const Bytes entry = ModelEntry(one.previous, one.next);
    for (std::size_t room = 0; room <= entry.size() + 1; ++room) {
      List list(room, 512);
      list.writer.LastRun = {1, 2};
      list.writer.PriorRun = {3, 4};
      const bool fits = PutRun(&list.writer, list.writer.Cursor, one.previous, one.next);
      ASSERT_EQ(fits, room >= entry.size());
      if (fits) {
        EXPECT_EQ(list.Written(), entry);
        continue;
      }
      EXPECT_EQ(list.writer.Cursor, list.bytes.get());
      EXPECT_EQ(list.writer.PreviousEntry, nullptr);
      EXPECT_EQ(list.writer.LastRun, (Pair{1, 2}));
      EXPECT_EQ(list.writer.PriorRun, (Pair{3, 4}));
      EXPECT_EQ(list.All(), Bytes(room, kUntouched));
    }
  }
}

TEST(PutRun, APositionBehindTheEndHasNoRoom) {
  std::array<std::uint8_t, 32> bytes{};
  RunWriter writer;
  writer.Cursor = bytes.data() + 8;
  writer.End = bytes.data() + 4;
  EXPECT_FALSE(PutRun(&writer, writer.Cursor, {0, 0}, {0x1000, 8}));
  EXPECT_FALSE(PutRun(&writer, writer.Cursor, {0, 1}, {0x1000, 8}));
}

TEST(PutRun, RemembersTheEntryOnlyWhereRunsAreMerged) {
  List merging(64, 512);
  ASSERT_TRUE(merging.Append({0x1000, 8}));
  EXPECT_EQ(merging.writer.PreviousEntry, merging.bytes.get());
  EXPECT_EQ(merging.writer.PriorRun, (Pair{0, 0}));
  EXPECT_EQ(merging.writer.LastRun, (Pair{0x1000, 8}));
  ASSERT_TRUE(merging.Append({0x9000, 8}));
  EXPECT_EQ(merging.writer.PreviousEntry, merging.bytes.get() + 12);
  EXPECT_EQ(merging.writer.PriorRun, (Pair{0x1000, 8}));

  List plain(64);
  ASSERT_TRUE(plain.Append({0x1000, 8}));
  ASSERT_TRUE(plain.Append({0x9000, 8}));
  EXPECT_EQ(plain.writer.PreviousEntry, nullptr);
  EXPECT_EQ(plain.writer.PriorRun, (Pair{0, 0}));
  EXPECT_EQ(plain.writer.LastRun, (Pair{0x9000, 8}));
}

TEST(PutRun, TakesTheWritersOwnRecords) {
  List list(64, 512);
  ASSERT_TRUE(list.Append({0x1000, 8}));
  ASSERT_TRUE(list.Append({0x9000, 8}));
  // Replaces the second entry by an equal one.
  const Bytes before = list.Written();
  ASSERT_TRUE(
      PutRun(&list.writer, list.writer.PreviousEntry, list.writer.PriorRun, list.writer.LastRun));
  EXPECT_EQ(list.Written(), before);
  EXPECT_EQ(list.writer.PriorRun, (Pair{0x1000, 8}));
  EXPECT_EQ(list.writer.LastRun, (Pair{0x9000, 8}));
}

TEST(EnterRun, LengthensTheLastRunInPlace) {
  List list(64, 512);
  ASSERT_TRUE(EnterRun(&list.writer, {0x1000, 8}));
  ASSERT_TRUE(EnterRun(&list.writer, {0x2000, 4}));
  EXPECT_EQ(list.Written(), (Bytes{0, 0x10, 0, 0, 0, 0, 0, 0, 12, 0, 0, 0}));
  // A second entry grows from a shorter to a longer run than the first, and so shrinks to one byte
  // for its length: the cursor steps back.
  ASSERT_TRUE(EnterRun(&list.writer, {0x9000, 1}));
  EXPECT_EQ(list.Written().size(), 12u + 1 + 2 + 4);
  ASSERT_TRUE(EnterRun(&list.writer, {0x9200, 12}));
  EXPECT_EQ(list.Written(), (Bytes{0, 0x10, 0, 0, 0, 0, 0, 0, 12, 0, 0, 0, 0x11, 0x00, 0x80, 1}));
  EXPECT_EQ(list.writer.LastRun, (Pair{0x9000, 13}));
  EXPECT_EQ(ReadAll(list.Written()).runs, (std::vector<Pair>{{0x1000, 12}, {0x9000, 13}}));
}

TEST(EnterRun, AppendsUnlessTheRunContinuesTheLastExactly) {
  const struct {
    const char* why;
    std::uint64_t unit;
    Pair last;
    Pair next;
  } kCases[] = {
      {"a gap", 512, {0x1000, 8}, {0x2200, 8}},
      {"an overlap", 512, {0x1000, 8}, {0x1E00, 8}},
      {"a step backwards", 512, {0x1000, 8}, {0x0000, 8}},
      {"another unit", 4096, {0x1000, 8}, {0x2000, 8}},
      {"no merging", 0, {0x1000, 8}, {0x2000, 8}},
      {"no merging, same offset", 0, {0x1000, 8}, {0x1000, 9}},
      {"a last run of length 0", 512, {0x1000, 0}, {0x1000, 8}},
      {"a length of more than 32 bits", 1, {0x1000, kMax32}, {0x1000 + std::uint64_t{kMax32}, 1}},
      {"an end beyond 64 bits", 512, {kMax64 - 0xFFF, 8}, {0, 8}},
  };
  for (const auto& one : kCases) {
    List list(64, one.unit);
    ASSERT_TRUE(EnterRun(&list.writer, one.last));
    ASSERT_TRUE(EnterRun(&list.writer, one.next));
    Bytes expected = ModelEntry({0, 0}, one.last);
    const Bytes second = ModelEntry(one.last, one.next);
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(list.Written(), expected) << one.why;
  }
}

TEST(EnterRun, AFreshListAppendsThoughItsZeroLastRunEndsAtTheOffset) {
  List list(64, 512);
  ASSERT_TRUE(EnterRun(&list.writer, {0, 8}));
  EXPECT_EQ(list.Written(), ModelEntry({0, 0}, {0, 8}));
}

TEST(EnterRun, TheLongestLengthIsMergedUpTo) {
  List list(64, 1);
  ASSERT_TRUE(EnterRun(&list.writer, {0x1000, kMax32 - 1}));
  ASSERT_TRUE(EnterRun(&list.writer, {0x1000 + std::uint64_t{kMax32} - 1, 1}));
  EXPECT_EQ(list.writer.LastRun, (Pair{0x1000, kMax32}));
  EXPECT_EQ(list.Written().size(), 12u);
}

TEST(EnterRun, ARunOfLengthZeroThatContinuesLeavesTheListAsItIs) {
  List list(64, 512);
  ASSERT_TRUE(EnterRun(&list.writer, {0x1000, 8}));
  CaptureStderr();
  ASSERT_TRUE(EnterRun(&list.writer, {0x2000, 0}));
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_EQ(list.Written(), ModelEntry({0, 0}, {0x1000, 8}));
}

// A grown length needs a byte more than is left for it in place; appending needs as little as the
// header alone, since the run repeats the difference.
TEST(EnterRun, AppendsWhereTheRewriteFindsNoRoom) {
  List list(12 + 3 + 3, 1);
  ASSERT_TRUE(EnterRun(&list.writer, {0x10, 0x10}));
  ASSERT_TRUE(EnterRun(&list.writer, {0x80, 0xFF}));  // 09 70 and one byte of length
  list.writer.End = list.writer.Cursor;
  EXPECT_FALSE(EnterRun(&list.writer, {0x17F, 0x7F00}));
  EXPECT_EQ(list.writer.LastRun, (Pair{0x80, 0xFF}));

  // Room for two more bytes behind the entry, while the rewrite, whose length difference goes from
  // one byte to four, would need three.
  List wide(12 + 3 + 2, 1);
  ASSERT_TRUE(EnterRun(&wide.writer, {0x10, 0x10}));
  ASSERT_TRUE(EnterRun(&wide.writer, {0x80, 0xFF}));
  wide.writer.PriorRun.length = 0x01000020;  // the rewrite is taken against the prior run
  ASSERT_TRUE(EnterRun(&wide.writer, {0x17F, 0xFF}));
  EXPECT_EQ(wide.writer.LastRun, (Pair{0x17F, 0xFF}));
  EXPECT_EQ(wide.Written(),
            (Bytes{0x10, 0, 0, 0, 0, 0, 0, 0, 0x10, 0, 0, 0, 0x09, 0x70, 0xEF, 0x08, 0xFF}));
}

TEST(NextRun, AnEmptyListYieldsNoRun) {
  EXPECT_TRUE(ReadAll({}).runs.empty());
  const ReadResult marked = ReadAll({0xFF, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13});
  EXPECT_TRUE(marked.runs.empty());
  EXPECT_EQ(marked.consumed, 0u);
  EXPECT_EQ(marked.log, "");
  RunReader nothing;
  Pair run;
  EXPECT_FALSE(NextRun(&nothing, &run.offset, &run.length));
}

TEST(NextRun, AListThatFillsItsSpaceEndsWithIt) {
  const ReadResult result = ReadAll(kChunkList);
  EXPECT_EQ(result.runs, kChunkRuns);
  EXPECT_EQ(result.consumed, kChunkList.size());
  EXPECT_EQ(result.log, "");
}

TEST(NextRun, TheEndMarkEndsTheFullFormToo) {
  Bytes entry = ModelEntry({0, 0}, {0x12FF, 8});
  EXPECT_EQ(entry[0], 0xFF);
  EXPECT_TRUE(ReadAll(entry).runs.empty());
  // Only as its first byte.
  entry = ModelEntry({0, 0}, {0xFF00, 0xFF});
  EXPECT_EQ(ReadAll(entry).runs, (std::vector<Pair>{{0xFF00, 0xFF}}));
}

TEST(NextRun, ARunOfLengthZeroIsFollowedByTheFullForm) {
  const std::vector<Pair> runs = {{0x1000, 8}, {0x3000, 0}, {0x2000, 5}, {0x2200, 5}};
  List list(64);
  for (const Pair& run : runs) ASSERT_TRUE(list.Append(run));
  // d = -0x1000 in all eight bytes, e = 5.
  const Bytes third = {0x00, 0xF0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 5, 0, 0, 0};
  const Bytes written = list.Written();
  const std::size_t at = 12 + 1 + 2 + 4;
  EXPECT_EQ(Bytes(written.begin() + at, written.begin() + at + 12), third);
  EXPECT_EQ(ReadAll(written).runs, runs);
}

TEST(NextRun, AHeaderWithoutBytesEndsTheReading) {
  for (const std::uint8_t header : Bytes{0x00, 0x80}) {
    const ReadResult result = ReadAll({header, 0x18, 0, 0, 0x10}, {0x1000, 8});
    EXPECT_TRUE(result.runs.empty());
    EXPECT_EQ(result.log, "ASSERT: zero-length run!\n");
    EXPECT_EQ(result.consumed, 0u);
    EXPECT_EQ(result.running, (Pair{0x1000, 8}));
  }
}

TEST(NextRun, EveryHeaderIsCheckedAndConsumedOnlyIfGood) {
  const std::string kEmpty = "ASSERT: zero-length run!\n";
  const std::string kLongOffset = "ASSERT: too long offset part in the run!\n";
  const std::string kLongLength = "ASSERT: too long length part in the run!\n";
  for (unsigned header = 0; header < 0xFF; ++header) {
    const unsigned p = header / 8 % 16;
    const unsigned q = header % 8;
    for (const std::size_t behind : {std::size_t{12}, std::size_t{40}}) {
      Bytes bytes(1 + behind, 0x01);
      bytes[0] = static_cast<std::uint8_t>(header);
      const std::size_t space = bytes.size();
      const auto copy = std::make_unique<std::uint8_t[]>(space);
      std::copy(bytes.begin(), bytes.end(), copy.get());
      RunReader reader{copy.get(), copy.get() + space, 0x1000, 8};
      Pair run;
      CaptureStderr();
      const bool good = NextRun(&reader, &run.offset, &run.length);
      std::string expected;
      if (p + q == 0) expected += kEmpty;
      if (p > 8) expected += kLongOffset;
      if (q > 4) expected += kLongLength;
      EXPECT_EQ(GetCapturedStderr(), expected) << header;
      EXPECT_EQ(good, expected.empty()) << header;
      EXPECT_EQ(reader.Cursor - copy.get(), good ? 1 + p + q : 0) << header;
    }
  }
}

TEST(NextRun, ACutEntryIsToldAndLeavesTheRunningPair) {
  const struct {
    Pair running;
    Bytes entry;
  } kCases[] = {{{0, 0}, ModelEntry({0, 0}, {0x1000, 8})},
                {{7, 0}, ModelEntry({7, 0}, {0x1000, 8})},
                {{0x1000, 9}, ModelEntry({0x1000, 9}, {0x1080, 5})},
                {{0, 2}, ModelEntry({0, 2}, {0x8000'0000'0000'0000, 1})}};
  for (const auto& one : kCases) {
    for (std::size_t held = 1; held < one.entry.size(); ++held) {
      const ReadResult result =
          ReadAll(Bytes(one.entry.begin(), one.entry.begin() + static_cast<std::ptrdiff_t>(held)),
                  one.running);
      EXPECT_TRUE(result.runs.empty());
      EXPECT_EQ(result.log, "ASSERT: incomplete truncated run!\n");
      EXPECT_EQ(result.consumed, held);
      EXPECT_EQ(result.running, one.running);
    }
  }
}

TEST(NextRun, OffsetsAndLengthsWrapAround) {
  const std::vector<Pair> runs = {{kMax64 - 0xFF, kMax32}, {0x100, 1}, {kMax64, kMax32 - 1}};
  List list(64);
  for (const Pair& run : runs) ASSERT_TRUE(list.Append(run));
  // (kMax64 - 0xFF) - 0: a low byte of 0, so the list can be read back.
  EXPECT_EQ(ReadAll(list.Written()).runs, runs);
}

std::uint32_t Seed() { return kqtest::TestSeed(); }

TEST(RunList, RandomListsMatchTheModelAndReadBack) {
  const std::uint32_t seed = Seed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (int round = 0; round < 200; ++round) {
    const std::size_t space = 1 + random() % 600;
    List list(space);
    Bytes model;
    std::vector<Pair> runs;
    Pair previous;
    while (true) {
      Pair next{random() >> random() % 64, static_cast<std::uint32_t>(random() >> random() % 64)};
      if (random() % 4 == 0) next.offset = previous.offset + (random() % 512) - 256;
      if (random() % 4 == 0)
        next.length = previous.length + static_cast<std::uint32_t>(random() % 512) - 256;
      if (random() % 8 == 0) next.length = 0;
      // What the format can't tell: an entry without bytes, and a full form that looks like an end.
      if (previous.length != 0 && next.length == previous.length &&
          (next.offset == previous.offset || next.offset == previous.offset - 1)) {
        continue;
      }
      if (previous.length == 0 && ((next.offset - previous.offset) & 0xFF) == 0xFF) continue;
      const Bytes entry = ModelEntry(previous, next);
      const bool fits = model.size() + entry.size() <= space;
      ASSERT_EQ(list.Append(next), fits);
      if (!fits) break;
      model.insert(model.end(), entry.begin(), entry.end());
      runs.push_back(next);
      previous = next;
    }
    ASSERT_EQ(list.Written(), model);
    const ReadResult exact = ReadAll(model);
    ASSERT_EQ(exact.runs, runs);
    ASSERT_EQ(exact.log, "");
    model.push_back(kRunListEnd);
    ASSERT_EQ(ReadAll(model).runs, runs);
  }
}

TEST(RunList, MergedListsReadBackAsTheirSectors) {
  const std::uint32_t seed = Seed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (int round = 0; round < 100; ++round) {
    List list(504, 512);
    std::vector<std::uint64_t> sectors;
    std::uint64_t next = random() % 1000;
    while (list.writer.Cursor + 18 < list.writer.End) {
      if (random() % 3 == 0) next = random() % 1000;
      // A list can't tell a run that repeats the last one.
      if (next * 512 == list.writer.LastRun.offset) continue;
      const auto count = static_cast<std::uint32_t>(1 + random() % 40);
      ASSERT_TRUE(EnterRun(&list.writer, {next * 512, count}));
      for (std::uint32_t i = 0; i < count; ++i) sectors.push_back(next + i);
      next += count;
    }
    std::vector<std::uint64_t> read;
    const ReadResult result = ReadAll(list.Written());
    for (const Pair& run : result.runs) {
      for (std::uint32_t i = 0; i < run.length; ++i) read.push_back(run.offset / 512 + i);
    }
    ASSERT_EQ(read, sectors);
    // Neighbours are merged.
    for (std::size_t i = 1; i < result.runs.size(); ++i) {
      const Pair& last = result.runs[i - 1];
      ASSERT_NE(last.offset + std::uint64_t{last.length} * 512, result.runs[i].offset);
    }
  }
}

// The reading told once more: one byte after the other.
ReadResult ModelRead(const Bytes& bytes) {
  ReadResult result;
  std::size_t at = 0;
  while (at < bytes.size() && bytes[at] != 0xFF) {
    unsigned p = 8;
    unsigned q = 4;
    bool negative = false;
    if (result.running.length != 0) {
      negative = bytes[at] >= 128;
      p = bytes[at] % 128 / 8;
      q = bytes[at] % 8;
      if (p + q == 0) result.log += "ASSERT: zero-length run!\n";
      if (p > 8) result.log += "ASSERT: too long offset part in the run!\n";
      if (q > 4) result.log += "ASSERT: too long length part in the run!\n";
      if (p + q == 0 || p > 8 || q > 4) break;
      ++at;
    }
    Pair difference{negative ? kMax64 : 0, 0};
    bool cut = false;
    for (unsigned i = 0; i < p + q && !cut; ++i) {
      cut = at == bytes.size();
      if (cut) break;
      const std::uint64_t byte = bytes[at++];
      if (i < p) {
        difference.offset = (difference.offset & ~(std::uint64_t{0xFF} << 8 * i)) | byte << 8 * i;
      } else {
        difference.length |= static_cast<std::uint32_t>(byte << 8 * (i - p));
      }
    }
    if (cut) {
      result.log += "ASSERT: incomplete truncated run!\n";
      break;
    }
    result.running.offset += difference.offset;
    result.running.length += difference.length;
    result.runs.push_back(result.running);
  }
  result.consumed = at;
  return result;
}

TEST(NextRun, ReadsAnyBytesAsTheModelDoes) {
  const std::uint32_t seed = Seed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (int round = 0; round < 1000; ++round) {
    Bytes bytes(random() % 80);
    // Mostly headers that pass, so that lists get long.
    for (std::uint8_t& byte : bytes) {
      byte =
          static_cast<std::uint8_t>(random() % 4 != 0 ? random() % 5 + random() % 9 * 8 : random());
    }
    const ReadResult model = ModelRead(bytes);
    const ReadResult read = ReadAll(bytes);
    ASSERT_EQ(read.runs, model.runs);
    ASSERT_EQ(read.log, model.log);
    ASSERT_EQ(read.consumed, model.consumed);
    ASSERT_EQ(read.running, model.running);
  }
}

}  // namespace
}  // namespace kq
