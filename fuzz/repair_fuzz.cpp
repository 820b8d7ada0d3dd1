// Any bytes as an image file to be checked and repaired. A check changes nothing; a repair changes
// nothing behind the header, and what it found is found no more.
#include <algorithm>
#include <cstddef>

#include "fuzz/fuzz_input.h"
#include "fuzz/header_bytes.h"
#include "fuzz/scratch_file.h"
#include "kqimageapi.h"
#include "kqimageformat.h"

namespace {

constexpr char kPassword[] = "secret";

struct Listener {
  std::uint8_t cancelAt;
  std::uint8_t calls;
};

bool Listen(void* argument, const HeaderIssueReport* report) {
  auto* const listener = static_cast<Listener*>(argument);
  FUZZ_CHECK(report->message != nullptr && report->present <= 1 && report->skipped <= 1);
  return ++listener->calls != listener->cancelAt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kqfuzz::FuzzInput input(data, size);
  const std::uint8_t kind = input.U8();
  const std::uint64_t wanted = kind % 4;
  kqfuzz::Bytes file = input.Rest();
  kqfuzz::LimitClaims(&file);
  if (kind / 4 % 2 == 1) kqfuzz::MendChecksums(&file);
  static const kqfuzz::ScratchFile scratch;
  scratch.Write(file);
  const char* const path = scratch.Path().c_str();
  const char* const password = kind / 8 % 2 == 0 ? nullptr : kPassword;

  Listener listener{static_cast<std::uint8_t>(kind / 16 % 4), 0};
  std::uint64_t found = 3;
  const KQStatus checked = KQImageFileFixHeader(path, password, &found, 1,
                                                kind / 64 % 2 == 0 ? Listen : nullptr, &listener);
  FUZZ_CHECK(scratch.Holds(file));

  std::uint64_t issues = wanted;
  const KQStatus repaired = KQImageFileFixHeader(path, password, &issues, 0, nullptr, nullptr);
  const kqfuzz::Bytes after = scratch.Read();
  const std::uint64_t headerBytes = std::uint64_t{kqtest::Get32(file, 4)} * kqtest::Get32(file, 8);
  // Of a header that the file does not hold whole, the rest counts as zero and is written too.
  FUZZ_CHECK(after.size() == file.size() ||
             (file.size() < headerBytes && after.size() == headerBytes));
  if (repaired.status != 0) {
    FUZZ_CHECK(after == file);
    return 0;
  }
  if (headerBytes <= file.size()) {
    const auto behind = static_cast<std::ptrdiff_t>(headerBytes);
    FUZZ_CHECK(std::equal(file.begin() + behind, file.end(), after.begin() + behind));
  }
  // In sectors below that the fields of sector 1 are those of sector 0 too, and mending the one
  // changes the other.
  const std::uint64_t fieldBytes =
      sizeof(ImageHeader) + kqtest::Get16(file, offsetof(ImageHeader, KeyBlobLength));
  if (checked.status == 0 && kqtest::Get32(file, offsetof(ImageHeader, SectorSize)) >= fieldBytes) {
    std::uint64_t left = 0;
    FUZZ_CHECK(KQImageFileFixHeader(path, password, &left, 1, nullptr, nullptr).status == 0);
    FUZZ_CHECK((left & wanted) == 0);
  }
  return 0;
}
