#include "tests/support/image_parser.h"

#include <algorithm>
#include <sstream>

namespace kqtest {
namespace {

using View = std::span<const std::uint8_t>;

constexpr std::size_t kFixedHeaderBytes = 114;
constexpr std::size_t kRecordBytes = 157;
constexpr std::uint64_t kLargestChunkAndHeader = 0x100000;

// Thrown with the rule that the file breaks, and turned into ParsedImage::error.
struct Broken {
  std::string rule;
};

template <class... Parts>
void Require(bool kept, const Parts&... parts) {
  if (kept) return;
  std::ostringstream text;
  (text << ... << parts);
  throw Broken{text.str()};
}

bool AllZero(View bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte == 0; });
}

// The bytes of [offset, offset + length), which must lie in the file.
View Slice(View file, std::uint64_t offset, std::uint64_t length, const char* what) {
  Require(offset <= file.size() && length <= file.size() - offset, what, " at ", offset, " of ",
          length, " bytes lies beyond the file's end at ", file.size());
  return file.subspan(offset, length);
}

Bytes Copy(View bytes) { return {bytes.begin(), bytes.end()}; }

Id GetId(View bytes, std::size_t offset) {
  Id id{};
  std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), id.size(), id.begin());
  return id;
}

RecordFields ParseRecord(View bytes) {
  RecordFields record;
  record.recordFlags = Get32(bytes, 0);
  record.fileUuid = GetId(bytes, 12);
  record.snapshotSetId = GetId(bytes, 28);
  record.secondUuid = GetId(bytes, 44);
  record.carriedId = GetId(bytes, 60);
  record.carriedValue1 = Get64(bytes, 76);
  record.carriedValue2 = Get64(bytes, 84);
  record.carriedValue3 = Get32(bytes, 92);
  record.carriedBytes1 = GetId(bytes, 96);
  record.carriedValue4 = Get64(bytes, 112);
  record.carriedValue5 = Get32(bytes, 120);
  record.carriedValue6 = Get16(bytes, 124);
  record.reserved = Get16(bytes, 126);
  record.carriedValue7 = bytes[128];
  record.carriedBytes2 = GetId(bytes, 129);
  record.carriedValue8 = Get32(bytes, 145);
  record.carriedValue9 = Get64(bytes, 149);
  return record;
}

void ParseFixedHeader(View file, const std::string& magic, ParsedImage* image) {
  const View bytes = Slice(file, 0, kFixedHeaderBytes, "the fixed header");
  HeaderFields& header = image->header;
  header.magic.assign(bytes.begin(), bytes.begin() + 4);
  header.sectorSize = Get32(bytes, 4);
  image->headerSectors = Get32(bytes, 8);
  header.sourceSize = Get64(bytes, 12);
  header.flags = Get32(bytes, 20);
  header.creationTime = Get64(bytes, 24);
  header.timeZoneBias = static_cast<std::int32_t>(Get32(bytes, 32));
  header.daylightBias = static_cast<std::int32_t>(Get32(bytes, 36));
  header.imageId = GetId(bytes, 40);
  header.parentImageId = GetId(bytes, 56);
  header.imageSetId = GetId(bytes, 72);
  header.generation = Get32(bytes, 88);
  header.nextGeneration = Get32(bytes, 92);
  header.partMarker = Get32(bytes, 96);
  header.partIndex = Get32(bytes, 100);
  header.compressionType = Get32(bytes, 104);
  header.encryptionType = Get32(bytes, 108);

  Require(header.magic == magic, "the magic is ", header.magic);
  Require(header.sectorSize == 256 || header.sectorSize == 512 || header.sectorSize == 1024 ||
              header.sectorSize == 2048 || header.sectorSize == 4096,
          "SectorSize is ", header.sectorSize);
  Require(image->headerSectors >= 1, "HeaderSectors is 0");
  Require(header.imageId != Id{}, "ImageId is all zero");
  Require(header.imageId != header.parentImageId, "ImageId equals ParentImageId");
  Require(header.compressionType < 7, "CompressionType is ", header.compressionType);
  Require(header.encryptionType < 5, "EncryptionType is ", header.encryptionType);
}

