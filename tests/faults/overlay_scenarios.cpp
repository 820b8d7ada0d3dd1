// Chains with a sparse file laid over them.
#include <filesystem>
#include <utility>

#include "tests/faults/overlay_images.h"

namespace kqtest {
namespace {

bool SparseFileTriesAgain(std::span<const MadeCall> calls, std::size_t i) {
  return IsSparseTransfer(calls, i, true);
}

Scenario OnOpenChain(const std::shared_ptr<Overlay>& overlay) {
  Scenario scenario;
  scenario.begin = [=] { overlay->OpenBoth(); };
  scenario.end = [=] { overlay->CleanUp(); };
  scenario.isTriedAgain = SparseFileTriesAgain;
  return scenario;
}

// The sparse file's handle is gone whatever comes of the open, and the file is closed.
Scenario Open(const std::shared_ptr<Overlay>& overlay) {
  Scenario scenario;
  scenario.begin = [=] {
    overlay->CopyPrepared();
    ASSERT_EQ(overlay->OpenSparse().status, 0);
  };
  scenario.operation = [=] { return overlay->OpenChain(); };
  scenario.expectDone = [=] {
    EXPECT_EQ(overlay->Read().status, 0);
    overlay->ExpectVolume();
  };
  scenario.expectFailed = [=] {
    EXPECT_EQ(overlay->handle, 0u);
    std::uint64_t bytes = 0;
    EXPECT_EQ(KQSparseFileGetNumDataBytes(overlay->sparseHandle, &bytes).status,
              KQ_STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(ReadFile(overlay->sparse) == ReadFile(overlay->prepared));
  };
  scenario.end = [=] { overlay->CleanUp(); };
  scenario.repeatable = false;
  if (overlay->password != nullptr) scenario.memoryStatuses.push_back(KQ_STATUS_INVALID_PASSWORD);
  return scenario;
}

Scenario Read(const std::shared_ptr<Overlay>& overlay) {
  Scenario scenario = OnOpenChain(overlay);
  scenario.operation = [=] { return overlay->Read(); };
  scenario.expectDone = [=] { overlay->ExpectVolume(); };
  scenario.expectFailed = [=] { overlay->ExpectZeros(); };
  return scenario;
}

// Over an extent and behind it.
Scenario Write(const std::shared_ptr<Overlay>& overlay) {
  constexpr std::uint64_t kOffset = Overlay::kUpper - 100;
  const Bytes data = PatternBytes(23, 500);
  Scenario scenario = OnOpenChain(overlay);
  scenario.operation = [=] {
    overlay->count = 0xAAAA;
    return KQImageFilesWrite(overlay->handle, kOffset, data.data(),
                             static_cast<std::uint32_t>(data.size()), &overlay->count);
  };
  scenario.expectDone = [=] {
    EXPECT_EQ(overlay->count, data.size());
    Bytes expected = Overlay::Volume();
    SetBytes(&expected, kOffset, data);
    EXPECT_EQ(overlay->Read().status, 0);
    EXPECT_TRUE(overlay->buffer == expected);
  };
  scenario.expectFailed = [=] { EXPECT_EQ(overlay->count, 0u); };
  return scenario;
}

// The chain is closed whatever becomes of its sparse file.
Scenario Close(const std::shared_ptr<Overlay>& overlay, bool deleteSparse) {
  Scenario scenario = OnOpenChain(overlay);
  scenario.begin = [=] {
    overlay->OpenBoth();
    ASSERT_EQ(KQImageFilesWrite(overlay->handle, 0x9000, "changed", 7, nullptr).status, 0);
  };
  scenario.operation = [=] { return overlay->CloseChain(nullptr, deleteSparse); };
  scenario.expectDone = [=] {
    EXPECT_EQ(std::filesystem::exists(overlay->sparse), !deleteSparse);
    if (deleteSparse) return;
    ASSERT_EQ(overlay->OpenSparse().status, 0);
    std::uint64_t bytes = 0;
    EXPECT_EQ(KQSparseFileGetNumDataBytes(overlay->sparseHandle, &bytes).status, 0);
    EXPECT_EQ(bytes, 1024u + 1024 + 7);
    EXPECT_EQ(KQSparseFileClose(overlay->sparseHandle, 0).status, 0);
  };
  scenario.expectFailed = [=] { EXPECT_TRUE(std::filesystem::exists(overlay->sparse)); };
  scenario.repeatable = false;
  return scenario;
}

using CloseCall = KQStatus (*)(std::uint64_t handle, const char* newImage);

KQStatus CloseWithId(std::uint64_t handle, const char* newImage) {
  static const Id id = MakeId(99);
  return KQImageFilesClose2(handle, newImage, nullptr, 1, id.data());
}

KQStatus CloseWithSize(std::uint64_t handle, const char* newImage) {
  constexpr std::uint64_t kSourceSize = 0x123456;
  return KQImageFilesClose3(handle, newImage, "what the image is", 1, nullptr, &kSourceSize);
}

// At the close the sparse file becomes an increment, and goes.
Scenario CloseIntoImage(const std::shared_ptr<Overlay>& overlay, CloseCall close) {
  Scenario scenario = OnOpenChain(overlay);
  scenario.operation = [=] {
    return close(std::exchange(overlay->handle, 0), overlay->newImage.c_str());
  };
  scenario.expectDone = [=] {
    overlay->ExpectNewImage();
    EXPECT_FALSE(std::filesystem::exists(overlay->sparse));
  };
  scenario.expectFailed = [=] { overlay->ExpectNoBrokenImage(); };
  scenario.expectDegraded = scenario.expectFailed;
  scenario.effectOf = EffectInConversion;
  scenario.isTriedAgain = [](std::span<const MadeCall> calls, std::size_t i) {
    return IsSparseTransfer(calls, i, false);
  };
  scenario.repeatable = false;
  if (overlay->password != nullptr) scenario.memoryStatuses.push_back(KQ_STATUS_INVALID_PASSWORD);
  return scenario;
}

}  // namespace

std::vector<NamedScenario> OverlayScenarios() {
  std::vector<NamedScenario> all;
  const auto add = [&](const std::string& name,
                       const std::function<Scenario(const std::shared_ptr<Overlay>&)>& make) {
    for (const std::uint32_t type : {0u, 2u}) {
      all.push_back({name + std::to_string(type),
                     [=](const TempDir& folder) { return make(PrepareOverlay(folder, type)); }});
    }
  };
  add("OpenOverlay", Open);
  add("ReadOverlay", Read);
  add("WriteOverlay", Write);
  add("CloseOverlay", [](const auto& overlay) { return Close(overlay, false); });
  add("CloseAndDeleteOverlay", [](const auto& overlay) { return Close(overlay, true); });
  add("CloseOverlayIntoImageWithId",
      [](const auto& overlay) { return CloseIntoImage(overlay, CloseWithId); });
  add("CloseOverlayIntoImageWithSize",
      [](const auto& overlay) { return CloseIntoImage(overlay, CloseWithSize); });
  return all;
}

}  // namespace kqtest
