#include "kqimage/verify/verify_layout.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "crypto/header_checksums.h"
#include "header/extended_record.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr std::uint64_t kLargestHeader = 0xFFFFF;
constexpr std::uint32_t kSectorSizes[] = {256, 512, 1024, 2048, 4096};
constexpr std::uint8_t kRunListEnd = 0xFF;

bool IsZero(std::span<const std::uint8_t> bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte == 0; });
}

// The length of the key blob that goes with an encryption.
std::uint32_t KeyBlobLength(std::uint32_t encryption) {
  switch (encryption) {
    case KQ_ENCRYPTION_AES128_UNCHECKED:
      return 16;
    case KQ_ENCRYPTION_AES128:
    case KQ_ENCRYPTION_RC4:
      return 48;
    default:
      return 64;
  }
}

class LayoutReader {
 public:
  explicit LayoutReader(const std::string& path) { layout_.path = path; }

  ImageLayout Read() {
    Open();
    if (ReadFirstSector()) {
      layout_.hasHeader = true;
      CheckChecksums();
      if (FindIndex()) ReadIndex();
    }
    return std::move(layout_);
  }

 private:
  void Add(DamageKind kind, std::string text, bool closesChain,
           std::optional<std::uint64_t> offset = {}) {
    layout_.damages.push_back({.kind = kind,
                               .text = std::move(text),
                               .chunk = {},
                               .fileOffset = offset,
                               .closesChain = closesChain});
  }

  // False, and damage that closes the chain, if the file does not give all the bytes.
  bool ReadAll(std::uint64_t offset, std::span<std::uint8_t> bytes, const char* what) {
    const PartialRead read = ReadSome(layout_.fd.Get(), offset, bytes);
    if (read.count == bytes.size()) return true;
    if (read.error != 0) {
      Add(DamageKind::kReading, fmt::format("{}: {}", what, ReadErrorText(read.error)), true,
          offset);
    } else {
      Add(DamageKind::kEnd, fmt::format("the file ends within {}", what), true, offset);
    }
    return false;
  }

