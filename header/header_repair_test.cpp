// Every repair is compared byte by byte, over the whole file, with one that the builder of the
// tests composes anew.
#include "header/header_repair_test.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

namespace kqtest {
namespace {

TEST_F(HeaderRepairTest, NullPathOrIssuesIsInvalid) {
  Write(DefectiveImage());
  for (const std::uint8_t checkOnly : {std::uint8_t{0}, std::uint8_t{1}}) {
    std::uint64_t issues = 3;
    const KQStatus status =
        KQImageFileFixHeader(nullptr, nullptr, &issues, checkOnly, nullptr, nullptr);
    EXPECT_EQ(status.status, -87);
    EXPECT_STREQ(status.file, "kqimageapi");
    EXPECT_EQ(issues, 3u);
    EXPECT_EQ(
        KQImageFileFixHeader(path_.c_str(), nullptr, nullptr, checkOnly, nullptr, nullptr).status,
        -87);
  }
}

TEST_F(HeaderRepairTest, CheckClearsTheMaskBeforeTheFileIsOpened) {
  std::uint64_t issues = 3;
  const KQStatus status = Check(&issues);
  EXPECT_EQ(status.status, -2);
  EXPECT_EQ(status.detail1, 2u);
  EXPECT_STREQ(status.file, "kqos_linux");
  EXPECT_EQ(issues, 0u);
  EXPECT_EQ(Repair(3).status, -2);
}

TEST_F(HeaderRepairTest, CheckNeedsNoRightToWrite) {
  Write(DefectiveImage());
  ASSERT_EQ(chmod(path_.c_str(), 0444), 0);
  ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
  const bool isRoot = geteuid() == 0;
  if (isRoot) {
    ASSERT_EQ(seteuid(65534), 0);
  }
  std::uint64_t issues = 0;
  const KQStatus checked = Check(&issues);
  const KQStatus repaired = Repair(1);
  if (isRoot) {
    ASSERT_EQ(seteuid(0), 0);
  }
  EXPECT_EQ(checked.status, 0);
  EXPECT_EQ(issues, 3u);
  EXPECT_EQ(repaired.status, -5);
}

TEST_F(HeaderRepairTest, AnyValueButZeroMeansCheck) {
  Write(DefectiveImage());
  for (const std::uint8_t checkOnly : {std::uint8_t{2}, std::uint8_t{0x80}, std::uint8_t{0xFF}}) {
    std::uint64_t issues = 0;
    EXPECT_EQ(
        KQImageFileFixHeader(path_.c_str(), nullptr, &issues, checkOnly, nullptr, nullptr).status,
        0);
    EXPECT_EQ(issues, 3u);
  }
  EXPECT_EQ(ReadFile(path_), BuildImage(DefectiveImage()));
}

TEST_F(HeaderRepairTest, GenerationIssueIsABaseOfThatToolWithGenerationExactly1) {
  EXPECT_EQ(Found(DefectiveImage(1)), kGenerationIssue);
  for (const std::uint32_t generation : {0u, 2u, 3u, 0x100u, 0xFFFFFFFFu}) {
    ImageSpec spec = DefectiveImage(1);
    spec.header.generation = generation;
    EXPECT_EQ(Found(spec), 0u) << generation;
  }
  ImageSpec spec = DefectiveImage(1);
  spec.header.parentImageId[15] = 1;
  EXPECT_EQ(Found(spec), 0u);
  spec = DefectiveImage(1);
  spec.header.record.reset();
  EXPECT_EQ(Found(spec), 0u);
}

TEST_F(HeaderRepairTest, OnlyThreeBitsOfTheRecordNameTheTool) {
  for (const std::uint32_t flags : {0x30u, 0x3Fu, 0xB0u, 0x130u, 0xFFFFFFBFu}) {
    ImageSpec spec = DefectiveImage(1);
    spec.header.record->recordFlags = flags;
    EXPECT_EQ(Found(spec), kGenerationIssue) << flags;
  }
  for (const std::uint32_t flags : {0u, 0x10u, 0x20u, 0x28u, 0x40u, 0x70u, 0xFFFFFFFFu}) {
    ImageSpec spec = DefectiveImage(1);
    spec.header.record->recordFlags = flags;
    EXPECT_EQ(Found(spec), 0u) << flags;
  }
}

TEST_F(HeaderRepairTest, GptIssueIsAPartitionStyleOf2) {
  ImageSpec spec = DefectiveImage(2);
  spec.header.generation = 0;
  EXPECT_EQ(Found(spec), kGptIssue);
  for (const std::uint32_t style : {0u, 1u, 3u, 0x102u, 0x02000000u}) {
    Set32(&spec.header.laterSectors, 4, style);
    EXPECT_EQ(Found(spec), 0u) << style;
  }
  // Whether the fields mean anything is not asked.
  Set32(&spec.header.laterSectors, 4, 2);
  for (const std::uint32_t present : {0u, 1u}) {
    Set32(&spec.header.laterSectors, 0, present);
    EXPECT_EQ(Found(spec), kGptIssue);
  }
}

TEST_F(HeaderRepairTest, CheckFindsBothAndTellsEach) {
  const ImageSpec spec = DefectiveImage();
  EXPECT_EQ(Found(spec), 3u);
  Listener listener;
  std::uint64_t issues = 0;
  EXPECT_EQ(Check(&issues, nullptr, &listener).status, 0);
  EXPECT_EQ(issues, 3u);
  EXPECT_EQ(listener.reports, (std::vector{kFoundGeneration, kFoundGpt}));
  EXPECT_EQ(ReadFile(path_), BuildImage(spec));
}

TEST_F(HeaderRepairTest, CheckTellsWhatIsNotThereAsWell) {
  ImageSpec spec = DefectiveImage();
  spec.header.generation = 0;
  Set32(&spec.header.laterSectors, 4, 1);
  Write(spec);
  Listener listener;
  std::uint64_t issues = 0xEE;
  EXPECT_EQ(Check(&issues, nullptr, &listener).status, 0);
  EXPECT_EQ(issues, 0u);
  EXPECT_EQ(listener.reports, (std::vector{kNoGeneration, kNoGpt}));
}

TEST_F(HeaderRepairTest, CallbackThatReturnsFalseCancels) {
  const ImageSpec spec = DefectiveImage();
  for (const std::size_t stopAfter : {1u, 2u}) {
    Write(spec);
    Listener listener;
    listener.stopAfter = stopAfter;
    std::uint64_t issues = 0;
    const KQStatus status = Check(&issues, nullptr, &listener);
    EXPECT_EQ(status.status, -1223);
    EXPECT_STREQ(status.file, "kqimageapi");
    EXPECT_EQ(issues, stopAfter == 1 ? 1u : 3u);
    EXPECT_EQ(listener.reports.size(), stopAfter);

    Listener repairListener;
    repairListener.stopAfter = stopAfter;
    EXPECT_EQ(Repair(3, nullptr, &repairListener).status, -1223);
    EXPECT_EQ(repairListener.reports.size(), stopAfter);
    EXPECT_EQ(ReadFile(path_), BuildImage(spec));
  }
}

TEST_F(HeaderRepairTest, RepairsWhatIsAskedForAndNothingElse) {
  for (const std::uint32_t sectorSize : {512u, 1024u, 2048u, 4096u}) {
    for (const std::uint32_t headerSectors : {2u, 3u, 9u}) {
      for (std::uint32_t type = 0; type <= 4; ++type) {
        for (std::uint64_t issues = 1; issues <= 3; ++issues) {
          const ImageSpec spec = DefectiveImage(headerSectors, sectorSize, type);
          Write(spec);
          ASSERT_NE(BuildImage(spec), RepairedFile(spec, issues));
          EXPECT_EQ(Repair(issues, type == 0 ? nullptr : "secret").status, 0);
          EXPECT_EQ(ReadFile(path_), RepairedFile(spec, issues))
              << sectorSize << " " << headerSectors << " " << type << " " << issues;
        }
      }
    }
  }
}

TEST_F(HeaderRepairTest, RepairWithACallbackTellsWhatWasRepaired) {
  const ImageSpec spec = DefectiveImage(6, 512, 2);
  Write(spec);
  Listener listener;
  EXPECT_EQ(Repair(3, "secret", &listener).status, 0);
  EXPECT_EQ(listener.reports, (std::vector{kFoundGeneration, kFoundGpt}));
  EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 3));
  // The second time there is nothing left.
  Listener again;
  EXPECT_EQ(Repair(3, "secret", &again).status, 0);
  EXPECT_EQ(again.reports, (std::vector{kNoGeneration, kNoGpt}));
  EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 3));
  EXPECT_EQ(Repair(1, "secret").status, -87);
}

