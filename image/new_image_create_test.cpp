#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>

#include "image/new_image_file.h"
#include "image/new_image_test_support.h"

namespace kqtest {
namespace {

constexpr char kPassword[] = "p\xC3\xA4ss word";

HeaderFields Fields() {
  HeaderFields fields;
  fields.flags = 0xAB000005;
  fields.generation = 3;
  fields.nextGeneration = 4;
  fields.partMarker = 9;
  fields.partIndex = 2;
  fields.parentImageId = MakeId(0xDAD);
  fields.comment = u"old comment";
  fields.laterSectors = PatternBytes(5, 3 * 512);
  return fields;
}

RecordFields Record() {
  RecordFields record;
  record.carriedValue1 = 0x1111222233334444;
  record.carriedValue2 = 0x5555666677778888;
  return record;
}

class NewImageCreate : public testing::Test {
 protected:
  KQStatus CreateStatus(const Bytes& headerTemplate, const Creation& creation = {}) {
    Writer writer(path_, headerTemplate, creation);
    if (writer.status().status == 0) {
      EXPECT_EQ(writer.Close().status, 0);
    } else {
      EXPECT_EQ(writer.handle(), 0u);
    }
    return writer.status();
  }

  // The header of an unfinished file that Create has left.
  ParsedImage Unfinished(const Bytes& headerTemplate, const Creation& creation = {}) {
    const Writer writer(path_, headerTemplate, creation);
    EXPECT_EQ(writer.status().status, 0);
    ParseOptions options;
    options.magic = "OPEN";
    ParsedImage image = ParseImage(writer.File(), options);
    kq::DestroyNewImageFile(reinterpret_cast<kq::NewImageFile*>(writer.handle()));
    return image;
  }

  // The finished image with one sector of data.
  ParsedImage Finished(const Bytes& headerTemplate, const Creation& creation = {},
                       const char* password = nullptr) {
    Writer writer(path_, headerTemplate, creation);
    EXPECT_EQ(writer.status().status, 0);
    EXPECT_EQ(writer.Write(0, Noise(1, 512)).status, 0);
    EXPECT_EQ(writer.Close().status, 0);
    return ParseFile(writer.File(), password);
  }

  bool FileExists() const { return std::filesystem::exists(path_); }

