#include "header/protected_text.h"

#include <gtest/gtest.h>

#include <string>

#include "header/partition_tables_test.h"

namespace kq {
namespace {

using kqtest::Bytes;

std::u16string TextOf(const WideText& text) {
  std::u16string result;
  for (std::size_t i = 0; i < text.length; ++i) {
    result += static_cast<char16_t>(text.units[2 * i] | text.units[2 * i + 1] << 8);
  }
  return result;
}

struct Split {
  std::u16string first, second, third, list;
  bool operator==(const Split&) const = default;
};

// The sector is the whole of its memory, so that the sanitizers see a byte too many.
Split SplitOf(const Bytes& sector) {
  const ProtectedTexts texts = SplitProtectedTexts(sector);
  return {TextOf(texts.first), TextOf(texts.second), TextOf(texts.third), TextOf(texts.list)};
}

Bytes SectorWith(const std::vector<std::u16string>& texts, std::size_t sectorSize = 512) {
  kqtest::ProtectedFields fields;
  fields.texts = texts;
  return kqtest::ProtectedSectorBytes(fields, sectorSize);
}

TEST(SplitProtectedTexts, TakesFourTextsInARow) {
  EXPECT_EQ(SplitOf(SectorWith({u"one", u"two", u"three", u"MPLIST=/a;/b"})),
            (Split{u"one", u"two", u"three", u"/a;/b"}));
}

TEST(SplitProtectedTexts, EmptyTextsCountAsTexts) {
  EXPECT_EQ(SplitOf(SectorWith({u"", u"", u"3", u"MPLIST=x"})), (Split{u"", u"", u"3", u"x"}));
  EXPECT_EQ(SplitOf(SectorWith({u"", u"2"})), (Split{u"", u"2", u"", u""}));
  EXPECT_EQ(SplitOf(SectorWith({})), Split{});
}

TEST(SplitProtectedTexts, AFifthTextIsNotLookedAt) {
  EXPECT_EQ(SplitOf(SectorWith({u"1", u"2", u"3", u"no", u"MPLIST=x"})),
            (Split{u"1", u"2", u"3", u""}));
}

TEST(SplitProtectedTexts, OnlyTheFourthTextCanBeTheList) {
  EXPECT_EQ(SplitOf(SectorWith({u"MPLIST=1", u"MPLIST=2", u"MPLIST=3"})),
            (Split{u"MPLIST=1", u"MPLIST=2", u"MPLIST=3", u""}));
}

TEST(SplitProtectedTexts, ThePrefixAloneIsNoList) {
  EXPECT_EQ(SplitOf(SectorWith({u"1", u"2", u"3", u"MPLIST="})).list, u"");
  EXPECT_EQ(SplitOf(SectorWith({u"1", u"2", u"3", u"MPLIST=x"})).list, u"x");
}

TEST(SplitProtectedTexts, ThePrefixMustStandAtTheVeryStartAsItIs) {
  for (const std::u16string& text :
       {std::u16string(u" MPLIST=x"), std::u16string(u"xMPLIST=yy"), std::u16string(u"mplist=x"),
        std::u16string(u"MPLIST:x"), std::u16string(u"MPLIST"), std::u16string(u"MPLISTxx"),
        std::u16string(u"\u014DPLIST=x")}) {
    EXPECT_EQ(SplitOf(SectorWith({u"1", u"2", u"3", text})).list, u"");
  }
  // Found once more behind the start, the prefix is part of the list.
  EXPECT_EQ(SplitOf(SectorWith({u"1", u"2", u"3", u"MPLIST=MPLIST=x"})).list, u"MPLIST=x");
}

TEST(SplitProtectedTexts, ATextWithoutANulEndsWithTheSector) {
  for (const std::size_t sectorSize : {256u, 512u, 4096u}) {
    const std::size_t units = (sectorSize - 54) / 2;
    EXPECT_EQ(SplitOf(SectorWith({std::u16string(units + 9, u'a')}, sectorSize)),
              (Split{std::u16string(units, u'a'), u"", u"", u""}));
    // The NUL takes the last unit.
    EXPECT_EQ(SplitOf(SectorWith({std::u16string(units - 1, u'a'), u"b"}, sectorSize)),
              (Split{std::u16string(units - 1, u'a'), u"", u"", u""}));
    EXPECT_EQ(SplitOf(SectorWith({std::u16string(units - 2, u'a'), u"bcd"}, sectorSize)),
              (Split{std::u16string(units - 2, u'a'), u"b", u"", u""}));
    EXPECT_EQ(
        SplitOf(SectorWith({u"", u"", u"", u"MPLIST=" + std::u16string(units, u'm')}, sectorSize)),
        (Split{u"", u"", u"", std::u16string(units - 10, u'm')}));
  }
}

TEST(SplitProtectedTexts, AnOddByteAtTheEndIsNoUnit) {
  Bytes sector = SectorWith({u"ab"}, 59);
  EXPECT_EQ(SplitOf(sector), (Split{u"ab", u"", u"", u""}));
  sector.resize(57);
  EXPECT_EQ(SplitOf(sector), (Split{u"a", u"", u"", u""}));
}

TEST(SplitProtectedTexts, SectorsWithoutRoomHaveNoTexts) {
  for (const std::size_t sectorSize : {0u, 1u, 53u, 54u, 55u}) {
    EXPECT_EQ(SplitOf(Bytes(sectorSize, 0x41)), Split{}) << sectorSize;
  }
}

TEST(SplitProtectedTexts, UnitsWithAZeroByteAreNoNul) {
  EXPECT_EQ(SplitOf(SectorWith({u"\u4100\u0041", u"\u0100"})),
            (Split{u"\u4100\u0041", u"\u0100", u"", u""}));
}

TEST(StoreText, CutsToItsRoomAndEndsWithANul) {
  const Bytes units = kqtest::WideBytes(u"abcdef");
  const WideText text{units.data(), 6};
  for (std::uint32_t room = 1; room <= 9; ++room) {
    Bytes out(30, 0xEE);
    // At an odd address.
    const std::uint32_t stored = StoreText(text, room, out.data() + 1);
    const std::uint32_t length = std::min(room - 1, 6u);
    Bytes expected(30, 0xEE);
    kqtest::SetBytes(&expected, 1, std::span(units).first(2 * length));
    kqtest::Set16(&expected, 1 + 2 * length, 0);
    EXPECT_EQ(out, expected) << room;
    EXPECT_EQ(stored, length + 1);
  }
}

}  // namespace
}  // namespace kq
