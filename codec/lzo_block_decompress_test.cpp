#include <gtest/gtest.h>
#include <lzo/lzo1x.h>

#include "codec/lzo_block.h"
#include "codec/lzo_model.h"
#include "codec/lzo_test_data.h"
#include "tests/support/test_seed.h"

namespace {

using kqtest::Bytes;
using kqtest::DataOfKind;
using kqtest::Decompress;
using kqtest::LzoModelCompress;
using kqtest::LzoModelDecoded;
using kqtest::LzoModelDecompress;
using kqtest::OneFrameRoom;
using kqtest::Random;

Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes whole;
  for (const Bytes& part : parts) whole.insert(whole.end(), part.begin(), part.end());
  return whole;
}

Bytes Frame(const Bytes& stream) {
  return Join(
      {{static_cast<std::uint8_t>(stream.size()), static_cast<std::uint8_t>(stream.size() >> 8),
        static_cast<std::uint8_t>(stream.size() >> 16)},
       stream});
}

Bytes Ascii(const char* text) { return Bytes(text, text + std::char_traits<char>::length(text)); }

const Bytes kEnd = {0x11, 0, 0};
constexpr std::size_t kAmple = 1000;

void ExpectDecoded(const Bytes& input, std::size_t room, int result, const Bytes& output,
                   std::size_t consumed) {
  for (const LzoModelDecoded& decoded :
       {Decompress(input, room), LzoModelDecompress(input, room)}) {
    EXPECT_EQ(decoded.result, result);
    EXPECT_EQ(decoded.output, output);
    EXPECT_EQ(decoded.consumed, consumed);
  }
}

// A stream that holds the instructions alone, and one in whose middle they stand, so that each way
// through the decoder meets them.
void ExpectStream(const Bytes& instructions, const Bytes& expected) {
  const Bytes whole = Frame(Join({instructions, kEnd}));
  ExpectDecoded(whole, kAmple, 0, expected, whole.size());
  ExpectDecoded(whole, expected.size(), 0, expected, whole.size());

  Bytes run = {0, 200 - 18};
  run.resize(2 + 200, 'x');
  const Bytes near = {0x40, 0};  // the last byte three times more, after which a run may follow
  const Bytes padded = Frame(Join({instructions, near, run, kEnd}));
  const Bytes tail(200, 'x');
  const LzoModelDecoded decoded = Decompress(padded, kAmple);
  const LzoModelDecoded model = LzoModelDecompress(padded, kAmple);
  EXPECT_EQ(decoded.result, model.result);
  EXPECT_EQ(decoded.output, model.output);
  EXPECT_EQ(decoded.consumed, model.consumed);
  ASSERT_GE(decoded.output.size(), expected.size());
  EXPECT_EQ(Bytes(decoded.output.begin(),
                  decoded.output.begin() + static_cast<std::ptrdiff_t>(expected.size())),
            expected);
}

void ExpectBad(const Bytes& instructions) {
  ExpectDecoded(Frame(Join({instructions, kEnd})), kAmple, -2, {}, 0);
  // Far from the frame's end.
  ExpectDecoded(Frame(Join({instructions, Bytes(300, 0x55), kEnd})), kAmple, -2, {}, 0);
}

Bytes Repeat(const Bytes& bytes, std::size_t size) {
  Bytes result;
  while (result.size() < size) result.push_back(bytes[result.size() % bytes.size()]);
  return result;
}

TEST(LzoBlockDecompress, InputWithoutAWholeFrameIsDoneWithNothing) {
  const Bytes frame = Frame(Join({{18, 'a'}, kEnd}));
  for (std::size_t held = 0; held < frame.size(); ++held) {
    ExpectDecoded(Bytes(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(held)), kAmple,
                  0, {}, 0);
  }
  ExpectDecoded({0xFF, 0xFF, 0xFF, 18, 'a', 0x11, 0, 0}, kAmple, 0, {}, 0);
}

