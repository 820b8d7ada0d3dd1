#include "kqimage/image/sealed_sectors.h"

#include <fmt/format.h>
#include <kqimageapi.h>
#include <sys/mman.h>

#include <cerrno>

#include "kqimage/system/read_at.h"
#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"

namespace kqimage {
namespace {

constexpr char kAction[] = "encipher";
constexpr char kName[] = "the header of the new image";

void ReadExactly(const UniqueFd& file, std::uint64_t offset, std::span<std::byte> bytes) {
  if (ReadAt(file.Get(), offset, bytes, kName) != bytes.size()) {
    throw Failure(fmt::format("cannot {} {}", kAction, kName));
  }
}

}  // namespace

SealedSectors SealSectors(const ImageHeader& header, std::span<const std::byte> sectors,
                          const char* password) {
  const UniqueFd file(memfd_create("kqimage-header", MFD_CLOEXEC));
  if (!file) FailErrno(errno, "make", "a file in memory");
  const std::string path = fmt::format("/proc/self/fd/{}", file.Get());
  const HeaderTemplate scratch =
      MakeBaseTemplate(header.SectorSize, KQ_COMPRESSION_NONE, header.EncryptionType);
  std::uint64_t handle = 0;
  Check(
      KQNewImageFileCreate2(scratch.bytes.data(), static_cast<std::uint32_t>(scratch.bytes.size()),
                            password, path.c_str(), nullptr, nullptr, nullptr, nullptr, &handle),
      kAction, kName);
  const KQStatus written =
      KQNewImageFileWrite(handle, sectors.data(), static_cast<std::uint32_t>(sectors.size()), 0);
  const KQStatus closed = KQNewImageFileClose(handle, nullptr);
  Check(written, kAction, kName);
  Check(closed, kAction, kName);

  // One header sector, the chunk's head, and its body.
  ImageHeader made = {};
  ChunkHead head = {};
  ReadExactly(file, 0, std::as_writable_bytes(std::span(&made, 1)));
  ReadExactly(file, header.SectorSize, std::as_writable_bytes(std::span(&head, 1)));
  if (head.StoredSectors != 1 + sectors.size() / header.SectorSize) {
    throw Failure(fmt::format("cannot {} {}", kAction, kName));
  }
  SealedSectors sealed = {.keyBlob = std::vector<std::byte>(made.KeyBlobLength),
                          .sectors = std::vector<std::byte>(sectors.size())};
  ReadExactly(file, sizeof made, sealed.keyBlob);
  ReadExactly(file, std::uint64_t{2} * header.SectorSize, sealed.sectors);
  return sealed;
}

}  // namespace kqimage
