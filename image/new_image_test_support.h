// What the tests of the writer share: templates, a new image driven through the exported functions,
// and failures of the file underneath. Files are taken apart with tests/support alone.
#ifndef KQ_IMAGE_NEW_IMAGE_TEST_SUPPORT_H
#define KQ_IMAGE_NEW_IMAGE_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "kqimageapi.h"
#include "tests/support/expand_stream.h"
#include "tests/support/image_cipher.h"
#include "tests/support/image_parser.h"
#include "tests/support/temp_dir.h"

namespace kqtest {

inline constexpr std::uint32_t kLargestHeader = 0x100000;

// What a client may give at creation beside the template.
struct Creation {
  const char* password = nullptr;
  std::optional<std::uint64_t> sourceSize = std::nullopt;
  std::optional<std::uint64_t> carriedValue1 = std::nullopt;
  std::optional<std::uint64_t> carriedValue2 = std::nullopt;
  std::optional<Id> imageId = std::nullopt;
};

// A template as a client takes it from an image: its header's sectors.
inline Bytes Template(const HeaderFields& fields) {
  ImageSpec spec;
  spec.header = fields;
  return BuildHeader(spec);
}

// Later sectors that leave room for bufferBytes in the chunk buffer.
inline Bytes LaterSectorsForBuffer(std::uint32_t sectorSize, std::uint32_t bufferBytes) {
  return PatternBytes(77, kLargestHeader - bufferBytes - sectorSize);
}

// A new image at path under construction. It is closed, and its status checked, by Close alone.
class Writer {
 public:
  Writer(const std::string& path, const Bytes& headerTemplate, const Creation& creation = {})
      : path_(path) {
    const auto pointer = [](const auto& value) { return value ? &*value : nullptr; };
    handle_ = 0x5EED;
    status_ = KQNewImageFileCreate2(
        headerTemplate.data(), static_cast<std::uint32_t>(headerTemplate.size()), creation.password,
        path.c_str(), pointer(creation.sourceSize), pointer(creation.carriedValue1),
        pointer(creation.carriedValue2), creation.imageId ? creation.imageId->data() : nullptr,
        &handle_);
  }

  // Of the creation.
  const KQStatus& status() const { return status_; }
  std::uint64_t handle() const { return handle_; }

  KQStatus Write(std::uint64_t offset, std::span<const std::uint8_t> data) {
    return KQNewImageFileWrite(handle_, data.data(), static_cast<std::uint32_t>(data.size()),
                               offset);
  }
  KQStatus Close(const char* comment = nullptr) { return KQNewImageFileClose(handle_, comment); }

  Bytes File() const { return ReadFile(path_); }
  bool FileExists() const { return std::filesystem::exists(path_); }

 private:
  std::string path_;
  std::uint64_t handle_ = 0;
  KQStatus status_{};
};

// The finished file, taken apart with all its data; the password opens an enciphered one.
inline ParsedImage ParseFile(const Bytes& file, const char* password = nullptr) {
  ParseOptions options;
  options.expand = ExpandStream;
  if (password != nullptr) {
    const ParsedImage sealed = ParseImage(file);
    const auto key = OpenImageKey(sealed.header.encryptionType, password, sealed.header.keyBlob);
    if (!key) {
      ADD_FAILURE() << "the key blob does not open: " << sealed.error;
      return sealed;
    }
    options.decipher = DecipherWith(*key);
  }
  ParsedImage image = ParseImage(file, options);
  EXPECT_EQ(image.error, "");
  return image;
}

// Sectors that no codec makes smaller.
inline Bytes Noise(std::uint64_t seed, std::size_t bytes) { return PatternBytes(seed, bytes); }

// Sectors that every codec makes smaller.
inline Bytes Text(std::uint64_t seed, std::size_t bytes) {
  static constexpr std::string_view kWords[] = {"sector ", "volume ", "of ",  "the ",  "an ",
                                                "image ",  "chunk ",  "and ", "bytes "};
  Bytes text;
  for (const std::uint8_t pick : PatternBytes(seed, bytes)) {
    for (const char letter : kWords[pick % std::size(kWords)]) {
      text.push_back(static_cast<std::uint8_t>(letter));
    }
    if (text.size() >= bytes) break;
  }
  text.resize(bytes);
  return text;
}

// While it lives no file can grow beyond limit bytes: a write there fails with EFBIG.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(std::uint64_t limit) {
    handler_ = signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &old_);
    rlimit lowered = old_;
    lowered.rlim_cur = limit;
    if (setrlimit(RLIMIT_FSIZE, &lowered) != 0) ADD_FAILURE() << "no limit";
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    signal(SIGXFSZ, handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit old_{};
  sighandler_t handler_ = nullptr;
};

inline std::uint64_t OpenDescriptors() {
  std::uint64_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    static_cast<void>(entry);
    ++count;
  }
  return count;
}

}  // namespace kqtest

#endif