TEST(LzoBlockDecompress, AFrameOfLengthZeroIsBad) {
  ExpectDecoded({0, 0, 0}, kAmple, -2, {}, 0);
  ExpectDecoded({0, 0, 0, 18, 'a', 0x11, 0, 0}, 0, -2, {}, 0);
  const Bytes good = Frame(Join({{18, 'a'}, kEnd}));
  ExpectDecoded(Join({good, {0, 0, 0}}), kAmple, -2, {'a'}, good.size());
}

TEST(LzoBlockDecompress, AFrameMayHoldNothing) { ExpectDecoded(Frame(kEnd), 0, 0, {}, 6); }

TEST(LzoBlockDecompress, TheFirstRunMayBeOneByteAndItsCount) {
  ExpectStream({18, 'a'}, Ascii("a"));
  ExpectStream({20, 'a', 'b', 'c'}, Ascii("abc"));
  Bytes longest = {255};
  const Bytes literals = Repeat(Ascii("0123456789"), 238);
  ExpectStream(Join({longest, literals}), literals);
}

TEST(LzoBlockDecompress, SeventeenIsNoRunButAFarMatch) {
  // 17 literals would follow if it were a run.
  ExpectBad(Join({{17}, Bytes(17, 'a')}));
}

TEST(LzoBlockDecompress, RunsOfLiteralsHaveThreeForms) {
  const Bytes data = Repeat(Ascii("abcdefghijklmnopqrstuvwxyz0"), 700);
  const auto first = [&](std::size_t count) {
    return Bytes(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(count));
  };
  ExpectStream(Join({{1}, first(4)}), first(4));
  ExpectStream(Join({{15}, first(18)}), first(18));
  ExpectStream(Join({{0, 1}, first(19)}), first(19));
  ExpectStream(Join({{0, 255}, first(273)}), first(273));
  ExpectStream(Join({{0, 0, 1}, first(274)}), first(274));
  ExpectStream(Join({{0, 0, 255}, first(528)}), first(528));
}

TEST(LzoBlockDecompress, NearMatches) {
  const Bytes start = Join({{29}, Ascii("abcdefghijkl")});
  // length (t >> 5) + 1, distance (t >> 2 & 7) + next * 8 + 1
  ExpectStream(Join({start, {0x40 | 2 << 2, 0}}), Ascii("abcdefghijkljkl"));
  ExpectStream(Join({start, {0xE0 | 3 << 2, 1}}), Ascii("abcdefghijklabcdefgh"));
  ExpectStream(Join({start, {0xE0, 0}}), Ascii("abcdefghijklllllllll"));
  ExpectBad(Join({start, {0x40 | 4 << 2, 1}}));  // one before the start
}

TEST(LzoBlockDecompress, MiddleMatches) {
  const Bytes start = Join({{29}, Ascii("abcdefghijkl")});
  const Bytes text = Ascii("abcdefghijkl");
  ExpectStream(Join({start, {0x21, 11 << 2, 0}}), Ascii("abcdefghijklabc"));
  ExpectStream(Join({start, {0x3F, 11 << 2, 0}}), Repeat(text, 12 + 33));
  ExpectStream(Join({start, {0x20, 1, 11 << 2, 0}}), Repeat(text, 12 + 34));
  ExpectStream(Join({start, {0x20, 255, 11 << 2, 0}}), Repeat(text, 12 + 288));
  ExpectStream(Join({start, {0x20, 0, 1, 11 << 2, 0}}), Repeat(text, 12 + 289));
  ExpectBad(Join({start, {0x21, 12 << 2, 0}}));
}

