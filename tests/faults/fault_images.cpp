#include "tests/faults/fault_images.h"

#include <gtest/gtest.h>

#include "kqimageapi.h"
#include "tests/support/expand_stream.h"

namespace kqtest {

ImageSpec HeaderOnly(std::uint32_t encryptionType) {
  ImageSpec spec;
  HeaderFields& header = spec.header;
  header.comment = u"a comment";
  header.record.emplace();
  Bytes& later = header.laterSectors;
  later.resize(std::size_t{3} * 512);
  Set32(&later, 0, 0xFFFFFFFF);  // DiskInfoPresent
  Set32(&later, 4, 1);           // PartitionStyle: MBR
  Set32(&later, 24, 1);          // PartitionNumber
  const std::u16string texts(u"one\0two\0three\0MPLIST=a list", 28);
  for (std::size_t i = 0; i < texts.size(); ++i) Set16(&later, 54 + 2 * i, texts[i]);
  for (const std::size_t table : {std::size_t{512}, std::size_t{1024}}) {
    Set16(&later, table + 510, 0xAA55);
  }
  Set32(&later, 512 + 440, 0x51617181);  // disk signature
  later[512 + 446 + 4] = 7;              // type
  Set32(&later, 512 + 446 + 8, 63);
  Set32(&later, 512 + 446 + 12, 1000);
  if (encryptionType != 0) EncipherImage(&spec, encryptionType, kPassword);
  return spec;
}

Bytes FirstChunkData() { return PatternBytes(1, std::size_t{4} * 512); }
Bytes SecondChunkData() { return PatternBytes(2, std::size_t{2} * 512); }

ImageSpec RawImage(std::uint32_t encryptionType) {
  ImageSpec spec = HeaderOnly(encryptionType);
  spec.chunks = {RawChunk({{kFirstChunk, 4}}, FirstChunkData()),
                 RawChunk({{kSecondChunk, 2}}, SecondChunkData())};
  return spec;
}

std::string WriteImage(const TempDir& folder, const std::string& name, const ImageSpec& spec) {
  WriteFile(folder.Path(name), BuildImage(spec));
  return folder.Path(name);
}

std::string WriteNewImage(const TempDir& folder, const std::string& name,
                          std::uint32_t compressionType, std::uint32_t encryptionType,
                          const Bytes& data) {
  ImageSpec spec = HeaderOnly();
  spec.header.imageId = {};  // the template of a base has none
  spec.header.laterSectors.clear();
  spec.header.compressionType = compressionType;
  spec.header.encryptionType = encryptionType;
  const Bytes headerTemplate = BuildHeader(spec);
  const std::string path = folder.Path(name);
  std::uint64_t image = 0;
  EXPECT_EQ(KQNewImageFileCreate2(headerTemplate.data(),
                                  static_cast<std::uint32_t>(headerTemplate.size()),
                                  PasswordFor(encryptionType), path.c_str(), nullptr, nullptr,
                                  nullptr, nullptr, &image)
                .status,
            0);
  EXPECT_EQ(
      KQNewImageFileWrite(image, data.data(), static_cast<std::uint32_t>(data.size()), 0).status,
      0);
  EXPECT_EQ(KQNewImageFileClose(image, nullptr).status, 0);
  return path;
}

ParsedImage ParseFile(const std::string& path, const char* password) {
  ParseOptions options;
  options.expand = ExpandStream;
  const Bytes file = ReadFile(path);
  if (password != nullptr) {
    const ParsedImage sealed = ParseImage(file);
    const auto key = OpenImageKey(sealed.header.encryptionType, password, sealed.header.keyBlob);
    EXPECT_TRUE(key);
    if (key) options.decipher = DecipherWith(*key);
  }
  return ParseImage(file, options);
}

Bytes CompressibleData(std::size_t bytes) {
  Bytes data = PatternBytes(7, bytes);
  for (std::size_t i = 0; i < bytes; ++i)
    data[i] = static_cast<std::uint8_t>(data[i] % 7 + i / 512 % 5);
  return data;
}

}  // namespace kqtest
