// The choice between the AES paths. Only the AES sources and their tests see this header; everybody
// else asks AesGetMode.
#ifndef KQ_CRYPTO_AES_DISPATCH_H
#define KQ_CRYPTO_AES_DISPATCH_H

#include <atomic>
#include <cstdint>

namespace kq {

// 0 not yet decided, else kAesModeSoftware or kAesModeHardware. Set once, by AesGetMode, for the
// life of the process. Tests store a mode here to walk both paths.
extern std::atomic<std::uint32_t> AesMode;

// How many blocks one instruction of the hardware decryption takes. All give the same bytes.
enum class AesVectorBlocks : std::uint32_t { kUndecided = 0, kOne = 1, kTwo = 2, kFour = 4 };
extern std::atomic<AesVectorBlocks> AesDecryptVectorBlocks;
AesVectorBlocks AesGetDecryptVectorBlocks();

// What the processor tells about itself.
struct ProcessorFeatures {
  char vendor[13] = {};  // leaf 0, NUL-terminated
  std::uint32_t leaf1Ecx = 0;
  std::uint32_t leaf1Edx = 0;
  std::uint32_t leaf7Ebx = 0;
  std::uint32_t leaf7Ecx = 0;
  std::uint64_t enabledState = 0;  // XCR0: the register files that the system saves
};
ProcessorFeatures ReadProcessorFeatures();

// Whether these features allow the hardware path, and the widest vectors for its decryption.
bool HardwareAesQualifies(const ProcessorFeatures& features);
AesVectorBlocks WidestAesVector(const ProcessorFeatures& features);

}  // namespace kq

#endif
