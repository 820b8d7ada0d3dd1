// The defects that a finished image's header is known to have, each with its test and its repair.
// To add one, add a row to the table in the source, with a test beside the others.
#ifndef KQ_HEADER_HEADER_ISSUES_H
#define KQ_HEADER_HEADER_ISSUES_H

#include <cstdint>
#include <span>

#include "kqimageapi.h"

namespace kq {

// What the tests work on during one call. The pointers go into header.
struct HeaderRepairState {
  std::uint8_t* header = nullptr;  // the whole header, sector 0 first
  std::uint32_t headerBytes = 0;
  std::uint8_t* extendedRecord = nullptr;   // null: there is none
  std::uint8_t* protectedSector = nullptr;  // null: the file has one header sector
  bool firstSectorChanged = false;          // set by a repair of sector 0
  bool laterSectorsChanged = false;         // set by a repair of sector 1 or beyond
};

struct HeaderIssueRow {
  HeaderIssue issue;
  bool needsProtectedSector;  // deciphered
  // True if the issue is there; it has then also been repaired in memory, unless checkOnly is set.
  bool (*test)(HeaderRepairState* state, bool checkOnly);
};

// All of them, in the order in which they are tested.
std::span<const HeaderIssueRow> HeaderIssueTable();

}  // namespace kq

#endif
