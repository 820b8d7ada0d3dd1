#include "tests/support/image_builder.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace kqtest {
namespace {

constexpr std::size_t kFixedHeaderBytes = 114;
constexpr std::size_t kRecordBytes = 157;

std::uint64_t RoundUp(std::uint64_t value, std::uint64_t unit) {
  return (value + unit - 1) / unit * unit;
}

Bytes RecordBytes(const RecordFields& record) {
  Bytes bytes(kRecordBytes);
  Set32(&bytes, 0, record.recordFlags);
  SetBytes(&bytes, 12, record.fileUuid);
  SetBytes(&bytes, 28, record.snapshotSetId);
  SetBytes(&bytes, 44, record.secondUuid);
  SetBytes(&bytes, 60, record.carriedId);
  Set64(&bytes, 76, record.carriedValue1);
  Set64(&bytes, 84, record.carriedValue2);
  Set32(&bytes, 92, record.carriedValue3);
  SetBytes(&bytes, 96, record.carriedBytes1);
  Set64(&bytes, 112, record.carriedValue4);
  Set32(&bytes, 120, record.carriedValue5);
  Set16(&bytes, 124, record.carriedValue6);
  Set16(&bytes, 126, record.reserved);
  SetLe(&bytes, 128, record.carriedValue7, 1);
  SetBytes(&bytes, 129, record.carriedBytes2);
  Set32(&bytes, 145, record.carriedValue8);
  Set64(&bytes, 149, record.carriedValue9);
  return bytes;
}

// Sector 0 without checksums, of any length; the caller cuts and pads it to its sector.
Bytes FirstSector(const ImageSpec& spec, std::uint32_t headerSectors, ImageLayout* layout) {
  const HeaderFields& header = spec.header;
  const std::uint32_t flags = header.record ? header.flags | 2 : header.flags & ~2u;
  Bytes bytes(kFixedHeaderBytes);
  for (std::size_t i = 0; i < 4 && i < header.magic.size(); ++i) {
    bytes[i] = static_cast<std::uint8_t>(header.magic[i]);
  }
  Set32(&bytes, 4, spec.sectorSizeField.value_or(header.sectorSize));
  Set32(&bytes, 8, spec.headerSectorsField.value_or(headerSectors));
  Set64(&bytes, 12, header.sourceSize);
  Set32(&bytes, 20, spec.flagsField.value_or(flags));
  Set64(&bytes, 24, header.creationTime);
  Set32(&bytes, 32, static_cast<std::uint32_t>(header.timeZoneBias));
  Set32(&bytes, 36, static_cast<std::uint32_t>(header.daylightBias));
  SetBytes(&bytes, 40, header.imageId);
  SetBytes(&bytes, 56, header.parentImageId);
  SetBytes(&bytes, 72, header.imageSetId);
  Set32(&bytes, 88, header.generation);
  Set32(&bytes, 92, header.nextGeneration);
  Set32(&bytes, 96, header.partMarker);
  Set32(&bytes, 100, header.partIndex);
  Set32(&bytes, 104, header.compressionType);
  Set32(&bytes, 108, header.encryptionType);
  Set16(&bytes, 112,
        spec.keyBlobLengthField.value_or(static_cast<std::uint16_t>(header.keyBlob.size())));
  Append(&bytes, header.keyBlob);
  layout->commentOffset = bytes.size();
  for (const char16_t unit : header.comment) Set16(&bytes, bytes.size(), unit);
  Set16(&bytes, bytes.size(), 0);
  if (header.record) {
    layout->recordOffset = bytes.size();
    Append(&bytes, RecordBytes(*header.record));
  }
  return bytes;
}

std::uint32_t ExpandedSectors(const ChunkSpec& chunk) {
  std::uint32_t sectors = 1;
  for (const VolumeRun& run : chunk.runs) sectors += run.sectors;
  return sectors;
}

Bytes ChunkBody(const ChunkSpec& chunk, std::uint64_t sectorSize) {
  if (chunk.wholeBody) return *chunk.wholeBody;
  Bytes body;
  switch (chunk.body) {
    case ChunkSpec::Body::kNone:
      break;
    case ChunkSpec::Body::kRaw:
      body = chunk.data;
      body.resize((ExpandedSectors(chunk) - 1) * sectorSize);
      break;
    case ChunkSpec::Body::kStream:
      Set32(&body, 0, chunk.streamLength.value_or(static_cast<std::uint32_t>(chunk.data.size())));
      Append(&body, chunk.data);
      body.resize(RoundUp(body.size(), sectorSize));
      break;
  }
  return body;
}

std::uint64_t ChunkVolumeOffset(const ChunkSpec& chunk) {
  return chunk.indexVolumeOffset.value_or(chunk.runs.empty() ? 0 : chunk.runs.front().offset);
}

Bytes ChunkBytes(const ImageSpec& spec, const ChunkSpec& chunk, std::uint64_t sectorSize) {
  Bytes body = ChunkBody(chunk, sectorSize);
  const auto storedSectors = static_cast<std::uint32_t>(1 + body.size() / sectorSize);
  if (spec.encipher && !body.empty()) {
    body = spec.encipher(std::move(body), ChunkVolumeOffset(chunk));
  }

  Bytes bytes(8);
  Set32(&bytes, 0, chunk.storedSectors.value_or(storedSectors));
  Set32(&bytes, 4, chunk.expandedSectors.value_or(ExpandedSectors(chunk)));
  if (chunk.runList) {
    Append(&bytes, *chunk.runList);
  } else {
    std::vector<std::pair<std::uint64_t, std::uint32_t>> runs;
    for (const VolumeRun& run : chunk.runs) runs.emplace_back(run.offset, run.sectors);
    Append(&bytes, EncodeRunList(runs));
    if (bytes.size() < sectorSize) bytes.push_back(0xFF);
  }
  if (bytes.size() > sectorSize) ADD_FAILURE() << "the run list is longer than a sector";
  bytes.resize(sectorSize);
  Append(&bytes, body);
  return bytes;
}

Bytes IndexPayload(const ImageSpec& spec, const ImageLayout& layout) {
  if (spec.index.payload) return *spec.index.payload;
  std::vector<std::pair<std::uint64_t, std::uint32_t>> entries;
  std::uint64_t previous = 0;
  for (std::size_t i = 0; i < spec.chunks.size(); ++i) {
    const std::uint64_t offset = spec.chunks[i].indexFileOffset.value_or(layout.chunkOffsets[i]);
    entries.emplace_back(ChunkVolumeOffset(spec.chunks[i]),
                         static_cast<std::uint32_t>(offset - previous));
    previous = offset;
  }
  Bytes payload = EncodeRunList(entries);
  payload.push_back(0xFF);
  return payload;
}

}  // namespace

