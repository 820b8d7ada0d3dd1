#include "enumeration/scan_directory.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "enumeration/admit_file.h"
#include "enumeration/directory_calls_test.h"
#include "enumeration/enumeration_test_support.h"
#include "enumeration/locate_file.h"
#include "enumeration/set_queries.h"
#include "tests/support/image_cipher.h"

namespace kq {
namespace {

using kqtest::DirectoryCall;
using kqtest::FailingDirectoryCall;
using kqtest::ImageSpec;
using kqtest::Listed;
using kqtest::MakeId;

class ScanDirectoryTest : public kqtest::EnumerationTest {
 protected:
  // Names of all catalogued files, in the order of the names.
  std::string Catalogued() const {
    std::string names;
    for (const auto& [name, file] : enumeration_.filesByName) {
      names += (names.empty() ? "" : " ") + name;
    }
    return names;
  }
  KQStatus Scan(const std::string& path) { return ScanDirectory(&enumeration_, path.c_str()); }
  KQStatus Scan() { return Scan(folder_); }
  const EnumeratedFile* Find(const std::string& name) const {
    const auto found = enumeration_.filesByName.find(name);
    return found != enumeration_.filesByName.end() ? found->second.get() : nullptr;
  }
  KQStatus Admit(const std::string& name) { return AdmitFile(&enumeration_, directory_, name); }

