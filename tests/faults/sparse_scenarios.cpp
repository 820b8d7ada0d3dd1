// Sparse files: made, opened, read, written and closed.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>

#include "tests/faults/fault_images.h"
#include "tests/faults/scenario.h"

namespace kqtest {
namespace {

constexpr std::uint32_t kExtentBytes = 300;
constexpr std::uint64_t kSpacing = 1000;
constexpr std::uint16_t kOneNode = 1;

bool IsTriedAgain(std::span<const MadeCall> calls, std::size_t i) {
  return IsSparseTransfer(calls, i, true);
}

// A file with extents of the same length, apart from each other.
struct SparseState {
  std::string prepared;  // with the extents, not touched
  std::string path;
  std::uint32_t extents = 0;
  std::uint16_t cacheNodes = kOneNode;
  std::uint64_t handle = 0;
  Bytes buffer;
  std::uint32_t count = 0;

  Bytes DataOf(std::uint32_t extent) const { return PatternBytes(extent + 1, kExtentBytes); }

  KQStatus Open(std::int32_t mode) {
    handle = 0xAAAA;
    return KQSparseFileOpen2(path.c_str(), mode, 0, cacheNodes, &handle);
  }
  KQStatus OpenReadOnly() {
    handle = 0xAAAA;
    return KQSparseFileOpen(path.c_str(), 1, 1, cacheNodes, &handle);
  }
  KQStatus Close(std::uint8_t deleteFile = 0) {
    return KQSparseFileClose(std::exchange(handle, 0), deleteFile);
  }
  void CopyPrepared() const {
    std::filesystem::copy_file(prepared, path, std::filesystem::copy_options::overwrite_existing);
  }
  void CloseAndRemove() {
    if (handle != 0) {
      EXPECT_EQ(Close().status, 0);
    }
    std::filesystem::remove(path);
  }
  KQStatus Write(std::uint64_t offset, const Bytes& data) {
    count = 0xAAAA;
    return KQSparseFileWrite(handle, offset, data.data(), static_cast<std::uint32_t>(data.size()),
                             &count);
  }
  // Every extent is there; changed, where given, lies over them.
  void ExpectExtents(std::uint64_t changedAt = 0, const Bytes& changed = {}) {
    const std::uint64_t size =
        std::max<std::uint64_t>(extents * kSpacing, changedAt + changed.size());
    Bytes expected(size);
    for (std::uint32_t i = 0; i < extents; ++i) SetBytes(&expected, i * kSpacing, DataOf(i));
    SetBytes(&expected, changedAt, changed);
    Bytes found(expected.size());
    EXPECT_EQ(
        KQSparseFileRead(handle, 0, found.data(), static_cast<std::uint32_t>(found.size()), nullptr)
            .status,
        0);
    EXPECT_TRUE(found == expected);
  }
};

std::shared_ptr<SparseState> Prepare(const TempDir& folder, std::uint32_t extents) {
  auto state = std::make_shared<SparseState>();
  state->prepared = folder.Path("prepared");
  state->path = state->prepared;
  state->extents = extents;
  EXPECT_EQ(state->Open(KQ_SPARSE_CREATE_NEW).status, 0);
  for (std::uint32_t i = 0; i < extents; ++i) {
    EXPECT_EQ(state->Write(i * kSpacing, state->DataOf(i)).status, 0);
  }
  EXPECT_EQ(state->Close().status, 0);
  state->path = folder.Path("sparse");
  return state;
}

// The look whether the file is there: what it says goes by its success alone, but for a file that
// is to be opened if it exists, where a guess could cost what it holds.
std::optional<Effect> FirstOpenIsALook(std::span<const MadeCall> calls, std::size_t i) {
  if (i == 0 && calls[i].call == Call::kOpen) return Effect::kHidden;
  return std::nullopt;
}

Scenario Make(const std::shared_ptr<SparseState>& state, std::int32_t mode, bool exists) {
  Scenario scenario;
  scenario.begin = [=] {
    if (exists) state->CopyPrepared();
  };
  scenario.operation = [=] { return state->Open(mode); };
  scenario.expectDone = [=] {
    std::uint64_t bytes = 1;
    EXPECT_EQ(KQSparseFileGetNumDataBytes(state->handle, &bytes).status, 0);
    EXPECT_EQ(bytes, 0u);
  };
  scenario.expectFailed = [=] { EXPECT_EQ(state->handle, 0u); };
  scenario.expectRemoved = [=] {
    if (!exists) {
      EXPECT_FALSE(std::filesystem::exists(state->path));
    }
  };
  scenario.end = [=] { state->CloseAndRemove(); };
  scenario.isTriedAgain = IsTriedAgain;
  if (mode != KQ_SPARSE_OPEN_ALWAYS) {
    scenario.effectOf = FirstOpenIsALook;
    scenario.needlessAllocations = 1;
  }
  return scenario;
}

Scenario OpenExisting(const std::shared_ptr<SparseState>& state, std::int32_t mode, bool readOnly) {
  const Bytes before = ReadFile(state->prepared);
  Scenario scenario;
  scenario.begin = [=] { state->CopyPrepared(); };
  scenario.operation = [=] {
    if (mode == KQ_SPARSE_OPEN_EXISTING && readOnly) return state->OpenReadOnly();
    return state->Open(mode);
  };
  scenario.expectDone = [=] { state->ExpectExtents(); };
  scenario.expectFailed = [=] {
    EXPECT_EQ(state->handle, 0u);
    // Where no handle could be made, a file that need not have existed goes.
    if (mode == KQ_SPARSE_OPEN_ALWAYS && !std::filesystem::exists(state->path)) {
      state->CopyPrepared();
    }
    EXPECT_TRUE(ReadFile(state->path) == before) << "a failed open has changed the file";
  };
  scenario.end = [=] { state->CloseAndRemove(); };
  scenario.isTriedAgain = IsTriedAgain;
  if (mode != KQ_SPARSE_OPEN_ALWAYS) {
    scenario.effectOf = FirstOpenIsALook;
    scenario.needlessAllocations = 1;
  }
  return scenario;
}

Scenario OnOpenFile(const std::shared_ptr<SparseState>& state) {
  Scenario scenario;
  scenario.begin = [=] {
    state->CopyPrepared();
    ASSERT_EQ(state->Open(KQ_SPARSE_OPEN_EXISTING).status, 0);
  };
  scenario.expectFailed = [=] { EXPECT_EQ(state->count, 0u); };
  scenario.end = [=] { state->CloseAndRemove(); };
  scenario.isTriedAgain = IsTriedAgain;
  return scenario;
}

// From within one extent to within the next.
Scenario Read(const std::shared_ptr<SparseState>& state) {
  Scenario scenario = OnOpenFile(state);
  state->buffer.resize(kSpacing);
  Bytes expected(kSpacing, 0xAA);
  const Bytes first = state->DataOf(0);
  const Bytes second = state->DataOf(1);
  SetBytes(&expected, 0, std::span(first).subspan(100));
  SetBytes(&expected, kSpacing - 100, std::span(second).first(100));
  scenario.operation = [=] {
    state->count = 0xAAAA;
    std::fill(state->buffer.begin(), state->buffer.end(), std::uint8_t{0xAA});
    return KQSparseFileRead(state->handle, 100, state->buffer.data(), kSpacing, &state->count);
  };
  scenario.expectDone = [=] {
    EXPECT_EQ(state->count, kSpacing);
    EXPECT_EQ(state->buffer, expected);
  };
  return scenario;
}

// Over the end of one extent, the gap, and the beginning of the next; or behind all.
Scenario Write(const std::shared_ptr<SparseState>& state, std::uint64_t offset) {
  Scenario scenario = OnOpenFile(state);
  const Bytes data = PatternBytes(1000, kSpacing);
  scenario.operation = [=] { return state->Write(offset, data); };
  scenario.expectDone = [=] {
    EXPECT_EQ(state->count, data.size());
    state->ExpectExtents(offset, data);
    // And so it is in the file.
    EXPECT_EQ(state->Close().status, 0);
    EXPECT_EQ(state->Open(KQ_SPARSE_OPEN_EXISTING).status, 0);
    state->ExpectExtents(offset, data);
  };
  return scenario;
}

// A changed node that has to leave the cache and can't be written is lost, and the tree with it.
template <std::uint16_t count>
Scenario WriteWithFewNodes(const std::shared_ptr<SparseState>& state, std::uint64_t offset) {
  state->cacheNodes = count;
  Scenario scenario = Write(state, offset);
  scenario.losesData = [](std::span<const MadeCall> calls, std::size_t i) {
    return calls[i].call == Call::kWrite || (calls[i].call == Call::kSeek && i + 1 < calls.size() &&
                                             calls[i + 1].call == Call::kWrite);
  };
  return scenario;
}

Scenario WriteWithManyNodes(const std::shared_ptr<SparseState>& state, std::uint64_t offset) {
  state->cacheNodes = 10;
  return Write(state, offset);
}

Scenario GetNumDataBytes(const std::shared_ptr<SparseState>& state) {
  Scenario scenario = OnOpenFile(state);
  const auto bytes = std::make_shared<std::uint64_t>();
  scenario.operation = [=] { return KQSparseFileGetNumDataBytes(state->handle, bytes.get()); };
  scenario.expectDone = [=] { EXPECT_EQ(*bytes, state->extents * kExtentBytes); };
  return scenario;
}

Scenario CloseChanged(const std::shared_ptr<SparseState>& state) {
  Scenario scenario = OnOpenFile(state);
  const Bytes data = PatternBytes(1000, kSpacing);
  scenario.begin = [=, begin = scenario.begin] {
    begin();
    ASSERT_EQ(state->Write(200, data).status, 0);
  };
  scenario.operation = [=] { return state->Close(); };
  scenario.expectDone = [=] {
    ASSERT_EQ(state->Open(KQ_SPARSE_OPEN_EXISTING).status, 0);
    state->ExpectExtents(200, data);
  };
  // The handle is gone. The file says that it was not closed, unless not even that could be
  // written; then its tree is that of before.
  scenario.expectFailed = [=] {
    const KQStatus status = state->OpenReadOnly();
    if (status.status == 0) {
      Bytes untouched(100);
      EXPECT_EQ(KQSparseFileRead(state->handle, 0, untouched.data(), 100, nullptr).status, 0);
      const Bytes first = state->DataOf(0);
      EXPECT_TRUE(std::equal(untouched.begin(), untouched.end(), first.begin()));
      EXPECT_EQ(state->Close().status, 0);
    } else {
      EXPECT_EQ(status.status, KQ_STATUS_FILE_CORRUPT);
    }
  };
  scenario.repeatable = false;
  scenario.staysOpenOnFailure = true;
  return scenario;
}

Scenario CloseAndDelete(const std::shared_ptr<SparseState>& state) {
  Scenario scenario = OnOpenFile(state);
  scenario.operation = [=] { return state->Close(1); };
  scenario.expectDone = [=] { EXPECT_FALSE(std::filesystem::exists(state->path)); };
  scenario.expectFailed = [=] { EXPECT_TRUE(std::filesystem::exists(state->path)); };
  scenario.repeatable = false;
  scenario.staysOpenOnFailure = true;
  return scenario;
}

NamedScenario Named(const std::string& name, std::uint32_t extents,
                    const std::function<Scenario(const std::shared_ptr<SparseState>&)>& make) {
  return {name, [=](const TempDir& folder) { return make(Prepare(folder, extents)); }};
}

}  // namespace

std::vector<NamedScenario> SparseScenarios() {
  using State = std::shared_ptr<SparseState>;
  constexpr std::uint32_t kFewExtents = 4;
  constexpr std::uint32_t kFullRoot = 291;
  // Written one behind the other: a left leaf of 145, and a full one.
  constexpr std::uint32_t kFullLeaf = 145 + 1 + 291;
  const auto behind = [](auto write, std::uint32_t extents) {
    return [=](const State& state) { return write(state, extents * kSpacing); };
  };
  return {
      Named("CreateNewSparse", 0,
            [](const State& s) { return Make(s, KQ_SPARSE_CREATE_NEW, false); }),
      Named("CreateSparse", 0,
            [](const State& s) { return Make(s, KQ_SPARSE_CREATE_ALWAYS, false); }),
      Named("TruncateSparse", kFewExtents,
            [](const State& s) { return Make(s, KQ_SPARSE_CREATE_ALWAYS, true); }),
      Named("OpenAlwaysNewSparse", 0,
            [](const State& s) { return Make(s, KQ_SPARSE_OPEN_ALWAYS, false); }),
      Named("OpenAlwaysOldSparse", kFewExtents,
            [](const State& s) { return OpenExisting(s, KQ_SPARSE_OPEN_ALWAYS, false); }),
      Named("OpenSparse", kFewExtents,
            [](const State& s) { return OpenExisting(s, KQ_SPARSE_OPEN_EXISTING, false); }),
      Named("OpenSparseReadOnly", kFewExtents,
            [](const State& s) { return OpenExisting(s, KQ_SPARSE_OPEN_EXISTING, true); }),
      Named("ReadSparse", kFewExtents, Read),
      Named("ReadSparseTree", kFullLeaf, Read),
      Named("WriteSparseBetween", kFewExtents, [](const State& s) { return Write(s, 200); }),
      Named("WriteSparseBehind", kFewExtents, behind(Write, kFewExtents)),
      Named("WriteSparseSplitsRoot", kFullRoot, behind(WriteWithManyNodes, kFullRoot)),
      Named("WriteSparseSplitsLeaf", kFullLeaf, behind(WriteWithManyNodes, kFullLeaf)),
      Named("WriteSparseSplitsRootOneNode", kFullRoot, behind(WriteWithFewNodes<1>, kFullRoot)),
      Named("WriteSparseSplitsLeafOneNode", kFullLeaf, behind(WriteWithFewNodes<1>, kFullLeaf)),
      Named("WriteSparseSplitsLeafTwoNodes", kFullLeaf, behind(WriteWithFewNodes<2>, kFullLeaf)),
      Named("SparseNumDataBytes", kFewExtents, GetNumDataBytes),
      Named("CloseSparseChanged", kFewExtents, CloseChanged),
      Named("CloseSparseAndDelete", kFewExtents, CloseAndDelete),
  };
}

}  // namespace kqtest
