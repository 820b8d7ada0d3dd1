// Reading at a place of a file or device.
#ifndef KQIMAGE_SYSTEM_READ_AT_H
#define KQIMAGE_SYSTEM_READ_AT_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace kqimage {

// Fills bytes from the offset, and returns how many there were: fewer only at the file's end.
// Throws a Failure that names what is read.
std::size_t ReadAt(int fd, std::uint64_t offset, std::span<std::byte> bytes, std::string_view name);

}  // namespace kqimage

#endif
