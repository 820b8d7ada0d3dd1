#include "codec/run_list.h"

#include <array>
#include <cstring>

#include "foundation/little_endian.h"
#include "foundation/log.h"

namespace kq {
namespace {

constexpr std::uint32_t kFullFormBytes = 12;
constexpr std::uint32_t kOffsetBytes = 8;
constexpr std::uint32_t kLengthBytes = 4;
constexpr std::uint8_t kNegative = 0x80;

// kLowBytes[n] keeps the n lowest bytes.
constexpr std::array<std::uint64_t, kOffsetBytes + 1> kLowBytes = {0,
                                                                   0xFF,
                                                                   0xFFFF,
                                                                   0xFF'FFFF,
                                                                   0xFFFF'FFFF,
                                                                   0xFF'FFFF'FFFF,
                                                                   0xFFFF'FFFF'FFFF,
                                                                   0xFF'FFFF'FFFF'FFFF,
                                                                   0xFFFF'FFFF'FFFF'FFFF};

// Position, counted from 1 at the lowest byte, of the highest byte that isn't zero; 0 for none.
std::uint32_t SignificantBytes(std::uint64_t value) {
  if (value == 0) return 0;
  return static_cast<std::uint32_t>(8 - __builtin_clzll(value) / 8);
}

struct EntryForm {
  std::uint32_t offsetBytes = kOffsetBytes;
  std::uint32_t lengthBytes = kLengthBytes;
  std::uint64_t fill = 0;  // the bytes of the offset difference that aren't stored
};

// Takes a short entry's header apart. False, with all that is wrong told in the log, if no entry
// can have it.
bool ParseHeader(std::uint8_t header, EntryForm* form) {
  form->offsetBytes = header >> 3 & 0xF;
  form->lengthBytes = header & 7;
  form->fill = (header & kNegative) != 0 ? ~std::uint64_t{0} : 0;
  const bool empty = form->offsetBytes + form->lengthBytes == 0;
  if (!empty && form->offsetBytes <= kOffsetBytes && form->lengthBytes <= kLengthBytes) return true;
  if (empty) LogAssertion("zero-length run");
  if (form->offsetBytes > kOffsetBytes) LogAssertion("too long offset part in the run");
  if (form->lengthBytes > kLengthBytes) LogAssertion("too long length part in the run");
  return false;
}

}  // namespace

// The runs come by value in effect: a caller hands in the writer's own records.
bool PutRun(RunWriter* writer, std::uint8_t* position, const Run& previousRun, const Run& newRun) {
  const Run previous = previousRun;
  const Run next = newRun;
  const std::uint64_t offsetDifference = next.offset - previous.offset;
  const std::uint32_t lengthDifference = next.length - previous.length;
  const auto room = writer->End - position;
  std::uint32_t size = kFullFormBytes;
  if (previous.length == 0) {
    if (room < size) return false;
    StoreU64(position, offsetDifference);
    StoreU32(position + kOffsetBytes, lengthDifference);
  } else {
    // The sign lives in the header, so the bytes that are stored need no sign bit of their own.
    const bool negative = static_cast<std::int64_t>(offsetDifference) < 0;
    const std::uint32_t offsetBytes =
        SignificantBytes(negative ? ~offsetDifference : offsetDifference);
    const std::uint32_t lengthBytes = SignificantBytes(lengthDifference);
    size = 1 + offsetBytes + lengthBytes;
    if (room < size) return false;
    *position =
        static_cast<std::uint8_t>((negative ? kNegative : 0u) | offsetBytes << 3 | lengthBytes);
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
  const Run entered = run;
  const Run last = writer->LastRun;
  std::uint32_t grown = 0;
  const bool continues = writer->PreviousEntry != nullptr && writer->MergeUnit != 0 &&
                         !__builtin_add_overflow(last.length, entered.length, &grown) &&
                         last.offset < entered.offset &&
                         entered.offset == last.offset + last.length * writer->MergeUnit;
  if (continues && PutRun(writer, writer->PreviousEntry, writer->PriorRun, {last.offset, grown})) {
    return true;
  }
  return PutRun(writer, writer->Cursor, last, entered);
}

// Opening a file reads every entry of its index, and a chunk's list is read twice when its header
// comes into the cache. Away from the list's end an entry is therefore two loads and two masks,
// without a loop or a call.
bool NextRun(RunReader* reader, std::uint64_t* offset, std::uint32_t* length) {
  const std::uint8_t* cursor = reader->Cursor;
  // The end is looked for in the full form too: the offset it starts with is a multiple of a
  // sector, never a byte of 0xFF.
  if (cursor >= reader->End || *cursor == kRunListEnd) return false;
  EntryForm form;
  if (reader->Length != 0) {
    if (!ParseHeader(*cursor, &form)) return false;
    ++cursor;
  }
  const auto held = reader->End - cursor;
  std::uint64_t offsetDifference = 0;
  std::uint64_t lengthDifference = 0;
  if (held >= std::ptrdiff_t{2 * sizeof(std::uint64_t)}) {
    offsetDifference = LoadU64(cursor) & kLowBytes[form.offsetBytes];
    lengthDifference = LoadU64(cursor + form.offsetBytes) & kLowBytes[form.lengthBytes];
  } else if (held >= form.offsetBytes + form.lengthBytes) {
    std::memcpy(&offsetDifference, cursor, form.offsetBytes);
    std::memcpy(&lengthDifference, cursor + form.offsetBytes, form.lengthBytes);
  } else {
    reader->Cursor = reader->End;  // what is there of the entry counts as read
    LogAssertion("incomplete truncated run");
    return false;
  }
  offsetDifference |= form.fill & ~kLowBytes[form.offsetBytes];
  reader->Cursor = cursor + (form.offsetBytes + form.lengthBytes);
  reader->Offset += offsetDifference;
  reader->Length += static_cast<std::uint32_t>(lengthDifference);
  *offset = reader->Offset;
  *length = reader->Length;
  return true;
}

}  // namespace kq