// KeyBlob, Comment and record of sector 0, and the zero bytes behind them.
void ParseVariablePart(ParsedImage* image) {
  const View sector = image->firstSector;
  HeaderFields& header = image->header;
  const std::size_t keyBytes = Get16(sector, 112);
  std::size_t place = kFixedHeaderBytes + keyBytes;
  Require(place <= sector.size(), "the KeyBlob of ", keyBytes, " bytes ends behind sector 0");
  header.keyBlob = Copy(sector.subspan(kFixedHeaderBytes, keyBytes));

  while (place + 2 <= sector.size() && Get16(sector, place) != 0) {
    header.comment.push_back(Get16(sector, place));
    place += 2;
  }
  const bool hasNul = place + 2 <= sector.size();
  Require(hasNul || (header.comment.empty() && (header.flags & 2) == 0),
          "the Comment has no NUL in sector 0");
  place += hasNul ? 2 : 0;

  if ((header.flags & 2) != 0) {
    Require(place + kRecordBytes <= sector.size(), "the ExtendedRecord ends behind sector 0");
    image->recordOffset = place;
    header.record = ParseRecord(sector.subspan(place, kRecordBytes));
    image->headerCrc = Get32(sector, place + 4);
    image->extraCrc = Get32(sector, place + 8);
    place += kRecordBytes;
  }
  Require(AllZero(sector.subspan(place)), "sector 0 is not zero behind offset ", place);
}

void CheckChecksums(const ParsedImage& image) {
  if (image.recordOffset == 0) return;
  const std::uint32_t extra =
      image.storedLaterSectors.empty() ? 0 : PlainCrcMsbFirst(image.storedLaterSectors);
  Require(image.extraCrc == extra, "ExtraCrc is ", image.extraCrc, " instead of ", extra);
  Bytes sector = image.firstSector;
  Set32(&sector, image.recordOffset + 4, 0);
  const std::uint32_t headerCrc = PlainCrcMsbFirst(sector);
  Require(image.headerCrc == headerCrc, "HeaderCrc is ", image.headerCrc, " instead of ",
          headerCrc);
}

void ParseHeader(View file, const ParseOptions& options, ParsedImage* image) {
  ParseFixedHeader(file, options.magic, image);
  HeaderFields& header = image->header;
  const std::uint64_t sectorSize = header.sectorSize;
  const View all = Slice(file, 0, sectorSize * image->headerSectors, "the header");
  image->firstSector = Copy(all.first(sectorSize));
  image->storedLaterSectors = Copy(all.subspan(sectorSize));
  header.laterSectors = image->storedLaterSectors;
  if (header.encryptionType != 0 && options.decipher && !header.laterSectors.empty()) {
    header.laterSectors = options.decipher(header.laterSectors, 0);
  }
  ParseVariablePart(image);
  CheckChecksums(*image);
}

// The index and the IndexPointerSector; gives each chunk its places.
void ParseIndex(View file, ParsedImage* image) {
  const std::uint64_t sectorSize = image->header.sectorSize;
  const std::uint64_t headerBytes = sectorSize * image->headerSectors;
  Require(file.size() % sectorSize == 0, "the file's size ", file.size(),
          " is no whole number of sectors");
  Require(file.size() >= headerBytes + 2 * sectorSize, "the file is too small for an index");
  const std::uint64_t pointerOffset = file.size() - sectorSize;
  const View pointer = file.subspan(pointerOffset);
  Require(AllZero(pointer.subspan(8)), "the IndexPointerSector is not zero behind its pointer");
  image->indexOffset = Get64(pointer, 0);
  Require(image->indexOffset >= headerBytes && image->indexOffset < pointerOffset &&
              image->indexOffset % sectorSize == 0,
          "the index can't be at ", image->indexOffset);

  const View index = file.subspan(image->indexOffset, pointerOffset - image->indexOffset);
  image->indexSectors = index.size() / sectorSize;
  Require(Get64(index, 0) == 0, "the index does not begin with 8 zero bytes");
  image->lastPart = Get32(index, 8);
  image->indexLength = Get32(index, 12);
  const View payload = Slice(index, 16, image->indexLength, "the index payload");
  image->indexPayload = Copy(payload);
  const std::uint64_t needed = (16 + payload.size() + sectorSize - 1) / sectorSize;
  Require(image->indexSectors == needed || image->indexSectors == needed + 1, "the index takes ",
          image->indexSectors, " sectors for a payload of ", payload.size(), " bytes");
  Require(AllZero(index.subspan(16 + payload.size())), "the index is not padded with zero");
  if (payload.empty()) return;

  std::size_t used = 0;
  const auto entries = DecodeRunList(payload, &used);
  Require(entries.has_value(), "the index's run list is damaged");
  Require(used + 1 == payload.size() && payload[used] == 0xFF,
          "the index's run list does not end in 0xFF at its last byte");
  std::uint64_t fileOffset = 0;
  for (const auto& [volumeOffset, length] : *entries) {
    fileOffset += length;
    ParsedChunk chunk;
    chunk.indexVolumeOffset = volumeOffset;
    chunk.fileOffset = fileOffset;
    image->chunks.push_back(std::move(chunk));
  }
}