TEST_F(HeaderRepairTest, IssuesThatWereNotAskedForAreNotTold) {
  Write(DefectiveImage());
  Listener listener;
  EXPECT_EQ(Repair(2, nullptr, &listener).status, 0);
  EXPECT_EQ(listener.reports, (std::vector{kFoundGpt}));
}

TEST_F(HeaderRepairTest, GenerationRepairLeavesTheExtraChecksumAlone) {
  // With one header sector nobody checks ExtraCrc, so a wrong one shows that it stays.
  ImageSpec spec = DefectiveImage(1);
  spec.extraCrc = 0x12345678;
  Write(spec);
  EXPECT_EQ(Repair(1).status, 0);
  EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 1));
}

TEST_F(HeaderRepairTest, GenerationRepairNeedsNoPassword) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    const ImageSpec spec = DefectiveImage(6, 512, type);
    for (const char* const password : {"", "Secret", static_cast<const char*>(nullptr)}) {
      if (type == 1 && password != nullptr && *password != '\0') continue;
      Write(spec);
      EXPECT_EQ(Repair(1, password).status, 0);
      EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 1)) << type;
    }
  }
}

TEST_F(HeaderRepairTest, GenerationRepairWithThePasswordLeavesTheCiphertext) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    const ImageSpec spec = DefectiveImage(6, 512, type);
    Write(spec);
    EXPECT_EQ(Repair(1, "secret").status, 0);
    EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 1)) << type;
  }
}

