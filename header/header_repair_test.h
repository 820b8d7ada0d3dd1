// Images with the known issues, and what a repair should make of their files.
#ifndef KQ_HEADER_HEADER_REPAIR_TEST_H
#define KQ_HEADER_HEADER_REPAIR_TEST_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "header/partition_tables_test.h"
#include "kqimageapi.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"
#include "tests/support/temp_dir.h"

namespace kqtest {

inline constexpr std::uint64_t kGenerationIssue = 1;
inline constexpr std::uint64_t kGptIssue = 2;

// An image that has both issues, or as many as its sectors allow.
inline ImageSpec DefectiveImage(std::uint32_t headerSectors = 6, std::uint32_t sectorSize = 512,
                                std::uint32_t encryptionType = 0) {
  ImageSpec spec;
  spec.header.sectorSize = sectorSize;
  spec.header.generation = 1;
  spec.header.nextGeneration = 2;
  spec.header.comment = u"made elsewhere";
  spec.header.record.emplace();
  spec.header.record->recordFlags = 0x30;
  if (headerSectors > 1) {
    ProtectedFields fields;
    fields.partitionStyle = 2;
    fields.partitionNumber = 3;
    fields.trailingSectors = 0;
    fields.texts = {u"first", u"second", u"third"};
    spec.header.laterSectors = ProtectedSectorBytes(fields, sectorSize);
    Append(&spec.header.laterSectors, PatternBytes(7, std::size_t{headerSectors - 2} * sectorSize));
  }
  spec.chunks = {RawChunk({{0x10000, 20}}, PatternBytes(8, 20ul * sectorSize))};
  if (encryptionType != 0) EncipherImage(&spec, encryptionType, "secret");
  return spec;
}

// The whole file as it should be after these issues are repaired; composed anew, with the ciphers
// and checksums of the builder.
inline Bytes RepairedFile(ImageSpec spec, std::uint64_t issues) {
  if ((issues & kGenerationIssue) != 0) spec.header.generation = 0;
  if ((issues & kGptIssue) != 0) {
    Bytes& later = spec.header.laterSectors;
    Set32(&later, 4, 0);
    if (Get32(later, 0) != 0) Set32(&later, 24, 0xFFFFFFFF);
  }
  return BuildImage(spec);
}

struct Report {
  std::uint64_t issueId = 0;
  std::string message;
  int present = 0;
  int skipped = 0;
  std::int32_t status = 0;
  std::string file;
  bool operator==(const Report&) const = default;
};

inline const Report kFoundGeneration = {
    1, "Base file created with QDELT has non-zero generation", 1, 0, 0, ""};
inline const Report kNoGeneration = {
    1, "Base file created with QDELT has non-zero generation", 0, 0, 0, ""};
inline const Report kFoundGpt = {2, "Reset GPT disk metadata", 1, 0, 0, ""};
inline const Report kNoGpt = {2, "Reset GPT disk metadata", 0, 0, 0, ""};
inline Report SkippedGpt(std::int32_t status, const std::string& file) {
  return {2, "Reset GPT disk metadata", 0, 1, status, file};
}

// A client that listens. Reads the reports by their binding offsets.
struct Listener {
  std::vector<Report> reports;
  std::size_t stopAfter = 1000;  // the call with that number returns false

  static bool Callback(void* argument, const HeaderIssueReport* report) {
    auto* const self = static_cast<Listener*>(argument);
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(report);
    const std::span raw(bytes, 52);
    self->reports.push_back({Get64(raw, 0), reinterpret_cast<const char*>(Get64(raw, 8)), raw[16],
                             raw[17], static_cast<std::int32_t>(Get32(raw, 20)),
                             reinterpret_cast<const char*>(bytes + 34)});
    return self->reports.size() < self->stopAfter;
  }
};

class HeaderRepairTest : public testing::Test {
 protected:
  void Write(const ImageSpec& spec) { WriteFile(path_, BuildImage(spec)); }

  KQStatus Check(std::uint64_t* issues, const char* password = nullptr,
                 Listener* listener = nullptr) const {
    return KQImageFileFixHeader(path_.c_str(), password, issues, 1,
                                listener != nullptr ? Listener::Callback : nullptr, listener);
  }
  KQStatus Repair(std::uint64_t issues, const char* password = nullptr,
                  Listener* listener = nullptr) const {
    const std::uint64_t asked = issues;
    const KQStatus status =
        KQImageFileFixHeader(path_.c_str(), password, &issues, 0,
                             listener != nullptr ? Listener::Callback : nullptr, listener);
    EXPECT_EQ(issues, asked);
    return status;
  }

  // What a check finds without a listener; the file must stay as it is.
  std::uint64_t Found(const ImageSpec& spec, const char* password = nullptr) {
    Write(spec);
    std::uint64_t issues = 0xEEEEEEEEEEEEEEEE;
    EXPECT_EQ(Check(&issues, password).status, 0);
    EXPECT_EQ(ReadFile(path_), BuildImage(spec));
    return issues;
  }
  // A check or repair that fails with the file untouched.
  void ExpectRefused(const ImageSpec& spec, bool repair, std::uint64_t issues, std::int32_t status,
                     const char* password = nullptr) {
    SCOPED_TRACE(repair ? "repair" : "check");
    Write(spec);
    std::uint64_t mask = 0xEEEE;
    EXPECT_EQ((repair ? Repair(issues, password) : Check(&mask, password)).status, status);
    EXPECT_EQ(ReadFile(path_), BuildImage(spec));
    if (!repair) {
      EXPECT_EQ(mask, issues);
    }
  }

  TempDir dir_;
  std::string path_ = dir_.Path("image.twf");
};

}  // namespace kqtest

#endif
