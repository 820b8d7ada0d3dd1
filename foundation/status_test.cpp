#include "foundation/status.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <map>
#include <string>

namespace {

constexpr char kModule[] = "objmgr";

// The numbers as they stand in the interface's documentation, errno by number.
const std::map<int, int> kErrnoTable = {
    {0, 0},      {1, -5},   {2, -2},     {4, -1223},  {5, -23},   {9, -87},   {11, -1237},
    {12, -8},    {13, -5},  {16, -170},  {17, -80},   {22, -87},  {24, -4},   {26, -32},
    {28, -112},  {30, -19}, {32, -109},  {36, -123},  {37, -8},   {38, -50},  {77, -5023},
    {84, -1113}, {95, -50}, {105, -234}, {110, -121}, {111, -71}, {113, -67}, {122, -112}};

bool IsAllZero(const char (&text)[18]) {
  for (const char c : text) {
    if (c != 0) return false;
  }
  return true;
}

TEST(Status, ErrnoTableHoldsEveryNumberAndElseGeneralFailure) {
  ASSERT_EQ(kErrnoTable.size(), 28U);
  for (int errnoValue = 0; errnoValue <= 122; ++errnoValue) {
    const auto entry = kErrnoTable.find(errnoValue);
    const int expected = entry == kErrnoTable.end() ? -31 : entry->second;
    EXPECT_EQ(kq::StatusCodeFromErrno(errnoValue), expected) << "errno " << errnoValue;
  }
}

TEST(Status, ErrnoBeyondTheTableIsGeneralFailureWithTheRawValue) {
  for (const int errnoValue : {123, 124, 133, 512, 65536 + 2, INT_MAX, -1, -2, INT_MIN}) {
    EXPECT_EQ(kq::StatusCodeFromErrno(errnoValue), -31) << errnoValue;
    const KQStatus status = KQ_FAIL_ERRNO(errnoValue);
    EXPECT_EQ(status.status, -31);
    EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(errnoValue));
    EXPECT_EQ(status.detail2, 2U);
  }
}

TEST(Status, RecordHasThirtyTwoBytesWithoutGaps) {
  EXPECT_EQ(sizeof(KQStatus), 32U);
  EXPECT_EQ(offsetof(KQStatus, status), 0U);
  EXPECT_EQ(offsetof(KQStatus, detail1), 4U);
  EXPECT_EQ(offsetof(KQStatus, detail2), 8U);
  EXPECT_EQ(offsetof(KQStatus, line), 12U);
  EXPECT_EQ(offsetof(KQStatus, file), 14U);
}

TEST(Status, CodesAreTheNumbersOfThePublicHeader) {
  using kq::StatusCode;
  const std::map<StatusCode, int> codes = {
      {StatusCode::kSuccess, KQ_STATUS_SUCCESS},
      {StatusCode::kFileNotFound, KQ_STATUS_FILE_NOT_FOUND},
      {StatusCode::kTooManyOpenFiles, KQ_STATUS_TOO_MANY_OPEN_FILES},
      {StatusCode::kAccessDenied, KQ_STATUS_ACCESS_DENIED},
      {StatusCode::kNotEnoughMemory, KQ_STATUS_NOT_ENOUGH_MEMORY},
      {StatusCode::kInvalidData, KQ_STATUS_INVALID_DATA},
      {StatusCode::kNoMoreFiles, KQ_STATUS_NO_MORE_FILES},
      {StatusCode::kWriteProtect, KQ_STATUS_WRITE_PROTECT},
      {StatusCode::kCrc, KQ_STATUS_CRC},
      {StatusCode::kGenFailure, KQ_STATUS_GEN_FAILURE},
      {StatusCode::kSharingViolation, KQ_STATUS_SHARING_VIOLATION},
      {StatusCode::kNotSupported, KQ_STATUS_NOT_SUPPORTED},
      {StatusCode::kBadNetName, KQ_STATUS_BAD_NET_NAME},
      {StatusCode::kReqNotAccep, KQ_STATUS_REQ_NOT_ACCEP},
      {StatusCode::kFileExists, KQ_STATUS_FILE_EXISTS},
      {StatusCode::kInvalidPassword, KQ_STATUS_INVALID_PASSWORD},
      {StatusCode::kInvalidParameter, KQ_STATUS_INVALID_PARAMETER},
      {StatusCode::kBrokenPipe, KQ_STATUS_BROKEN_PIPE},
      {StatusCode::kDiskFull, KQ_STATUS_DISK_FULL},
      {StatusCode::kSemTimeout, KQ_STATUS_SEM_TIMEOUT},
      {StatusCode::kInvalidName, KQ_STATUS_INVALID_NAME},
      {StatusCode::kBusy, KQ_STATUS_BUSY},
      {StatusCode::kMoreData, KQ_STATUS_MORE_DATA},
      {StatusCode::kExceptionInService, KQ_STATUS_EXCEPTION_IN_SERVICE},
      {StatusCode::kNoUnicodeTranslation, KQ_STATUS_NO_UNICODE_TRANSLATION},
      {StatusCode::kCancelled, KQ_STATUS_CANCELLED},
      {StatusCode::kRetry, KQ_STATUS_RETRY},
      {StatusCode::kFileCorrupt, KQ_STATUS_FILE_CORRUPT},
      {StatusCode::kUnsupportedType, KQ_STATUS_UNSUPPORTED_TYPE},
      {StatusCode::kInvalidState, KQ_STATUS_INVALID_STATE},
      {StatusCode::kEncryptionFailed, KQ_STATUS_ENCRYPTION_FAILED},
      {StatusCode::kDecryptionFailed, KQ_STATUS_DECRYPTION_FAILED}};
  EXPECT_EQ(codes.size(), 32U);
  for (const auto& [code, number] : codes) EXPECT_EQ(static_cast<int>(code), number);
}