// A first stretch of 0x4000 and more bytes, for distances that need them.
Bytes LongStart(std::size_t size) {
  Bytes stream = {29};
  const Bytes text = Ascii("abcdefghijkl");
  stream.insert(stream.end(), text.begin(), text.end());
  std::size_t rest = size - 12 - 33;
  stream.push_back(0x20);
  for (; rest > 255; rest -= 255) stream.push_back(0);
  stream.push_back(static_cast<std::uint8_t>(rest));
  stream.insert(stream.end(), {11 << 2, 0});
  return stream;
}

// What a chunk of one pattern, or with zeros at its end, is decoded with.
TEST(LzoBlockDecompress, OneMatchRepeatsAPatternUpToTheEndOfTheRoom) {
  for (const std::size_t distance : {1u, 2u, 3u, 5u, 7u, 8u, 13u, 16u, 31u, 33u, 100u, 200u}) {
    for (const std::size_t length : {34u, 48u, 99u, 256u, 289u, 1000u, 4999u}) {
      Bytes expected;
      for (std::size_t i = 0; i < distance; ++i) {
        expected.push_back(static_cast<std::uint8_t>(i * 7 + 1));
      }
      Bytes stream = Join({{static_cast<std::uint8_t>(17 + distance)}, expected, {0x20}});
      stream.resize(stream.size() + (length - 34) / 255);
      stream.push_back(static_cast<std::uint8_t>((length - 34) % 255 + 1));
      const std::size_t word = (distance - 1) << 2;
      stream.push_back(static_cast<std::uint8_t>(word));
      stream.push_back(static_cast<std::uint8_t>(word >> 8));
      for (std::size_t i = 0; i < length; ++i) expected.push_back(expected[i]);
      const Bytes whole = Frame(Join({stream, kEnd}));
      for (const std::size_t more : {0u, 1u, 40u, 5000u}) {
        ExpectDecoded(whole, expected.size() + more, 0, expected, whole.size());
      }
    }
  }
}

TEST(LzoBlockDecompress, FarMatches) {
  const Bytes text = Ascii("abcdefghijkl");
  const auto check = [&](std::size_t size, const Bytes& match, std::size_t distance,
                         std::size_t length) {
    Bytes expected = Repeat(text, size);
    // Something that tells the place of the source.
    expected.insert(expected.end(), {'X', 'Y', 'Z', 'W'});
    const Bytes mark = {1, 'X', 'Y', 'Z', 'W'};
    for (std::size_t i = 0; i < length; ++i)
      expected.push_back(expected[expected.size() - distance]);
    const Bytes input = Frame(Join({LongStart(size), mark, match, kEnd}));
    ExpectDecoded(input, expected.size(), 0, expected, input.size());
    ExpectDecoded(input, expected.size() + 200, 0, expected, input.size());
  };
  // length (t & 7) + 2, distance bit 14 from t bit 3, plus u16 >> 2, plus 0x4000
  check(0x4100, {0x11, 4, 0}, 0x4001, 3);
  check(0x4100, {0x17, 4, 0}, 0x4001, 9);
  check(0x8100, {0x11, 0xFC, 0xFF}, 0x7FFF, 3);
  check(0xC100, {0x19, 0, 0}, 0x8000, 3);
  check(0xC100, {0x1F, 0xFC, 0xFF}, 0xBFFF, 9);
  check(0x4100, {0x10, 1, 4, 0}, 0x4001, 10);
  check(0xC100, {0x18, 0, 2, 0xFC, 0xFF}, 0xBFFF, 266);
  const Bytes tooFar = Frame(Join({LongStart(0x4000), {0x11, 4, 0}, kEnd}));
  ExpectDecoded(tooFar, 0x5000, -2, {}, 0);
}

