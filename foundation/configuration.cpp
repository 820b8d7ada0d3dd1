#include "foundation/configuration.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <libgen.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/memory.h"
#include "foundation/os_file.h"

namespace kq {
namespace {

constexpr char kFileName[] = "kqimageapi.conf";
constexpr char kChunkCacheKey[] = "ChunkCache_MaxCachedBytes";
constexpr char kChunkHeaderCacheKey[] = "ChunkHeaderCache_MaxCachedBytes";

constexpr std::size_t kBufferBytes = 32768;
constexpr std::size_t kBufferAlignment = 4096;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// "<directory>/kqimageapi.conf" for the file that holds the address, or empty.
HeapString PathBeside(const void* address) {
  Dl_info info{};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return nullptr;
  // dirname writes into its argument, and its result may lie in there: "." for a bare name.
  HeapString file(strdup(info.dli_fname));
  if (!file) return nullptr;
  const char* directory = dirname(file.get());
  const std::size_t bytes = std::strlen(directory) + 1 + sizeof kFileName;
  HeapString path(static_cast<char*>(std::malloc(bytes)));
  if (path) std::snprintf(path.get(), bytes, "%s/%s", directory, kFileName);
  return path;
}

}  // namespace

std::uint64_t ConfigurationValue(const char* text, const char* key, std::uint64_t defaultValue) {
  const char* found = std::strstr(text, key);
  if (found == nullptr) return defaultValue;
  // Whatever stands before the first digit is passed over, line ends too; so a sign or a "0x" means
  // nothing. Files in the field rely on no syntax beyond this.
  const char* number = found + std::strlen(key);
  while (*number != '\0' && !IsDigit(*number)) ++number;
  if (*number == '\0') return defaultValue;
  const std::uint64_t value = std::strtoul(number, nullptr, 10);
  return value == 0 ? defaultValue : value;
}

Configuration ReadConfigurationFile(const char* path) {
  Configuration configuration;
  OSFile* opened = nullptr;
  if (Failed(OSFileOpen(path, O_RDONLY, 0, &opened))) return configuration;
  const OSFileOwner file(opened);
  HeapBuffer text = HeapBuffer::AllocateAlignedZeroed(kBufferAlignment, kBufferBytes);
  if (!text) return configuration;
  std::uint64_t count = 0;
  // Only the count tells: a failure leaves it 0.
  static_cast<void>(OSFileRead(file.get(), text.data(), kBufferBytes, &count));
  if (count == 0) return configuration;
  text.data()[kBufferBytes - 1] = 0;

  const char* characters = reinterpret_cast<const char*>(text.data());
  configuration.chunkCacheMaxBytes =
      ConfigurationValue(characters, kChunkCacheKey, configuration.chunkCacheMaxBytes);
  configuration.chunkHeaderCacheMaxBytes =
      ConfigurationValue(characters, kChunkHeaderCacheKey, configuration.chunkHeaderCacheMaxBytes);
  return configuration;
}

Configuration ReadConfigurationBeside(const void* address) {
  const HeapString path = PathBeside(address);
  return path ? ReadConfigurationFile(path.get()) : Configuration();
}

}  // namespace kq
