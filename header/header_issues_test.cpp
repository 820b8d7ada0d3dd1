#include "header/header_issues.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/bytes.h"

namespace kq {
namespace {

TEST(KQImageFileHeaderIssues, ListsTheIssuesInOrder) {
  kqtest::Bytes table(48, 0xEE);
  std::uint32_t size = 48;
  EXPECT_EQ(KQImageFileHeaderIssues(reinterpret_cast<HeaderIssue*>(table.data()), &size).status, 0);
  EXPECT_EQ(size, 32u);
  EXPECT_EQ(kqtest::Get64(table, 0), 1u);
  EXPECT_STREQ(reinterpret_cast<const char*>(kqtest::Get64(table, 8)),
               "Base file created with QDELT has non-zero generation");
  EXPECT_EQ(kqtest::Get64(table, 16), 2u);
  EXPECT_STREQ(reinterpret_cast<const char*>(kqtest::Get64(table, 24)), "Reset GPT disk metadata");
  EXPECT_EQ(kqtest::Bytes(table.begin() + 32, table.end()), kqtest::Bytes(16, 0xEE));
}

TEST(KQImageFileHeaderIssues, MessagesAreConstants) {
  HeaderIssue first[2];
  HeaderIssue second[2];
  std::uint32_t size = 32;
  ASSERT_EQ(KQImageFileHeaderIssues(first, &size).status, 0);
  ASSERT_EQ(KQImageFileHeaderIssues(second, &size).status, 0);
  EXPECT_EQ(first[0].message, second[0].message);
  EXPECT_EQ(first[1].message, second[1].message);
}

TEST(KQImageFileHeaderIssues, NullSizeIsInvalid) {
  HeaderIssue table[2];
  const KQStatus status = KQImageFileHeaderIssues(table, nullptr);
  EXPECT_EQ(status.status, -87);
  EXPECT_STREQ(status.file, "kqimageapi");
}

TEST(KQImageFileHeaderIssues, SmallSizeIsMoreDataWithOrWithoutATable) {
  for (const std::uint32_t room : {0u, 16u, 31u}) {
    kqtest::Bytes table(32, 0xEE);
    std::uint32_t size = room;
    EXPECT_EQ(KQImageFileHeaderIssues(reinterpret_cast<HeaderIssue*>(table.data()), &size).status,
              -234);
    EXPECT_EQ(size, 32u);
    EXPECT_EQ(table, kqtest::Bytes(32, 0xEE));
    size = room;
    EXPECT_EQ(KQImageFileHeaderIssues(nullptr, &size).status, -234);
    EXPECT_EQ(size, 32u);
  }
}

TEST(KQImageFileHeaderIssues, EnoughSizeWithoutATableSucceeds) {
  for (const std::uint32_t room : {32u, 33u, 0xFFFFFFFFu}) {
    std::uint32_t size = room;
    EXPECT_EQ(KQImageFileHeaderIssues(nullptr, &size).status, 0);
    EXPECT_EQ(size, 32u);
  }
}

// Clients join ids to masks.
TEST(HeaderIssueTable, IdsAreDifferentSingleBits) {
  std::uint64_t seen = 0;
  for (const HeaderIssueRow& row : HeaderIssueTable()) {
    EXPECT_EQ(row.issue.id & (row.issue.id - 1), 0u);
    EXPECT_NE(row.issue.id, 0u);
    EXPECT_EQ(seen & row.issue.id, 0u);
    seen |= row.issue.id;
  }
}

}  // namespace
}  // namespace kq