  void Open() {
    layout_.fd = UniqueFd(open(layout_.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!layout_.fd) FailErrno(errno, "open", layout_.path);
    struct stat status = {};
    if (fstat(layout_.fd.Get(), &status) != 0) FailErrno(errno, "examine", layout_.path);
    if (!S_ISREG(status.st_mode)) {
      throw Failure(fmt::format("{} is no regular file", Printable(layout_.path)));
    }
    layout_.fileSize = static_cast<std::uint64_t>(status.st_size);
  }

  bool ReadFirstSector() {
    ImageHeader& header = layout_.header;
    std::uint8_t fixed[sizeof header];
    if (!ReadAll(0, fixed, "its header")) return false;
    std::memcpy(&header, fixed, sizeof header);
    const std::string wrong = WrongField();
    if (!wrong.empty()) {
      Add(DamageKind::kHeader, wrong, true);
      return false;
    }
    layout_.firstSector.resize(std::max<std::size_t>(header.SectorSize, sizeof header));
    return ReadAll(0, layout_.firstSector, "its header");
  }

  // What is wrong with the header's fields; empty if nothing is.
  std::string WrongField() const {
    const ImageHeader& header = layout_.header;
    if (std::memcmp(header.Magic, KQ_MAGIC_OPEN, sizeof header.Magic) == 0) {
      return "it is unfinished: still being written, or left by a run that was cut short";
    }
    if (std::memcmp(header.Magic, KQ_MAGIC_FINISHED, sizeof header.Magic) != 0) {
      return "it does not begin as an image does: its header is damaged, or it is none";
    }
    const std::uint32_t sector = header.SectorSize;
    if (std::find(std::begin(kSectorSizes), std::end(kSectorSizes), sector) ==
        std::end(kSectorSizes)) {
      return fmt::format("its header is damaged: no image has sectors of {} bytes", sector);
    }
    const std::uint64_t count = header.HeaderSectors;
    if (count == 0 || count * sector > kLargestHeader) {
      return fmt::format("its header is damaged: no image has a header of {} sectors", count);
    }
    const std::uint32_t compression = header.CompressionType;
    if (compression == 1 || compression == 2 || compression > KQ_COMPRESSION_LZO_HUFFMAN) {
      return fmt::format("its header is damaged: there is no compression type {}", compression);
    }
    const std::uint32_t encryption = header.EncryptionType;
    if (encryption > KQ_ENCRYPTION_AES256) {
      return fmt::format("its header is damaged: there is no encryption type {}", encryption);
    }
    if (IsZero(header.ImageId)) return "its header is damaged: the image has no identifier";
    if (std::memcmp(header.ImageId, header.ParentImageId, sizeof header.ImageId) == 0) {
      return "its header is damaged: it names the image as its own parent";
    }
    if (encryption != KQ_ENCRYPTION_NONE && header.KeyBlobLength != KeyBlobLength(encryption)) {
      return fmt::format("its header is damaged: its key has {} bytes instead of {}",
                         std::uint32_t{header.KeyBlobLength}, KeyBlobLength(encryption));
    }
    return {};
  }

  // The chain opens all the same, so what follows is still worth a look.
  void CheckChecksums() {
    const ImageHeader& header = layout_.header;
    if ((header.Flags & KQ_FLAG_EXTENDED_RECORD) == 0) return;
    const auto record = kq::FindExtendedRecord(layout_.firstSector, kq::RecordLimit::kSectorEnd);
    if (!record) {
      Add(DamageKind::kHeader, "its header is damaged: the record with its checksums is gone",
          false);
      return;
    }
    layout_.hasRecord = true;
    std::vector<std::uint8_t> whole(static_cast<std::size_t>(layout_.HeaderBytes()));
    if (!ReadAll(0, whole, "its header")) return;
    const std::uint32_t wrong =
        kq::CheckHeaderChecksums(whole.data(), whole.data() + *record, true);
    if ((wrong & kq::kHeaderCrcMismatch) != 0) {
      Add(DamageKind::kHeaderChecksum,
          "its header is damaged: the checksum over the first sector is wrong", false, 0);
    }
    if ((wrong & kq::kExtraCrcMismatch) != 0) {
      Add(DamageKind::kExtraChecksum,
          "what its header tells of the disk is damaged: the checksum over the further sectors is "
          "wrong",
          false, std::uint64_t{header.SectorSize});
    }
  }

  bool FindIndex() {
    const std::uint64_t sector = layout_.header.SectorSize;
    if (layout_.fileSize < layout_.HeaderBytes() + 2 * sector) {
      Add(DamageKind::kEnd, "it ends behind its header: the chunks and the index are gone", true,
          layout_.fileSize);
      return false;
    }
    const std::uint64_t pointerOffset = layout_.fileSize - sector;
    std::vector<std::uint8_t> pointer(static_cast<std::size_t>(sector));
    if (!ReadAll(pointerOffset, pointer, "its last sector")) return false;
    IndexPointerSector place;
    std::memcpy(&place, pointer.data(), sizeof place);
    const bool isPointer = IsZero(std::span(pointer).subspan(sizeof place)) &&
                           place.IndexOffset >= layout_.HeaderBytes() &&
                           place.IndexOffset % sector == 0 && place.IndexOffset < pointerOffset;
    if (!isPointer) {
      TellBadEnd(pointerOffset);
      return false;
    }
    layout_.indexOffset = place.IndexOffset;
    return true;
  }

  // Why the last sector leads to no index: because it is damaged, or because it is not the last of
  // what was written.
  void TellBadEnd(std::uint64_t pointerOffset) {
    const std::uint64_t sector = layout_.header.SectorSize;
    std::uint64_t offset = layout_.HeaderBytes();
    while (offset < pointerOffset) {
      std::uint8_t bytes[sizeof(ChunkHead)];
      if (ReadSome(layout_.fd.Get(), offset, bytes).count != sizeof bytes) break;
      ChunkHead head;
      std::memcpy(&head, bytes, sizeof head);
      const bool isHead = head.StoredSectors != 0 && head.ExpandedSectors >= 2 &&
                          head.StoredSectors <= head.ExpandedSectors;
      if (!isHead) break;
      offset += sector * head.StoredSectors;
    }
    const bool isCut =
        offset > layout_.fileSize || layout_.fileSize % sector != 0 || offset == layout_.fileSize;
    if (isCut) {
      Add(DamageKind::kEnd,
          fmt::format("it is cut off at byte {}: the rest of its chunks and its index are gone",
                      layout_.fileSize),
          true, layout_.fileSize);
    } else {
      Add(DamageKind::kIndexPointer,
          "its last sector does not lead to its index: the sector is damaged, or the file has been "
          "cut off or continued",
          true, pointerOffset);
    }
  }

  void AddIndexDamage(const std::string& what, bool closesChain) {
    Add(DamageKind::kIndex, "its index is damaged: " + what, closesChain, layout_.indexOffset);
  }

  void ReadIndex() {
    const std::uint64_t sector = layout_.header.SectorSize;
    const std::uint64_t blockEnd = layout_.fileSize - sector;
    std::uint8_t headBytes[sizeof(ChunkIndexHead)];
    if (!ReadAll(layout_.indexOffset, headBytes, "its index")) return;
    ChunkIndexHead head;
    std::memcpy(&head, headBytes, sizeof head);
    if ((head.Zero & 0xFFFFFFFF) != 0) {
      AddIndexDamage("it does not begin with zeros", true);
      return;
    }
    layout_.isLastPart = head.LastPart != 0;
    const std::uint64_t room = blockEnd - layout_.indexOffset;
    const std::uint64_t length = sizeof head + std::uint64_t{head.IndexLength};
    if (length > room) {
      AddIndexDamage(fmt::format("its list of {} bytes would reach beyond its end",
                                 std::uint32_t{head.IndexLength}),
                     false);
    }
    std::vector<std::uint8_t> list(static_cast<std::size_t>(std::min(length, room) - sizeof head));
    if (!ReadAll(layout_.indexOffset + sizeof head, list, "its index")) return;
    TakeList(list);
    if (length > room) layout_.isIndexWhole = false;
    const std::uint64_t needed = (length + sector - 1) / sector * sector;
    if (layout_.isIndexWhole && room > needed + sector) {
      AddIndexDamage(fmt::format("it is {} bytes longer than its list", room - length), false);
    }
  }

  void TakeList(std::span<const std::uint8_t> bytes) {
    const RunList list = ReadRunList(bytes);
    std::uint64_t fileOffset = 0;
    for (const VolumeRange& entry : list.runs) {
      fileOffset += entry.length;
      if (!layout_.chunks.empty() && entry.offset < layout_.chunks.back().volumeOffset) {
        isOrdered_ = false;
      }
      layout_.chunks.push_back({entry.offset, fileOffset});
    }
    layout_.isIndexWhole = true;
    if (list.ending != ListEnding::kEndMark || list.usedBytes != bytes.size()) {
      layout_.isIndexWhole = false;
      AddIndexDamage(list.ending == ListEnding::kBadEntry
                         ? fmt::format("entry {} makes no sense, and none behind it can be read",
                                       list.runs.size() + 1)
                         : fmt::format("its list does not end where it should, behind {} entries",
                                       list.runs.size()),
                     false);
    } else if (!isOrdered_) {
      AddIndexDamage(
          "its chunks are not in rising order: what is found depends on where a read begins",
          false);
    }
  }

  ImageLayout layout_;
  bool isOrdered_ = true;
};

}  // namespace

