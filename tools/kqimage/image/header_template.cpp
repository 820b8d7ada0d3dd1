#include "kqimage/image/header_template.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <kqimageformat.h>
#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kqimage/image/sealed_sectors.h"
#include "kqimage/system/read_at.h"
#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

// Header and one chunk share a budget of 1 MiB in the library. A header that leaves less than this
// for chunks is nobody's idea of a header.
constexpr std::size_t kMaxHeaderBytes = std::size_t{512} << 10;

void FillRandomId(std::uint8_t (&id)[16]) {
  if (getrandom(id, sizeof id, 0) != sizeof id) FailErrno(errno, "read", "the random device");
  // Version 4 and the usual variant. The version stands in the third group, whose bytes are
  // reversed.
  id[7] = static_cast<std::uint8_t>((id[7] & 0x0F) | 0x40);
  id[8] = static_cast<std::uint8_t>((id[8] & 0x3F) | 0x80);
}

void ReadExactly(const UniqueFd& file, std::span<std::byte> bytes, const std::string& path) {
  if (ReadAt(file.Get(), 0, bytes, path) != bytes.size()) {
    throw Failure(fmt::format("{} ends in its header", Printable(path)));
  }
}

// The bytes of key material that an image keeps in its first sector.
std::size_t KeyBlobBytes(std::uint32_t encryptionType) {
  switch (encryptionType) {
    case KQ_ENCRYPTION_AES128_UNCHECKED:
      return 16;
    case KQ_ENCRYPTION_AES128:
    case KQ_ENCRYPTION_RC4:
      return 48;
    case KQ_ENCRYPTION_AES256:
      return 64;
    default:
      return 0;
  }
}

// Gives the header an empty ExtendedRecord, and no comment, if it has none: only with a record does
// a new image carry checksums of its header.
void EnsureExtendedRecord(HeaderTemplate& made, ImageHeader header) {
  if ((header.Flags & KQ_FLAG_EXTENDED_RECORD) != 0) return;
  header.Flags |= KQ_FLAG_EXTENDED_RECORD;
  const std::size_t start =
      std::min<std::size_t>(sizeof header + header.KeyBlobLength, made.sectorSize);
  std::memset(made.bytes.data() + start, 0, made.sectorSize - start);
  std::memcpy(made.bytes.data(), &header, sizeof header);
}

}  // namespace

ImageHeader HeaderTemplate::Fields() const {
  ImageHeader fields = {};
  std::memcpy(&fields, bytes.data(), sizeof fields);
  return fields;
}

HeaderTemplate MakeBaseTemplate(std::uint32_t sectorSize, std::uint32_t compressionType,
                                std::uint32_t encryptionType) {
  ImageHeader header = {};
  std::memcpy(header.Magic, KQ_MAGIC_FINISHED, sizeof header.Magic);
  header.SectorSize = sectorSize;
  header.HeaderSectors = 1;
  header.CompressionType = compressionType;
  header.EncryptionType = encryptionType;
  FillRandomId(header.ImageSetId);
  // ImageId stays zero: it becomes the new image's ParentImageId, which makes it a base.
  HeaderTemplate made = {.bytes = std::vector<std::byte>(sectorSize), .sectorSize = sectorSize};
  std::memcpy(made.bytes.data(), &header, sizeof header);
  EnsureExtendedRecord(made, header);
  return made;
}

void AddHeaderSectors(HeaderTemplate& header, std::span<const std::byte> sectors,
                      const char* password) {
  if (sectors.empty()) return;
  ImageHeader fields = header.Fields();
  header.bytes.insert(header.bytes.end(), sectors.begin(), sectors.end());
  fields.HeaderSectors += static_cast<std::uint32_t>(sectors.size() / fields.SectorSize);
  if (fields.EncryptionType != KQ_ENCRYPTION_NONE) {
    const SealedSectors sealed = SealSectors(fields, sectors, password);
    const auto first = std::span(header.bytes).first(fields.SectorSize);
    const auto later = std::span(header.bytes).subspan(fields.SectorSize);
    // The empty comment and the record move behind the key.
    std::copy_backward(first.begin() + sizeof fields, first.end() - std::ssize(sealed.keyBlob),
                       first.end());
    std::copy(sealed.keyBlob.begin(), sealed.keyBlob.end(), first.begin() + sizeof fields);
    std::copy(sealed.sectors.begin(), sealed.sectors.end(), later.begin());
    fields.KeyBlobLength = static_cast<std::uint16_t>(sealed.keyBlob.size());
  }
  std::memcpy(header.bytes.data(), &fields, sizeof fields);
}

HeaderTemplate MakeIncrementTemplate(const ImageFile& parent, std::uint32_t compressionType) {
  const UniqueFd file(open(parent.path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) FailErrno(errno, "open", parent.path);
  ImageHeader header = {};
  ReadExactly(file, std::as_writable_bytes(std::span(&header, 1)), parent.path);
  const std::uint64_t bytes = std::uint64_t{header.SectorSize} * header.HeaderSectors;
  if (header.SectorSize < sizeof header || bytes > kMaxHeaderBytes) {
    throw Failure(
        fmt::format("the header of {} is too large to be carried on", Printable(parent.path)));
  }
  HeaderTemplate made = {.bytes = std::vector<std::byte>(bytes), .sectorSize = header.SectorSize};
  ReadExactly(file, made.bytes, parent.path);
  header.CompressionType = compressionType;
  std::memcpy(made.bytes.data(), &header, sizeof header);
  EnsureExtendedRecord(made, header);
  return made;
}

void CheckCommentFits(const HeaderTemplate& header, const std::string& comment) {
  constexpr std::size_t kUnitBytes = sizeof(std::uint16_t);
  const std::size_t taken = sizeof(ImageHeader) + KeyBlobBytes(header.Fields().EncryptionType) +
                            kUnitBytes + sizeof(ExtendedRecord);  // the unit is the comment's NUL
  const std::size_t room =
      taken < header.sectorSize ? (header.sectorSize - taken) / kUnitBytes : std::size_t{0};
  const std::size_t units = Utf16Units(comment).value_or(0);
  if (units <= room) return;
  throw UsageFailure(
      fmt::format("the comment has {} characters, {} more than fit beside the key in the first "
                  "{} bytes of the image",
                  units, units - room, header.sectorSize));
}

}  // namespace kqimage