  TempDir folder_;
  std::string path_ = folder_.Path("new.twi");
};

TEST_F(NewImageCreate, RefusesANullTemplate) {
  std::uint64_t handle = 7;
  const KQStatus status = KQNewImageFileCreate2(nullptr, 512, nullptr, path_.c_str(), nullptr,
                                                nullptr, nullptr, nullptr, &handle);
  EXPECT_EQ(status.status, -87);
  EXPECT_EQ(status.detail1, 0u);
  EXPECT_EQ(status.detail2, 0u);
  EXPECT_STREQ(status.file, "kqimageapi");
  EXPECT_EQ(handle, 0u);
}

TEST_F(NewImageCreate, RefusesANullHandleSlot) {
  const Bytes bytes = Template(Fields());
  EXPECT_EQ(KQNewImageFileCreate2(bytes.data(), static_cast<std::uint32_t>(bytes.size()), nullptr,
                                  path_.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr)
                .status,
            -87);
  EXPECT_FALSE(FileExists());
}

TEST_F(NewImageCreate, RefusesASectorSizeOfZero) {
  Bytes bytes = Template(Fields());
  Set32(&bytes, 4, 0);
  EXPECT_EQ(CreateStatus(bytes).status, -87);
  EXPECT_FALSE(FileExists());
}

TEST_F(NewImageCreate, RefusesEveryMagicButThatOfAFinishedFile) {
  for (const char* magic : {"OPEN", "TWFJ", "twfi", "\0\0\0\0"}) {
    Bytes bytes = Template(Fields());
    std::memcpy(bytes.data(), magic, 4);
    const KQStatus status = CreateStatus(bytes);
    EXPECT_EQ(status.status, -87) << magic;
    EXPECT_STREQ(status.file, "utimagefile");
  }
}

// The bytes stand in allocations of exactly their size, so that a sanitizer sees an overread.
TEST_F(NewImageCreate, NeverReadsBehindTheTemplate) {
  const Bytes whole = Template(Fields());
  for (std::uint32_t size = 0; size < 512; ++size) {
    const auto cut = std::make_unique<std::uint8_t[]>(size);
    std::memcpy(cut.get(), whole.data(), size);
    std::uint64_t handle = 7;
    const KQStatus status = KQNewImageFileCreate2(cut.get(), size, nullptr, path_.c_str(), nullptr,
                                                  nullptr, nullptr, nullptr, &handle);
    ASSERT_EQ(status.status, -87) << size;
    ASSERT_EQ(handle, 0u);
  }
  EXPECT_FALSE(FileExists());
}

TEST_F(NewImageCreate, CutsATemplateThatIsNoWholeNumberOfSectors) {
  HeaderFields fields = Fields();
  Bytes bytes = Template(fields);
  bytes.resize(bytes.size() - 1);
  const ParsedImage image = Unfinished(bytes);
  EXPECT_EQ(image.headerSectors, 3u);
  fields.laterSectors.resize(2 * 512);
  EXPECT_EQ(image.header.laterSectors, fields.laterSectors);
}

TEST_F(NewImageCreate, RefusesAHeaderOfMoreThanOneMegabyte) {
  HeaderFields fields = Fields();
  fields.laterSectors.resize(kLargestHeader);
  EXPECT_EQ(CreateStatus(Template(fields)).status, -87);
}

TEST_F(NewImageCreate, TheHeaderSizeIsNotCutTo32Bits) {
  kq::NewImageFileOwner image;
  Bytes sector = Template(Fields());
  EXPECT_EQ(kq::PrepareHeader(sector.data(), nullptr, 0x800000 - 1, &image).status, -87);
  EXPECT_EQ(kq::PrepareHeader(sector.data(), nullptr, 0xFFFFFFFF, &image).status, -87);
  Set32(&sector, 4, 0x80000000);
  EXPECT_EQ(kq::PrepareHeader(sector.data(), nullptr, 1, &image).status, -87);
  EXPECT_EQ(image, nullptr);
}

TEST_F(NewImageCreate, AHeaderOfExactlyOneMegabyteIsCreatedAndHoldsNoChunk) {
  for (const std::uint32_t sectorSize : {512u, 4096u}) {
    HeaderFields fields = Fields();
    fields.sectorSize = sectorSize;
    fields.laterSectors.resize(kLargestHeader - sectorSize);
    Writer writer(path_, Template(fields));
    ASSERT_EQ(writer.status().status, 0);
    EXPECT_EQ(writer.File().size(), kLargestHeader);
    EXPECT_EQ(writer.Write(0, Noise(1, 8192)).status, -13);
    EXPECT_EQ(writer.Write(0, {}).status, 0);
    EXPECT_EQ(writer.Close("nothing in it").status, 0);
    EXPECT_FALSE(FileExists());
  }
}

TEST_F(NewImageCreate, AHeaderThatLeavesOneSectorHoldsNoChunkEither) {
  HeaderFields fields = Fields();
  fields.laterSectors.resize(kLargestHeader - 2 * 512);
  Writer writer(path_, Template(fields));
  ASSERT_EQ(writer.status().status, 0);
  EXPECT_EQ(writer.Write(0, Noise(1, 512)).status, -13);
  EXPECT_EQ(writer.Close().status, 0);
  EXPECT_FALSE(FileExists());
}

// A chunk of less than a sector of data would take two sectors in the file and hold none of a run.
TEST_F(NewImageCreate, AHeaderThatLeavesLessThanOneDataSectorHoldsNoChunk) {
  HeaderFields fields = Fields();
  fields.sectorSize = 524287;
  fields.laterSectors.clear();
  Writer writer(path_, Template(fields));
  ASSERT_EQ(writer.status().status, 0);
  EXPECT_EQ(writer.Write(0, Noise(1, 10)).status, -13);
  EXPECT_EQ(writer.Close().status, 0);
  EXPECT_FALSE(FileExists());
}

TEST_F(NewImageCreate, RefusesSectorsThatCannotHoldAChunksHeadWithOneRun) {
  Bytes bytes = Template(Fields());
  for (std::uint32_t sectorSize = 1; sectorSize < 20; ++sectorSize) {
    Set32(&bytes, 4, sectorSize);
    EXPECT_EQ(CreateStatus(bytes).status, -87) << sectorSize;
  }
  Set32(&bytes, 4, 20);
  EXPECT_EQ(CreateStatus(bytes).status, 0);
}

TEST_F(NewImageCreate, RefusesAHeaderShorterThanItsFixedPart) {
  Bytes bytes = Template(Fields());
  Set32(&bytes, 4, 57);
  bytes.resize(57 + 56);
  EXPECT_EQ(CreateStatus(bytes).status, -87);
  bytes.resize(114);
  EXPECT_EQ(CreateStatus(bytes).status, 0);
}

TEST_F(NewImageCreate, WritesTheStampedHeaderWithTheMagicOpen) {
  const HeaderFields fields = Fields();
  const ParsedImage image = Unfinished(Template(fields));
  ASSERT_EQ(image.error, "");
  EXPECT_EQ(image.header.magic, "OPEN");
  EXPECT_EQ(image.headerSectors, 4u);
  EXPECT_EQ(image.header.sectorSize, 512u);
  EXPECT_EQ(image.header.sourceSize, fields.sourceSize);
  EXPECT_EQ(image.header.flags, 0xAB000005u);
  EXPECT_EQ(image.header.imageSetId, fields.imageSetId);
  EXPECT_EQ(image.header.partMarker, 0u);
  EXPECT_EQ(image.header.partIndex, 0u);
  EXPECT_EQ(image.header.comment, u"");
  EXPECT_EQ(image.header.laterSectors, fields.laterSectors);
  EXPECT_NE(image.header.creationTime, fields.creationTime);
}

// Until the close the header has the template's KeyBlobLength and nothing in its variable part.
TEST_F(NewImageCreate, TheUnfinishedSectorKeepsTheKeyBlobLengthOverZeros) {
  HeaderFields fields = Fields();
  fields.keyBlob = PatternBytes(8, 48);
  const ParsedImage image = Unfinished(Template(fields));
  EXPECT_EQ(image.header.keyBlob, Bytes(48));
  EXPECT_EQ(Bytes(image.firstSector.begin() + 114, image.firstSector.end()), Bytes(512 - 114));
}

TEST_F(NewImageCreate, TheHeaderSectorsFieldFollowsTheSizeGiven) {
  Bytes bytes = Template(Fields());
  Set32(&bytes, 8, 77);
  EXPECT_EQ(Unfinished(bytes).headerSectors, 4u);
}

TEST_F(NewImageCreate, DropsTheRecordFlagAndKeepsEveryOtherFlag) {
  Bytes bytes = Template(Fields());
  Set32(&bytes, 20, 0xFFFFFFFF);
  EXPECT_EQ(Get32(Unfinished(bytes).firstSector, 20), 0xFFFFFFFDu);
}

TEST_F(NewImageCreate, StoresTheSourceSizeGiven) {
  const Bytes bytes = Template(Fields());
  EXPECT_EQ(Unfinished(bytes, {.sourceSize = 0}).header.sourceSize, 0u);
  EXPECT_EQ(Unfinished(bytes, {.sourceSize = 0x123456789A}).header.sourceSize, 0x123456789Au);
}

TEST_F(NewImageCreate, TheTemplatesImageBecomesTheParent) {
  HeaderFields fields = Fields();
  const ParsedImage generated = Unfinished(Template(fields));
  EXPECT_EQ(generated.header.parentImageId, fields.imageId);
  EXPECT_EQ(generated.header.imageId[7] >> 4, 4);  // version of a UUID in the mixed order
  EXPECT_EQ(generated.header.imageId[8] >> 6, 2);

  const ParsedImage given = Unfinished(Template(fields), {.imageId = MakeId(0xABCD)});
  EXPECT_EQ(given.header.parentImageId, fields.imageId);
  EXPECT_EQ(given.header.imageId, MakeId(0xABCD));

  fields.imageId = Id{};
  EXPECT_EQ(Unfinished(Template(fields)).header.parentImageId, Id{});
}

TEST_F(NewImageCreate, RefusesAZeroIdentifierAndTheParents) {
  const HeaderFields fields = Fields();
  const KQStatus zero = CreateStatus(Template(fields), {.imageId = Id{}});
  EXPECT_EQ(zero.status, -1392);
  EXPECT_STREQ(zero.file, "utimagefile");
  EXPECT_EQ(CreateStatus(Template(fields), {.imageId = fields.imageId}).status, -1392);
  EXPECT_FALSE(FileExists());
  // The parent's parent is nothing to avoid.
  EXPECT_EQ(CreateStatus(Template(fields), {.imageId = fields.parentImageId}).status, 0);
}

TEST_F(NewImageCreate, TheGenerationCountsOn) {
  struct {
    std::uint32_t generation, next, newGeneration, newNext;
  } const cases[] = {{3, 4, 4, 5},
                     {3, 9, 9, 10},
                     {3, 3, 4, 5},
                     {3, 0, 4, 5},
                     {0, 0, 1, 2},
                     {0xFFFFFFFF, 0xFFFFFFFF, 0, 1},
                     {0xFFFFFFFE, 0xFFFFFFFF, 0xFFFFFFFF, 0}};
  for (const auto& test : cases) {
    HeaderFields fields = Fields();
    fields.generation = test.generation;
    fields.nextGeneration = test.next;
    const ParsedImage image = Unfinished(Template(fields));
    EXPECT_EQ(image.header.generation, test.newGeneration) << test.generation << " " << test.next;
    EXPECT_EQ(image.header.nextGeneration, test.newNext);
  }
}

TEST_F(NewImageCreate, TheRecordOfTheTemplateComesBackAtTheClose) {
  HeaderFields fields = Fields();
  fields.record = Record();
  const ParsedImage image = Finished(Template(fields));
  ASSERT_TRUE(image.header.record.has_value());
  EXPECT_EQ(image.header.record->carriedValue1, Record().carriedValue1);
  EXPECT_EQ(image.header.record->carriedValue2, Record().carriedValue2);
}

TEST_F(NewImageCreate, EachCarriedValueIsReplacedByItself) {
  HeaderFields fields = Fields();
  fields.record = Record();
  const ParsedImage first = Finished(Template(fields), {.carriedValue1 = 1});
  EXPECT_EQ(first.header.record->carriedValue1, 1u);
  EXPECT_EQ(first.header.record->carriedValue2, Record().carriedValue2);
  const ParsedImage second = Finished(Template(fields), {.carriedValue2 = 2});
  EXPECT_EQ(second.header.record->carriedValue1, Record().carriedValue1);
  EXPECT_EQ(second.header.record->carriedValue2, 2u);
}

TEST_F(NewImageCreate, CarriedValuesWithoutARecordAreIgnored) {
  const ParsedImage image = Finished(Template(Fields()), {.carriedValue1 = 1, .carriedValue2 = 2});
  EXPECT_FALSE(image.header.record.has_value());
}

TEST_F(NewImageCreate, ACommentThatFillsTheSectorLeavesNoRecord) {
  Bytes bytes = Template(Fields());
  Set32(&bytes, 20, 2);
  for (std::size_t i = 114; i < 512; ++i) bytes[i] = 'x';
  EXPECT_FALSE(Finished(bytes).header.record.has_value());
}

// The NUL and the record must end at or before the sector's end. An odd KeyBlobLength makes odd
// places, where the two bounds can be told apart to the byte.
TEST_F(NewImageCreate, TakesARecordUpToTheSectorsVeryEnd) {
  for (const std::size_t nul : {352u, 353u, 354u, 355u}) {
    Bytes bytes = Template(Fields());
    Set32(&bytes, 20, 2);
    Set16(&bytes, 112, nul % 2);
    for (std::size_t i = 114; i < 512; ++i) bytes[i] = 'x';
    Set16(&bytes, nul, 0);
    Bytes record(512 - (nul + 2) < 157 ? 512 - (nul + 2) : 157, 0x42);
    SetBytes(&bytes, nul + 2, record);
    const ParsedImage image = Finished(bytes);
    EXPECT_EQ(image.header.record.has_value(), nul <= 353) << nul;
    if (image.header.record) {
      EXPECT_EQ(image.header.record->carriedValue9, 0x4242424242424242u);
    }
  }
}

TEST_F(NewImageCreate, LooksForTheRecordBehindTheFirstNulOnly) {
  Bytes bytes = Template(Fields());
  Set32(&bytes, 20, 2);
  for (std::size_t i = 114; i < 512; ++i) bytes[i] = 'x';
  // A zero byte in each of two units is no NUL.
  bytes[115] = 0;
  bytes[116] = 0;
  Set16(&bytes, 120, 0);
  EXPECT_EQ(Finished(bytes).header.record->carriedValue9, 0x7878787878787878u);
}

TEST_F(NewImageCreate, UnknownCompressionTypesAreToldAsExhaustedMemory) {
  for (const std::uint32_t type : {1u, 2u, 7u, 0xFFFFFFFFu}) {
    HeaderFields fields = Fields();
    fields.compressionType = type;
    const KQStatus status = CreateStatus(Template(fields));
    EXPECT_EQ(status.status, -8) << type;
    EXPECT_STREQ(status.file, "utimagefile");
    EXPECT_FALSE(FileExists());
  }
}

TEST_F(NewImageCreate, AnEncipheredImageNeedsAPassword) {
  for (const bool further : {false, true}) {
    HeaderFields fields = Fields();
    fields.encryptionType = 2;
    if (!further) fields.laterSectors.clear();
    EXPECT_EQ(CreateStatus(Template(fields)).status, -87);
    EXPECT_FALSE(FileExists());
  }
}

TEST_F(NewImageCreate, ATemplateOfOneSectorNeedsNoKeyBlobOfItsOwn) {
  HeaderFields fields = Fields();
  fields.encryptionType = 4;
  fields.laterSectors.clear();
  const ParsedImage image = Finished(Template(fields), {.password = kPassword}, kPassword);
  EXPECT_EQ(image.header.keyBlob.size(), 64u);
}

TEST_F(NewImageCreate, FurtherSectorsAreDecipheredAndEncipheredUnderANewKey) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    ImageSpec spec;
    spec.header = Fields();
    EncipherImage(&spec, type, kPassword);
    const Bytes sealed = BuildHeader(spec);
    const ParsedImage image = Finished(sealed, {.password = kPassword}, kPassword);
    EXPECT_EQ(image.header.laterSectors, Fields().laterSectors) << type;
    EXPECT_NE(image.storedLaterSectors, Bytes(sealed.begin() + 512, sealed.end()));
    EXPECT_NE(image.header.keyBlob, spec.header.keyBlob);
    EXPECT_EQ(image.header.keyBlob.size(), spec.header.keyBlob.size());
  }
}

