// Any bytes as the configuration file, and as a text that is searched for a key.
#include "foundation/configuration.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/scratch_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kqfuzz::ScratchFile scratch;
  const kqfuzz::Bytes file(data, data + size);
  scratch.Write(file);
  const kq::Configuration first = kq::ReadConfigurationFile(scratch.Path().c_str());
  const kq::Configuration second = kq::ReadConfigurationFile(scratch.Path().c_str());
  FUZZ_CHECK(first.chunkCacheMaxBytes == second.chunkCacheMaxBytes);
  FUZZ_CHECK(first.chunkHeaderCacheMaxBytes == second.chunkHeaderCacheMaxBytes);

  kqfuzz::Bytes text = file;
  text.push_back(0);
  const char* const characters = reinterpret_cast<const char*>(text.data());
  const std::uint64_t value = kq::ConfigurationValue(characters, "ChunkCache", 7);
  FUZZ_CHECK(std::string(characters).find("ChunkCache") != std::string::npos || value == 7);
  return 0;
}
