// The ciphers and checksums against libcrypto, in one run: compare the rates of the pairs.
//
// The software path's peer is libcrypto without the AES instructions, which takes a run of its own:
//   OPENSSL_ia32cap="~0x200000200000000" crypto_bench   vector-permute or bit-sliced AES
//   OPENSSL_ia32cap="~0x200020200000000" crypto_bench   table AES (no SSSE3 either)
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "crypto/aes.h"
#include "crypto/aes_dispatch.h"
#include "crypto/crc32.h"
#include "crypto/image_key.h"

namespace {

constexpr std::uint32_t kBytes = 1 << 20;
constexpr std::uint8_t kKey[32] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

struct EvpDeleter {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

void Report(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kBytes);
}

// In place, as the library ciphers.
void RunOurs(benchmark::State& state, bool encrypt) {
  std::vector<std::uint8_t> data(kBytes, 0x5A);
  alignas(16) kq::AES_KEY key;
  const auto bits = static_cast<std::uint32_t>(state.range(0));
  (encrypt ? kq::AesSetEncryptKey : kq::AesSetDecryptKey)(kKey, bits, &key);
  for (auto iteration : state) {
    alignas(16) std::uint8_t vector[16] = {};
    (encrypt ? kq::AesCbcEncrypt : kq::AesCbcDecrypt)(data.data(), data.data(), kBytes, key,
                                                      vector);
    benchmark::DoNotOptimize(data.data());
    benchmark::ClobberMemory();
  }
  Report(state);
}

void RunPeer(benchmark::State& state, bool encrypt) {
  std::vector<std::uint8_t> data(kBytes, 0x5A);
  const std::uint8_t vector[16] = {};
  const std::unique_ptr<EVP_CIPHER_CTX, EvpDeleter> context(EVP_CIPHER_CTX_new());
  EVP_CipherInit_ex(context.get(), state.range(0) == 128 ? EVP_aes_128_cbc() : EVP_aes_256_cbc(),
                    nullptr, kKey, vector, encrypt ? 1 : 0);
  EVP_CIPHER_CTX_set_padding(context.get(), 0);
  for (auto iteration : state) {
    int length = 0;
    EVP_CipherInit_ex(context.get(), nullptr, nullptr, nullptr, vector, -1);
    EVP_CipherUpdate(context.get(), data.data(), &length, data.data(), static_cast<int>(kBytes));
    benchmark::DoNotOptimize(data.data());
    benchmark::ClobberMemory();
  }
  Report(state);
}

void RunOursInMode(benchmark::State& state, bool encrypt, std::uint32_t mode) {
  const std::uint32_t before = kq::AesGetMode();
  kq::AesMode = mode;
  RunOurs(state, encrypt);
  kq::AesMode = before;
}

void RunOursInWidth(benchmark::State& state, kq::AesVectorBlocks blocks) {
  const kq::AesVectorBlocks before = kq::AesGetDecryptVectorBlocks();
  if (blocks > before) {
    state.SkipWithError("the processor has no vectors of this width");
    return;
  }
  kq::AesDecryptVectorBlocks = blocks;
  RunOurs(state, false);
  kq::AesDecryptVectorBlocks = before;
}

void CbcDecrypt(benchmark::State& state) { RunOurs(state, false); }
void CbcDecryptLibcrypto(benchmark::State& state) { RunPeer(state, false); }
void CbcDecryptOneBlockVectors(benchmark::State& state) {
  RunOursInWidth(state, kq::AesVectorBlocks::kOne);
}
void CbcDecryptTwoBlockVectors(benchmark::State& state) {
  RunOursInWidth(state, kq::AesVectorBlocks::kTwo);
}
void CbcDecryptSoftware(benchmark::State& state) {
  RunOursInMode(state, false, kq::kAesModeSoftware);
}
void CbcEncrypt(benchmark::State& state) { RunOurs(state, true); }
void CbcEncryptLibcrypto(benchmark::State& state) { RunPeer(state, true); }
void CbcEncryptSoftware(benchmark::State& state) {
  RunOursInMode(state, true, kq::kAesModeSoftware);
}

void Rc4(benchmark::State& state) {
  std::vector<std::uint8_t> data(kBytes, 0x5A);
  kq::Rc4State rc4;
  kq::Rc4Init(&rc4, kKey);
  for (auto iteration : state) {
    kq::Rc4Crypt(&rc4, data.data(), data.data(), kBytes);
    benchmark::DoNotOptimize(data.data());
    benchmark::ClobberMemory();
  }
  Report(state);
}

void CrcMsbFirst(benchmark::State& state) {
  const std::vector<std::uint8_t> data(kBytes, 0x5A);
  for (auto iteration : state) {
    std::uint32_t accumulator = 0;
    kq::CrcMsbFirst(data.data(), data.data() + data.size(), &accumulator);
    benchmark::DoNotOptimize(accumulator);
  }
  Report(state);
}

void Memcpy(benchmark::State& state) {
  const std::vector<std::uint8_t> from(kBytes, 0x5A);
  std::vector<std::uint8_t> to(kBytes);
  for (auto iteration : state) {
    std::memcpy(to.data(), from.data(), kBytes);
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  Report(state);
}

BENCHMARK(CbcDecrypt)->Arg(128)->Arg(256);
BENCHMARK(CbcDecryptLibcrypto)->Arg(128)->Arg(256);
BENCHMARK(CbcDecryptOneBlockVectors)->Arg(128)->Arg(256);
BENCHMARK(CbcDecryptTwoBlockVectors)->Arg(128)->Arg(256);
BENCHMARK(CbcDecryptSoftware)->Arg(128)->Arg(256);
BENCHMARK(CbcEncrypt)->Arg(128)->Arg(256);
BENCHMARK(CbcEncryptLibcrypto)->Arg(128)->Arg(256);
BENCHMARK(CbcEncryptSoftware)->Arg(128)->Arg(256);
BENCHMARK(Rc4);
BENCHMARK(CrcMsbFirst);
BENCHMARK(Memcpy);

}  // namespace

BENCHMARK_MAIN();
