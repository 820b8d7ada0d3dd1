#include "kqimage/verify/verify_chunk.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

#include "codec/huffman_stage.h"
#include "codec/lzo_block.h"
#include "codec/lzss_decoder.h"
#include "codec/lzw_decoder.h"
#include "crypto/image_key.h"
#include "foundation/little_endian.h"
#include "foundation/memory.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr std::uint64_t kLengthBytes = 4;  // the stream's length in front of it
constexpr std::uint64_t kLargestSize = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t kRawPieceBytes = std::size_t{1} << 20;
// A volume may end within the sector of another size that its producer thought in.
constexpr std::uint64_t kLargestSector = 4096;

Damage ChunkDamage(const ImageLayout& image, std::uint32_t i, DamageKind kind, std::string text) {
  return {.kind = kind,
          .text = std::move(text),
          .chunk = i,
          .fileOffset = image.chunks[i].fileOffset,
          .closesChain = false};
}

// What contradicts itself in the counts; empty if nothing does.
std::string WrongCounts(const ImageLayout& image, std::uint64_t fileOffset,
                        const ChunkHeadReading& head) {
  const std::uint64_t stored = head.storedSectors;
  const std::uint64_t expanded = head.expandedSectors;
  const std::uint64_t sector = image.header.SectorSize;
  if (stored == 0 || expanded < 2 || stored > expanded) {
    return fmt::format("{} stored and {} expanded sectors can't be", stored, expanded);
  }
  if (image.header.CompressionType == KQ_COMPRESSION_NONE && stored != expanded) {
    return fmt::format("{} stored and {} expanded sectors can't be without compression", stored,
                       expanded);
  }
  if (stored * sector > image.indexOffset - fileOffset) return "it would reach into the index";
  if (stored * sector > kLargestSize || expanded * sector > kLargestSize) {
    return "it is larger than any chunk";
  }
  return {};
}

// What is wrong with the runs; empty if nothing is.
std::string WrongRuns(const ImageLayout& image, const ChunkHeadReading& head, ListEnding ending) {
  const std::uint64_t sector = image.header.SectorSize;
  const std::uint64_t volumeSize = image.header.SourceSize;
  if (ending == ListEnding::kBadEntry) {
    return fmt::format("entry {} makes no sense", head.runs.size() + 1);
  }
  std::uint64_t held = 0;
  for (const VolumeRange& run : head.runs) {
    held += run.length / sector;
    if (run.offset % sector != 0) return fmt::format("{} is no place of a sector", run.offset);
    const std::uint64_t room = std::numeric_limits<std::uint64_t>::max() - run.offset;
    const bool isBehindEnd =
        volumeSize != 0 &&
        (run.offset >= volumeSize || run.length > volumeSize - run.offset + (kLargestSector - 1));
    if (run.length > room || isBehindEnd) {
      return fmt::format("it places {} bytes at {}, behind the volume's end", run.length,
                         run.offset);
    }
  }
  if (held != std::uint64_t{head.expandedSectors} - 1) {
    return fmt::format("it has places for {} of {} sectors", held, head.expandedSectors - 1);
  }
  return {};
}

// A read that begins behind the next chunk's first byte does not look at this one.
bool ReachesIntoNext(const ImageLayout& image, std::uint32_t i, const ChunkHeadReading& head) {
  if (i + 1 >= image.chunks.size()) return false;
  const std::uint64_t next = image.chunks[i + 1].volumeOffset;
  if (next < image.chunks[i].volumeOffset) return false;  // told of the index
  return std::any_of(head.runs.begin(), head.runs.end(), [&](const VolumeRange& run) {
    return run.length != 0 && run.offset + run.length > next;
  });
}

// No stream of that length expands to more.
std::uint64_t LargestExpansion(std::uint32_t compression, std::uint64_t streamLength) {
  switch (compression) {
    case KQ_COMPRESSION_LZO:
      return streamLength * 256;
    case KQ_COMPRESSION_LZO_HUFFMAN:
      return std::min(streamLength * 8, kq::kHuffmanWorkAreaBytes) * 256;
    case KQ_COMPRESSION_LZSS:
      return streamLength * 9;
    default:
      return std::min<std::uint64_t>(streamLength, 65536) * streamLength;
  }
}