TEST(LzoBlockDecompress, EveryFarMatchOfNoDistanceEndsTheFrame) {
  for (std::uint8_t t = 17; t < 24; ++t) {
    const Bytes input = Frame({18, 'a', t, 0, 0});
    ExpectDecoded(input, kAmple, 0, {'a'}, input.size());
    // The low two bits are no part of the distance.
    const Bytes trailing = Frame({18, 'a', t, 3, 0});
    ExpectDecoded(trailing, kAmple, 0, {'a'}, trailing.size());
  }
  const Bytes extended = Frame({18, 'a', 16, 0, 7, 0, 0});
  ExpectDecoded(extended, kAmple, 0, {'a'}, extended.size());
  // With bit 14 set it is a match of distance 0x8000.
  ExpectBad({18, 'a', 0x19, 0, 0});
}

TEST(LzoBlockDecompress, OneToThreeLiteralsTrailAMatch) {
  const Bytes start = Join({{21}, Ascii("abcd")});
  const Bytes again = {0x40 | 3 << 2, 0};  // three bytes from 4 before
  ExpectStream(Join({start, {0x40 | 3 << 2 | 1, 0, 'X'}, again}), Ascii("abcdabcXabc"));
  ExpectStream(Join({start, {0x40 | 3 << 2 | 2, 0, 'X', 'Y'}, again}), Ascii("abcdabcXYbcX"));
  ExpectStream(Join({start, {0x21, 3 << 2 | 3, 0, 'X', 'Y', 'Z'}, again}), Ascii("abcdabcXYZcXY"));
}

TEST(LzoBlockDecompress, AnInstructionBelowSixteenBehindLiteralsGoesOnWithTheLastMatch) {
  const Bytes start = Join({{25}, Ascii("abcdefgh")});
  // A match "abc", whose source ends at "d", and one literal; then t = 1 copies three bytes "def".
  // The byte before it, the literal, tells how many literals follow.
  for (unsigned trailing = 0; trailing <= 3; ++trailing) {
    const auto literal = static_cast<std::uint8_t>(0x60 + trailing);
    Bytes expected = Join({Ascii("abcdefghabc"), {literal}, Ascii("def")});
    const Bytes more(Bytes(trailing, 'T'));
    expected.insert(expected.end(), more.begin(), more.end());
    ExpectStream(Join({start, {0x40 | 7 << 2 | 1, 0, literal, 1}, more}), expected);
  }
  // Behind a run of literals too, and again from where that ended; up to 17 bytes, which overlap
  // what they write.
  Bytes expected = Ascii("abcdefghabc1234");
  for (std::size_t i = 0; i < 17; ++i) expected.push_back(expected[3 + i]);
  const Bytes run = {1, '1', '2', '3', '4' & 0xFC, 15};
  expected[14] = '4' & 0xFC;
  for (std::size_t i = 0; i < 17; ++i) expected[15 + i] = expected[3 + i];
  ExpectStream(Join({start, {0x40 | 7 << 2, 0}, run}), expected);
}

TEST(LzoBlockDecompress, ContinuingNeedsALastMatchInTheFrameAndALength) {
  const Bytes start = Join({{25}, Ascii("abcdefgh")});
  ExpectBad(Join({start, {1}}));
  ExpectBad(Join({start, {15}}));
  ExpectBad(Join({start, {0}}));
  ExpectBad({18, 'a', 1, 'b', 'c', 'd', 'e'});
  ExpectBad(Join({start, {0x40 | 7 << 2 | 1, 0, 'x', 0}}));
  ExpectBad(Join({start, {0x40 | 7 << 2, 0, 1, '1', '2', '3', '4', 0}}));
  // The match of an earlier frame is none.
  const Bytes first = Frame(Join({start, {0x40 | 7 << 2, 0}, kEnd}));
  const Bytes second = Frame(Join({start, {1}, kEnd}));
  ExpectDecoded(Join({first, second}), kAmple, -2, Ascii("abcdefghabc"), first.size());
}

TEST(LzoBlockDecompress, MatchesStayInTheirFrame) {
  const Bytes first = Frame(Join({{25}, Ascii("abcdefgh"), kEnd}));
  const Bytes second = Frame({18, 'z', 0x40 | 1 << 2, 0, 0x11, 0, 0});
  ExpectDecoded(Join({first, second}), kAmple, -2, Ascii("abcdefgh"), first.size());
}

