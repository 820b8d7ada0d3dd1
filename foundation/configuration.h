// The optional file "kqimageapi.conf" beside the library: two numbers, found by plain text search.
#ifndef KQ_FOUNDATION_CONFIGURATION_H
#define KQ_FOUNDATION_CONFIGURATION_H

#include <cstdint>

namespace kq {

struct Configuration {
  std::uint64_t chunkCacheMaxBytes = 0x1E00000;
  std::uint64_t chunkHeaderCacheMaxBytes = 0x200000;
};

// The number behind the first occurrence of key in the NUL-terminated text, or defaultValue.
std::uint64_t ConfigurationValue(const char* text, const char* key, std::uint64_t defaultValue);

// Reads the file at path. Every problem yields the defaults, silently.
Configuration ReadConfigurationFile(const char* path);

// Reads the file beside the library or program that holds the given address.
Configuration ReadConfigurationBeside(const void* address);

}  // namespace kq

#endif
