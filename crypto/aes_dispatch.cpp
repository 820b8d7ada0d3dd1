#include "crypto/aes_dispatch.h"

#include <cpuid.h>

#include <cstring>

#include "crypto/aes.h"

namespace kq {

std::atomic<std::uint32_t> AesMode{0};
std::atomic<AesVectorBlocks> AesDecryptVectorBlocks{AesVectorBlocks::kUndecided};

namespace {

constexpr bool HasBit(std::uint64_t word, int bit) { return (word >> bit & 1) != 0; }

constexpr int kLeaf1EcxCarrylessMultiply = 1;
constexpr int kLeaf1EcxAes = 25;
constexpr int kLeaf1EcxStateSaving = 27;
constexpr int kLeaf1EdxSse = 25;
constexpr int kLeaf1EdxSse2 = 26;
constexpr int kLeaf7EbxAvx2 = 5;
constexpr int kLeaf7EbxAvx512F = 16;
constexpr int kLeaf7EcxVectorAes = 9;
constexpr std::uint64_t kStateYmm = 0x06;
constexpr std::uint64_t kStateZmm = 0xE6;

std::uint64_t ReadEnabledState() {
  std::uint32_t low = 0;
  std::uint32_t high = 0;
  __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return std::uint64_t{high} << 32 | low;
}

}  // namespace

ProcessorFeatures ReadProcessorFeatures() {
  ProcessorFeatures features;
  std::uint32_t eax = 0;
  std::uint32_t ebx = 0;
  std::uint32_t ecx = 0;
  std::uint32_t edx = 0;
  if (__get_cpuid(0, &eax, &ebx, &ecx, &edx) != 0) {
    std::memcpy(features.vendor, &ebx, 4);
    std::memcpy(features.vendor + 4, &edx, 4);
    std::memcpy(features.vendor + 8, &ecx, 4);
  }
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0) {
    features.leaf1Ecx = ecx;
    features.leaf1Edx = edx;
  }
  if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) != 0) {
    features.leaf7Ebx = ebx;
    features.leaf7Ecx = ecx;
  }
  if (HasBit(features.leaf1Ecx, kLeaf1EcxStateSaving)) features.enabledState = ReadEnabledState();
  return features;
}

bool HardwareAesQualifies(const ProcessorFeatures& features) {
  // The vendor is looked at and decides nothing: feature bits mean the same on every processor.
  [[maybe_unused]] const bool knownVendor = std::strcmp(features.vendor, "GenuineIntel") == 0 ||
                                            std::strcmp(features.vendor, "AuthenticAMD") == 0;
  return HasBit(features.leaf1Ecx, kLeaf1EcxAes) &&
         HasBit(features.leaf1Ecx, kLeaf1EcxCarrylessMultiply) &&
         (HasBit(features.leaf1Edx, kLeaf1EdxSse) || HasBit(features.leaf1Edx, kLeaf1EdxSse2));
}

AesVectorBlocks WidestAesVector(const ProcessorFeatures& features) {
  if (!HasBit(features.leaf7Ecx, kLeaf7EcxVectorAes)) return AesVectorBlocks::kOne;
  if (HasBit(features.leaf7Ebx, kLeaf7EbxAvx512F) &&
      (features.enabledState & kStateZmm) == kStateZmm) {
    return AesVectorBlocks::kFour;
  }
  if (HasBit(features.leaf7Ebx, kLeaf7EbxAvx2) &&
      (features.enabledState & kStateYmm) == kStateYmm) {
    return AesVectorBlocks::kTwo;
  }
  return AesVectorBlocks::kOne;
}

std::uint32_t AesGetMode() {
  const std::uint32_t decided = AesMode.load(std::memory_order_acquire);
  if (decided != 0) return decided;

  // Concurrent first callers wait here for one probe, so all of them store the same answer.
  static const bool hardwareQualifies = HardwareAesQualifies(ReadProcessorFeatures());
  std::uint32_t undecided = 0;
  AesMode.compare_exchange_strong(undecided,
                                  hardwareQualifies ? kAesModeHardware : kAesModeSoftware);
  return AesMode.load(std::memory_order_acquire);
}

AesVectorBlocks AesGetDecryptVectorBlocks() {
  const AesVectorBlocks decided = AesDecryptVectorBlocks.load(std::memory_order_relaxed);
  if (decided != AesVectorBlocks::kUndecided) return decided;

  // A race is harmless: every thread reads the same features.
  const AesVectorBlocks widest = WidestAesVector(ReadProcessorFeatures());
  AesDecryptVectorBlocks.store(widest, std::memory_order_relaxed);
  return widest;
}

}  // namespace kq