// Decodes a stream of type 3 or 4 with room for a byte more than there should be.
template <class Decoder>
bool StreamDecodes(Decoder& decoder, std::span<const std::uint8_t> stream,
                   std::span<std::uint8_t> room) {
  std::uint32_t error = 0;
  decoder.Reset();
  decoder.SetOutput(room.data(), static_cast<std::uint32_t>(room.size()));
  decoder.SetInput(stream.data(), static_cast<std::uint32_t>(stream.size()));
  if (decoder.Run(&error) || error != 0) return false;
  const std::uint8_t end = 0;
  decoder.SetInput(&end, 0);
  while (decoder.Run(&error)) {
    if (decoder.OutputSize() == room.size()) return false;
  }
  return error == 0 && decoder.OutputSize() == room.size() - 1;
}

// known: the file's bytes from the head's first one, as many as have been read already.
ChunkHeadReading ReadHeadAt(const ImageLayout& image, std::uint64_t fileOffset, ListEnding& ending,
                            std::span<const std::uint8_t> known = {}) {
  ChunkHeadReading head;
  std::uint8_t sector[kLargestSector];
  const std::span<std::uint8_t> bytes(sector, image.header.SectorSize);
  PartialRead read = {.count = bytes.size(), .error = 0};
  if (known.size() >= bytes.size()) {
    std::copy_n(known.begin(), bytes.size(), bytes.begin());
  } else {
    read = ReadSome(image.fd.Get(), fileOffset, bytes);
  }
  if (read.count != bytes.size()) {
    head.damage = {.kind = DamageKind::kReading,
                   .text = read.error != 0 ? ReadErrorText(read.error)
                                           : "the file ends before it, while it is looked at",
                   .chunk = {},
                   .fileOffset = {},
                   .closesChain = false};
    return head;
  }
  head.storedSectors = kq::LoadU32(sector);
  head.expandedSectors = kq::LoadU32(sector + 4);
  RunList list = ReadRunList(bytes.subspan(sizeof(ChunkHead)));
  ending = list.ending;
  head.runs = std::move(list.runs);
  for (VolumeRange& run : head.runs) run.length *= bytes.size();
  return head;
}

}  // namespace

struct DataKey::Context {
  kq::Owned<kq::CryptoContext> crypto;
};

DataKey::DataKey(std::unique_ptr<Context> context) : context_(std::move(context)) {}
DataKey::~DataKey() = default;

std::unique_ptr<DataKey> DataKey::Open(const ImageLayout& image, const char* password) {
  const std::size_t length = image.header.KeyBlobLength;
  if (image.firstSector.size() < sizeof(ImageHeader) + length) return nullptr;
  // Opening destroys the blob, hence the copy.
  kq::SecretBuffer blob =
      kq::SecretBuffer::CopyOf(image.firstSector.data() + sizeof(ImageHeader), length);
  auto context = std::make_unique<Context>();
  context->crypto = kq::MakeOwned<kq::CryptoContext>();
  if (!blob || !context->crypto) throw std::bad_alloc();
  context->crypto->type = image.header.EncryptionType;
  const KQStatus status = kq::ImageKeyOpen(context->crypto.get(), password, blob.data(),
                                           static_cast<std::uint32_t>(length));
  if (status.status != KQ_STATUS_SUCCESS) return nullptr;
  return std::unique_ptr<DataKey>(new DataKey(std::move(context)));
}

bool DataKey::Decipher(std::span<std::uint8_t> run, std::uint64_t volumeOffset) const {
  alignas(16) std::uint8_t vector[16] = {};
  kq::StoreU64(vector, volumeOffset);
  return kq::ImageDecipherRun(*context_->crypto, run.data(), run.data(),
                              static_cast<std::uint32_t>(run.size()), vector)
             .status == KQ_STATUS_SUCCESS;
}