TEST_F(NewImageCreate, AWrongPasswordForTheTemplateIsRefused) {
  for (std::uint32_t type = 2; type <= 4; ++type) {
    ImageSpec spec;
    spec.header = Fields();
    EncipherImage(&spec, type, kPassword);
    const KQStatus status = CreateStatus(BuildHeader(spec), {.password = "another"});
    EXPECT_EQ(status.status, -86) << type;
    EXPECT_STREQ(status.file, "crypto");
    EXPECT_FALSE(FileExists());
  }
}

TEST_F(NewImageCreate, AKeyBlobOfTheWrongLengthIsRefused) {
  HeaderFields fields = Fields();
  fields.encryptionType = 2;
  Bytes bytes = Template(fields);
  for (const std::uint32_t length : {0u, 47u, 49u, 65535u}) {
    Set16(&bytes, 112, length);
    EXPECT_EQ(CreateStatus(bytes, {.password = kPassword}).status, -87) << length;
  }
}

// The same mistake is told in two ways, by the place that notices it first.
TEST_F(NewImageCreate, APasswordThatIsNotUtf8IsRefused) {
  HeaderFields fields = Fields();
  fields.encryptionType = 2;
  EXPECT_EQ(CreateStatus(Template(fields), {.password = "\xFF"}).status, -8);
  fields.laterSectors.clear();
  EXPECT_EQ(CreateStatus(Template(fields), {.password = "\xFF"}).status, -86);
  EXPECT_FALSE(FileExists());
}

