#include "crypto/text_conversion.h"

#include <cerrno>
#include <cstddef>

#include "foundation/little_endian.h"

namespace kq {
namespace {

constexpr bool IsContinuation(std::uint8_t byte) { return (byte & 0xC0) == 0x80; }

constexpr std::uint32_t Payload(std::uint8_t byte) { return byte & 0x3FU; }

// Bytes of the sequence at text, of which left are there; 0 if it is refused.
std::uint32_t CheckedSequenceLength(const std::uint8_t* text, std::uint32_t left) {
  const std::uint8_t lead = text[0];
  if (lead <= 0x7F) return 1;
  if (lead >= 0xC0 && lead <= 0xDF) {
    const bool good = left >= 2 && (lead & 0x1E) != 0 && IsContinuation(text[1]);
    return good ? 2 : 0;
  }
  if (lead >= 0xE0 && lead <= 0xEF) {
    const bool good = left >= 3 && (lead != 0xE0 || (text[1] & 0x20) != 0) &&
                      IsContinuation(text[1]) && IsContinuation(text[2]);
    return good ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF7) {
    const bool good = left >= 4 && (lead != 0xF0 || (text[1] & 0x30) != 0) &&
                      IsContinuation(text[1]) && IsContinuation(text[2]) && IsContinuation(text[3]);
    return good ? 4 : 0;
  }
  return 0;
}

// The number of units, or 0 if a sequence is refused.
std::uint32_t CheckAndCount(const std::uint8_t* text, std::uint32_t length) {
  std::uint32_t units = 0;
  for (std::uint32_t at = 0; at < length;) {
    const std::uint32_t bytes = CheckedSequenceLength(text + at, length - at);
    if (bytes == 0) return 0;
    units += bytes == 4 ? 2 : 1;
    at += bytes;
  }
  return units;
}

// Of the surrogate values these seven are refused and all others pass as single units: passwords
// with such characters are in use, and their keys come from exactly these units.
constexpr bool IsRefusedSurrogate(std::uint32_t value) {
  switch (value) {
    case 0xD800:
    case 0xDB7F:
    case 0xDB80:
    case 0xDBFF:
    case 0xDC00:
    case 0xDF80:
    case 0xDFFF:
      return true;
    default:
      return false;
  }
}

// Converts text that CheckAndCount has passed.
bool Convert(const std::uint8_t* text, std::uint32_t length, std::uint16_t* out) {
  for (const std::uint8_t* const end = text + length; text < end;) {
    const std::uint8_t lead = text[0];
    if (lead <= 0x7F) {
      *out++ = lead;
      text += 1;
    } else if (lead <= 0xDF) {
      *out++ = static_cast<std::uint16_t>((lead & 0x1FU) << 6 | Payload(text[1]));
      text += 2;
    } else if (lead <= 0xEF) {
      const std::uint32_t value = (lead & 0x0FU) << 12 | Payload(text[1]) << 6 | Payload(text[2]);
      if (IsRefusedSurrogate(value)) return false;
      *out++ = static_cast<std::uint16_t>(value);
      text += 3;
    } else {
      const std::uint32_t value =
          (lead & 0x07U) << 18 | Payload(text[1]) << 12 | Payload(text[2]) << 6 | Payload(text[3]);
      // The first pass has refused values below 0x10000.
      const std::uint32_t offset = value - 0x10000;
      if (offset > 0xFFFFF) return false;
      *out++ = static_cast<std::uint16_t>(0xD800 | offset >> 10);
      *out++ = static_cast<std::uint16_t>(0xDC00 | (offset & 0x3FF));
      text += 4;
    }
  }
  return true;
}

}  // namespace

std::uint32_t Utf8ToUtf16Count(const std::uint8_t* text, std::uint32_t length, std::uint16_t* out,
                               std::uint32_t capacity) {
  if (length == 0) {
    errno = 0;
    return 0;
  }
  const std::uint32_t units = CheckAndCount(text, length);
  if (units == 0) {
    errno = EILSEQ;
    return 0;
  }
  if (out == nullptr) return units;
  if (units > capacity) {
    errno = E2BIG;
    return 0;
  }
  if (!Convert(text, length, out)) {
    errno = EILSEQ;
    return 0;
  }
  return units;
}

SecretBuffer Utf8ToUtf16(const char* text, std::uint32_t length) {
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text);
  const std::uint32_t units = Utf8ToUtf16Count(bytes, length, nullptr, 0);
  if (units == 0 && errno != 0) return {};

  SecretBuffer converted =
      SecretBuffer::AllocateZeroed((std::size_t{units} + 1) * sizeof(std::uint16_t));
  if (!converted || units == 0) return converted;
  // The heap aligns for any type, so the bytes may be written as units.
  auto* const out = reinterpret_cast<std::uint16_t*>(converted.data());
  if (Utf8ToUtf16Count(bytes, length, out, units) == 0) return {};
  return converted;
}

}  // namespace kq