const char* DamageName(DamageKind kind) {
  switch (kind) {
    case DamageKind::kReading:
      return "reading";
    case DamageKind::kHeader:
      return "header";
    case DamageKind::kHeaderChecksum:
      return "headerChecksum";
    case DamageKind::kExtraChecksum:
      return "extraChecksum";
    case DamageKind::kEnd:
      return "end";
    case DamageKind::kIndexPointer:
      return "indexPointer";
    case DamageKind::kIndex:
      return "index";
    case DamageKind::kGap:
      return "gap";
    case DamageKind::kChunkHead:
      return "chunkHead";
    case DamageKind::kRunList:
      return "runList";
    case DamageKind::kStreamLength:
      return "streamLength";
    case DamageKind::kStream:
      return "stream";
    case DamageKind::kSum:
      return "sha256";
    case DamageKind::kMissingPart:
      return "missingPart";
    case DamageKind::kMissingParent:
      return "missingParent";
  }
  return "";
}

bool ImageLayout::Opens() const {
  return std::none_of(damages.begin(), damages.end(),
                      [](const Damage& damage) { return damage.closesChain; });
}

ImageLayout ReadLayout(const std::string& path) { return LayoutReader(path).Read(); }

PartialRead ReadSome(int fd, std::uint64_t offset, std::span<std::uint8_t> bytes) {
  PartialRead read;
  while (read.count < bytes.size()) {
    const ssize_t got = pread(fd, bytes.data() + read.count, bytes.size() - read.count,
                              static_cast<off_t>(offset + read.count));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) read.error = errno;
    if (got <= 0) break;
    read.count += static_cast<std::size_t>(got);
  }
  return read;
}

std::string ReadErrorText(int error) {
  return fmt::format("it can't be read: {}", std::generic_category().message(error));
}

RunList ReadRunList(std::span<const std::uint8_t> space) {
  constexpr std::size_t kFullForm = 12;
  RunList list;
  std::uint64_t offset = 0;
  std::uint32_t length = 0;
  std::size_t at = 0;
  list.ending = ListEnding::kSpace;
  const auto load = [&](std::size_t from, std::size_t count, std::uint64_t fill) {
    std::uint64_t value = fill;
    for (std::size_t i = 0; i < count; ++i) {
      value &= ~(std::uint64_t{0xFF} << (8 * i));
      value |= std::uint64_t{space[from + i]} << (8 * i);
    }
    return value;
  };
  while (at < space.size()) {
    const std::uint8_t first = space[at];
    if (first == kRunListEnd) {
      list.ending = ListEnding::kEndMark;
      ++at;
      break;
    }
    const bool isFull = length == 0;
    const std::size_t offsetBytes = isFull ? 8 : (first >> 3) & 15;
    const std::size_t lengthBytes = isFull ? 4 : first & 7;
    const std::size_t begin = isFull ? at : at + 1;
    const std::size_t used = isFull ? kFullForm : 1 + offsetBytes + lengthBytes;
    if (offsetBytes + lengthBytes == 0 || offsetBytes > 8 || lengthBytes > 4 ||
        used > space.size() - at) {
      list.ending = ListEnding::kBadEntry;
      break;
    }
    const bool isNegative = !isFull && (first & 0x80) != 0;
    offset += load(begin, offsetBytes, isNegative ? ~std::uint64_t{0} : 0);
    length += static_cast<std::uint32_t>(load(begin + offsetBytes, lengthBytes, 0));
    list.runs.push_back({offset, length});
    at += used;
  }
  list.usedBytes = at;
  return list;
}

}  // namespace kqimage