TEST_F(NewImageCreate, AnEmptyPasswordIsAPassword) {
  HeaderFields fields = Fields();
  fields.encryptionType = 2;
  fields.laterSectors.clear();
  EXPECT_EQ(Finished(Template(fields), {.password = ""}, "").header.encryptionType, 2u);
}

TEST_F(NewImageCreate, AnUnknownEncryptionTypeMakesNoKeyAndPasses) {
  HeaderFields fields = Fields();
  fields.encryptionType = 5;
  EXPECT_EQ(CreateStatus(Template(fields)).status, -87);
  Writer writer(path_, Template(fields), {.password = kPassword});
  ASSERT_EQ(writer.status().status, 0);
  EXPECT_EQ(writer.Write(0, Noise(1, 512)).status, 0);
  EXPECT_EQ(writer.Close().status, 0);
  const Bytes file = writer.File();
  EXPECT_EQ(Get16(file, 112), 0u);
  EXPECT_EQ(Bytes(file.begin() + 512, file.begin() + 4 * 512), fields.laterSectors);
  EXPECT_EQ(Bytes(file.begin() + 5 * 512, file.begin() + 6 * 512), Noise(1, 512));
}

TEST_F(NewImageCreate, FurtherSectorsThatTheCipherCannotTakeAreAnEncryptionFailure) {
  HeaderFields fields = Fields();
  fields.sectorSize = 250;
  fields.encryptionType = 2;
  fields.laterSectors.resize(250);
  kq::NewImageFileOwner image;
  const Bytes bytes = Template(fields);
  ASSERT_EQ(kq::PrepareHeader(bytes.data(), nullptr, 1, &image).status, 0);
  const KQStatus status = kq::OpenNewImageFile(image.get(), path_.c_str(), kPassword);
  EXPECT_EQ(status.status, -6000);
  EXPECT_STREQ(status.file, "utimagefile");
  EXPECT_FALSE(FileExists());
}