  ImageFilesEnumeration enumeration_;
  EnumeratedDirectory directory_ = EnumeratedDirectory(folder_ + "/");
};

TEST_F(ScanDirectoryTest, AnEmptyDirectoryGivesSuccess) {
  EXPECT_EQ(Scan().status, 0);
  EXPECT_EQ(Catalogued(), "");
  EXPECT_TRUE(enumeration_.directories.contains(folder_ + "/"));
}

TEST_F(ScanDirectoryTest, TheExtensionDecidesWhatIsLookedAt) {
  const char* const names[] = {"a.TWF",   "b.Twf",  "c.twf",    "d.twI", "e.TWI", "f.a.tWf",
                               "g.twk",   "h.TW1",  "i.twf.x",  "j",     "twf",   "k.",
                               "l.twff",  "m.tw",   "n.atwf",   ".twf",  "..twi", "o.twf ",
                               "p.twf\n", "q .twi", "r\xFF.twf"};
  std::uint32_t id = 1;
  for (const char* name : names) Write(name, {.id = id++});
  EXPECT_EQ(Scan().status, 0);
  EXPECT_EQ(Catalogued(), "..twi .twf a.TWF b.Twf c.twf d.twI e.TWI f.a.tWf q .twi r\xFF.twf");
}

TEST_F(ScanDirectoryTest, TheNameSaysNothingOfWhatAFileIs) {
  Write("base.twi", {.id = 1});
  Write("increment.twf", {.id = 2, .parent = 1});
  EXPECT_EQ(Scan().status, 0);
  EXPECT_TRUE(Find("base.twi")->IsBase());
  EXPECT_EQ(Find("increment.twf")->parents.at(0), Find("base.twi"));
}

TEST_F(ScanDirectoryTest, ASubdirectoryIsNeverEntered) {
  kqtest::WriteImage(MakeFolder("inner") + "/a.twf", {.id = 1});
  kqtest::WriteImage(MakeFolder("inner.twf") + "/b.twf", {.id = 2});
  Write("c.twf", {.id = 3});
  EXPECT_EQ(Scan().status, 0);
  EXPECT_EQ(Catalogued(), "c.twf");
}

TEST_F(ScanDirectoryTest, LinksToFilesAreFollowed) {
  Write("target", {.id = 1});
  std::filesystem::create_symlink("target", Path("a.twf"));
  EXPECT_EQ(Scan().status, 0);
  EXPECT_EQ(Catalogued(), "a.twf");
}

TEST_F(ScanDirectoryTest, APipeOrATerminalIsPassedOver) {
  std::filesystem::create_symlink("/dev/zero", Path("c.twf"));
  ASSERT_EQ(mkfifo(Path("a.twf").c_str(), 0600), 0);
  Write("b.twf", {.id = 1, .isLast = false});
  ASSERT_EQ(mkfifo(Path("b.TW1").c_str(), 0600), 0);
  EXPECT_EQ(Scan().status, 0);
  EXPECT_EQ(Catalogued(), "b.twf");
  EXPECT_TRUE(Find("b.twf")->isIncomplete);
}

TEST_F(ScanDirectoryTest, FilesThatAreNoSoundImagesAreLeftOutInSilence) {
  const auto write = [&](const char* name, const auto& change) {
    ImageSpec spec = kqtest::SpecOf({.id = 1, .snapshot = 5});
    change(&spec);
    kqtest::WriteSpec(Path(name), spec);
  };
  write("good.twf", [](ImageSpec*) {});
  write("open.twf", [](ImageSpec* spec) { spec->header.magic = "OPEN"; });
  write("no-size.twf", [](ImageSpec* spec) { spec->header.sourceSize = 0; });
  write("no-set.twf", [](ImageSpec* spec) { spec->header.imageSetId = {}; });
  write("no-id.twf", [](ImageSpec* spec) { spec->header.imageId = {}; });
  write("own-parent.twf", [](ImageSpec* spec) { spec->header.parentImageId = MakeId(1); });
  write("no-sector.twf", [](ImageSpec* spec) { spec->sectorSizeField = 0; });
  write("header-crc.twf", [](ImageSpec* spec) { spec->headerCrc = 0x12345678; });
  write("extra-crc.twf", [](ImageSpec* spec) {
    spec->header.laterSectors.assign(512, 7);
    spec->extraCrc = 0x12345678;
  });
  kqtest::WriteFile(Path("empty.twf"), {});
  kqtest::WriteFile(Path("text.twf"), std::vector<std::uint8_t>(5000, 'x'));
  EXPECT_EQ(Scan().status, 0);
  EXPECT_EQ(Catalogued(), "good.twf");
}

TEST_F(ScanDirectoryTest, AFileWithoutARecordHasNoChecksumsToFail) {
  ImageSpec spec = kqtest::SpecOf({.id = 1});
  ASSERT_FALSE(spec.header.record.has_value());
  kqtest::WriteSpec(Path("a.twf"), spec);
  EXPECT_EQ(Scan().status, 0);
  EXPECT_EQ(Catalogued(), "a.twf");
  EXPECT_FALSE(Find("a.twf")->hasExtendedRecord);
}

TEST_F(ScanDirectoryTest, AnEncipheredImageNeedsNoPassword) {
  ImageSpec spec = kqtest::SpecOf({.id = 1, .snapshot = 5});
  spec.header.laterSectors = kqtest::PatternBytes(3, 1024);
  kqtest::EncipherImage(&spec, 3, "secret");
  kqtest::WriteSpec(Path("a.twf"), spec);
  EXPECT_EQ(Scan().status, 0);
  EXPECT_EQ(Catalogued(), "a.twf");
}

TEST_F(ScanDirectoryTest, AFileOfAnyPartIndexIsTakenForAHead) {
  Write("a.twf", {.id = 1, .part = 4});
  EXPECT_EQ(Scan().status, 0);
  EXPECT_EQ(Find("a.twf")->partIndex, 4u);
  EXPECT_FALSE(Find("a.twf")->isIncomplete);
}

TEST_F(ScanDirectoryTest, ADirectoryIsReadOnce) {
  Write("a.twf", {.id = 1});
  EXPECT_EQ(Scan().status, 0);
  Write("b.twf", {.id = 2});
  std::filesystem::create_directory_symlink(folder_, Path("self"));
  for (const std::string& path : {folder_, folder_ + "/", folder_ + "/.", Path("self")}) {
    EXPECT_EQ(Scan(path).status, 0);
  }
  EXPECT_EQ(Catalogued(), "a.twf");
  EXPECT_EQ(enumeration_.directories.size(), 1u);
}

TEST_F(ScanDirectoryTest, AMissingPathIsTheOperatingSystemsFailure) {
  const KQStatus status = Scan(Path("none"));
  EXPECT_EQ(status.status, -2);
  EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(ENOENT));
  EXPECT_EQ(status.detail2, 2u);
  EXPECT_STREQ(status.file, "kqos_linux");
  EXPECT_TRUE(enumeration_.directories.empty());
}

TEST_F(ScanDirectoryTest, AFileIsNoDirectory) {
  Write("a.twf", {});
  const KQStatus status = Scan(Path("a.twf"));
  EXPECT_EQ(status.status, -87);
  EXPECT_EQ(status.detail1, 0u);
  EXPECT_STREQ(status.file, kqtest::kModuleName);
  EXPECT_TRUE(enumeration_.directories.empty());
}

TEST_F(ScanDirectoryTest, ADanglingLinkEndsTheScanAndKeepsTheFilesBeforeIt) {
  for (std::uint32_t i = 0; i < 20; ++i) {
    Write("f" + std::to_string(i) + ".twf", {.id = i + 1});
  }
  std::filesystem::create_symlink("nowhere", Path("dangling"));
  std::size_t before = 0;
  DIR* directory = opendir(folder_.c_str());
  for (const dirent* entry = readdir(directory); std::string(entry->d_name) != "dangling";
       entry = readdir(directory)) {
    if (entry->d_name[0] == 'f') ++before;
  }
  closedir(directory);

  const KQStatus status = Scan();
  EXPECT_EQ(status.status, -2);
  EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(ENOENT));
  EXPECT_EQ(status.detail2, 2u);
  EXPECT_STREQ(status.file, "udirwalk_linux");
  EXPECT_EQ(enumeration_.filesByName.size(), before);

