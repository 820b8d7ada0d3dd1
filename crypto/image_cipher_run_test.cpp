#include <cstring>
#include <new>
#include <thread>

#include "crypto/image_key.h"
#include "crypto/key_blob_model.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::ScopedAesMode;

// Contexts of one data key for both directions.
struct Pair {
  CryptoContext reading;
  CryptoContext writing;

  Pair(std::uint32_t type, const Bytes& dataKey) {
    const Bytes units = kqtest::UnitsOfAscii("pw");
    for (CryptoContext* context : {&reading, &writing}) {
      context->type = type;
      Bytes blob = kqtest::MakeKeyBlob(type, units, dataKey, Bytes(16, 9));
      EXPECT_EQ(ImageKeyUnwrap(
                    context, units.data(), 4, blob.data(), static_cast<std::uint32_t>(blob.size()),
                    context == &reading ? KeyDirection::kReading : KeyDirection::kWriting)
                    .status,
                0);
    }
  }
};

using RunFunction = KQStatus (*)(const CryptoContext&, std::uint8_t*, const std::uint8_t*,
                                 std::uint32_t, std::uint8_t*);

// The result of a run with a vector, which must be wiped by it.
Bytes ResultOf(RunFunction run, const CryptoContext& context, const Bytes& in, const Bytes& iv) {
  Bytes data = in;
  alignas(16) std::uint8_t vector[16];
  std::memcpy(vector, iv.data(), 16);
  EXPECT_EQ(run(context, data.data(), data.data(), static_cast<std::uint32_t>(data.size()), vector)
                .status,
            0);
  EXPECT_EQ(Bytes(vector, vector + 16), Bytes(16));
  return data;
}

TEST(ImageCipherRuns, MatchThePeerForAllSchemesLengthsAndModes) {
  kqtest::Random random;
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    for (const std::uint32_t type : {1u, 2u, 3u, 4u}) {
      const Bytes dataKey = random.MakeBytes(kqtest::DataKeyBytes(type));
      const Pair pair(type, dataKey);
      for (const std::size_t length : {0u, 16u, 512u, 4096u, 65536u}) {
        const Bytes plain = random.MakeBytes(length);
        const Bytes iv = random.MakeBytes(16);
        const Bytes cipher = kqtest::CipherRun(type, dataKey, iv, plain, true);
        EXPECT_EQ(ResultOf(ImageEncipherRun, pair.writing, plain, iv), cipher) << type;
        EXPECT_EQ(ResultOf(ImageDecipherRun, pair.reading, cipher, iv), plain) << type;
      }
    }
  }
}

TEST(ImageCipherRuns, ALengthThatIsNoMultipleOf16IsRefusedForAesAndTouchesNothing) {
  for (const std::uint32_t type : {1u, 2u, 4u}) {
    const Pair pair(type, Bytes(kqtest::DataKeyBytes(type), 5));
    for (const std::uint32_t length : {1u, 5u, 15u, 17u, 511u}) {
      for (const RunFunction run : {ImageDecipherRun, ImageEncipherRun}) {
        Bytes data(length, 0xA5);
        alignas(16) std::uint8_t vector[16] = {1};
        const KQStatus status = run(pair.reading, data.data(), data.data(), length, vector);
        EXPECT_EQ(status.status, -87);
        EXPECT_STREQ(status.file, "crypto");
        EXPECT_EQ(data, Bytes(length, 0xA5));
        EXPECT_EQ(vector[0], 1);
      }
    }
  }
}

TEST(ImageCipherRuns, Rc4TakesAnyLength) {
  kqtest::Random random;
  const Bytes dataKey = random.MakeBytes(16);
  const Pair pair(3, dataKey);
  for (const std::size_t length : {0u, 1u, 5u, 7u, 8u, 9u, 15u, 17u, 1023u}) {
    const Bytes plain = random.MakeBytes(length);
    const Bytes cipher = kqtest::CipherRun(3, dataKey, Bytes(16), plain, true);
    EXPECT_EQ(ResultOf(ImageEncipherRun, pair.writing, plain, Bytes(16, 1)), cipher);
    EXPECT_EQ(ResultOf(ImageDecipherRun, pair.reading, cipher, Bytes(16, 1)), plain);
  }
}