ChunkHeadReading ReadChunkHead(const ImageLayout& image, std::uint32_t i,
                               std::span<const std::uint8_t> bytes) {
  const IndexedChunk& place = image.chunks[i];
  const std::uint64_t sector = image.header.SectorSize;
  const auto damaged = [&](DamageKind kind, std::string text) {
    return ChunkDamage(image, i, kind, std::move(text));
  };
  if (place.fileOffset < image.HeaderBytes() || place.fileOffset % sector != 0 ||
      place.fileOffset >= image.indexOffset) {
    ChunkHeadReading none;
    none.damage = damaged(
        DamageKind::kIndex,
        fmt::format("the index places it at byte {}, where no chunk can be", place.fileOffset));
    return none;
  }
  ListEnding ending = ListEnding::kEndMark;
  ChunkHeadReading head = ReadHeadAt(image, place.fileOffset, ending, bytes);
  if (head.damage) {
    head.damage->chunk = i;
    head.damage->fileOffset = place.fileOffset;
    return head;
  }
  const std::string counts = WrongCounts(image, place.fileOffset, head);
  const std::string runs = WrongRuns(image, head, ending);
  if (head.runs.empty() || head.runs.front().offset != place.volumeOffset) {
    head.damage = damaged(DamageKind::kChunkHead,
                          "it does not begin at the place of the volume that the index tells");
  } else if (!counts.empty()) {
    // Runs that make sense by themselves still tell what the chunk was to hold.
    head.hasAllRuns = ending != ListEnding::kBadEntry && runs.empty();
    head.damage = damaged(DamageKind::kChunkHead, "its head is damaged: " + counts);
  } else if (!runs.empty()) {
    head.damage = damaged(DamageKind::kRunList, "its list of places is damaged: " + runs);
  } else if (ReachesIntoNext(image, i, head)) {
    head.hasAllRuns = true;
    head.damage = damaged(DamageKind::kRunList,
                          "its list of places is damaged: it reaches into those of the next chunk");
  } else {
    head.hasAllRuns = true;
  }
  return head;
}

VolumeRange SpanOfChunk(const ImageLayout& image, std::uint32_t i) {
  const std::uint64_t begin = image.chunks[i].volumeOffset;
  std::uint64_t end = image.header.SourceSize;
  if (i + 1 < image.chunks.size()) end = image.chunks[i + 1].volumeOffset;
  return {begin, end > begin ? end - begin : 0};
}

UnlistedChunks FindUnlistedChunks(const ImageLayout& image, std::uint64_t begin,
                                  std::uint64_t end) {
  UnlistedChunks found;
  while (begin < end) {
    ListEnding ending = ListEnding::kEndMark;
    const ChunkHeadReading head = ReadHeadAt(image, begin, ending);
    const bool isChunk = !head.damage && !head.runs.empty() &&
                         WrongCounts(image, begin, head).empty() &&
                         WrongRuns(image, head, ending).empty();
    if (!isChunk) return found;
    found.runs.insert(found.runs.end(), head.runs.begin(), head.runs.end());
    ++found.count;
    begin += std::uint64_t{image.header.SectorSize} * head.storedSectors;
  }
  found.fill = begin == end;
  return found;
}

struct ChunkChecker::Decoders {
  kq::HeapBuffer huffmanWork;
  std::unique_ptr<kq::LzwDecoder> lzw;
  kq::LzssDecoder lzss;
};

ChunkChecker::ChunkChecker() : decoders_(std::make_unique<Decoders>()) {}
ChunkChecker::~ChunkChecker() = default;

std::span<std::uint8_t> ChunkChecker::Buffer::Take(std::size_t size) {
  if (size > size_) {
    bytes_.reset();
    bytes_ = std::make_unique_for_overwrite<std::uint8_t[]>(size);
    size_ = size;
  }
  return {bytes_.get(), size};
}

ChunkVerdict ChunkChecker::Check(const ImageLayout& image, std::uint32_t i, const DataKey* key,
                                 std::span<const std::uint8_t> bytes) {
  ChunkVerdict verdict;
  const ChunkHeadReading head = ReadChunkHead(image, i, bytes);
  if (head.damage) {
    verdict.damage = head.damage;
    verdict.isLost = true;
    return verdict;
  }
  verdict.storedSectors = head.storedSectors;
  verdict.damage = CheckBody(image, i, key, head, bytes, verdict);
  return verdict;
}