void ParseChunkHead(View head, std::size_t number, ParsedChunk* chunk) {
  chunk->storedSectors = Get32(head, 0);
  chunk->expandedSectors = Get32(head, 4);
  Require(chunk->expandedSectors >= 2, "chunk ", number, ": ExpandedSectors is ",
          chunk->expandedSectors);
  Require(chunk->storedSectors >= 1 && chunk->storedSectors <= chunk->expandedSectors, "chunk ",
          number, ": StoredSectors is ", chunk->storedSectors, " of ", chunk->expandedSectors);
  const View list = head.subspan(8);
  chunk->runList = Copy(list);
  std::size_t used = 0;
  const auto runs = DecodeRunList(list, &used);
  Require(runs.has_value() && !runs->empty(), "chunk ", number, ": the run list is damaged");
  if (used < list.size()) {
    Require(list[used] == 0xFF && AllZero(list.subspan(used + 1)), "chunk ", number,
            ": the run list is not ended by 0xFF and zero");
  }
  std::uint64_t sectors = 1;
  for (const auto& [offset, length] : *runs) {
    chunk->runs.push_back({offset, length});
    sectors += length;
  }
  Require(sectors == chunk->expandedSectors, "chunk ", number, ": the runs make ", sectors,
          " sectors, ExpandedSectors is ", chunk->expandedSectors);
  Require(chunk->runs.front().offset == chunk->indexVolumeOffset, "chunk ", number,
          ": the index has volume offset ", chunk->indexVolumeOffset, ", the run list ",
          chunk->runs.front().offset);
}

void ParseChunkBody(View body, std::uint32_t compressionType, std::uint64_t sectorSize,
                    const ParseOptions& options, bool readable, std::size_t number,
                    ParsedChunk* chunk) {
  chunk->storedBody = Copy(body);
  const std::uint64_t dataBytes = sectorSize * (chunk->expandedSectors - 1);
  if (chunk->storedSectors == 1) {
    chunk->body = ParsedChunk::Body::kNone;
    chunk->data.resize(dataBytes);
    Require(compressionType != 0, "chunk ", number, " has no body and the image no compression");
    return;
  }
  if (readable) {
    chunk->plainBody = options.decipher
                           ? options.decipher(chunk->storedBody, chunk->indexVolumeOffset)
                           : chunk->storedBody;
  }
  if (chunk->storedSectors == chunk->expandedSectors) {
    chunk->body = ParsedChunk::Body::kRaw;
    chunk->data = chunk->plainBody;
    return;
  }
  chunk->body = ParsedChunk::Body::kStream;
  Require(compressionType != 0, "chunk ", number, " is compressed and the image is not");
  if (!readable) return;
  const std::uint64_t length = Get32(chunk->plainBody, 0);
  Require(chunk->storedSectors == 1 + (length + 4 + sectorSize - 1) / sectorSize, "chunk ", number,
          ": StoredSectors is ", chunk->storedSectors, " for a stream of ", length, " bytes");
  const View plain(chunk->plainBody);
  chunk->stream = Copy(plain.subspan(4, length));
  Require(AllZero(plain.subspan(4 + length)), "chunk ", number, ": not padded with zero");
  if (!options.expand) return;
  const auto expanded = options.expand(compressionType, chunk->stream, dataBytes);
  Require(expanded && expanded->size() == dataBytes, "chunk ", number,
          ": the stream does not expand to ", dataBytes, " bytes");
  chunk->data = *expanded;
}

