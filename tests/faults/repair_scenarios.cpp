// The check and the repair of a header.
#include <gtest/gtest.h>

#include <memory>

#include "tests/faults/fault_images.h"
#include "tests/faults/scenario.h"

namespace kqtest {
namespace {

constexpr std::uint64_t kGenerationIssue = 1;
constexpr std::uint64_t kGptIssue = 2;

ImageSpec Defective(std::uint32_t type) {
  ImageSpec spec = RawImage(type);
  spec.header.generation = 1;
  spec.header.record->recordFlags = 0x30;
  Set32(&spec.header.laterSectors, 4, 2);  // PartitionStyle: GPT
  return spec;
}

ImageSpec Repaired(std::uint32_t type, std::uint64_t issues) {
  ImageSpec spec = Defective(type);
  if ((issues & kGenerationIssue) != 0) spec.header.generation = 0;
  if ((issues & kGptIssue) != 0) {
    Set32(&spec.header.laterSectors, 4, 0);
    Set32(&spec.header.laterSectors, 24, 0xFFFFFFFF);  // PartitionNumber
  }
  return spec;
}

bool GoOn(void* /*argument*/, const HeaderIssueReport* /*report*/) { return true; }

NamedScenario Check(std::uint32_t type) {
  return {"CheckHeader" + std::to_string(type), [=](const TempDir& folder) {
            const std::string path = WriteImage(folder, "image.twf", Defective(type));
            const auto issues = std::make_shared<std::uint64_t>();
            Scenario scenario;
            scenario.operation = [=] {
              *issues = 0xAAAA;
              return KQImageFileFixHeader(path.c_str(), PasswordFor(type), issues.get(), 1, nullptr,
                                          nullptr);
            };
            scenario.expectDone = [=] { EXPECT_EQ(*issues, kGenerationIssue | kGptIssue); };
            scenario.expectFailed = [=] { EXPECT_EQ(*issues, 0u); };
            if (type == 0) return scenario;
            // What keeps the later sectors from being deciphered, keeps only their test from being
            // made.
            scenario.expectDegraded = [=] { EXPECT_EQ(*issues & ~kGptIssue, kGenerationIssue); };
            scenario.effectOf = [](std::span<const MadeCall> calls,
                                   std::size_t i) -> std::optional<Effect> {
              if (calls[i].call == Call::kFstat) return Effect::kDegraded;
              return std::nullopt;
            };
            return scenario;
          }};
}

NamedScenario Repair(std::uint32_t type, std::uint64_t wanted) {
  return {"RepairHeader" + std::to_string(type) + "Issues" + std::to_string(wanted),
          [=](const TempDir& folder) {
            const Bytes defective = BuildImage(Defective(type));
            const Bytes repaired = BuildImage(Repaired(type, wanted));
            const std::string path = folder.Path("image.twf");
            Scenario scenario;
            scenario.begin = [=] { WriteFile(path, defective); };
            scenario.operation = [=] {
              std::uint64_t issues = wanted;
              return KQImageFileFixHeader(path.c_str(), PasswordFor(type), &issues, 0, GoOn,
                                          nullptr);
            };
            scenario.expectDone = [=] { EXPECT_EQ(ReadFile(path), repaired); };
            // Written at once or not at all; a failure of what makes it durable comes behind.
            scenario.expectFailed = [=] {
              const Bytes file = ReadFile(path);
              EXPECT_TRUE(file == defective || file == repaired);
            };
            scenario.memoryStatuses = {KQ_STATUS_NOT_ENOUGH_MEMORY, KQ_STATUS_ENCRYPTION_FAILED};
            if (type == 0) return scenario;
            // With a callback the issue is told as skipped, and the repair goes on without it.
            scenario.expectDegraded = scenario.expectFailed;
            scenario.effectOf = [](std::span<const MadeCall> calls,
                                   std::size_t i) -> std::optional<Effect> {
              if (calls[i].call == Call::kFstat) return Effect::kDegraded;
              return std::nullopt;
            };
            return scenario;
          }};
}

}  // namespace

std::vector<NamedScenario> RepairScenarios() {
  return {Check(0),
          Check(2),
          Repair(0, kGenerationIssue),
          Repair(0, kGptIssue),
          Repair(0, kGenerationIssue | kGptIssue),
          Repair(1, kGptIssue),
          Repair(2, kGptIssue),
          Repair(3, kGptIssue),
          Repair(4, kGptIssue)};
}

}  // namespace kqtest
