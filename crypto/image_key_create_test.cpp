#include <sys/resource.h>

#include <cstring>
#include <set>

#include "crypto/image_key.h"
#include "crypto/key_blob_model.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::ScopedAesMode;

constexpr std::uint32_t kTypes[] = {1, 2, 3, 4};

struct Created {
  CryptoContext context;
  Bytes blob = Bytes(kLargestKeyBlob, 0xA5);
  std::uint32_t length = 77;
  KQStatus status;

  Created(std::uint32_t type, const Bytes& units) {
    context.type = type;
    status = ImageKeyCreate(&context, units.data(), static_cast<std::uint32_t>(units.size()),
                            blob.data(), &length);
  }
  Bytes Stored() const { return kqtest::Slice(blob, 0, length); }
};

// No file can be opened while this lives.
class NoDescriptors {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    rlimit none = before_;
    none.rlim_cur = 0;
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;
  ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

TEST(ImageKeyCreate, MakesBlobsThatThePeerOpensAndAContextThatEnciphersLikeIt) {
  const Bytes units = kqtest::UnitsOfAscii("pass");
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    for (const std::uint32_t type : kTypes) {
      const Created created(type, units);
      ASSERT_EQ(created.status.status, 0) << type;
      ASSERT_EQ(created.length, kqtest::KeyBlobBytes(type));
      const auto dataKey = kqtest::OpenKeyBlob(type, units, created.Stored());
      ASSERT_TRUE(dataKey) << type;

      const Bytes plain(64, 0x11);
      const Bytes iv(16, 0x22);
      Bytes out(64);
      alignas(16) std::uint8_t vector[16];
      std::memcpy(vector, iv.data(), 16);
      ASSERT_EQ(ImageEncipherRun(created.context, out.data(), plain.data(), 64, vector).status, 0);
      EXPECT_EQ(out, kqtest::CipherRun(type, *dataKey, iv, plain, true)) << type;
    }
  }
}

TEST(ImageKeyCreate, WritesNothingBehindTheBlob) {
  for (const std::uint32_t type : kTypes) {
    const Created created(type, kqtest::UnitsOfAscii("pass"));
    const std::size_t rest = kLargestKeyBlob - created.length;
    EXPECT_EQ(kqtest::Slice(created.blob, created.length, rest), Bytes(rest, 0xA5)) << type;
  }
}

TEST(ImageKeyCreate, BlobsOpenAgainWithTheSamePasswordOnlyInEitherMode) {
  for (const std::uint32_t createMode : kqtest::RunnableModes()) {
    for (const std::uint32_t openMode : kqtest::RunnableModes()) {
      for (const std::uint32_t type : kTypes) {
        Bytes blob;
        {
          const ScopedAesMode scoped(createMode);
          blob = Created(type, kqtest::UnitsOfAscii("pass")).Stored();
        }
        const ScopedAesMode scoped(openMode);
        CryptoContext context;
        context.type = type;
        Bytes copy = blob;
        EXPECT_EQ(
            ImageKeyOpen(&context, "pass", copy.data(), static_cast<std::uint32_t>(copy.size()))
                .status,
            0);
        copy = blob;
        EXPECT_EQ(
            ImageKeyOpen(&context, "Pass", copy.data(), static_cast<std::uint32_t>(copy.size()))
                .status,
            type == 1 ? 0 : -86);
      }
    }
  }
}

TEST(ImageKeyCreate, EachKeyAndTestValueIsNew) {
  const Bytes units = kqtest::UnitsOfAscii("pass");
  for (const std::uint32_t type : kTypes) {
    std::set<Bytes> keys;
    std::set<Bytes> tests;
    for (int run = 0; run < 20; ++run) {
      const Bytes blob = Created(type, units).Stored();
      keys.insert(*kqtest::OpenKeyBlob(type, units, blob));
      if (type != 1) tests.insert(kqtest::Slice(blob, kqtest::DataKeyBytes(type), 16));
    }
    EXPECT_EQ(keys.size(), 20u);
    EXPECT_EQ(tests.size(), type == 1 ? 0u : 20u);
  }
}

TEST(ImageKeyCreate, Rc4StandsBehindTheSixteenTestBytes) {
  EXPECT_EQ(Created(3, kqtest::UnitsOfAscii("pass")).context.rc4.i, 16u);
}

TEST(ImageKeyCreate, ATypeOutsideOneToFourMakesNoKeyAndPasses) {
  for (const std::uint32_t type : {0u, 5u, 0xFFFFFFFFu}) {
    const Created created(type, kqtest::UnitsOfAscii("pass"));
    EXPECT_EQ(created.status.status, 0);
    EXPECT_EQ(created.length, 0u);
    EXPECT_EQ(created.blob, Bytes(kLargestKeyBlob, 0xA5));
  }
}

TEST(ImageKeyCreate, WithoutRandomnessItIsAPasswordFailureAndTheBlobIsEmpty) {
  for (const std::uint32_t type : kTypes) {
    const NoDescriptors none;
    const Created created(type, kqtest::UnitsOfAscii("pass"));
    EXPECT_EQ(created.status.status, -86);
    EXPECT_STREQ(created.status.file, "crypto");
    EXPECT_EQ(created.length, 0u);
  }
}

TEST(RandomBytes, FillsExactlyTheCountWithNewBytes) {
  for (const std::uint32_t count : {0u, 1u, 16u, 48u, 100000u}) {
    Bytes first(count + 8, 0xA5);
    Bytes second(count + 8, 0xA5);
    EXPECT_EQ(RandomBytes(count, first.data()).status, 0);
    EXPECT_EQ(RandomBytes(count, second.data()).status, 0);
    EXPECT_EQ(kqtest::Slice(first, count, 8), Bytes(8, 0xA5));
    if (count >= 16) {
      EXPECT_NE(first, second);
    }
    if (count >= 16) {
      EXPECT_NE(kqtest::Slice(first, count - 16, 16), Bytes(16, 0xA5));
    }
  }
}

TEST(RandomBytes, AFailedOpenIsHandedUpAsItIs) {
  std::uint8_t byte = 0;
  KQStatus status;
  {
    const NoDescriptors none;
    status = RandomBytes(1, &byte);
  }
  EXPECT_EQ(status.status, -4);  // EMFILE
  EXPECT_STREQ(status.file, "kqos_linux");
}

}  // namespace
}  // namespace kq