TEST(Status, SuccessIsAllZeroButForTheLine) {
  const KQStatus status = kq::Success();
  EXPECT_EQ(status.status, 0);
  EXPECT_EQ(status.detail1, 0U);
  EXPECT_EQ(status.detail2, 0U);
  EXPECT_TRUE(IsAllZero(status.file));
  EXPECT_FALSE(kq::Failed(status));
}

TEST(Status, FailureNamesLineAndModuleWithoutDetails) {
  const int line = __LINE__ + 1;
  const KQStatus status = KQ_FAIL(kFileCorrupt);
  EXPECT_EQ(status.status, -1392);
  EXPECT_EQ(status.detail1, 0U);
  EXPECT_EQ(status.detail2, 0U);
  EXPECT_EQ(status.line, line);
  EXPECT_STREQ(status.file, "objmgr");
  EXPECT_TRUE(kq::Failed(status));
}

TEST(Status, ErrnoFailureIsAlwaysOfTheSystemLayersModule) {
  const int line = __LINE__ + 1;
  const KQStatus status = KQ_FAIL_ERRNO(28);
  EXPECT_EQ(status.status, -112);
  EXPECT_EQ(status.detail1, 28U);
  EXPECT_EQ(status.detail2, 2U);
  EXPECT_EQ(status.line, line);
  EXPECT_STREQ(status.file, "kqos_linux");
}

TEST(Status, ErrnoZeroMakesASuccessRecord) {
  const KQStatus status = KQ_FAIL_ERRNO(0);
  EXPECT_EQ(status.status, 0);
  EXPECT_EQ(status.detail1, 0U);
  EXPECT_EQ(status.detail2, 0U);
  EXPECT_TRUE(IsAllZero(status.file));
}

TEST(Status, ModuleNameIsFilledWithZeroAndCutAtSeventeenCharacters) {
  const KQStatus shortName = kq::MakeStatus(kq::StatusCode::kCrc, 1, "kqos");
  EXPECT_EQ(std::string(shortName.file, 18), std::string("kqos").append(14, '\0'));
  const KQStatus longest = kq::MakeStatus(kq::StatusCode::kCrc, 1, "12345678901234567");
  EXPECT_EQ(std::string(longest.file, 18), std::string("12345678901234567").append(1, '\0'));
  const KQStatus cut = kq::MakeStatus(kq::StatusCode::kCrc, 1, "123456789012345678");
  EXPECT_EQ(std::string(cut.file, 18), std::string("12345678901234567").append(1, '\0'));
}

TEST(Status, LineKeepsItsLowSixteenBits) {
  EXPECT_EQ(kq::MakeStatus(kq::StatusCode::kCrc, 65535, kModule).line, 65535);
  EXPECT_EQ(kq::MakeStatus(kq::StatusCode::kCrc, 70000, kModule).line, 4464);
}

int deepestLine = 0;
KQStatus Deepest() {
  deepestLine = __LINE__ + 1;
  return KQ_FAIL_ERRNO(5);
}
KQStatus Middle() {
  KQ_RETURN_IF_FAILED(Deepest());
  return kq::Success();
}
KQStatus Top(bool* wentOn) {
  KQ_RETURN_IF_FAILED(Middle());
  *wentOn = true;
  return kq::Success();
}

TEST(Status, RecordHandedUpThroughThreeLevelsNamesTheDeepest) {
  bool wentOn = false;
  const KQStatus status = Top(&wentOn);
  EXPECT_FALSE(wentOn);
  EXPECT_EQ(status.status, -23);
  EXPECT_EQ(status.detail1, 5U);
  EXPECT_EQ(status.detail2, 2U);
  EXPECT_EQ(status.line, deepestLine);
  EXPECT_STREQ(status.file, "kqos_linux");
}

TEST(Status, ReturnIfFailedEvaluatesOnceAndGoesOnAfterSuccess) {
  int evaluated = 0;
  const auto count = [&evaluated] {
    ++evaluated;
    return kq::Success();
  };
  const auto run = [&count]() -> KQStatus {
    KQ_RETURN_IF_FAILED(count());
    return KQ_FAIL(kBusy);
  };
  EXPECT_EQ(run().status, -170);
  EXPECT_EQ(evaluated, 1);
}

}  // namespace