TEST_F(NewImageCreate, DecryptTemplateSectorsClearsTheVariablePartAlsoOnFailure) {
  HeaderFields fields = Fields();
  fields.encryptionType = 2;
  Bytes header = Template(fields);
  EXPECT_EQ(kq::DecryptTemplateSectors(512, header.data(),
                                       static_cast<std::uint32_t>(header.size()), nullptr)
                .status,
            -87);
  EXPECT_EQ(Bytes(header.begin() + 114, header.begin() + 512), Bytes(512 - 114));
  EXPECT_EQ(Bytes(header.begin() + 512, header.end()), fields.laterSectors);
}

TEST_F(NewImageCreate, PrepareHeaderFillsFurtherSectorsWithZeroWithoutARest) {
  kq::NewImageFileOwner image;
  const Bytes bytes = Template(Fields());
  ASSERT_EQ(kq::PrepareHeader(bytes.data(), nullptr, 2, &image).status, 0);
  ASSERT_EQ(image->Header.size(), 3 * 512u);
  EXPECT_EQ(Bytes(image->Header.data() + 512, image->Header.data() + 3 * 512), Bytes(2 * 512));
  EXPECT_EQ(image->Chunk.ChunkBufferSize, kLargestHeader - 3 * 512);
}

TEST_F(NewImageCreate, AFileThatCannotBeCreatedGivesTheSystemsError) {
  Writer writer(folder_.Path("no such folder/new.twi"), Template(Fields()));
  EXPECT_EQ(writer.status().status, -2);
  EXPECT_EQ(writer.status().detail1, 2u);
  EXPECT_EQ(writer.status().detail2, 2u);
  EXPECT_STREQ(writer.status().file, "kqos_linux");
  EXPECT_EQ(writer.handle(), 0u);
}

