// Any bytes as a password or comment. The units are those of a plain conversion, one code point at
// a time; counting, converting and converting into less room agree.
#include <cerrno>
#include <cstdint>
#include <vector>

#include "crypto/text_conversion.h"
#include "fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const kqfuzz::Bytes text(data, data + size);
  const auto length = static_cast<std::uint32_t>(size);
  errno = 0;
  const std::uint32_t count = kq::Utf8ToUtf16Count(text.data(), length, nullptr, 0);
  const int counted = errno;
  FUZZ_CHECK(count != 0 || counted != 0 || size == 0);
  FUZZ_CHECK(count <= size);

  // Converting knows refusals that counting doesn't.
  std::vector<std::uint16_t> units(count);
  errno = 0;
  const std::uint32_t converted = kq::Utf8ToUtf16Count(text.data(), length, units.data(), count);
  FUZZ_CHECK(converted == count || (converted == 0 && errno == EILSEQ));
  if (count > 1) {
    std::vector<std::uint16_t> fewer(count - 1);
    errno = 0;
    FUZZ_CHECK(kq::Utf8ToUtf16Count(text.data(), length, fewer.data(), count - 1) == 0);
    FUZZ_CHECK(errno == E2BIG);
  }
  if (converted == 0) return 0;
  // Single units of surrogate pairs pass, and say no more how they were written.
  for (std::size_t i = 0; i + 1 < text.size(); ++i) {
    if (text[i] == 0xED && text[i + 1] >= 0xA0) return 0;
  }
  // Back again: units that came from UTF-8 give that UTF-8.
  kqfuzz::Bytes back;
  for (std::size_t i = 0; i < units.size(); ++i) {
    std::uint32_t point = units[i];
    if (point >= 0xD800 && point < 0xDC00) {
      FUZZ_CHECK(i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] < 0xE000);
      point = 0x10000 + ((point - 0xD800) << 10) + (units[++i] - 0xDC00u);
    }
    const auto put = [&](std::uint32_t byte) { back.push_back(static_cast<std::uint8_t>(byte)); };
    if (point < 0x80) {
      put(point);
    } else if (point < 0x800) {
      put(0xC0 | point >> 6);
      put(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
      put(0xE0 | point >> 12);
      put(0x80 | (point >> 6 & 0x3F));
      put(0x80 | (point & 0x3F));
    } else {
      put(0xF0 | point >> 18);
      put(0x80 | (point >> 12 & 0x3F));
      put(0x80 | (point >> 6 & 0x3F));
      put(0x80 | (point & 0x3F));
    }
  }
  FUZZ_CHECK(back == text);
  return 0;
}
