#include "header/header_reseal.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "crypto/header_checksums.h"
#include "crypto/image_key.h"
#include "crypto/text_conversion.h"
#include "foundation/checked_math.h"
#include "foundation/little_endian.h"
#include "kqimageformat.h"

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";
// Enough for every block size.
constexpr std::size_t kBlockAlignment = 4096;

// Under the same data key as before; it and the KeyBlob stay.
KQStatus EncipherLaterSectors(const HeaderRepairState& state, const ImageHeader& header,
                              SecretBuffer keyBlob, const char* password) {
  const Owned<CryptoContext> context = MakeOwned<CryptoContext>();
  if (!context) return KQ_FAIL(kEncryptionFailed);
  context->type = header.EncryptionType;
  const SecretBuffer units =
      Utf8ToUtf16(password, static_cast<std::uint32_t>(std::strlen(password)));
  if (!units) return KQ_FAIL(kNotEnoughMemory);
  const auto unitBytes = static_cast<std::uint32_t>(units.size() - sizeof(std::uint16_t));
  KQ_RETURN_IF_FAILED(ImageKeyUnwrap(context.get(), units.data(), unitBytes, keyBlob.data(),
                                     header.KeyBlobLength, KeyDirection::kWriting));
  std::uint8_t vector[16] = {};
  std::uint8_t* const laterSectors = state.header + header.SectorSize;
  return ImageEncipherRun(*context, laterSectors, laterSectors,
                          state.headerBytes - header.SectorSize, vector);
}

}  // namespace

KQStatus SealHeader(const HeaderRepairState& state, SecretBuffer keyBlob, const char* password,
                    std::uint32_t* bytesToWrite) {
  ImageHeader header;
  std::memcpy(&header, state.header, sizeof header);
  *bytesToWrite = header.SectorSize;
  if (state.laterSectorsChanged) {
    *bytesToWrite = state.headerBytes;
    if (header.EncryptionType != KQ_ENCRYPTION_NONE) {
      KQ_RETURN_IF_FAILED(EncipherLaterSectors(state, header, std::move(keyBlob), password));
    }
  }
  std::uint8_t* const record = state.extendedRecord;
  if (record == nullptr) return Success();
  // HeaderCrc is over ExtraCrc too, so it comes last.
  if (state.laterSectorsChanged) {
    StoreU32(record + offsetof(ExtendedRecord, ExtraCrc), ComputeExtraCrc(state.header));
  }
  StoreU32(record + offsetof(ExtendedRecord, HeaderCrc), ComputeHeaderCrc(state.header, record));
  return Success();
}

KQStatus WriteHeader(const OSAlignedFile& file, const std::uint8_t* header, std::uint32_t length) {
  const std::uint64_t blockSize = file.blockSize;
  std::uint64_t wholeBlocks = 0;
  if (!CheckedRoundUp(length, blockSize, &wholeBlocks)) return KQ_FAIL(kNotEnoughMemory);

  HeapBuffer blocks;
  if (wholeBlocks != length) {
    blocks = HeapBuffer::AllocateAligned(kBlockAlignment, wholeBlocks);
    if (!blocks) return KQ_FAIL(kNotEnoughMemory);
    blocks.WipeWhenFreed(wholeBlocks);  // the KeyBlob is among the bytes
    const std::uint64_t lastBlock = wholeBlocks - blockSize;
    std::uint32_t bytesRead = 0;
    KQ_RETURN_IF_FAILED(OSFileReadAligned(file, lastBlock, blocks.data() + lastBlock,
                                          static_cast<std::uint32_t>(blockSize), &bytesRead));
    if (bytesRead < blockSize) return KQ_FAIL(kCrc);
    std::memcpy(blocks.data(), header, length);
    header = blocks.data();
  }
  KQ_RETURN_IF_FAILED(OSFileSeekWrite(file.file, 0, header, wholeBlocks));
  if (fsync(file.file->fd) != 0) return KQ_FAIL_ERRNO(errno);
  return Success();
}

}  // namespace kq