TEST_F(NewImageCreate, ANullFileNameIsInvalid) {
  const Bytes bytes = Template(Fields());
  std::uint64_t handle = 7;
  const KQStatus status =
      KQNewImageFileCreate2(bytes.data(), static_cast<std::uint32_t>(bytes.size()), nullptr,
                            nullptr, nullptr, nullptr, nullptr, nullptr, &handle);
  EXPECT_EQ(status.status, -87);
  EXPECT_EQ(handle, 0u);
}

TEST_F(NewImageCreate, AFullDeviceFailsTheHeaderWrite) {
  const std::uint64_t descriptors = OpenDescriptors();
  const Writer writer("/dev/full", Template(Fields()));
  EXPECT_EQ(writer.status().status, -112);
  EXPECT_EQ(writer.status().detail1, 28u);
  EXPECT_EQ(writer.status().detail2, 2u);
  EXPECT_STREQ(writer.status().file, "kqos_linux");
  EXPECT_EQ(writer.handle(), 0u);
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(NewImageCreate, AFileThatWasCreatedStaysOnFailure) {
  WriteFile(path_, PatternBytes(1, 100000));
  {
    const FileSizeLimit limit(1000);
    const Writer writer(path_, Template(Fields()));
    EXPECT_EQ(writer.status().status, -31);  // EFBIG
    EXPECT_EQ(writer.status().detail1, 27u);
  }
  EXPECT_EQ(ReadFile(path_).size(), 1000u);
}

TEST_F(NewImageCreate, TruncatesAnExistingFile) {
  WriteFile(path_, PatternBytes(1, 100000));
  const Writer writer(path_, Template(Fields()));
  EXPECT_EQ(writer.File().size(), 4 * 512u);
  kq::DestroyNewImageFile(reinterpret_cast<kq::NewImageFile*>(writer.handle()));
  EXPECT_TRUE(FileExists());
}

TEST_F(NewImageCreate, TheFilesModeIs0644) {
  const mode_t old = umask(0);
  const Writer writer(path_, Template(Fields()));
  umask(old);
  struct stat file {};
  ASSERT_EQ(stat(path_.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777, 0644u);
  kq::DestroyNewImageFile(reinterpret_cast<kq::NewImageFile*>(writer.handle()));
}

}  // namespace
}  // namespace kqtest
