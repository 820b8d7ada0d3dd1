// Everything that looks at a single file by path.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "tests/faults/fault_images.h"
#include "tests/faults/scenario.h"

namespace kqtest {
namespace {

template <class Info>
bool IsAllZero(const Info& info) {
  const Info zero{};
  return std::memcmp(&info, &zero, sizeof info) == 0;
}

// A query that fills a structure, which stays zero on a failure.
template <class Info>
Scenario InfoQuery(const std::string& path, KQStatus (*query)(const char*, Info*),
                   const std::function<void(const Info&)>& expectInfo) {
  const auto info = std::make_shared<Info>();
  Scenario scenario;
  scenario.operation = [=] {
    std::memset(info.get(), 0xAA, sizeof *info);
    return query(path.c_str(), info.get());
  };
  scenario.expectDone = [=] { expectInfo(*info); };
  scenario.expectFailed = [=] { EXPECT_TRUE(IsAllZero(*info)); };
  return scenario;
}

void ExpectBasics(const ImageFileInfo& info) {
  EXPECT_EQ(info.sectorSize, 512u);
  EXPECT_EQ(info.sourceSize, 0x40000000u);
  EXPECT_EQ(info.lastPart, 0xFFFFFFFFu);
  EXPECT_EQ(info.comment[0], u'a');
}

NamedScenario GetInfo(std::uint32_t type) {
  return {"GetInfo" + std::to_string(type), [=](const TempDir& folder) {
            return InfoQuery<ImageFileInfo>(WriteImage(folder, "image.twf", RawImage(type)),
                                            KQImageFileGetInfo, ExpectBasics);
          }};
}

NamedScenario GetInfo2(std::uint32_t type) {
  return {"GetInfo2_" + std::to_string(type), [=](const TempDir& folder) {
            return InfoQuery<ImageFileInfo2>(WriteImage(folder, "image.twf", RawImage(type)),
                                             KQImageFileGetInfo2, [](const ImageFileInfo2& info) {
                                               ExpectBasics(info.basic);
                                               EXPECT_EQ(info.headerSectors, 4u);
                                               EXPECT_EQ(info.recordPresent, 1);
                                               EXPECT_EQ(info.headerChecksumGood, 1);
                                               EXPECT_EQ(info.extraChecksumGood, 1);
                                             });
          }};
}

using SectorsQuery = KQStatus (*)(const char*, const char*, void*, std::uint32_t*);

NamedScenario Sectors(const std::string& name, SectorsQuery query, std::uint32_t type,
                      std::size_t firstSector) {
  return {name + std::to_string(type), [=](const TempDir& folder) {
            const ImageSpec spec = RawImage(type);
            const std::string path = WriteImage(folder, "image.twf", spec);
            Bytes expected = BuildHeader(spec);
            SetBytes(&expected, 512, spec.header.laterSectors);  // in the clear
            expected.erase(expected.begin(),
                           expected.begin() + static_cast<std::ptrdiff_t>(firstSector * 512));
            const auto buffer = std::make_shared<Bytes>(4096);
            const auto size = std::make_shared<std::uint32_t>();
            Scenario scenario;
            scenario.operation = [=] {
              *size = static_cast<std::uint32_t>(buffer->size());
              std::fill(buffer->begin(), buffer->end(), std::uint8_t{0xAA});
              return query(path.c_str(), PasswordFor(type), buffer->data(), size.get());
            };
            scenario.expectDone = [=] {
              EXPECT_EQ(*size, expected.size());
              EXPECT_EQ(std::memcmp(buffer->data(), expected.data(), expected.size()), 0);
            };
            scenario.expectFailed = [=] {
              EXPECT_EQ(*size, buffer->size());
              EXPECT_EQ(*buffer, Bytes(buffer->size(), 0xAA));
            };
            return scenario;
          }};
}

NamedScenario TestPassword(std::uint32_t type) {
  return {"TestPassword" + std::to_string(type), [=](const TempDir& folder) {
            const std::string path = WriteImage(folder, "image.twf", RawImage(type));
            const auto result = std::make_shared<bool>();
            Scenario scenario;
            scenario.operation = [=] {
              *result = true;
              return KQImageFileTestPassword(path.c_str(), kPassword, result.get());
            };
            scenario.expectDone = [=] { EXPECT_TRUE(*result); };
            scenario.expectFailed = [=] { EXPECT_FALSE(*result); };
            // Whatever keeps the key from being opened, a want of memory too, the password has not
            // opened it.
            if (type != 0) scenario.expectDegraded = [] {};
            return scenario;
          }};
}

NamedScenario Protected(std::uint32_t type) {
  return {"GetInfoProtected" + std::to_string(type), [=](const TempDir& folder) {
            const std::string path = WriteImage(folder, "image.twf", RawImage(type));
            const auto info = std::make_shared<Bytes>(2048);
            const auto size = std::make_shared<std::uint32_t>();
            const auto fields = [=] { return reinterpret_cast<ProtectedInfo*>(info->data()); };
            Scenario scenario;
            scenario.operation = [=] {
              *size = static_cast<std::uint32_t>(info->size());
              return KQImageFileGetInfoProtected(path.c_str(), PasswordFor(type), fields(),
                                                 size.get());
            };
            scenario.expectDone = [=] {
              EXPECT_EQ(*size, 593u + 2 * 6);  // "a list"
              EXPECT_EQ(fields()->tableRead, 1);
              EXPECT_EQ(fields()->diskSignature, 0x51617181u);
              EXPECT_EQ(fields()->partitionOffset, 63u * 512);
            };
            scenario.expectFailed = [=] {
              EXPECT_EQ(*size, info->size());
              EXPECT_EQ(*info, Bytes(info->size()));
            };
            return scenario;
          }};
}

NamedScenario ProtectedEx(std::uint32_t type) {
  return {"GetInfoProtectedEx" + std::to_string(type), [=](const TempDir& folder) {
            const std::string path = WriteImage(folder, "image.twf", RawImage(type));
            const auto info = std::make_shared<Bytes>(2048);
            const auto size = std::make_shared<std::uint32_t>();
            const auto fields = [=] { return reinterpret_cast<ProtectedInfoEx*>(info->data()); };
            Scenario scenario;
            scenario.operation = [=] {
              *size = static_cast<std::uint32_t>(info->size());
              return KQImageFileGetInfoProtectedEx(path.c_str(), PasswordFor(type), 0, fields(),
                                                   size.get());
            };
            scenario.expectDone = [=] {
              EXPECT_EQ(*size, 256u + 2 * (3 + 3 + 5 + 6 + 4));
              EXPECT_EQ(fields()->partitionFound, 1);
              EXPECT_EQ(fields()->partitionLength, 1000u * 512);
            };
            scenario.expectFailed = [=] { EXPECT_EQ(*size, info->size()); };
            return scenario;
          }};
}

using NameQuery = KQStatus (*)(const char*, char*, std::uint32_t*);

NamedScenario Name(const std::string& name, NameQuery query, const std::string& expected) {
  return {name, [=](const TempDir& folder) {
            const std::string path = folder.Path("host-b001.twf");
            WriteFile(path, Bytes(1));
            const std::string answer = folder.Path(expected);
            const auto buffer = std::make_shared<std::string>(4096, 'x');
            const auto size = std::make_shared<std::uint32_t>();
            Scenario scenario;
            scenario.operation = [=] {
              *size = 4096;
              return query(path.c_str(), buffer->data(), size.get());
            };
            scenario.expectDone = [=] { EXPECT_EQ(std::string(buffer->c_str()), answer); };
            scenario.expectFailed = [=] { EXPECT_EQ(*size, 4096u); };
            // A name that can't be looked up counts as free, as this one is.
            scenario.effectOf = [](std::span<const MadeCall> calls,
                                   std::size_t i) -> std::optional<Effect> {
              if (calls[i].call == Call::kStat && i == 2) return Effect::kHidden;
              return std::nullopt;
            };
            return scenario;
          }};
}

NamedScenario HeaderIssues() {
  return {"HeaderIssues", [](const TempDir&) {
            const auto table = std::make_shared<std::array<HeaderIssue, 2>>();
            Scenario scenario;
            scenario.operation = [=] {
              std::uint32_t size = sizeof *table;
              return KQImageFileHeaderIssues(table->data(), &size);
            };
            scenario.expectDone = [=] { EXPECT_EQ((*table)[1].id, 2u); };
            return scenario;
          }};
}

}  // namespace

std::vector<NamedScenario> QueryScenarios() {
  std::vector<NamedScenario> all = {
      GetInfo(0),
      GetInfo(2),
      HeaderIssues(),
      Name("NextName", KQImageGetNextAvailableImageFileName, "host-b001-i001.twi"),
      Name("NextMountName", KQImageGetNextAvailableMountGeneratedImageFileName,
           "host-b001-m001.twi"),
      Name("KeyFileName", KQImageFilesEnumerationQueryImageKeyFileName, "host-b001.twk"),
  };
  for (const std::uint32_t type : {0u, 1u, 2u, 3u, 4u}) {
    all.push_back(GetInfo2(type));
    all.push_back(Sectors("AllHeaderSectors", KQImageFileGetAllHeaderSectors, type, 0));
    all.push_back(Sectors("ExtraSectors", KQImageFileGetExtraSectors, type, 2));
    all.push_back(TestPassword(type));
    all.push_back(Protected(type));
    all.push_back(ProtectedEx(type));
  }
  return all;
}

}  // namespace kqtest
