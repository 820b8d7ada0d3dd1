// Enumerations: made, filled, asked and closed.
#include <gtest/gtest.h>

#include <memory>

#include "tests/faults/fault_images.h"
#include "tests/faults/scenario.h"

namespace kqtest {
namespace {

constexpr Id kSnapshotSet = {1, 2, 3};

// A folder with a base, two increments above each other, a split image, an orphan, and a file that
// is no image.
struct Catalogue {
  std::string folder;
  std::uint64_t handle = 0;
  std::string buffer = std::string(4096, 'x');
  std::uint32_t size = 0;
  std::uint8_t answer = 0;

  std::string Path(const std::string& name) const { return folder + "/" + name; }
  KQStatus Create() {
    handle = 0xAAAA;
    return KQImageFilesEnumerationCreate(&handle, 0, 0);
  }
  KQStatus Add() const { return KQImageFilesEnumerationAddDirectory(handle, folder.c_str(), 0, 0); }
  KQStatus Close() { return KQImageFilesEnumerationClose(std::exchange(handle, 0)); }
  KQStatus AskForFostered() {
    return KQImageFilesEnumerationQueryAllFostered(handle, "|", KQ_LIST_NO_QUOTES, buffer.data(),
                                                   &size);
  }
  void ResetOutput() {
    std::fill(buffer.begin(), buffer.end(), 'x');
    size = 4096;
    answer = 0xAA;
  }
};

std::shared_ptr<Catalogue> Prepare(const TempDir& folder) {
  auto catalogue = std::make_shared<Catalogue>();
  catalogue->folder = folder.Path();
  ImageSpec base = RawImage(0);
  base.header.record->snapshotSetId = kSnapshotSet;
  WriteImage(folder, "a-b001.twf", base);
  ImageSpec first = RawImage(0);
  first.header = IncrementOf(base.header, MakeId(2));
  WriteImage(folder, "a-b001-i001.twi", first);
  ImageSpec second = RawImage(2);
  second.header = IncrementOf(first.header, MakeId(3));
  EncipherImage(&second, 2, kPassword);
  WriteImage(folder, "a-b001-i002.twi", second);
  ImageSpec part = RawImage(0);
  part.header.imageId = MakeId(4);
  part.index.lastPart = 0;
  WriteImage(folder, "s.twf", part);
  part.header = NextPartOf(part.header);
  part.index.lastPart = 1;
  WriteImage(folder, "s.TW1", part);
  ImageSpec orphan = RawImage(0);
  orphan.header.imageId = MakeId(5);
  orphan.header.parentImageId = MakeId(77);
  WriteImage(folder, "o.twi", orphan);
  WriteFile(folder.Path("bad.twf"), Bytes(100));
  return catalogue;
}

Scenario Create(const std::shared_ptr<Catalogue>& catalogue) {
  Scenario scenario;
  scenario.operation = [=] { return catalogue->Create(); };
  scenario.expectDone = [=] { EXPECT_NE(catalogue->handle, 0u); };
  scenario.expectFailed = [=] { EXPECT_EQ(catalogue->handle, 0u); };
  scenario.end = [=] {
    if (catalogue->handle != 0) {
      EXPECT_EQ(catalogue->Close().status, 0);
    }
  };
  return scenario;
}

bool Follows(std::span<const MadeCall> calls, std::size_t i, Call before) {
  return i > 0 && calls[i - 1].call == before;
}

// The walk looks at each entry once, and at one that is no folder twice.
bool IsLookAtEntry(std::span<const MadeCall> calls, std::size_t i) {
  return calls[i].call == Call::kStat &&
         (Follows(calls, i, Call::kReadFolder) ||
          (Follows(calls, i, Call::kStat) && Follows(calls, i - 1, Call::kReadFolder)));
}

std::optional<Effect> EffectInScan(std::span<const MadeCall> calls, std::size_t i) {
  constexpr std::size_t kFullPathCalls = 2;
  const Call call = calls[i].call;
  if (i < kFullPathCalls || call == Call::kOpenFolder || IsLookAtEntry(calls, i)) {
    return std::nullopt;
  }
  if (i == kFullPathCalls) return Effect::kNoFolder;
  if (call == Call::kReadFolder) {
    // A folder that gives nothing at all is taken for empty.
    const bool isFirst = Follows(calls, i, Call::kOpenFolder);
    return isFirst ? std::optional(Effect::kDegraded) : std::nullopt;
  }
  // A file that can't be read is left out in silence.
  return Effect::kDegraded;
}

std::string ModuleInScan(std::span<const MadeCall> calls, std::size_t i) {
  const Call call = calls[i].call;
  const bool isWalk =
      call == Call::kOpenFolder || call == Call::kReadFolder || IsLookAtEntry(calls, i);
  return isWalk ? "udirwalk_linux" : "kqos_linux";
}

Scenario AddDirectory(const std::shared_ptr<Catalogue>& catalogue) {
  Scenario scenario;
  scenario.begin = [=] { ASSERT_EQ(catalogue->Create().status, 0); };
  scenario.operation = [=] { return catalogue->Add(); };
  scenario.expectDone = [=] {
    catalogue->ResetOutput();
    EXPECT_EQ(catalogue->AskForFostered().status, 0);
    EXPECT_EQ(std::string(catalogue->buffer.c_str()),
              catalogue->Path("a-b001.twf|s.twf|a-b001-i001.twi|a-b001-i002.twi"));
  };
  // What was read before stays, and can be asked for.
  scenario.expectDegraded = [=] {
    catalogue->ResetOutput();
    const KQStatus status = catalogue->AskForFostered();
    EXPECT_TRUE(status.status == 0 || status.status == KQ_STATUS_NO_MORE_FILES);
    // The folder counts as added.
    EXPECT_EQ(catalogue->Add().status, 0);
  };
  scenario.expectFailed = scenario.expectDegraded;
  scenario.effectOf = EffectInScan;
  scenario.moduleOf = ModuleInScan;
  scenario.end = [=] { EXPECT_EQ(catalogue->Close().status, 0); };
  scenario.repeatable = false;
  return scenario;
}

Scenario Close(const std::shared_ptr<Catalogue>& catalogue) {
  Scenario scenario;
  scenario.begin = [=] {
    ASSERT_EQ(catalogue->Create().status, 0);
    ASSERT_EQ(catalogue->Add().status, 0);
  };
  scenario.operation = [=] { return catalogue->Close(); };
  return scenario;
}

Scenario Query(const std::shared_ptr<Catalogue>& catalogue,
               const std::function<KQStatus(Catalogue*)>& ask, const std::string& expected) {
  EXPECT_EQ(catalogue->Create().status, 0);
  EXPECT_EQ(catalogue->Add().status, 0);
  // Closes the enumeration with the scenario.
  const std::shared_ptr<Catalogue> closing(catalogue.get(),
                                           [catalogue](Catalogue* open) { open->Close(); });
  Scenario scenario;
  scenario.operation = [=] {
    closing->ResetOutput();
    return ask(closing.get());
  };
  scenario.expectDone = [=] {
    EXPECT_EQ(closing->size, 4096u);
    if (!expected.empty()) {
      EXPECT_EQ(std::string(closing->buffer.c_str()), closing->Path(expected));
    }
  };
  scenario.expectFailed = [=] {
    EXPECT_EQ(closing->size, 4096u);
    EXPECT_EQ(closing->answer, 0xAA);
    EXPECT_EQ(closing->buffer, std::string(4096, 'x'));
  };
  return scenario;
}

using PathQuery = KQStatus (*)(std::uint64_t, const char*, const char*, std::uint32_t, char*,
                               std::uint32_t*);
NamedScenario AroundFile(const std::string& name, PathQuery query, const std::string& file,
                         const std::string& expected, int needlessAllocations = 0) {
  return {name, [=](const TempDir& folder) {
            const auto catalogue = Prepare(folder);
            const std::string path = folder.Path(file);
            Scenario scenario = Query(
                catalogue,
                [=](Catalogue* open) {
                  return query(open->handle, path.c_str(), "|", KQ_LIST_NO_QUOTES,
                               open->buffer.data(), &open->size);
                },
                expected);
            scenario.needlessAllocations = needlessAllocations;
            return scenario;
          }};
}

using SetQuery = KQStatus (*)(std::uint64_t, const char*, std::uint32_t, char*, std::uint32_t*);
NamedScenario OfAll(const std::string& name, SetQuery query, const std::string& expected) {
  return {name, [=](const TempDir& folder) {
            return Query(
                Prepare(folder),
                [=](Catalogue* open) {
                  return query(open->handle, "|", KQ_LIST_NO_QUOTES | KQ_LIST_WITH_PARTS,
                               open->buffer.data(), &open->size);
                },
                expected);
          }};
}

Scenario SnapshotSet(const TempDir& folder) {
  return Query(
      Prepare(folder),
      [](Catalogue* open) {
        return KQImageFilesEnumerationQuerySnapshotSet(open->handle, kSnapshotSet.data(), "|",
                                                       KQ_LIST_NO_QUOTES, open->buffer.data(),
                                                       &open->size);
      },
      "a-b001.twf|a-b001-i001.twi|a-b001-i002.twi");
}

Scenario HasDescendants(const TempDir& folder) {
  const std::string path = folder.Path("a-b001.twf");
  Scenario scenario = Query(
      Prepare(folder),
      [=](Catalogue* open) {
        return KQImageFilesEnumerationQueryImageHasDescendants(open->handle, path.c_str(),
                                                               &open->answer);
      },
      "");
  return scenario;
}

Scenario PathToOldestParent(const TempDir& folder) {
  Scenario scenario = Query(
      Prepare(folder),
      [](Catalogue* open) {
        return KQImageFilesEnumerationQueryPathToOldestParent(open->handle, "any", "|", 0,
                                                              open->buffer.data(), &open->size);
      },
      "");
  scenario.doneStatus = KQ_STATUS_NOT_SUPPORTED;
  return scenario;
}

}  // namespace

std::vector<NamedScenario> EnumerationScenarios() {
  return {
      {"CreateEnumeration", [](const TempDir& folder) { return Create(Prepare(folder)); }},
      {"AddDirectory", [](const TempDir& folder) { return AddDirectory(Prepare(folder)); }},
      {"CloseEnumeration", [](const TempDir& folder) { return Close(Prepare(folder)); }},
      AroundFile("ShortestPath", KQImageFilesEnumerationQueryShortestPathToBase, "a-b001-i002.twi",
                 "a-b001.twf|a-b001-i001.twi|a-b001-i002.twi"),
      AroundFile("Roots", KQImageFilesEnumerationQueryRoots, "a-b001-i002.twi", "a-b001.twf",
                 1),  // a sort can do without its scratch memory
      AroundFile("PureDependents", KQImageFilesEnumerationQueryAllPureDependents, "a-b001.twf",
                 "a-b001.twf|a-b001-i001.twi|a-b001-i002.twi"),
      OfAll("AllFostered", KQImageFilesEnumerationQueryAllFostered,
            "a-b001.twf|s.twf|s.TW1|a-b001-i001.twi|a-b001-i002.twi"),
      OfAll("AllOrphans", KQImageFilesEnumerationQueryAllOrphans, "o.twi"),
      {"SnapshotSet", SnapshotSet},
      {"HasDescendants", HasDescendants},
      {"PathToOldestParent", PathToOldestParent},
  };
}

}  // namespace kqtest