TEST(LzoBlockDecompress, BytesBehindTheEndMarkerAreIgnored) {
  const Bytes input =
      Join({Frame(Join({{18, 'a'}, kEnd, Ascii("anything")})), Frame(Join({{18, 'b'}, kEnd}))});
  ExpectDecoded(input, kAmple, 0, Ascii("ab"), input.size());
}

TEST(LzoBlockDecompress, AFrameWithoutAnEndMarkerIsBad) {
  const Bytes stream = Join({{25}, Ascii("abcdefgh"), {0x40 | 7 << 2, 0}, kEnd});
  for (std::size_t held = 1; held < stream.size(); ++held) {
    const Bytes frame =
        Frame(Bytes(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(held)));
    ExpectDecoded(frame, kAmple, -2, {}, 0);
    // What lies behind the frame, though the input holds it, doesn't make up for it.
    Bytes followed = frame;
    followed.insert(followed.end(), stream.begin() + static_cast<std::ptrdiff_t>(held),
                    stream.end());
    EXPECT_EQ(Decompress(followed, kAmple).result, -2);
  }
}

TEST(LzoBlockDecompress, LeftOverInputIsNotConsumed) {
  const Bytes frame = Frame(Join({{18, 'a'}, kEnd}));
  ExpectDecoded(Join({frame, {0}}), kAmple, 0, {'a'}, frame.size());
  ExpectDecoded(Join({frame, {0, 0}}), kAmple, 0, {'a'}, frame.size());
  ExpectDecoded(Join({frame, {1, 0, 0}}), kAmple, 0, {'a'}, frame.size());
  ExpectDecoded(Join({frame, {6, 0, 0, 18, 'b', 0x11, 0, 0}}), kAmple, 0, {'a'}, frame.size());
}

TEST(LzoBlockDecompress, APartialFrameCountsForNothing) {
  const Bytes first = Frame(Join({{25}, Ascii("abcdefgh"), kEnd}));
  const Bytes input =
      Join({first, Frame(Join({{25}, Ascii("ijklmnop"), {0xE0 | 7 << 2, 0}, kEnd}))});
  for (std::size_t room = 0; room < 8; ++room) ExpectDecoded(input, room, 0, {}, 0);
  for (std::size_t room = 8; room < 24; ++room) {
    ExpectDecoded(input, room, 0, Ascii("abcdefgh"), first.size());
  }
  ExpectDecoded(input, 24, 0, Ascii("abcdefghijklmnopijklmnop"), input.size());
}

// ---- Against the model ----

void ExpectAsModel(const Bytes& input, std::size_t room) {
  const LzoModelDecoded decoded = Decompress(input, room);
  const LzoModelDecoded model = LzoModelDecompress(input, room);
  ASSERT_EQ(decoded.result, model.result);
  ASSERT_EQ(decoded.consumed, model.consumed);
  ASSERT_TRUE(decoded.output == model.output);
}

TEST(LzoBlockDecompress, SmallStreamsGiveTheModelsAnswerInEveryRoomAndCut) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (unsigned kind = 1; kind < kqtest::kKindsOfData; ++kind) {
    const Bytes input = DataOfKind(kind, &random, 400);
    const Bytes stream = *LzoModelCompress(input, OneFrameRoom(input.size()));
    ASSERT_TRUE(Decompress(stream, input.size()).output == input);
    for (std::size_t room = 0; room <= input.size() + 100; ++room) {
      ASSERT_NO_FATAL_FAILURE(ExpectAsModel(stream, room)) << kind << " " << room;
    }
    for (std::size_t held = 0; held < stream.size(); ++held) {
      Bytes cut(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(held));
      ASSERT_NO_FATAL_FAILURE(ExpectAsModel(cut, kAmple));
      // The frame's length cut as well, so that the decoder meets the end.
      if (held <= 3) continue;
      cut[0] = static_cast<std::uint8_t>(held - 3);
      cut[1] = static_cast<std::uint8_t>((held - 3) >> 8);
      ASSERT_NO_FATAL_FAILURE(ExpectAsModel(cut, kAmple)) << kind << " " << held;
      ASSERT_NO_FATAL_FAILURE(ExpectAsModel(cut, input.size() / 2)) << kind << " " << held;
    }
  }
}

