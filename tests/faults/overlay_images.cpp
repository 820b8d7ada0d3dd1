#include "tests/faults/overlay_images.h"

#include <fcntl.h>

#include <filesystem>
#include <utility>

namespace kqtest {

Bytes Overlay::Volume() {
  Bytes volume = FirstChunkData();
  SetBytes(&volume, kLower, LowerData());
  SetBytes(&volume, kUpper, UpperData());
  return volume;
}

void Overlay::CopyPrepared() const {
  std::filesystem::copy_file(prepared, sparse, std::filesystem::copy_options::overwrite_existing);
}

KQStatus Overlay::OpenSparse() {
  return KQSparseFileOpen2(sparse.c_str(), KQ_SPARSE_OPEN_EXISTING, 0, 1, &sparseHandle);
}

KQStatus Overlay::OpenChain() {
  handle = 0xAAAA;
  return KQImageFilesOpen(chain.c_str(), password, sparseHandle, &handle);
}

void Overlay::OpenBoth() {
  CopyPrepared();
  ASSERT_EQ(OpenSparse().status, 0);
  ASSERT_EQ(OpenChain().status, 0);
}

KQStatus Overlay::Read() {
  count = 0xAAAA;
  std::fill(buffer.begin(), buffer.end(), std::uint8_t{0xAA});
  return KQImageFilesRead(handle, 0, buffer.data(), static_cast<std::uint32_t>(buffer.size()),
                          &count);
}

void Overlay::ExpectVolume() const {
  EXPECT_EQ(count, buffer.size());
  EXPECT_TRUE(buffer == Volume());
}

void Overlay::ExpectZeros() const {
  EXPECT_EQ(count, 0u);
  EXPECT_TRUE(buffer == Bytes(buffer.size()));
}

KQStatus Overlay::CloseChain(const char* name, bool deleteSparse) {
  return KQImageFilesClose(std::exchange(handle, 0), name, "what the image is",
                           deleteSparse ? 1 : 0);
}

void Overlay::CleanUp() {
  if (handle != 0) {
    EXPECT_EQ(CloseChain(nullptr, true).status, 0);
  }
  std::filesystem::remove(sparse);
  std::filesystem::remove(newImage);
}

void Overlay::ExpectNewImage() const {
  const ParsedImage image = ParseFile(newImage, password);
  EXPECT_EQ(image.error, "");
  EXPECT_EQ(image.header.parentImageId, MakeId(1));
  EXPECT_TRUE(image.Holds(kLower));
  EXPECT_TRUE(image.Holds(kUpper));
  EXPECT_EQ(image.ReadVolume(kLower, LowerData().size()), LowerData());
  EXPECT_EQ(image.ReadVolume(kUpper, UpperData().size()), UpperData());
}

void Overlay::ExpectNoBrokenImage() const {
  if (!std::filesystem::exists(newImage)) return;
  ImageFileInfo info;
  if (KQImageFileGetInfo(newImage.c_str(), &info).status != 0) return;
  const ParsedImage image = ParseFile(newImage, password);
  EXPECT_EQ(image.error, "");
  if (image.Holds(kLower)) {
    EXPECT_EQ(image.ReadVolume(kLower, LowerData().size()), LowerData());
  }
}

std::shared_ptr<Overlay> PrepareOverlay(const TempDir& folder, std::uint32_t encryptionType) {
  auto overlay = std::make_shared<Overlay>();
  overlay->chain = WriteImage(folder, "image.twf", RawImage(encryptionType));
  overlay->password = PasswordFor(encryptionType);
  overlay->newImage = folder.Path("new.twi");
  overlay->prepared = folder.Path("prepared");
  overlay->buffer.resize(Overlay::Volume().size());
  std::uint64_t handle = 0;
  EXPECT_EQ(
      KQSparseFileOpen2(overlay->prepared.c_str(), KQ_SPARSE_CREATE_NEW, 0, 1, &handle).status, 0);
  EXPECT_EQ(
      KQSparseFileWrite(handle, Overlay::kLower, Overlay::LowerData().data(), 1024, nullptr).status,
      0);
  EXPECT_EQ(
      KQSparseFileWrite(handle, Overlay::kUpper, Overlay::UpperData().data(), 1024, nullptr).status,
      0);
  EXPECT_EQ(KQSparseFileClose(handle, 0).status, 0);
  overlay->sparse = folder.Path("sparse");
  return overlay;
}

bool IsBehindCreation(std::span<const MadeCall> calls, std::size_t i) {
  for (const MadeCall& before : calls.first(i)) {
    if (before.call == Call::kOpen && (before.flags & O_CREAT) != 0) return true;
  }
  return false;
}

std::optional<Effect> EffectInConversion(std::span<const MadeCall> calls, std::size_t i) {
  if (!IsBehindCreation(calls, i)) return std::nullopt;
  if (IsSparseTransfer(calls, i, false)) return Effect::kDegraded;
  // The last chunk: the file's size, and the seek and the write that follow. The size is asked for
  // a second time behind it, for the index.
  int sizes = 0;
  for (std::size_t k = 0; k <= i; ++k) {
    const bool isSize = calls[k].call == Call::kFstat && calls[k + 1].call == Call::kSeek;
    if (isSize && IsBehindCreation(calls, k)) ++sizes;
  }
  if (sizes == 1 && calls[i].call != Call::kClose && calls[i].call != Call::kFlock) {
    return Effect::kDegraded;
  }
  return std::nullopt;
}

}  // namespace kqtest