TEST_F(HeaderRepairTest, GptRepairOfAnEncipheredImageChangesItsExtraChecksumAndKeepsTheKey) {
  const ImageSpec spec = DefectiveImage(6, 512, 2);
  ImageLayout layout;
  const Bytes before = BuildImage(spec, &layout);
  Write(spec);
  ASSERT_EQ(Repair(2, "secret").status, 0);
  const Bytes after = ReadFile(path_);
  EXPECT_NE(Get32(after, layout.recordOffset + 8), Get32(before, layout.recordOffset + 8));
  EXPECT_TRUE(std::equal(before.begin() + 114, before.begin() + 162, after.begin() + 114));
  EXPECT_EQ(after, RepairedFile(spec, 2));
}

TEST_F(HeaderRepairTest, PartitionNumberIsResetOnlyWhereItMeansSomething) {
  for (const std::uint32_t present : {0u, 1u, 0xFFFFFFFFu}) {
    ImageSpec spec = DefectiveImage();
    Set32(&spec.header.laterSectors, 0, present);
    Write(spec);
    EXPECT_EQ(Repair(2).status, 0);
    const Bytes after = ReadFile(path_);
    EXPECT_EQ(after, RepairedFile(spec, 2));
    EXPECT_EQ(Get32(after, 512 + 24), present != 0 ? 0xFFFFFFFFu : 3u);
    EXPECT_EQ(Get32(after, 512 + 4), 0u);
    EXPECT_EQ(Get32(after, 512), present);
  }
}

TEST_F(HeaderRepairTest, WithoutARecordTheGptIsResetAndNoChecksumMade) {
  for (std::uint32_t type = 0; type <= 4; ++type) {
    ImageSpec spec = DefectiveImage(6, 512, type);
    spec.header.record.reset();
    Write(spec);
    EXPECT_EQ(Repair(2, "secret").status, 0);
    EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 2)) << type;
  }
  ImageSpec small = DefectiveImage(3, 256);  // no room for a record
  small.header.record.reset();
  Write(small);
  EXPECT_EQ(Repair(2).status, 0);
  EXPECT_EQ(ReadFile(path_), RepairedFile(small, 2));
}

TEST_F(HeaderRepairTest, RecordThatEndsWithItsSectorIsRepaired) {
  ImageSpec spec = DefectiveImage();
  spec.header.keyBlob = {0x5A};
  spec.header.comment = std::u16string(119, u'c');
  ImageLayout layout;
  BuildImage(spec, &layout);
  ASSERT_EQ(layout.recordOffset + 157, 512u);
  Write(spec);
  EXPECT_EQ(Repair(3).status, 0);
  EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 3));
}

