#include "codec/run_list.h"

#include <cstring>

#include "foundation/little_endian.h"
#include "foundation/log.h"

namespace kq {
namespace {

constexpr std::uint32_t kFullFormBytes = 12;
constexpr std::uint32_t kOffsetBytes = 8;
constexpr std::uint32_t kLengthBytes = 4;

// Position, counted from 1 at the lowest byte, of the highest byte that differs from the fill.
std::uint32_t SignificantBytes(std::uint64_t difference, bool negative) {
  const std::uint64_t distinct = negative ? ~difference : difference;
  if (distinct == 0) return 0;
  return static_cast<std::uint32_t>(8 - __builtin_clzll(distinct) / 8);
}

}  // namespace

bool PutRun(RunWriter* writer, std::uint8_t* position, const Run& previousRun, const Run& newRun) {
  const Run previous = previousRun;
  const Run next = newRun;
  const std::uint64_t offsetDifference = next.offset - previous.offset;
  const std::uint32_t lengthDifference = next.length - previous.length;
  const auto room = static_cast<std::uint64_t>(writer->End - position);
  std::uint64_t size = kFullFormBytes;
  if (previous.length == 0) {
    if (room < size) return false;
    StoreU64(position, offsetDifference);
    StoreU32(position + kOffsetBytes, lengthDifference);
  } else {
    const bool negative = static_cast<std::int64_t>(offsetDifference) < 0;
    const std::uint32_t offsetBytes = SignificantBytes(offsetDifference, negative);
    const std::uint32_t lengthBytes = SignificantBytes(lengthDifference, false);
    size = 1 + offsetBytes + lengthBytes;
    if (room < size) return false;
    position[0] =
        static_cast<std::uint8_t>((negative ? 0x80u : 0u) | offsetBytes << 3 | lengthBytes);
    std::memcpy(position + 1, &offsetDifference, offsetBytes);
    std::memcpy(position + 1 + offsetBytes, &lengthDifference, lengthBytes);
  }
  if (writer->MergeUnit != 0) {
    writer->PreviousEntry = position;
    writer->PriorRun = previous;
  }
  writer->Cursor = position + size;
  writer->LastRun = next;
  return true;
}

bool EnterRun(RunWriter* writer, const Run& run) {
  const Run last = writer->LastRun;
  std::uint32_t grown = 0;
  if (writer->PreviousEntry != nullptr && writer->MergeUnit != 0 &&
      !__builtin_add_overflow(last.length, run.length, &grown) && last.offset < run.offset &&
      run.offset == last.offset + last.length * writer->MergeUnit &&
      PutRun(writer, writer->PreviousEntry, writer->PriorRun, {last.offset, grown})) {
    return true;
  }
  return PutRun(writer, writer->Cursor, last, run);
}

bool NextRun(RunReader* reader, std::uint64_t* offset, std::uint32_t* length) {
  // Offsets are multiples of a sector, so no entry of the full form starts with the end mark either.
  if (reader->Cursor >= reader->End || *reader->Cursor == kRunListEnd) return false;
  std::uint32_t offsetBytes = kOffsetBytes;
  std::uint32_t lengthBytes = kLengthBytes;
  std::uint64_t offsetDifference = 0;
  if (reader->Length != 0) {
    const std::uint8_t head = *reader->Cursor;
    offsetBytes = head >> 3 & 0xF;
    lengthBytes = head & 7;
    const bool empty = offsetBytes + lengthBytes == 0;
    if (empty) LogAssertion("zero-length run");
    if (offsetBytes > kOffsetBytes) LogAssertion("too long offset part in the run");
    if (lengthBytes > kLengthBytes) LogAssertion("too long length part in the run");
    if (offsetBytes > kOffsetBytes || lengthBytes > kLengthBytes || empty) return false;
    if ((head & 0x80) != 0) offsetDifference = ~std::uint64_t{0};
    ++reader->Cursor;
  }
  const auto held = static_cast<std::uint64_t>(reader->End - reader->Cursor);
  if (held < offsetBytes + lengthBytes) {
    reader->Cursor = reader->End;
    LogAssertion("incomplete truncated run");
    return false;
  }
  std::uint32_t lengthDifference = 0;
  std::memcpy(&offsetDifference, reader->Cursor, offsetBytes);
  std::memcpy(&lengthDifference, reader->Cursor + offsetBytes, lengthBytes);
  reader->Cursor += offsetBytes + lengthBytes;
  reader->Offset += offsetDifference;
  reader->Length += lengthDifference;
  *offset = reader->Offset;
  *length = reader->Length;
  return true;
}

}  // namespace kq
