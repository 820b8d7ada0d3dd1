// Chains of image files: opened, read with and without what is cached, and closed.
#include <gtest/gtest.h>

#include <memory>

#include "tests/faults/fault_images.h"
#include "tests/faults/scenario.h"

namespace kqtest {
namespace {

// Files that form a chain, and a range of the volume that needs every one of them.
struct TestChain {
  std::string files;  // as KQImageFilesOpen takes them
  const char* password = nullptr;
  std::uint64_t offset = 0;
  Bytes data;
};
using MakeChain = std::function<TestChain(const TempDir&)>;

TestChain OneImage(const TempDir& folder, std::uint32_t compression, std::uint32_t encryption) {
  const Bytes data = CompressibleData(std::size_t{40} * 512);
  const std::string path = WriteNewImage(folder, "image.twf", compression, encryption, data);
  // From within a sector to behind the data.
  constexpr std::size_t kSkipped = 700;
  Bytes expected(data.begin() + kSkipped, data.end());
  expected.resize(expected.size() + 1000);
  return {path, PasswordFor(encryption), kSkipped, expected};
}

TestChain SplitImage(const TempDir& folder) {
  ImageSpec first = HeaderOnly();
  first.chunks = {RawChunk({{kFirstChunk, 4}}, FirstChunkData())};
  first.index.lastPart = 0;
  ImageSpec second = HeaderOnly();
  second.header = NextPartOf(first.header);
  second.chunks = {RawChunk({{kSecondChunk, 2}}, SecondChunkData())};
  Bytes data = FirstChunkData();
  data.resize(kSecondChunk);
  Append(&data, SecondChunkData());
  return {WriteImage(folder, "a.TW1", second) + "|" + WriteImage(folder, "a.twf", first), nullptr,
          0, data};
}

TestChain Increments(const TempDir& folder) {
  const ImageSpec base = RawImage(2);
  ImageSpec increment = RawImage(2);
  increment.header = IncrementOf(base.header, MakeId(2));
  const Bytes newer = PatternBytes(9, std::size_t{2} * 512);
  increment.chunks = {RawChunk({{512, 2}}, newer)};
  Bytes data = FirstChunkData();
  SetBytes(&data, 512, newer);
  return {WriteImage(folder, "a.twi", increment) + "|" + WriteImage(folder, "a.twf", base),
          kPassword, 0, data};
}

struct OpenChain {
  TestChain chain;
  std::uint64_t handle = 0;
  std::uint32_t count = 0;
  Bytes buffer;

  KQStatus Open() {
    handle = 0xAAAA;
    return KQImageFilesOpen(chain.files.c_str(), chain.password, 0, &handle);
  }
  KQStatus Read() {
    count = 0xAAAA;
    std::fill(buffer.begin(), buffer.end(), std::uint8_t{0xAA});
    return KQImageFilesRead(handle, chain.offset, buffer.data(),
                            static_cast<std::uint32_t>(buffer.size()), &count);
  }
  KQStatus Close() { return KQImageFilesClose(std::exchange(handle, 0), "ignored", nullptr, 1); }
  void ExpectRead() const {
    EXPECT_EQ(count, chain.data.size());
    EXPECT_TRUE(buffer == chain.data);
  }
  void ExpectFailedRead() const {
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(buffer, Bytes(buffer.size()));
  }
};

std::shared_ptr<OpenChain> Prepare(const TempDir& folder, const MakeChain& make) {
  auto state = std::make_shared<OpenChain>();
  state->chain = make(folder);
  state->buffer.resize(state->chain.data.size());
  return state;
}

Scenario Open(const TempDir& folder, const MakeChain& make) {
  const auto state = Prepare(folder, make);
  Scenario scenario;
  scenario.operation = [=] { return state->Open(); };
  scenario.expectDone = [=] {
    EXPECT_EQ(state->Read().status, 0);
    state->ExpectRead();
  };
  scenario.expectFailed = [=] { EXPECT_EQ(state->handle, 0u); };
  scenario.end = [=] {
    if (state->handle != 0) {
      EXPECT_EQ(state->Close().status, 0);
    }
  };
  // Whatever keeps a key from being opened has one status.
  if (state->chain.password != nullptr) scenario.memoryStatuses.push_back(-86);
  return scenario;
}

Scenario Read(const TempDir& folder, const MakeChain& make, bool warm) {
  const auto state = Prepare(folder, make);
  Scenario scenario;
  scenario.begin = [=] {
    ASSERT_EQ(state->Open().status, 0);
    if (warm) {
      ASSERT_EQ(state->Read().status, 0);
    }
  };
  scenario.operation = [=] { return state->Read(); };
  scenario.expectDone = [=] { state->ExpectRead(); };
  scenario.expectFailed = [=] { state->ExpectFailedRead(); };
  scenario.end = [=] { EXPECT_EQ(state->Close().status, 0); };
  return scenario;
}

Scenario Close(const TempDir& folder, const MakeChain& make) {
  const auto state = Prepare(folder, make);
  Scenario scenario;
  scenario.begin = [=] {
    ASSERT_EQ(state->Open().status, 0);
    ASSERT_EQ(state->Read().status, 0);
  };
  scenario.operation = [=] { return state->Close(); };
  return scenario;
}

Scenario WriteWithoutSparseFile(const TempDir& folder, const MakeChain& make) {
  Scenario scenario = Read(folder, make, false);
  const auto handle = std::make_shared<std::uint64_t>();
  const std::string files = make(folder).files;
  scenario.begin = [=] {
    ASSERT_EQ(KQImageFilesOpen(files.c_str(), nullptr, 0, handle.get()).status, 0);
  };
  scenario.operation = [=] { return KQImageFilesWrite(*handle, 0, "x", 1, nullptr); };
  scenario.expectDone = [] {};
  scenario.end = [=] { KQImageFilesClose(*handle, nullptr, nullptr, 0); };
  scenario.doneStatus = KQ_STATUS_WRITE_PROTECT;
  return scenario;
}

}  // namespace

std::vector<NamedScenario> ChainScenarios() {
  std::vector<std::pair<std::string, MakeChain>> chains = {{"SplitImage", SplitImage},
                                                           {"Increments", Increments}};
  for (const std::uint32_t compression : {0u, 5u, 6u}) {
    for (const std::uint32_t encryption : {0u, 1u, 2u, 3u, 4u}) {
      if (compression != 0 && encryption != 0 && encryption + compression != 8) continue;
      chains.emplace_back(
          "Type" + std::to_string(compression) + "Cipher" + std::to_string(encryption),
          [=](const TempDir& folder) { return OneImage(folder, compression, encryption); });
    }
  }
  std::vector<NamedScenario> all;
  for (const auto& [name, make] : chains) {
    all.push_back(
        {"Open" + name, [make = make](const TempDir& folder) { return Open(folder, make); }});
    all.push_back({"ReadCold" + name,
                   [make = make](const TempDir& folder) { return Read(folder, make, false); }});
    all.push_back({"ReadWarm" + name,
                   [make = make](const TempDir& folder) { return Read(folder, make, true); }});
    all.push_back(
        {"Close" + name, [make = make](const TempDir& folder) { return Close(folder, make); }});
  }
  all.push_back({"WriteWithoutSparseFile",
                 [](const TempDir& folder) { return WriteWithoutSparseFile(folder, SplitImage); }});
  return all;
}

}  // namespace kqtest
