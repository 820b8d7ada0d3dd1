#include <cstring>

#include "crypto/image_key.h"
#include "header/read_header.h"

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

// True if the password opens the KeyBlob of sector 0, which is destroyed. Why it does not is no
// question here: a damaged blob is not told apart from a wrong password.
bool OpensKey(CryptoContext* context, const char* password, const ImageHeader& header,
              std::uint8_t* sector) {
  const std::uint64_t blobEnd = sizeof header + std::uint64_t{header.KeyBlobLength};
  if (blobEnd > header.SectorSize) return false;
  context->type = header.EncryptionType;
  return !Failed(ImageKeyOpen(context, password, sector + sizeof header, header.KeyBlobLength));
}

}  // namespace
}  // namespace kq

extern "C" KQ_API KQStatus KQImageFileTestPassword(const char* path, const char* password,
                                                   bool* result) {
  using namespace kq;
  if (result != nullptr) *result = false;
  if (path == nullptr || result == nullptr) return KQ_FAIL(kInvalidParameter);

  HeapBuffer sector;
  KQ_RETURN_IF_FAILED(ReadHeaderSectorsFromPath(path, nullptr, 0, 1, true, &sector, nullptr));
  ImageHeader header;
  std::memcpy(&header, sector.data(), sizeof header);
  if (header.EncryptionType == KQ_ENCRYPTION_NONE) {
    *result = true;
    return Success();
  }
  if (password == nullptr || *password == '\0') return KQ_FAIL(kInvalidPassword);

  const Owned<CryptoContext> context = MakeOwned<CryptoContext>();
  if (!context) return KQ_FAIL(kNotEnoughMemory);
  *result = OpensKey(context.get(), password, header, sector.data());
  return Success();
}