std::optional<Damage> ChunkChecker::CheckBody(const ImageLayout& image, std::uint32_t i,
                                              const DataKey* key, const ChunkHeadReading& head,
                                              std::span<const std::uint8_t> bytes,
                                              ChunkVerdict& verdict) {
  const std::uint64_t sector = image.header.SectorSize;
  const std::uint64_t bodyOffset = image.chunks[i].fileOffset + sector;
  const std::uint64_t bodyBytes = sector * (std::uint64_t{head.storedSectors} - 1);
  const bool isRaw = head.storedSectors == head.expandedSectors;
  const auto damaged = [&](DamageKind kind, std::string text) {
    verdict.isLost = true;
    return ChunkDamage(image, i, kind, std::move(text));
  };
  verdict.isStream = !isRaw && bodyBytes != 0;
  const bool isRead = bytes.size() >= sector + bodyBytes;
  // Raw data say nothing about themselves, but the disk must deliver them.
  const std::uint64_t step = isRaw ? kRawPieceBytes : std::max<std::uint64_t>(bodyBytes, 1);
  for (std::uint64_t at = 0; at < bodyBytes && !isRead; at += step) {
    const auto size = static_cast<std::size_t>(std::min(step, bodyBytes - at));
    const PartialRead read = ReadSome(image.fd.Get(), bodyOffset + at, stored_.Take(size));
    if (read.count != size) {
      return damaged(DamageKind::kReading, read.error != 0
                                               ? ReadErrorText(read.error)
                                               : "the file has become shorter while it was read");
    }
  }
  if (!verdict.isStream) return std::nullopt;

  std::span<const std::uint8_t> body =
      isRead ? bytes.subspan(static_cast<std::size_t>(sector), static_cast<std::size_t>(bodyBytes))
             : stored_.Take(static_cast<std::size_t>(bodyBytes));
  if (key != nullptr) {
    const std::span<std::uint8_t> plain = stored_.Take(body.size());
    if (isRead) std::copy(body.begin(), body.end(), plain.begin());
    if (!key->Decipher(plain, image.chunks[i].volumeOffset)) {
      return damaged(DamageKind::kStream, "it can't be deciphered");
    }
    body = plain;
  }
  const std::uint64_t length = kq::LoadU32(body.data());
  if (length + kLengthBytes > bodyBytes) {
    return damaged(DamageKind::kStreamLength,
                   fmt::format("its compressed data would take {} bytes, and it has {}", length,
                               bodyBytes - kLengthBytes));
  }
  const std::uint64_t expected = sector * (std::uint64_t{head.expandedSectors} - 1);
  const auto stream = body.subspan(kLengthBytes, static_cast<std::size_t>(length));
  if (!Decodes(image.header.CompressionType, stream, expected)) {
    return damaged(DamageKind::kStream, "its compressed data are damaged");
  }
  const std::uint64_t sectors = 1 + (length + kLengthBytes + sector - 1) / sector;
  if (sectors == head.storedSectors) return std::nullopt;
  return ChunkDamage(image, i, DamageKind::kChunkHead,
                     fmt::format("its head is damaged: it tells {} sectors instead of {}; its data "
                                 "are whole all the same",
                                 head.storedSectors, sectors));
}

bool ChunkChecker::Decodes(std::uint32_t compression, std::span<const std::uint8_t> stream,
                           std::uint64_t expectedBytes) {
  if (expectedBytes > LargestExpansion(compression, stream.size())) return false;
  const std::span<std::uint8_t> room = expanded_.Take(static_cast<std::size_t>(expectedBytes) + 1);
  if (compression == KQ_COMPRESSION_LZW) {
    if (!decoders_->lzw) decoders_->lzw = std::make_unique<kq::LzwDecoder>();
    return StreamDecodes(*decoders_->lzw, stream, room);
  }
  if (compression == KQ_COMPRESSION_LZSS) return StreamDecodes(decoders_->lzss, stream, room);

  const std::uint8_t* frames = stream.data();
  std::uint64_t frameBytes = stream.size();
  if (compression == KQ_COMPRESSION_LZO_HUFFMAN) {
    kq::HeapBuffer& work = decoders_->huffmanWork;
    if (!work) {
      work =
          kq::HeapBuffer::AllocateAligned(kq::kHuffmanWorkAreaAlignment, kq::kHuffmanWorkAreaBytes);
    }
    if (!work) throw std::bad_alloc();
    if (kq::HuffmanStageDecode(stream.data(), stream.size(), work.data(), &frames, &frameBytes) !=
        kq::StatusCode::kSuccess) {
      return false;
    }
  }
  std::uint64_t expandedBytes = room.size();
  std::uint64_t consumed = 0;
  return kq::LzoBlockDecompress(frames, frameBytes, room.data(), &expandedBytes, &consumed) ==
             kq::kLzoSuccess &&
         consumed == frameBytes && expandedBytes == expectedBytes;
}

}  // namespace kqimage
