// New images: created, written to, and completed or removed.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "tests/faults/fault_images.h"
#include "tests/faults/scenario.h"

namespace kqtest {
namespace {

constexpr std::uint64_t kSpacing = 0x100000;
// More runs than the list of a chunk's head has room for: one chunk is written, and one is begun.
constexpr std::uint32_t kPieces = 130;
constexpr std::uint32_t kPieceBytes = 512;

struct NewImage {
  std::string path;
  Bytes headerTemplate;
  const char* password = nullptr;
  Bytes piece = CompressibleData(kPieceBytes);
  std::uint64_t handle = 0;

  KQStatus Create() {
    handle = 0xAAAA;
    return KQNewImageFileCreate2(headerTemplate.data(),
                                 static_cast<std::uint32_t>(headerTemplate.size()), password,
                                 path.c_str(), nullptr, nullptr, nullptr, nullptr, &handle);
  }
  KQStatus WritePieces() {
    for (std::uint32_t i = 0; i < kPieces; ++i) {
      const KQStatus status = KQNewImageFileWrite(handle, piece.data(), kPieceBytes, i * kSpacing);
      if (status.status != 0) return status;
    }
    return {};
  }
  // After a failure the object stays, and completes the file when it can.
  KQStatus Close() {
    const KQStatus status = KQNewImageFileClose(handle, "what the image is");
    if (status.status == 0) handle = 0;
    return status;
  }
  void CloseAndRemove() {
    if (handle != 0) {
      EXPECT_EQ(Close().status, 0);
    }
    std::filesystem::remove(path);
  }

  ParsedImage Parse() const { return ParseFile(path, password); }
  void ExpectPieces(std::size_t chunks) const {
    const ParsedImage image = Parse();
    EXPECT_EQ(image.error, "");
    EXPECT_EQ(image.chunks.size(), chunks);
    for (const ParsedChunk& chunk : image.chunks) {
      for (const VolumeRun& run : chunk.runs) {
        EXPECT_EQ(image.ReadVolume(run.offset, kPieceBytes), piece);
      }
    }
    if (chunks == 2) {
      EXPECT_TRUE(image.Holds((kPieces - 1) * kSpacing));
    }
  }
  std::string Magic() const {
    const Bytes file = ReadFile(path);
    return file.size() < 4 ? "" : std::string(file.begin(), file.begin() + 4);
  }
};

std::shared_ptr<NewImage> Prepare(const TempDir& folder, std::uint32_t compression,
                                  std::uint32_t encryption) {
  ImageSpec spec = HeaderOnly(encryption);
  spec.header.compressionType = compression;
  auto image = std::make_shared<NewImage>();
  image->path = folder.Path("new.twi");
  image->headerTemplate = BuildHeader(spec);
  image->password = PasswordFor(encryption);
  return image;
}

Scenario Create(const std::shared_ptr<NewImage>& image) {
  Scenario scenario;
  scenario.operation = [=] { return image->Create(); };
  scenario.expectDone = [=] { EXPECT_EQ(image->Magic(), "OPEN"); };
  scenario.expectFailed = [=] { EXPECT_EQ(image->handle, 0u); };
  scenario.end = [=] { image->CloseAndRemove(); };
  // A password that can't be converted and a key that can't be made are told alike.
  if (image->password != nullptr) scenario.memoryStatuses.push_back(KQ_STATUS_INVALID_PASSWORD);
  return scenario;
}

Scenario Write(const std::shared_ptr<NewImage>& image) {
  Scenario scenario;
  scenario.begin = [=] { ASSERT_EQ(image->Create().status, 0); };
  scenario.operation = [=] { return image->WritePieces(); };
  scenario.expectDone = [=] {
    EXPECT_EQ(image->Close().status, 0);
    image->ExpectPieces(2);
  };
  scenario.expectFailed = [=] { EXPECT_EQ(image->Magic(), "OPEN"); };
  scenario.end = [=] { image->CloseAndRemove(); };
  scenario.repeatable = false;
  return scenario;
}

Scenario Close(const std::shared_ptr<NewImage>& image) {
  Scenario scenario;
  scenario.begin = [=] {
    ASSERT_EQ(image->Create().status, 0);
    ASSERT_EQ(image->WritePieces().status, 0);
  };
  scenario.operation = [=] { return image->Close(); };
  scenario.expectDone = [=] {
    image->ExpectPieces(2);
    EXPECT_EQ(image->Parse().header.comment, u"what the image is");
  };
  scenario.expectFailed = [=] { EXPECT_EQ(image->Magic(), "OPEN"); };
  // A last chunk that can't be written is left out, and so is a comment without memory for it.
  scenario.expectDegraded = [=] { image->ExpectPieces(image->Parse().chunks.size()); };
  scenario.effectOf = [](std::span<const MadeCall> calls, std::size_t i) -> std::optional<Effect> {
    // The size, the seek and the write of the chunk.
    if (i < 3 && calls[i].call != Call::kClose) return Effect::kDegraded;
    return std::nullopt;
  };
  scenario.end = [=] { image->CloseAndRemove(); };
  scenario.repeatable = false;
  return scenario;
}

Scenario CloseEmpty(const std::shared_ptr<NewImage>& image) {
  Scenario scenario;
  scenario.begin = [=] { ASSERT_EQ(image->Create().status, 0); };
  scenario.operation = [=] { return image->Close(); };
  scenario.expectDone = [=] { EXPECT_FALSE(std::filesystem::exists(image->path)); };
  scenario.expectFailed = [=] { EXPECT_EQ(image->Magic(), "OPEN"); };
  scenario.end = [=] { image->CloseAndRemove(); };
  return scenario;
}

}  // namespace

std::vector<NamedScenario> NewImageScenarios() {
  using MakeScenario = Scenario (*)(const std::shared_ptr<NewImage>&);
  std::vector<NamedScenario> all;
  const auto add = [&](const std::string& name, MakeScenario make, std::uint32_t compression,
                       std::uint32_t encryption) {
    all.push_back(
        {name + "Type" + std::to_string(compression) + "Cipher" + std::to_string(encryption),
         [=](const TempDir& folder) { return make(Prepare(folder, compression, encryption)); }});
  };
  for (const std::uint32_t compression : {0u, 3u, 4u, 5u, 6u}) {
    add("CreateNew", Create, compression, 0);
    add("WriteNew", Write, compression, 0);
    add("CloseNew", Close, compression, 0);
  }
  for (const std::uint32_t encryption : {1u, 2u, 3u, 4u}) {
    add("CreateNew", Create, 5, encryption);
    add("WriteNew", Write, 5, encryption);
    add("CloseNew", Close, 5, encryption);
  }
  add("CloseEmptyNew", CloseEmpty, 0, 0);
  return all;
}

}  // namespace kqtest
