#include "crypto/aes_dispatch.h"

#include <cstring>
#include <thread>

#include "crypto/crypto_test_support.h"

namespace kq {
namespace {

constexpr std::uint32_t kAes = 1u << 25;
constexpr std::uint32_t kCarrylessMultiply = 1u << 1;
constexpr std::uint32_t kSse = 1u << 25;
constexpr std::uint32_t kSse2 = 1u << 26;
constexpr std::uint32_t kAvx2 = 1u << 5;
constexpr std::uint32_t kAvx512F = 1u << 16;
constexpr std::uint32_t kVectorAes = 1u << 9;

ProcessorFeatures Features(std::uint32_t leaf1Ecx, std::uint32_t leaf1Edx) {
  ProcessorFeatures features;
  features.leaf1Ecx = leaf1Ecx;
  features.leaf1Edx = leaf1Edx;
  return features;
}

TEST(HardwareAesQualifies, NeedsAesAndCarrylessMultiplyAndOneOfSseAndSse2) {
  EXPECT_TRUE(HardwareAesQualifies(Features(kAes | kCarrylessMultiply, kSse | kSse2)));
  EXPECT_TRUE(HardwareAesQualifies(Features(kAes | kCarrylessMultiply, kSse)));
  EXPECT_TRUE(HardwareAesQualifies(Features(kAes | kCarrylessMultiply, kSse2)));
  EXPECT_FALSE(HardwareAesQualifies(Features(kAes | kCarrylessMultiply, 0)));
  EXPECT_FALSE(HardwareAesQualifies(Features(kAes, kSse | kSse2)));
  EXPECT_FALSE(HardwareAesQualifies(Features(kCarrylessMultiply, kSse | kSse2)));
  EXPECT_FALSE(HardwareAesQualifies(Features(0, kSse | kSse2)));
}

TEST(HardwareAesQualifies, OtherBitsDecideNothing) {
  EXPECT_TRUE(HardwareAesQualifies(Features(0xFFFFFFFF, 0xFFFFFFFF)));
  EXPECT_FALSE(HardwareAesQualifies(Features(~kAes, 0xFFFFFFFF)));
  EXPECT_FALSE(HardwareAesQualifies(Features(~kCarrylessMultiply, 0xFFFFFFFF)));
  EXPECT_FALSE(HardwareAesQualifies(Features(0xFFFFFFFF, ~(kSse | kSse2))));
}

TEST(HardwareAesQualifies, TheVendorDecidesNothing) {
  for (const char* vendor : {"GenuineIntel", "AuthenticAMD", "CentaurHauls", ""}) {
    ProcessorFeatures good = Features(kAes | kCarrylessMultiply, kSse2);
    ProcessorFeatures bad = Features(kAes, kSse2);
    std::strcpy(good.vendor, vendor);
    std::strcpy(bad.vendor, vendor);
    EXPECT_TRUE(HardwareAesQualifies(good)) << vendor;
    EXPECT_FALSE(HardwareAesQualifies(bad)) << vendor;
  }
}

TEST(WidestAesVector, NeedsTheInstructionsAndTheirRegistersSaved) {
  ProcessorFeatures features;
  EXPECT_EQ(WidestAesVector(features), AesVectorBlocks::kOne);
  features.leaf7Ecx = kVectorAes;
  features.leaf7Ebx = kAvx2 | kAvx512F;
  EXPECT_EQ(WidestAesVector(features), AesVectorBlocks::kOne);
  features.enabledState = 0x06;  // XMM and YMM
  EXPECT_EQ(WidestAesVector(features), AesVectorBlocks::kTwo);
  features.enabledState = 0xE7;  // and the AVX-512 registers
  EXPECT_EQ(WidestAesVector(features), AesVectorBlocks::kFour);
  features.enabledState = 0x67;  // one of the three AVX-512 parts is missing
  EXPECT_EQ(WidestAesVector(features), AesVectorBlocks::kTwo);
  features.enabledState = 0xE7;
  features.leaf7Ebx = kAvx2;
  EXPECT_EQ(WidestAesVector(features), AesVectorBlocks::kTwo);
  features.leaf7Ecx = 0;
  EXPECT_EQ(WidestAesVector(features), AesVectorBlocks::kOne);
}

TEST(AesGetMode, FollowsTheProcessorAndStays) {
  const kqtest::ScopedAesMode undecided(0);
  const std::uint32_t expected =
      HardwareAesQualifies(ReadProcessorFeatures()) ? kAesModeHardware : kAesModeSoftware;
  EXPECT_EQ(AesGetMode(), expected);
  EXPECT_EQ(AesMode.load(), expected);
  EXPECT_EQ(AesGetMode(), expected);
}

TEST(AesGetMode, ADecidedModeIsNotDecidedAgain) {
  for (const std::uint32_t mode : {kAesModeSoftware, kAesModeHardware}) {
    const kqtest::ScopedAesMode decided(mode);
    EXPECT_EQ(AesGetMode(), mode);
  }
}

TEST(AesGetMode, ConcurrentFirstCallersAgree) {
  const kqtest::ScopedAesMode undecided(0);
  std::atomic<bool> start{false};
  std::uint32_t modes[8] = {};
  std::vector<std::thread> threads;
  for (std::uint32_t& mode : modes) {
    threads.emplace_back([&start, &mode] {
      while (!start) std::this_thread::yield();
      mode = AesGetMode();
    });
  }
  start = true;
  for (std::thread& thread : threads) thread.join();
  for (const std::uint32_t mode : modes) EXPECT_EQ(mode, AesMode.load());
  EXPECT_TRUE(modes[0] == kAesModeSoftware || modes[0] == kAesModeHardware);
}

}  // namespace
}  // namespace kq