TEST_F(HeaderRepairTest, RepairOfAnIssueThatIsNotThereIsInvalidWithoutACallback) {
  ImageSpec spec = DefectiveImage();
  spec.header.generation = 0;
  ExpectRefused(spec, true, 1, -87);
  ExpectRefused(spec, true, 3, -87);
  // A repair in memory before it is not written either.
  spec = DefectiveImage();
  Set32(&spec.header.laterSectors, 4, 1);
  ExpectRefused(spec, true, 3, -87);
  ExpectRefused(spec, true, 2, -87);
}

TEST_F(HeaderRepairTest, RepairOfAnIssueThatIsNotThereSucceedsWithACallback) {
  ImageSpec spec = DefectiveImage();
  Set32(&spec.header.laterSectors, 4, 1);
  Write(spec);
  Listener listener;
  EXPECT_EQ(Repair(3, nullptr, &listener).status, 0);
  EXPECT_EQ(listener.reports, (std::vector{kFoundGeneration, kNoGpt}));
  EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 1));
}

TEST_F(HeaderRepairTest, OneHeaderSectorCantHaveTheGptIssue) {
  const ImageSpec spec = DefectiveImage(1);
  ExpectRefused(spec, true, 2, -87);
  ExpectRefused(spec, true, 3, -87);
  Listener listener;
  std::uint64_t issues = 0;
  EXPECT_EQ(Check(&issues, nullptr, &listener).status, 0);
  EXPECT_EQ(issues, 1u);
  EXPECT_EQ(listener.reports, (std::vector{kFoundGeneration, SkippedGpt(0, "")}));
  Listener repairListener;
  EXPECT_EQ(Repair(3, nullptr, &repairListener).status, 0);
  EXPECT_EQ(repairListener.reports, (std::vector{kFoundGeneration, SkippedGpt(0, "")}));
  EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 1));
  // Nor if it is enciphered: there is nothing to decipher.
  ExpectRefused(DefectiveImage(1, 512, 2), true, 2, -87);
  EXPECT_EQ(Found(DefectiveImage(1, 512, 2)), 1u);
}

TEST_F(HeaderRepairTest, CheckWithoutThePasswordSkipsWhatNeedsIt) {
  struct Case {
    std::uint32_t type;
    const char* password;
    std::int32_t status;
    const char* file;
  };
  for (const Case& test : {Case{1, nullptr, -86, "kqimageapi"}, Case{1, "", -86, "kqimageapi"},
                           Case{1, "Secret", -1392, "kqimageapi"}, Case{1, "\xFF", -8, "crypto"},
                           Case{2, nullptr, -86, "kqimageapi"}, Case{2, "Secret", -86, "crypto"},
                           Case{3, nullptr, -86, "kqimageapi"}, Case{3, "Secret", -86, "crypto"},
                           Case{4, "", -86, "kqimageapi"}, Case{4, "Secret", -86, "crypto"},
                           Case{4, "\xFF", -8, "crypto"}}) {
    SCOPED_TRACE(test.type);
    const ImageSpec spec = DefectiveImage(6, 512, test.type);
    EXPECT_EQ(Found(spec, test.password), 1u);
    Listener listener;
    std::uint64_t issues = 0xEE;
    EXPECT_EQ(Check(&issues, test.password, &listener).status, 0);
    EXPECT_EQ(issues, 1u);
    EXPECT_EQ(listener.reports,
              (std::vector{kFoundGeneration, SkippedGpt(test.status, test.file)}));
  }
}

TEST_F(HeaderRepairTest, CheckWithThePasswordFindsAll) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    EXPECT_EQ(Found(DefectiveImage(6, 512, type), "secret"), 3u);
    EXPECT_EQ(Found(DefectiveImage(2, 512, type), "secret"), 3u);
  }
}

TEST_F(HeaderRepairTest, RepairWithoutThePasswordEndsWithTheDeciphersFailure) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    const ImageSpec spec = DefectiveImage(6, 512, type);
    ExpectRefused(spec, true, 2, -86);
    ExpectRefused(spec, true, 3, -86);
    ExpectRefused(spec, true, 2, -8, "\xFF");
    if (type != 1) ExpectRefused(spec, true, 3, -86, "Secret");
  }
}

TEST_F(HeaderRepairTest, RepairWithoutThePasswordTellsACallbackAndGoesOn) {
  const ImageSpec spec = DefectiveImage(6, 512, 3);
  Write(spec);
  Listener listener;
  EXPECT_EQ(Repair(3, "Secret", &listener).status, 0);
  EXPECT_EQ(listener.reports, (std::vector{kFoundGeneration, SkippedGpt(-86, "crypto")}));
  EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 1));
}