Id MakeId(std::uint32_t number) {
  Id id{};
  if (number == 0) return id;
  for (std::size_t i = 0; i < id.size(); ++i) {
    id[i] = static_cast<std::uint8_t>(0xA0 + i);
  }
  for (std::size_t i = 0; i < 4; ++i) id[i] = static_cast<std::uint8_t>(number >> (8 * i));
  return id;
}

ChunkSpec RawChunk(std::vector<VolumeRun> runs, Bytes data) {
  ChunkSpec chunk;
  chunk.runs = std::move(runs);
  chunk.data = std::move(data);
  return chunk;
}

ChunkSpec ZeroChunk(std::vector<VolumeRun> runs) {
  ChunkSpec chunk;
  chunk.runs = std::move(runs);
  chunk.body = ChunkSpec::Body::kNone;
  return chunk;
}

ChunkSpec StreamChunk(std::vector<VolumeRun> runs, Bytes stream) {
  ChunkSpec chunk;
  chunk.runs = std::move(runs);
  chunk.body = ChunkSpec::Body::kStream;
  chunk.data = std::move(stream);
  return chunk;
}

Bytes BuildHeader(const ImageSpec& spec, ImageLayout* layout) {
  ImageLayout unused;
  if (layout == nullptr) layout = &unused;
  *layout = ImageLayout();
  layout->sectorSize = spec.layoutSectorSize != 0 ? spec.layoutSectorSize : spec.header.sectorSize;
  const std::uint64_t sectorSize = layout->sectorSize;

  Bytes later = spec.header.laterSectors;
  later.resize(RoundUp(later.size(), sectorSize));
  const auto headerSectors = static_cast<std::uint32_t>(1 + later.size() / sectorSize);
  if (spec.encipher && !later.empty()) later = spec.encipher(std::move(later), 0);

  Bytes bytes = FirstSector(spec, headerSectors, layout);
  bytes.resize(sectorSize);
  Append(&bytes, later);
  if (layout->recordOffset != 0) {
    SetHeaderChecksums(&bytes, layout->recordOffset, static_cast<std::uint32_t>(sectorSize),
                       headerSectors);
    if (spec.extraCrc && layout->recordOffset + 12 <= sectorSize) {
      Set32(&bytes, layout->recordOffset + 8, *spec.extraCrc);
      Set32(&bytes, layout->recordOffset + 4, 0);
      Set32(&bytes, layout->recordOffset + 4, PlainCrcMsbFirst(std::span(bytes).first(sectorSize)));
    }
    if (spec.headerCrc && layout->recordOffset + 8 <= sectorSize) {
      Set32(&bytes, layout->recordOffset + 4, *spec.headerCrc);
    }
  }
  layout->headerBytes = bytes.size();
  return bytes;
}