  std::filesystem::remove(Path("dangling"));
  EXPECT_EQ(Scan().status, 0);
  EXPECT_EQ(enumeration_.filesByName.size(), before);
}

TEST_F(ScanDirectoryTest, ADirectoryThatCannotBeOpenedStaysAddedAndEmpty) {
  Write("a.twf", {});
  {
    FailingDirectoryCall failing(DirectoryCall::kOpendir, EACCES);
    const KQStatus status = Scan();
    EXPECT_EQ(status.status, -5);
    EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(EACCES));
    EXPECT_STREQ(status.file, "udirwalk_linux");
  }
  EXPECT_EQ(Scan().status, 0);
  EXPECT_EQ(Catalogued(), "");
}

TEST_F(ScanDirectoryTest, ADirectoryThatCannotBeReadOnKeepsTheFilesBefore) {
  Write("a.twf", {});
  FailingDirectoryCall failing(DirectoryCall::kReaddir, EIO, 3);
  EXPECT_EQ(Scan().status, -23);
  EXPECT_EQ(Catalogued(), "a.twf");
}

TEST_F(ScanDirectoryTest, TheSecondStatOfTheDirectoryCanFail) {
  // The first is OSGetFullPath's own.
  FailingDirectoryCall failing(DirectoryCall::kStat, EACCES, 1);
  const KQStatus status = Scan();
  EXPECT_EQ(status.status, -87);
  EXPECT_EQ(status.detail1, 0u);
}

TEST_F(ScanDirectoryTest, TheRootDirectoryIsKnownUnderTwoSlashes) {
  Scan("/");
  EXPECT_EQ(enumeration_.directories.begin()->first, "//");
}