TEST_F(HeaderRepairTest, WrongPasswordOfAnUncheckedKeyEndsARepairBeforeAllElse) {
  const ImageSpec spec = DefectiveImage(6, 512, 1);
  for (const std::uint64_t issues : {0u, 1u, 2u, 3u}) {
    ExpectRefused(spec, true, issues, -1392, "Secret");
  }
  Write(spec);
  Listener listener;
  EXPECT_EQ(Repair(3, "Secret", &listener).status, -1392);
  EXPECT_TRUE(listener.reports.empty());
}

// The plain text of an image without a key check must look like one.
TEST_F(HeaderRepairTest, PlainTextOfAnUncheckedKeyIsTested) {
  struct Case {
    std::uint32_t present, trailing;
    bool good;
  };
  for (const Case& test :
       {Case{0, 0, true}, Case{0xFFFFFFFF, 4, true}, Case{0, 4, true}, Case{0xFFFFFFFF, 5, false},
        Case{0, 0xFFFFFFFF, false}, Case{1, 0, false}, Case{0xFFFFFFFE, 0, false}}) {
    for (std::uint32_t type = 1; type <= 4; ++type) {
      ImageSpec spec = DefectiveImage(6);
      Set32(&spec.header.laterSectors, 0, test.present);
      Set32(&spec.header.laterSectors, 28, test.trailing);
      EncipherImage(&spec, type, "secret");
      if (type == 1 && !test.good) {
        EXPECT_EQ(Found(spec, "secret"), 1u);
        ExpectRefused(spec, true, 1, -1392, "secret");
        ExpectRefused(spec, true, 3, -1392, "secret");
      } else {
        EXPECT_EQ(Found(spec, "secret"), 3u);
        EXPECT_EQ(Repair(3, "secret").status, 0);
        EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 3));
      }
    }
  }
  // With two header sectors there is no trailing one.
  ImageSpec spec = DefectiveImage(2);
  EncipherImage(&spec, 1, "secret");
  EXPECT_EQ(Found(spec, "secret"), 3u);
}

TEST_F(HeaderRepairTest, WrongChecksumsAreRefusedInBothModes) {
  for (std::uint32_t type = 0; type <= 2; ++type) {
    ImageSpec spec = DefectiveImage(6, 512, type);
    spec.headerCrc = 0x1234;
    ExpectRefused(spec, false, 0, -1392, "secret");
    ExpectRefused(spec, true, 1, -1392, "secret");
    ExpectRefused(spec, true, 0, -1392, "secret");
    spec = DefectiveImage(6, 512, type);
    spec.extraCrc = 0x1234;
    ExpectRefused(spec, false, 0, -1392);
    ExpectRefused(spec, true, 1, -1392);
  }
  ImageSpec one = DefectiveImage(1);
  one.headerCrc = 0;
  ExpectRefused(one, false, 0, -1392);
}

TEST_F(HeaderRepairTest, RecordThatIsAnnouncedAndNotThereIsRefused) {
  ImageSpec spec = DefectiveImage();
  spec.header.record.reset();
  spec.flagsField = 2;
  spec.header.comment = std::u16string(150, u'c');  // the NUL leaves no room
  ExpectRefused(spec, false, 0, -1392);
  ExpectRefused(spec, true, 2, -1392);
  // Without the flag nobody looks for it.
  spec.flagsField = 0;
  EXPECT_EQ(Found(spec), 2u);
}

TEST_F(HeaderRepairTest, EmptyMaskChecksTheFileAndWritesNothing) {
  const ImageSpec spec = DefectiveImage(6, 512, 2);
  ExpectRefused(spec, true, 0, 0);
  Listener listener;
  EXPECT_EQ(Repair(0, nullptr, &listener).status, 0);
  EXPECT_TRUE(listener.reports.empty());
}

TEST_F(HeaderRepairTest, UnknownIdsAreIgnored) {
  const ImageSpec spec = DefectiveImage();
  ExpectRefused(spec, true, ~std::uint64_t{3}, 0);
  Write(spec);
  EXPECT_EQ(Repair(~std::uint64_t{2}).status, 0);
  EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 1));
}

