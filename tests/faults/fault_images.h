// The images that the scenarios work on: small ones, of each kind.
#ifndef KQ_TESTS_FAULTS_FAULT_IMAGES_H
#define KQ_TESTS_FAULTS_FAULT_IMAGES_H

#include <cstdint>
#include <string>

#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"
#include "tests/support/image_parser.h"
#include "tests/support/temp_dir.h"

namespace kqtest {

inline constexpr char kPassword[] = "Zw\u00F6lf Boxk\u00E4mpfer";

// Four header sectors of 512 bytes, with a record, a comment, and a copy of an MBR with one
// partition; no chunks.
ImageSpec HeaderOnly(std::uint32_t encryptionType = 0);

// The same with two raw chunks.
ImageSpec RawImage(std::uint32_t encryptionType = 0);
inline constexpr std::uint64_t kFirstChunk = 0;
inline constexpr std::uint64_t kSecondChunk = 0x10000;
Bytes FirstChunkData();   // 4 sectors
Bytes SecondChunkData();  // 2 sectors

std::string WriteImage(const TempDir& folder, const std::string& name, const ImageSpec& spec);

// An image that the library has written, of any type that can be read back, with this data at 0.
std::string WriteNewImage(const TempDir& folder, const std::string& name,
                          std::uint32_t compressionType, std::uint32_t encryptionType,
                          const Bytes& data);

// The image at path, taken apart with its data.
ParsedImage ParseFile(const std::string& path, const char* password);

// Sectors that every codec makes smaller.
Bytes CompressibleData(std::size_t bytes);

// Password for an image of the type, or null.
inline const char* PasswordFor(std::uint32_t encryptionType) {
  return encryptionType != 0 ? kPassword : nullptr;
}

}  // namespace kqtest

#endif