TEST(ImageCipherRuns, EqualPlaintextsAreEqualUnderRc4AndDifferUnderAesByTheirVectors) {
  const Bytes plain(512, 0x33);
  for (const std::uint32_t type : {1u, 2u, 3u, 4u}) {
    const Pair pair(type, Bytes(kqtest::DataKeyBytes(type), 5));
    const Bytes first = ResultOf(ImageEncipherRun, pair.writing, plain, Bytes(16, 1));
    const Bytes second = ResultOf(ImageEncipherRun, pair.writing, plain, Bytes(16, 2));
    EXPECT_EQ(first == second, type == 3) << type;
  }
}

TEST(ImageCipherRuns, LeaveTheContextUnchanged) {
  for (const std::uint32_t type : {1u, 2u, 3u, 4u}) {
    const Pair pair(type, Bytes(kqtest::DataKeyBytes(type), 5));
    Bytes before(sizeof pair.writing);
    std::memcpy(before.data(), &pair.writing, before.size());
    ResultOf(ImageEncipherRun, pair.writing, Bytes(512, 1), Bytes(16, 1));
    EXPECT_EQ(std::memcmp(before.data(), &pair.writing, before.size()), 0);
  }
}

TEST(ImageCipherRuns, TypeZeroAndTypesAboveFourDoNothingAtAll) {
  for (const std::uint32_t type : {0u, 5u, 0xFFFFFFFFu}) {
    CryptoContext context;
    context.type = type;
    for (const RunFunction run : {ImageDecipherRun, ImageEncipherRun}) {
      Bytes in(37, 0x11);
      Bytes out(37, 0x22);
      std::uint8_t vector[16] = {1};
      EXPECT_EQ(run(context, out.data(), in.data(), 37, vector).status, 0);
      EXPECT_EQ(out, Bytes(37, 0x22));
      EXPECT_EQ(vector[0], 1);
    }
  }
}

TEST(ImageCipherRuns, AnyNumberOfThreadsMayUseOneContext) {
  kqtest::Random random;
  for (const std::uint32_t type : {2u, 3u, 4u}) {
    const Bytes dataKey = random.MakeBytes(kqtest::DataKeyBytes(type));
    const Pair pair(type, dataKey);
    const Bytes plain = random.MakeBytes(8192);
    const Bytes cipher = kqtest::CipherRun(type, dataKey, Bytes(16, 7), plain, true);
    std::vector<Bytes> results(4);
    std::vector<std::thread> threads;
    for (Bytes& result : results) {
      threads.emplace_back([&] {
        for (int run = 0; run < 5; ++run) {
          result = ResultOf(ImageDecipherRun, pair.reading, cipher, Bytes(16, 7));
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    for (const Bytes& result : results) EXPECT_EQ(result, plain);
  }
}

TEST(CryptoContext, KeepsItsScheduleAligned) {
  const Owned<CryptoContext> context = MakeOwned<CryptoContext>();
  ASSERT_TRUE(context);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&context->schedule) % 16, 0u);
}

TEST(CryptoContext, IsWipedWhenItGoes) {
  alignas(CryptoContext) std::uint8_t room[sizeof(CryptoContext)];
  auto* const context = ::new (room) CryptoContext;
  context->type = 3;
  std::memset(&context->rc4, 0x77, sizeof context->rc4);
  context->~CryptoContext();
  std::uint8_t seen[sizeof room];
  std::memcpy(seen, room, sizeof room);
  EXPECT_EQ(Bytes(seen, seen + sizeof seen), Bytes(sizeof seen));
}

}  // namespace
}  // namespace kq
