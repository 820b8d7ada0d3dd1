// Any bytes as the header's sectors behind the first, with right checksums: texts and partition
// tables of both styles, plain and enciphered.
#include <algorithm>

#include "fuzz/fuzz_input.h"
#include "fuzz/scratch_file.h"
#include "kqimageapi.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"

namespace {

constexpr char kPassword[] = "secret";

// Asks with any room, and with all that is asked for. The query may write up to tail bytes behind
// what it is told of the buffer, and nothing behind the size that it gives back.
template <class Query>
void Ask(const Query& query, std::uint32_t room, std::uint32_t tail) {
  constexpr std::uint8_t kUntouched = 0xAA;
  kqfuzz::Bytes some(room + tail, kUntouched);
  std::uint32_t size = room;
  const KQStatus first = query(some.data(), &size);
  if (first.status == 0) {
    FUZZ_CHECK(size <= some.size());
    FUZZ_CHECK(std::all_of(some.begin() + std::max(size, room), some.end(),
                           [](std::uint8_t byte) { return byte == kUntouched; }));
  }
  if (first.status != KQ_STATUS_MORE_DATA) return;
  FUZZ_CHECK(size > room);
  kqfuzz::Bytes all(size);
  std::uint32_t again = size;
  FUZZ_CHECK(query(all.data(), &again).status == 0);
  FUZZ_CHECK(again == size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kqfuzz::FuzzInput input(data, size);
  kqtest::ImageSpec spec;
  spec.header.sectorSize = 256u << input.Between(0, 4);
  spec.header.record = kqtest::RecordFields();
  const std::uint8_t kind = input.U8();
  const std::uint32_t room = input.Between(0, 700);
  kqfuzz::Bytes later = input.Rest();
  if (later.size() >= 8) {
    // The marks in front of the tables, which few inputs would hit.
    if (kind % 4 != 0) kqtest::Set32(&later, 0, 0xFFFFFFFF);
    if (kind % 4 == 1) kqtest::Set32(&later, 4, 1);
    if (kind % 4 == 2) kqtest::Set32(&later, 4, 2);
  }
  later.resize((later.size() + spec.header.sectorSize - 1) / spec.header.sectorSize *
               spec.header.sectorSize);
  spec.header.laterSectors = later;
  if (spec.header.sectorSize < 512) spec.header.record.reset();
  if (kind / 4 % 4 == 1) kqtest::EncipherImage(&spec, 1 + kind / 16 % 4, kPassword);

  static const kqfuzz::ScratchFile scratch;
  const kqfuzz::Bytes file = kqtest::BuildImage(spec);
  scratch.Write(file);
  const char* const path = scratch.Path().c_str();
  Ask(
      [&](void* buffer, std::uint32_t* bytes) {
        return KQImageFileGetInfoProtected(path, kPassword, static_cast<ProtectedInfo*>(buffer),
                                           bytes);
      },
      // The list is not cut to the client's size.
      room, spec.header.sectorSize);
  Ask(
      [&](void* buffer, std::uint32_t* bytes) {
        return KQImageFileGetInfoProtectedEx(path, kPassword, 0,
                                             static_cast<ProtectedInfoEx*>(buffer), bytes);
      },
      room, 0);
  FUZZ_CHECK(scratch.Holds(file));
  return 0;
}
