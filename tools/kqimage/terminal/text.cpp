#include "kqimage/terminal/text.h"

#include <fmt/format.h>
#include <kqimageformat.h>

#include <algorithm>
#include <array>

namespace kqimage {
namespace {

constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kSecondsPerDay = 86'400;
constexpr std::int64_t kDaysPer400Years = 146'097;

struct Date {
  std::int64_t year;
  int month;
  int day;
};

// The Gregorian date of a number of days since 1601-01-01, the first day of a 400-year cycle.
// std::chrono's years end at 32767, and a file may hold any time up to the year 60056.
Date DateFromDays(std::int64_t days) {
  std::int64_t year = 1601 + days / kDaysPer400Years * 400;
  std::int64_t rest = days % kDaysPer400Years;
  const auto isLeap = [](std::int64_t y) { return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0); };
  while (rest >= (isLeap(year) ? 366 : 365)) {
    rest -= isLeap(year) ? 366 : 365;
    ++year;
  }
  const std::array<int, 12> lengths = {
      31, isLeap(year) ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  int month = 1;
  for (const int length : lengths) {
    if (rest < length) break;
    rest -= length;
    ++month;
  }
  return {year, month, static_cast<int>(rest) + 1};
}

// Decodes one character from the front of text, which is not empty. Returns its length in bytes,
// or 0 if the bytes are not valid UTF-8.
std::size_t DecodeUtf8(std::string_view text, char32_t& character) {
  const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned first = byteAt(0);
  if (first < 0x80) {
    character = first;
    return 1;
  }
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
  character = first & (0xFFu >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((byteAt(i) & 0xC0) != 0x80) return 0;
    character = character << 6 | (byteAt(i) & 0x3Fu);
  }
  constexpr std::array<char32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
  if (character < kSmallest[length] || character > 0x10FFFF || isSurrogate) return 0;
  return length;
}

void AppendUtf8(std::string& text, char32_t character) {
  const auto append = [&](char32_t byte) { text.push_back(static_cast<char>(byte)); };
  if (character < 0x80) {
    append(character);
  } else if (character < 0x800) {
    append(0xC0 | character >> 6);
    append(0x80 | (character & 0x3F));
  } else if (character < 0x10000) {
    append(0xE0 | character >> 12);
    append(0x80 | (character >> 6 & 0x3F));
    append(0x80 | (character & 0x3F));
  } else {
    append(0xF0 | character >> 18);
    append(0x80 | (character >> 12 & 0x3F));
    append(0x80 | (character >> 6 & 0x3F));
    append(0x80 | (character & 0x3F));
  }
}

}  // namespace

std::string SizeText(std::uint64_t bytes) {
  constexpr std::array kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return fmt::format("{} bytes", bytes);
  double value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  // 1023.95 and above would be printed as 1024.0.
  while (value >= 1023.95 && unit + 1 < kUnits.size()) {
    value /= 1024;
    ++unit;
  }
  return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string ExactSizeText(std::uint64_t bytes) {
  if (bytes < 1024) return SizeText(bytes);
  return fmt::format("{} ({} bytes)", SizeText(bytes), bytes);
}

std::string DurationText(std::uint64_t seconds) {
  const std::uint64_t hours = seconds / 3600;
  const std::uint64_t minutes = seconds / 60 % 60;
  if (hours > 0) return fmt::format("{}:{:02}:{:02}", hours, minutes, seconds % 60);
  return fmt::format("{}:{:02}", minutes, seconds % 60);
}

std::string GuidText(const std::uint8_t (&id)[16]) {
  constexpr std::array<std::size_t, 16> kOrder = {3, 2, 1,  0,  5,  4,  7,  6,
                                                  8, 9, 10, 11, 12, 13, 14, 15};
  std::string text;
  for (std::size_t i = 0; i < kOrder.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text += fmt::format("{:02x}", id[kOrder[i]]);
  }
  return text;
}

std::string HexText(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

std::string TimeText(const ImageFileInfo& info, TimeDetail detail) {
  // A u64 of ticks is below 2^41 seconds, so everything below fits in signed 64 bits.
  const std::int64_t seconds = static_cast<std::int64_t>(info.creationTime / kTicksPerSecond);
  const std::int64_t fraction = static_cast<std::int64_t>(info.creationTime % kTicksPerSecond);
  const Date date = DateFromDays(seconds / kSecondsPerDay);
  const std::int64_t ofDay = seconds % kSecondsPerDay;
  std::string text = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", date.year, date.month,
                                 date.day, ofDay / 3600, ofDay / 60 % 60, ofDay % 60);
  if (detail == TimeDetail::kFull) text += fmt::format(".{:07}", fraction);
  // The biases count minutes west of UTC, a zone's notation counts east.
  const std::int64_t east = -(std::int64_t{info.timeZoneBias} + info.daylightBias);
  const std::int64_t minutes = east < 0 ? -east : east;
  return text + fmt::format("{}{:02}:{:02}", east < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

std::string CompressionText(std::uint32_t type) {
  switch (type) {
    case KQ_COMPRESSION_NONE:
      return "none";
    case KQ_COMPRESSION_LZW:
      return "lzw";
    case KQ_COMPRESSION_LZSS:
      return "lzss";
    case KQ_COMPRESSION_LZO:
      return "lzo";
    case KQ_COMPRESSION_LZO_HUFFMAN:
      return "lzo-huffman";
    default:
      return fmt::format("unknown type {}", type);
  }
}

bool IsReadable(std::uint32_t compressionType) {
  return compressionType == KQ_COMPRESSION_NONE || compressionType == KQ_COMPRESSION_LZO ||
         compressionType == KQ_COMPRESSION_LZO_HUFFMAN;
}

std::string EncryptionText(std::uint32_t type) {
  switch (type) {
    case KQ_ENCRYPTION_NONE:
      return "none";
    case KQ_ENCRYPTION_AES128_UNCHECKED:
      return "aes128-unchecked";
    case KQ_ENCRYPTION_AES128:
      return "aes128";
    case KQ_ENCRYPTION_RC4:
      return "rc4";
    case KQ_ENCRYPTION_AES256:
      return "aes256";
    default:
      return fmt::format("unknown type {}", type);
  }
}

std::string Utf8FromUtf16(std::span<const std::uint16_t> units) {
  std::string text;
  for (std::size_t i = 0; i < units.size() && units[i] != 0; ++i) {
    char32_t character = units[i];
    const bool isHigh = character >= 0xD800 && character <= 0xDBFF;
    const bool isLow = character >= 0xDC00 && character <= 0xDFFF;
    if (isHigh && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] <= 0xDFFF) {
      character = 0x10000 + ((character - 0xD800) << 10) + (units[i + 1] - 0xDC00u);
      ++i;
    } else if (isHigh || isLow) {
      character = 0xFFFD;
    }
    AppendUtf8(text, character);
  }
  return text;
}

std::vector<std::uint16_t> Utf16FromUtf8(std::string_view utf8) {
  std::vector<std::uint16_t> units;
  while (!utf8.empty()) {
    char32_t character = 0;
    const std::size_t length = DecodeUtf8(utf8, character);
    if (length == 0) character = 0xFFFD;
    if (character >= 0x10000) {
      units.push_back(static_cast<std::uint16_t>(0xD800 + ((character - 0x10000) >> 10)));
      character = 0xDC00 + (character & 0x3FF);
    }
    units.push_back(static_cast<std::uint16_t>(character));
    utf8.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return units;
}

std::optional<std::size_t> Utf16Units(std::string_view utf8) {
  std::size_t units = 0;
  while (!utf8.empty()) {
    char32_t character = 0;
    const std::size_t length = DecodeUtf8(utf8, character);
    if (length == 0) return std::nullopt;
    units += character >= 0x10000 ? 2 : 1;
    utf8.remove_prefix(length);
  }
  return units;
}

std::string Printable(std::string_view text) {
  std::string printable;
  while (!text.empty()) {
    char32_t character = 0;
    const std::size_t length = DecodeUtf8(text, character);
    const bool isControl = character < 0x20 || (character >= 0x7F && character <= 0x9F);
    if (length > 0 && !isControl) {
      printable += text.substr(0, length);
      text.remove_prefix(length);
      continue;
    }
    const std::size_t bytes = length == 0 ? 1 : length;
    for (std::size_t i = 0; i < bytes; ++i) {
      printable += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[i]));
    }
    text.remove_prefix(bytes);
  }
  return printable;
}

}  // namespace kqimage