TEST_F(ScanDirectoryTest, AFileInTheRootDirectoryIsListedButNotFoundByItsPath) {
  auto made = std::make_unique<EnumeratedDirectory>("//");
  auto file = std::make_unique<EnumeratedFile>();
  file->name = "a.twf";
  file->imageId = MakeId(1);
  file->directory = made.get();
  enumeration_.directories.emplace("//", std::move(made));
  enumeration_.Admit(std::move(file));

  const kqtest::ResolvedPath resolved("/a.twf");
  const kqtest::FileOfKind kind("/a.twf", S_IFREG);
  EnumeratedFile* found = nullptr;
  EXPECT_EQ(LocateFile(enumeration_, "/a.twf", &found).status, -2);
  FileList fostered;
  ASSERT_EQ(AllFostered(enumeration_, &fostered).status, 0);
  EXPECT_EQ(fostered.at(0)->directory->path, "//");
}

TEST_F(ScanDirectoryTest, TheHandleSeesWhatTheScanAdmits) {
  Write("a.twf", {.id = 1});
  Write("b.twi", {.id = 2, .parent = 1});
  const KQStatus status = AddDirectory(folder_);
  EXPECT_EQ(status.status, 0);
  EXPECT_EQ(Chain("b.twi"), Names("a.twf|b.twi"));
}

TEST_F(ScanDirectoryTest, AnAdmittedFileHasItsHeadersFields) {
  ImageSpec spec = kqtest::SpecOf({.id = 7, .parent = 6, .set = 5, .snapshot = 8});
  spec.header.generation = 3;
  spec.header.nextGeneration = 9;
  spec.header.creationTime = 1000000000000;
  spec.header.timeZoneBias = -60;
  spec.header.daylightBias = -60;
  spec.index.lastPart = 0x80000000;
  kqtest::WriteSpec(Path("a.twi"), spec);
  ASSERT_EQ(Admit("a.twi").status, 0);
  const EnumeratedFile& file = *Find("a.twi");
  EXPECT_EQ(file.name, "a.twi");
  EXPECT_EQ(file.imageId, MakeId(7));
  EXPECT_EQ(file.parentImageId, MakeId(6));
  EXPECT_EQ(file.imageSetId, MakeId(5));
  EXPECT_EQ(file.partIndex, 0u);
  EXPECT_EQ(file.lastPart, 0x80000000u);
  EXPECT_EQ(file.generation, 3u);
  EXPECT_EQ(file.nextGeneration, 9u);
  EXPECT_EQ(file.creationTimeUtc, 1000000000000u - 120u * 600000000ull);
  EXPECT_TRUE(file.hasExtendedRecord);
  EXPECT_EQ(file.snapshotSetId, MakeId(8));
  EXPECT_EQ(file.directory, &directory_);
  EXPECT_FALSE(file.isIncomplete);
}

TEST_F(ScanDirectoryTest, BiasesWestOfUtcMoveTheTimeForward) {
  ImageSpec spec = kqtest::SpecOf({});
  spec.header.creationTime = 5;
  spec.header.timeZoneBias = 0x7FFFFFFF;
  spec.header.daylightBias = 1;
  kqtest::WriteSpec(Path("a.twf"), spec);
  ASSERT_EQ(Admit("a.twf").status, 0);
  EXPECT_EQ(Find("a.twf")->creationTimeUtc, 5u + 0x80000000u * 600000000ull);
}

TEST_F(ScanDirectoryTest, AdmissionTellsWhyAFileIsRefused) {
  ImageSpec spec = kqtest::SpecOf({});
  spec.header.sourceSize = 0;
  kqtest::WriteSpec(Path("a.twf"), spec);
  const KQStatus unfit = Admit("a.twf");
  EXPECT_EQ(unfit.status, -13);
  EXPECT_STREQ(unfit.file, kqtest::kModuleName);
  EXPECT_EQ(Admit("none.twf").status, -2);
  kqtest::WriteFile(Path("b.twf"), std::vector<std::uint8_t>(5000, 'x'));
  EXPECT_EQ(Admit("b.twf").status, -1392);
  std::filesystem::create_directory(Path("c.twf"));
  EXPECT_NE(Admit("c.twf").status, 0);
  EXPECT_EQ(Catalogued(), "");
}

}  // namespace
}  // namespace kq