Bytes BuildImage(const ImageSpec& spec, ImageLayout* layout) {
  ImageLayout unused;
  if (layout == nullptr) layout = &unused;
  Bytes bytes = BuildHeader(spec, layout);
  const std::uint64_t sectorSize = layout->sectorSize;

  for (const ChunkSpec& chunk : spec.chunks) {
    layout->chunkOffsets.push_back(bytes.size());
    Append(&bytes, ChunkBytes(spec, chunk, sectorSize));
  }
  Append(&bytes, spec.gapBeforeIndex);

  layout->indexOffset = bytes.size();
  const Bytes payload = IndexPayload(spec, *layout);
  Bytes index(16);
  Set64(&index, 0, spec.index.zero);
  Set32(&index, 8, spec.index.lastPart);
  Set32(&index, 12, spec.index.indexLength.value_or(static_cast<std::uint32_t>(payload.size())));
  Append(&index, payload);
  index.resize(RoundUp(index.size(), sectorSize) + spec.index.extraSectors * sectorSize);
  Append(&bytes, index);

  layout->pointerOffset = bytes.size();
  Bytes pointer(sectorSize);
  Set64(&pointer, 0, spec.index.pointer.value_or(layout->indexOffset));
  SetBytes(&pointer, 8, spec.index.pointerTail);
  Append(&bytes, pointer);
  Append(&bytes, spec.trailing);
  return bytes;
}

void SetHeaderChecksums(Bytes* image, std::uint64_t recordOffset, std::uint32_t sectorSize,
                        std::uint32_t headerSectors) {
  if (recordOffset + 12 > sectorSize) return;  // cut off by the sector's end
  const std::uint64_t laterBytes = std::uint64_t{sectorSize} * (headerSectors - 1);
  const std::span<const std::uint8_t> all(*image);
  Set32(image, recordOffset + 8,
        laterBytes == 0 ? 0 : PlainCrcMsbFirst(all.subspan(sectorSize, laterBytes)));
  Set32(image, recordOffset + 4, 0);
  Set32(image, recordOffset + 4, PlainCrcMsbFirst(all.first(sectorSize)));
}

HeaderFields IncrementOf(const HeaderFields& parent, const Id& imageId) {
  HeaderFields child = parent;
  child.parentImageId = parent.imageId;
  child.imageId = imageId;
  child.generation = std::max(parent.nextGeneration, parent.generation + 1);
  child.nextGeneration = child.generation + 1;
  child.partMarker = 0;
  child.partIndex = 0;
  return child;
}

HeaderFields NextPartOf(const HeaderFields& part) {
  HeaderFields next = part;
  next.partIndex = part.partIndex + 1;
  return next;
}

Bytes EncodeRunList(std::span<const std::pair<std::uint64_t, std::uint32_t>> runs) {
  Bytes list;
  std::uint64_t previousOffset = 0;
  std::uint32_t previousLength = 0;
  for (const auto& [offset, length] : runs) {
    const std::uint64_t offsetDelta = offset - previousOffset;
    const std::uint32_t lengthDelta = length - previousLength;
    if (previousLength == 0) {
      Set64(&list, list.size(), offsetDelta);
      Set32(&list, list.size(), lengthDelta);
    } else {
      const bool negative = (offsetDelta >> 63) != 0;
      const std::uint64_t significant = negative ? ~offsetDelta : offsetDelta;
      std::size_t offsetBytes = 0;
      while (offsetBytes < 8 && (significant >> (8 * offsetBytes)) != 0) ++offsetBytes;
      std::size_t lengthBytes = 0;
      while (lengthBytes < 4 && (lengthDelta >> (8 * lengthBytes)) != 0) ++lengthBytes;
      list.push_back(
          static_cast<std::uint8_t>((negative ? 0x80u : 0u) | (offsetBytes << 3) | lengthBytes));
      SetLe(&list, list.size(), offsetDelta, offsetBytes);
      SetLe(&list, list.size(), lengthDelta, lengthBytes);
    }
    previousOffset = offset;
    previousLength = length;
  }
  return list;
}

std::uint32_t PlainCrcMsbFirst(std::span<const std::uint8_t> bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const std::uint8_t byte : bytes) {
    crc ^= static_cast<std::uint32_t>(byte) << 24;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 0x80000000u) != 0 ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
    }
  }
  return ~crc;
}

}  // namespace kqtest