TEST(LzoBlockDecompress, DamagedStreamsGiveTheModelsAnswer) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (int round = 0; round < 100; ++round) {
    const Bytes input = DataOfKind(static_cast<unsigned>(round) % kqtest::kKindsOfData, &random,
                                   1 + random() % 5000);
    // Rooms that make one frame or more.
    std::optional<Bytes> stream = LzoModelCompress(input, OneFrameRoom(input.size()));
    if (round % 2 != 0) {
      if (auto split = LzoModelCompress(input, input.size())) stream = split;
    }
    for (int damage = 0; damage < 10; ++damage) {
      Bytes damaged = *stream;
      for (std::size_t i = 1 + random() % 3; i > 0; --i) {
        damaged[random() % damaged.size()] = static_cast<std::uint8_t>(random());
      }
      if (random() % 8 == 0) damaged.resize(random() % damaged.size());
      const std::size_t room = random() % 4 == 0 ? random() % (2 * input.size()) : input.size();
      ASSERT_NO_FATAL_FAILURE(ExpectAsModel(damaged, room)) << round;
    }
  }
}

// Instructions at random, most of them good, in all forms and lengths.
Bytes RandomStream(Random* random, std::size_t instructions) {
  Bytes stream;
  const auto byte = [&](std::uint64_t value) {
    stream.push_back(static_cast<std::uint8_t>(value));
  };
  const auto literals = [&](std::size_t count) {
    for (; count > 0; --count) byte((*random)());
  };
  const auto extension = [&] {
    for (std::size_t zeros = (*random)() % 8 == 0 ? (*random)() % 6 : 0; zeros > 0; --zeros)
      byte(0);
    const std::size_t last = 1 + (*random)() % 255;
    byte(last);
    return last;
  };
  bool boundary = (*random)() % 2 == 0;
  if (!boundary) {
    const std::size_t count = 1 + (*random)() % 238;
    byte(17 + count);
    literals(count);
  }
  while (instructions-- > 0) {
    const std::uint64_t choice = (*random)() % 16;
    if (boundary && choice < 5) {
      const std::size_t t = (*random)() % 16;
      byte(t);
      std::size_t count = t + 3;
      if (t == 0) {
        // Few zeros, as the literals have to follow.
        const std::size_t zeros = (*random)() % 3;
        for (std::size_t i = 0; i < zeros; ++i) byte(0);
        const std::size_t last = 1 + (*random)() % 255;
        byte(last);
        count = 18 + 255 * zeros + last;
      }
      literals(count);
      boundary = false;
      continue;
    }
    std::size_t trailing = (*random)() % 4;
    const std::size_t near = (*random)() % 3 == 0 ? (*random)() % 64 : (*random)() % 4;
    if (!boundary && choice == 5) {
      const std::uint8_t before = stream.back();
      byte(1 + (*random)() % 15);
      trailing = before % 4;
    } else if (choice < 11) {
      byte((2 + (*random)() % 6) << 5 | (*random)() % 8 << 2 | trailing);
      byte(near % 4);
    } else {
      const bool far = choice == 15 && (*random)() % 8 == 0;
      const std::size_t field = (*random)() % (far ? 8 : 32);
      byte((far ? 16 : 32) + field);
      if (field == 0) extension();
      byte(near << 2 | trailing);
      byte(far || (*random)() % 16 == 0 ? (*random)() % 2 : 0);
    }
    literals(trailing);
    boundary = trailing == 0;
  }
  stream.insert(stream.end(), kEnd.begin(), kEnd.end());
  return stream;
}