TEST_F(HeaderRepairTest, UnfinishedAndForeignFilesAreRefused) {
  ImageSpec spec = DefectiveImage();
  spec.header.magic = "OPEN";
  ExpectRefused(spec, false, 0, -1392);
  ExpectRefused(spec, true, 3, -1392);
  WriteFile(path_, Bytes(100));
  std::uint64_t issues = 3;
  EXPECT_EQ(Check(&issues).status, -31);
  EXPECT_EQ(Repair(3).status, -31);
  WriteFile(path_, PatternBytes(3, 5000));
  EXPECT_EQ(Repair(3).status, -1392);
  EXPECT_EQ(ReadFile(path_), PatternBytes(3, 5000));
  EXPECT_EQ(KQImageFileFixHeader(dir_.Path().c_str(), nullptr, &issues, 0, nullptr, nullptr).status,
            -31);  // a folder can't be opened for writing
}

TEST_F(HeaderRepairTest, KeyBlobOfAWrongLengthIsKeptAsTheDeciphersFailure) {
  for (const int length : {0, 15, 47, 49, 65, 300, 5000, 0xFFFF}) {
    ImageSpec spec = DefectiveImage();
    spec.header.record.reset();
    spec.header.encryptionType = 2;
    spec.keyBlobLengthField = static_cast<std::uint16_t>(length);
    // The file must hold the blob that it claims.
    spec.chunks = {RawChunk({{0x10000, 200}}, PatternBytes(8, 200ul * 512))};
    Write(spec);
    Listener listener;
    std::uint64_t issues = 0;
    EXPECT_EQ(Check(&issues, "secret", &listener).status, 0);
    EXPECT_EQ(listener.reports, (std::vector{kNoGeneration, SkippedGpt(-87, "crypto")})) << length;
    ExpectRefused(spec, true, 2, -87, "secret");
    ExpectRefused(spec, true, 2, -86);
  }
}

TEST_F(HeaderRepairTest, NothingBehindTheHeaderIsTouchedAndTheFileKeepsItsIdentity) {
  const ImageSpec spec = DefectiveImage(9, 4096, 4);
  Write(spec);
  const std::string other = dir_.Path("link");
  std::filesystem::create_hard_link(path_, other);
  ASSERT_EQ(Repair(3, "secret").status, 0);
  EXPECT_EQ(ReadFile(other), RepairedFile(spec, 3));
}

TEST_F(HeaderRepairTest, HeaderThatTheFileDoesNotHoldCostsNothing) {
  // Sector 1 is there, and claims to be the first of millions; the rest reads as zero.
  for (const std::uint32_t type : {0u, 2u}) {
    ImageSpec spec = DefectiveImage(2);
    spec.header.record.reset();
    if (type != 0) EncipherImage(&spec, type, "secret");
    spec.headerSectorsField = 0x00700000;
    Write(spec);
    Listener listener;
    std::uint64_t issues = 0;
    EXPECT_EQ(Check(&issues, "secret", &listener).status, 0);
    EXPECT_EQ(listener.reports,
              (std::vector{kNoGeneration, type == 0 ? kFoundGpt : SkippedGpt(-8, "kqimageapi")}));
  }
}

// Any bytes are answered with a status, and only a success may change the file.
TEST_F(HeaderRepairTest, DamagedHeadersGiveAStatus) {
  for (const std::uint32_t type : {0u, 1u, 4u}) {
    ImageSpec spec = DefectiveImage(3, 512, type);
    spec.header.record.reset();  // so that no checksum stands in the way
    const Bytes good = BuildImage(spec);
    for (std::size_t place = 0; place < 114; ++place) {
      for (const int value : {0x00, 0x01, 0x7F, 0xFF}) {
        Bytes damaged = good;
        damaged[place] = static_cast<std::uint8_t>(value);
        // Sectors and counts that make the header large belong to the test above.
        if (std::uint64_t{Get32(damaged, 4)} * Get32(damaged, 8) > 0x100000) continue;
        WriteFile(path_, damaged);
        std::uint64_t issues = 0;
        Check(&issues, "secret");
        EXPECT_EQ(ReadFile(path_), damaged);
        if (Repair(3, "secret").status != 0) {
          EXPECT_EQ(ReadFile(path_), damaged);
        }
      }
    }
  }
}

}  // namespace
}  // namespace kqtest
