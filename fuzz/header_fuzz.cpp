// Any bytes as an image file, asked for all that a header tells. The input is the file; if its
// first byte is odd, the checksums are set right first, so that what lies behind them is reached.
#include <cstring>

#include "fuzz/fuzz_input.h"
#include "fuzz/header_bytes.h"
#include "fuzz/scratch_file.h"
#include "kqimageapi.h"

namespace {

using Query = KQStatus (*)(const char*, const char*, void*, std::uint32_t*);

// With exactly the room that the first answer asks for.
void AskTwice(Query query, const char* path, const char* password) {
  std::uint32_t size = 0;
  const KQStatus first = query(path, password, nullptr, &size);
  if (first.status != 0 && first.status != KQ_STATUS_MORE_DATA) return;
  // Only bytes that the file holds are ever given.
  kqfuzz::Bytes buffer(size);
  std::uint32_t room = size;
  const KQStatus second = query(path, password, buffer.data(), &room);
  FUZZ_CHECK(second.status != KQ_STATUS_MORE_DATA);
  FUZZ_CHECK(second.status != 0 || room == size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kqfuzz::FuzzInput input(data, size);
  const bool mend = input.U8() % 2 == 1;
  kqfuzz::Bytes file = input.Rest();
  kqfuzz::LimitClaims(&file);
  if (mend) kqfuzz::MendChecksums(&file);
  static const kqfuzz::ScratchFile scratch;
  scratch.Write(file);
  const char* const path = scratch.Path().c_str();

  ImageFileInfo info;
  ImageFileInfo2 info2;
  const KQStatus first = KQImageFileGetInfo(path, &info);
  const KQStatus second = KQImageFileGetInfo2(path, &info2);
  // What the shorter answer gives, the longer one gives as well.
  if (first.status == 0 && second.status == 0) {
    FUZZ_CHECK(std::memcmp(&info, &info2.basic, sizeof info) == 0);
  }
  for (const char* password : {static_cast<const char*>(nullptr), "", "secret"}) {
    AskTwice(KQImageFileGetAllHeaderSectors, path, password);
    AskTwice(KQImageFileGetExtraSectors, path, password);
    bool result = true;
    const KQStatus tested = KQImageFileTestPassword(path, password, &result);
    FUZZ_CHECK(tested.status == 0 || !result);
  }
  FUZZ_CHECK(scratch.Holds(file));
  return 0;
}