void ParseChunks(View file, const ParseOptions& options, ParsedImage* image) {
  const HeaderFields& header = image->header;
  const std::uint64_t sectorSize = header.sectorSize;
  const std::uint64_t headerBytes = sectorSize * image->headerSectors;
  ParseOptions plain = options;
  if (header.encryptionType == 0) plain.decipher = nullptr;
  const bool readable = header.encryptionType == 0 || static_cast<bool>(options.decipher);

  std::uint64_t place = headerBytes;
  for (std::size_t i = 0; i < image->chunks.size(); ++i) {
    ParsedChunk& chunk = image->chunks[i];
    Require(chunk.fileOffset == place, "the index has chunk ", i, " at ", chunk.fileOffset,
            ", the chunk before it ends at ", place);
    ParseChunkHead(Slice(file, place, sectorSize, "a chunk head"), i, &chunk);
    const std::uint64_t bytes = sectorSize * chunk.storedSectors;
    Require(place + bytes <= image->indexOffset, "chunk ", i, " reaches into the index");
    Require(sectorSize * chunk.expandedSectors + headerBytes <= kLargestChunkAndHeader, "chunk ", i,
            " has ", chunk.expandedSectors, " sectors, too many");
    ParseChunkBody(file.subspan(place + sectorSize, bytes - sectorSize), header.compressionType,
                   sectorSize, plain, readable, i, &chunk);
    place += bytes;
  }
  Require(place == image->indexOffset, "the last chunk ends at ", place, ", the index begins at ",
          image->indexOffset);
}

}  // namespace

std::optional<std::vector<std::pair<std::uint64_t, std::uint32_t>>> DecodeRunList(
    std::span<const std::uint8_t> list, std::size_t* used) {
  std::vector<std::pair<std::uint64_t, std::uint32_t>> runs;
  std::uint64_t offset = 0;
  std::uint32_t length = 0;
  std::size_t place = 0;
  while (place < list.size() && list[place] != 0xFF) {
    std::size_t offsetBytes = 8;
    std::size_t lengthBytes = 4;
    bool negative = false;
    if (length != 0) {
      const std::uint8_t head = list[place++];
      negative = (head & 0x80) != 0;
      offsetBytes = (head >> 3) & 15;
      lengthBytes = head & 7;
      if (offsetBytes + lengthBytes == 0 || offsetBytes > 8 || lengthBytes > 4) return {};
    }
    if (place + offsetBytes + lengthBytes > list.size()) return {};
    std::uint64_t offsetDelta = GetLe(list, place, offsetBytes);
    if (negative && offsetBytes < 8) offsetDelta |= ~std::uint64_t{0} << (8 * offsetBytes);
    offset += offsetDelta;
    length += static_cast<std::uint32_t>(GetLe(list, place + offsetBytes, lengthBytes));
    place += offsetBytes + lengthBytes;
    runs.emplace_back(offset, length);
  }
  if (used != nullptr) *used = place;
  return runs;
}

bool ParsedImage::Holds(std::uint64_t offset) const {
  for (const ParsedChunk& chunk : chunks) {
    for (const VolumeRun& run : chunk.runs) {
      const std::uint64_t bytes = std::uint64_t{run.sectors} * header.sectorSize;
      if (offset >= run.offset && offset - run.offset < bytes) return true;
    }
  }
  return false;
}

Bytes ParsedImage::ReadVolume(std::uint64_t offset, std::uint64_t length) const {
  Bytes result(length);
  std::vector<bool> done(length);
  for (const ParsedChunk& chunk : chunks) {
    std::uint64_t place = 0;  // of the run in the chunk's data
    for (const VolumeRun& run : chunk.runs) {
      const std::uint64_t bytes = std::uint64_t{run.sectors} * header.sectorSize;
      const std::uint64_t first = std::max(offset, run.offset);
      const std::uint64_t end = std::min(offset + length, run.offset + bytes);
      for (std::uint64_t at = first; at < end; ++at) {
        if (done[at - offset]) continue;
        done[at - offset] = true;
        result[at - offset] = chunk.data.at(place + (at - run.offset));
      }
      place += bytes;
    }
  }
  return result;
}

ParsedImage ParseImage(std::span<const std::uint8_t> file, const ParseOptions& options) {
  ParsedImage image;
  try {
    ParseHeader(file, options, &image);
    if (options.magic == "TWFI") {
      ParseIndex(file, &image);
      ParseChunks(file, options, &image);
    }
  } catch (const Broken& broken) {
    image.error = broken.rule;
  }
  return image;
}

}  // namespace kqtest
