// The exported conversions. Neither the sparse file nor the parent is one that the client has open:
// each call opens its own.
#include "kqimageapi.h"
#include "sparse/convert_sparse.h"

namespace {

// The tree is walked once from end to end, so that one node a level is all that is ever wanted.
constexpr std::uint16_t kCacheNodes = 10;

}  // namespace

extern "C" {

KQ_API KQStatus KQConvertSparseToIncremental(const char* sparsePath, const char* parentPath,
                                             const char* password, const char* newImageFile,
                                             const char* comment) {
  return KQConvertSparseToIncremental2(sparsePath, parentPath, password, newImageFile, comment,
                                       nullptr);
}

KQ_API KQStatus KQConvertSparseToIncremental2(const char* sparsePath, const char* parentPath,
                                              const char* password, const char* newImageFile,
                                              const char* comment, const uint8_t* imageId) {
  return KQConvertSparseToIncremental3(sparsePath, parentPath, password, newImageFile, comment,
                                       imageId, nullptr);
}

KQ_API KQStatus KQConvertSparseToIncremental3(const char* sparsePath, const char* parentPath,
                                              const char* password, const char* newImageFile,
                                              const char* comment, const uint8_t* imageId,
                                              const uint64_t* sourceSize) {
  kq::SparseFileOwner sparse;
  KQ_RETURN_IF_FAILED(
      kq::UtSparseFileOpen(sparsePath, kq::SparseMode::kOpenExisting, true, kCacheNodes, &sparse));
  kq::OpenImageFile* parent = nullptr;
  KQStatus status = kq::OpenImageFileOpen(parentPath, password, &parent);
  if (!kq::Failed(status)) {
    status = kq::BuildIncrementalFromSparse(sparse.get(), *parent,
                                            {newImageFile, comment, imageId, sourceSize});
  }
  // Nothing can be pending in a file that is open for reading only.
  static_cast<void>(kq::UtSparseFileClose(sparse.get(), false));
  kq::OpenImageFileRelease(parent);
  return status;
}

}  // extern "C"
