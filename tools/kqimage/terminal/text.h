// Values as text for people: sizes, times, identifiers, and text of unknown origin.
#ifndef KQIMAGE_TERMINAL_TEXT_H
#define KQIMAGE_TERMINAL_TEXT_H

#include <kqimageapi.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kqimage {

// "812 bytes", "4.0 KiB", "1.5 TiB".
std::string SizeText(std::uint64_t bytes);

// The same with the exact number behind it: "4.0 KiB (4096 bytes)".
std::string ExactSizeText(std::uint64_t bytes);

// "0:07", "12:34", "1:02:03".
std::string DurationText(std::uint64_t seconds);

// An identifier in the usual notation of a GUID, whose first three groups are stored reversed.
std::string GuidText(const std::uint8_t (&id)[16]);

// Bytes as hexadecimal digits, two each.
std::string HexText(std::span<const std::uint8_t> bytes);

// The creation time as ISO 8601 with its zone, to the second or to the full 100 ns.
enum class TimeDetail { kSeconds, kFull };
std::string TimeText(const ImageFileInfo& info, TimeDetail detail);

// The names that the options of create have, where there is one.
std::string CompressionText(std::uint32_t type);
// False for the types that the library writes and can't read.
bool IsReadable(std::uint32_t compressionType);
std::string EncryptionText(std::uint32_t type);

// UTF-8 of the units up to the first zero; an unpaired surrogate becomes U+FFFD.
std::string Utf8FromUtf16(std::span<const std::uint16_t> units);

// Units of UTF-8 text; a byte that is no part of a character becomes U+FFFD.
std::vector<std::uint16_t> Utf16FromUtf8(std::string_view utf8);

// How many UTF-16 units the text takes; nothing if it is not valid UTF-8.
std::optional<std::size_t> Utf16Units(std::string_view utf8);

// The text with control characters written as \xNN, so that a file name or a comment from somebody
// else's image can't steer the terminal.
std::string Printable(std::string_view text);

}  // namespace kqimage

#endif
