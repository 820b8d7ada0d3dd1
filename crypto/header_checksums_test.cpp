#include "crypto/header_checksums.h"

#include <cstring>

#include "crypto/crypto_test_support.h"

namespace kq {
namespace {

using kqtest::Bytes;

constexpr std::size_t kRecordOffset = 151;  // odd, as behind a comment of any length

std::uint32_t Bzip2Crc(std::span<const std::uint8_t> bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const std::uint8_t byte : bytes) {
    crc ^= std::uint32_t{byte} << 24;
    for (int bit = 0; bit < 8; ++bit) crc = crc << 1 ^ ((crc >> 31) != 0 ? 0x04C11DB7U : 0U);
  }
  return ~crc;
}

void Put32(Bytes& bytes, std::size_t at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes[at++] = static_cast<std::uint8_t>(value >> (8 * i));
}

// A header with random content and right checksums, computed by the model above. Its memory ends
// with the sectors that are there, so a look behind them is seen by the sanitizer.
Bytes MakeHeader(kqtest::Random& random, std::uint32_t sectorSize, std::uint32_t headerSectors) {
  Bytes header = random.MakeBytes(std::size_t{sectorSize} * headerSectors);
  Put32(header, 4, sectorSize);
  Put32(header, 8, headerSectors);
  const std::span whole(header);
  Put32(header, kRecordOffset + 8, headerSectors >= 2 ? Bzip2Crc(whole.subspan(sectorSize)) : 0U);
  Put32(header, kRecordOffset + 4, 0);
  Put32(header, kRecordOffset + 4, Bzip2Crc(whole.first(sectorSize)));
  return header;
}

std::uint32_t Check(const Bytes& header, bool checkLaterSectors) {
  return CheckHeaderChecksums(header.data(), header.data() + kRecordOffset, checkLaterSectors);
}

TEST(CheckHeaderChecksums, GoodHeadersOfAnySectorSizeGiveZero) {
  kqtest::Random random;
  for (const std::uint32_t sectorSize : {512u, 1024u, 2048u, 4096u}) {
    for (const std::uint32_t sectors : {1u, 2u, 3u, 20u}) {
      EXPECT_EQ(Check(MakeHeader(random, sectorSize, sectors), true), 0u);
      EXPECT_EQ(Check(MakeHeader(random, sectorSize, sectors), false), 0u);
    }
  }
}

TEST(CheckHeaderChecksums, ADamagedByteSetsTheBitOfItsPart) {
  kqtest::Random random;
  const Bytes good = MakeHeader(random, 512, 3);
  for (std::size_t at = 0; at < good.size(); ++at) {
    if (at >= 4 && at < 12) continue;  // the sizes decide what is looked at
    Bytes damaged = good;
    damaged[at] ^= 0x20;
    std::uint32_t expected = at < 512 ? kHeaderCrcMismatch : kExtraCrcMismatch;
    // ExtraCrc lies in sector 0, so both checks see it.
    const bool inExtraCrc = at >= kRecordOffset + 8 && at < kRecordOffset + 12;
    if (inExtraCrc) expected = kHeaderCrcMismatch | kExtraCrcMismatch;
    ASSERT_EQ(Check(damaged, true), expected) << at;
  }
}

TEST(CheckHeaderChecksums, BothPartsDamagedSetBothBits) {
  kqtest::Random random;
  Bytes header = MakeHeader(random, 512, 2);
  header[0] ^= 1;
  header[1023] ^= 1;
  EXPECT_EQ(Check(header, true), 3u);
}

TEST(CheckHeaderChecksums, WithoutTheFlagNothingBehindSectorZeroIsLookedAt) {
  kqtest::Random random;
  Bytes header = MakeHeader(random, 512, 2);
  header[512] ^= 1;
  EXPECT_EQ(Check(header, false), 0u);

  header.resize(512);
  header.shrink_to_fit();
  EXPECT_EQ(Check(header, false), 0u);
}

TEST(CheckHeaderChecksums, AHeaderOfOneSectorHasNoExtraCheck) {
  kqtest::Random random;
  Bytes header = MakeHeader(random, 512, 1);
  Put32(header, kRecordOffset + 8, 0xDEADBEEF);
  Put32(header, kRecordOffset + 4, 0);
  Put32(header, kRecordOffset + 4, Bzip2Crc(header));
  EXPECT_EQ(Check(header, true), 0u);
}

TEST(CheckHeaderChecksums, ARecordThatEndsWithTheSectorIsInReach) {
  kqtest::Random random;
  Bytes header = random.MakeBytes(512);
  Put32(header, 4, 512);
  Put32(header, 8, 1);
  const std::size_t record = 512 - sizeof(ExtendedRecord);
  Put32(header, record + 4, 0);
  Put32(header, record + 4, Bzip2Crc(header));
  EXPECT_EQ(CheckHeaderChecksums(header.data(), header.data() + record, true), 0u);
}

TEST(ComputeHeaderCrc, TakesItsOwnFieldAsZero) {
  kqtest::Random random;
  Bytes header = MakeHeader(random, 512, 1);
  const std::uint32_t before = ComputeHeaderCrc(header.data(), header.data() + kRecordOffset);
  Put32(header, kRecordOffset + 4, 0x55AA55AA);
  EXPECT_EQ(ComputeHeaderCrc(header.data(), header.data() + kRecordOffset), before);
  Put32(header, kRecordOffset + 4, 0);
  EXPECT_EQ(before, Bzip2Crc(header));
}

TEST(ComputeExtraCrc, IsZeroWithoutLaterSectors) {
  kqtest::Random random;
  EXPECT_EQ(ComputeExtraCrc(MakeHeader(random, 512, 1).data()), 0u);
}

TEST(ComputeExtraCrc, CoversAllLaterSectors) {
  kqtest::Random random;
  const Bytes header = MakeHeader(random, 1024, 5);
  EXPECT_EQ(ComputeExtraCrc(header.data()), Bzip2Crc(std::span(header).subspan(1024)));
}

}  // namespace
}  // namespace kq
