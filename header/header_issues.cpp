#include "header/header_issues.h"

#include <cstddef>
#include <cstring>
#include <iterator>

#include "foundation/little_endian.h"
#include "foundation/status.h"
#include "header/protected_header.h"
#include "kqimageformat.h"

static_assert(offsetof(HeaderIssue, id) == 0);
static_assert(offsetof(HeaderIssue, message) == 8);
static_assert(sizeof(HeaderIssue) == 16);

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

// A base is the first of its generations. A Generation above 1 has another reason and is left.
bool TestBaseGeneration(HeaderRepairState* state, bool checkOnly) {
  constexpr std::uint32_t kToolMask = 0x70;
  constexpr std::uint32_t kToolQdelt = 0x30;
  constexpr std::uint8_t kNoId[sizeof(ImageHeader::ParentImageId)] = {};
  std::uint8_t* const generation = state->header + offsetof(ImageHeader, Generation);
  const bool present =
      std::memcmp(state->header + offsetof(ImageHeader, ParentImageId), kNoId, sizeof kNoId) == 0 &&
      LoadU32(generation) == 1 && state->extendedRecord != nullptr &&
      (LoadU32(state->extendedRecord + offsetof(ExtendedRecord, RecordFlags)) & kToolMask) ==
          kToolQdelt;
  if (present && !checkOnly) {
    StoreU32(generation, 0);
    state->firstSectorChanged = true;
  }
  return present;
}

// The tables in the sectors behind stay; nothing refers to them any more.
bool TestGptMetadata(HeaderRepairState* state, bool checkOnly) {
  if (state->protectedSector == nullptr) return false;
  std::uint8_t* const style = state->protectedSector + offsetof(ProtectedSector, PartitionStyle);
  if (LoadU32(style) != kPartitionStyleGpt) return false;
  if (checkOnly) return true;
  StoreU32(style, kPartitionStyleNone);
  if (LoadU32(state->protectedSector + offsetof(ProtectedSector, DiskInfoPresent)) != 0) {
    StoreU32(state->protectedSector + offsetof(ProtectedSector, PartitionNumber),
             kNoPartitionNumber);
  }
  state->laterSectorsChanged = true;
  return true;
}

// The ids are single bits, so that clients can name any set of issues in one mask.
constexpr HeaderIssueRow kTable[] = {
    {{1, "Base file created with QDELT has non-zero generation"}, false, TestBaseGeneration},
    {{2, "Reset GPT disk metadata"}, true, TestGptMetadata},
};

}  // namespace

std::span<const HeaderIssueRow> HeaderIssueTable() { return kTable; }

}  // namespace kq

extern "C" KQ_API KQStatus KQImageFileHeaderIssues(HeaderIssue* table, uint32_t* size) {
  using namespace kq;
  if (size == nullptr) return KQ_FAIL(kInvalidParameter);
  constexpr std::uint32_t kSizeNeeded = std::size(kTable) * sizeof(HeaderIssue);
  const std::uint32_t room = *size;
  *size = kSizeNeeded;
  if (room < kSizeNeeded) return KQ_FAIL(kMoreData);
  if (table == nullptr) return Success();
  for (const HeaderIssueRow& row : kTable) *table++ = row.issue;
  return Success();
}
