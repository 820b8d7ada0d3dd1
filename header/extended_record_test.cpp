#include "header/extended_record.h"

#include <gtest/gtest.h>

#include "tests/support/bytes.h"

namespace kq {
namespace {

using kqtest::Bytes;

constexpr auto kEnd = RecordLimit::kSectorEnd;
constexpr auto kByteBefore = RecordLimit::kByteBeforeTheEnd;

// A sector with no zero unit behind the fixed 114 bytes but one at the given place, if any.
Bytes SectorWithNulAt(std::size_t sectorSize, std::size_t nul, std::uint16_t keyBlobLength = 0) {
  Bytes sector(sectorSize, 0x41);
  kqtest::Set16(&sector, 112, keyBlobLength);
  if (nul != 0) kqtest::Set16(&sector, nul, 0);
  return sector;
}

TEST(FindExtendedRecord, StandsBehindTheCommentsNul) {
  for (const RecordLimit limit : {kEnd, kByteBefore}) {
    EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(512, 114), limit), 116u);
    EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(512, 200), limit), 202u);
    EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(512, 114 + 48, 48), limit), 164u);
    // A zero inside the KeyBlob is none of the Comment's.
    EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(512, 120, 48), limit), std::nullopt);
  }
}

TEST(FindExtendedRecord, StepsTwoBytesFromTheKeyBlobsEnd) {
  // The two zero bytes straddle two units of the text.
  EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(512, 201), kEnd), std::nullopt);
  EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(512, 201, 1), kEnd), 203u);
  EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(512, 200, 1), kEnd), std::nullopt);
}

TEST(FindExtendedRecord, TakesTheFirstNul) {
  Bytes sector = SectorWithNulAt(4096, 300);
  kqtest::Set16(&sector, 400, 0);
  EXPECT_EQ(FindExtendedRecord(sector, kEnd), 302u);
}

TEST(FindExtendedRecord, LimitsDifferByOneByte) {
  for (const std::size_t sectorSize : {512u, 1024u, 4096u}) {
    // Even places: with an even KeyBlob the record can end one byte before the end, not at it.
    const std::size_t lastEven = sectorSize - 160;
    const auto lastRecord = static_cast<std::uint32_t>(sectorSize - 158);
    EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(sectorSize, lastEven), kEnd), lastRecord);
    EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(sectorSize, lastEven), kByteBefore), lastRecord);
    EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(sectorSize, lastEven + 2), kEnd), std::nullopt);
    EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(sectorSize, lastEven + 2), kByteBefore),
              std::nullopt);

    const std::size_t lastOdd = sectorSize - 159;
    EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(sectorSize, lastOdd, 1), kEnd), lastRecord + 1);
    EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(sectorSize, lastOdd, 1), kByteBefore),
              std::nullopt);
    EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(sectorSize, lastOdd - 2, 1), kByteBefore),
              lastRecord - 1);
  }
}

TEST(FindExtendedRecord, NoNulNoRecord) {
  EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(512, 0), kEnd), std::nullopt);
  EXPECT_EQ(FindExtendedRecord(SectorWithNulAt(512, 510), kEnd), std::nullopt);
}

TEST(FindExtendedRecord, KeyBlobMayClaimAnyLength) {
  for (const unsigned length : {300u, 397u, 398u, 399u, 0xFFFEu, 0xFFFFu}) {
    Bytes sector(512);
    kqtest::Set16(&sector, 112, length);
    EXPECT_EQ(FindExtendedRecord(sector, kEnd), std::nullopt);
    EXPECT_EQ(FindExtendedRecord(sector, kByteBefore), std::nullopt);
  }
}

TEST(FindExtendedRecord, TinySectorHasNone) {
  for (const std::size_t size : {0u, 1u, 113u, 114u, 115u, 116u, 272u}) {
    EXPECT_EQ(FindExtendedRecord(Bytes(size), kEnd), std::nullopt) << size;
  }
  EXPECT_EQ(FindExtendedRecord(Bytes(273), kEnd), 116u);
  EXPECT_EQ(FindExtendedRecord(Bytes(273), kByteBefore), std::nullopt);
  EXPECT_EQ(FindExtendedRecord(Bytes(274), kByteBefore), 116u);
}

}  // namespace
}  // namespace kq