TEST(LzoBlockDecompress, RandomInstructionsGiveTheModelsAnswer) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  int good = 0;
  for (int round = 0; round < 500; ++round) {
    const Bytes input = Frame(RandomStream(&random, 1 + random() % 60));
    const LzoModelDecoded model = LzoModelDecompress(input, 1 << 16);
    good += model.result == 0 ? 1 : 0;
    for (const std::size_t room :
         {std::size_t{1} << 16, model.output.size(), model.output.size() + random() % 130,
          model.output.size() - random() % (model.output.size() + 1),
          std::size_t{random() % 500}}) {
      ASSERT_NO_FATAL_FAILURE(ExpectAsModel(input, room)) << round << " " << room;
    }
  }
  EXPECT_GT(good, 100) << "too few streams get far";
}

// ---- Against liblzo2 ----

using PeerCompress = int (*)(const lzo_bytep, lzo_uint, lzo_bytep, lzo_uintp, lzo_voidp);

TEST(LzoBlockDecompress, ReadsThePeersStreams) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  Bytes work(std::max<std::size_t>(LZO1X_1_15_MEM_COMPRESS, LZO1X_1_MEM_COMPRESS));
  for (const PeerCompress compress : {&lzo1x_1_compress, &lzo1x_1_15_compress}) {
    for (unsigned kind = 0; kind < kqtest::kKindsOfData; ++kind) {
      for (const std::size_t size : {std::size_t{30}, std::size_t{1000}, std::size_t{200000}}) {
        const Bytes input = DataOfKind(kind, &random, size);
        Bytes stream(OneFrameRoom(size));
        lzo_uint length = stream.size();
        compress(input.data(), input.size(), stream.data(), &length, work.data());
        stream.resize(length);
        const LzoModelDecoded decoded = Decompress(Frame(stream), input.size());
        EXPECT_EQ(decoded.result, 0);
        EXPECT_TRUE(decoded.output == input) << kind << " " << size;
      }
    }
  }
}

// The peer's densest compressor makes the short matches that this decoder lacks.
TEST(LzoBlockDecompress, ShortMatchesOfThePeerComeOutAsTheModelHasThem) {
  Random random(3);
  Bytes work(LZO1X_999_MEM_COMPRESS);
  for (unsigned kind = 1; kind < kqtest::kKindsOfData; ++kind) {
    const Bytes input = DataOfKind(kind, &random, 20000);
    Bytes stream(OneFrameRoom(input.size()));
    lzo_uint length = stream.size();
    lzo1x_999_compress(input.data(), input.size(), stream.data(), &length, work.data());
    stream.resize(length);
    ASSERT_NO_FATAL_FAILURE(ExpectAsModel(Frame(stream), input.size()));
  }
}

TEST(LzoBlockDecompress, EndsWhereThePeerEnds) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (unsigned kind = 1; kind < kqtest::kKindsOfData; ++kind) {
    const Bytes input = DataOfKind(kind, &random, 600);
    const Bytes stream = *LzoModelCompress(input, OneFrameRoom(input.size()));
    for (std::size_t room = 0; room <= input.size(); ++room) {
      Bytes output(room + 1);
      lzo_uint length = room;
      const int peer = lzo1x_decompress_safe(stream.data() + 3, stream.size() - 3, output.data(),
                                             &length, nullptr);
      const LzoModelDecoded decoded = Decompress(stream, room);
      EXPECT_EQ(decoded.result, 0);
      EXPECT_EQ(decoded.consumed, peer == LZO_E_OK ? stream.size() : 0u);
      EXPECT_EQ(peer, room == input.size() ? LZO_E_OK : LZO_E_OUTPUT_OVERRUN);
    }
  }
}

}  // namespace
