// The outcome of every operation: how a KQStatus is made and handed up.
//
// A record is made once, by the statement that notices the failure, and handed up unchanged, so a
// client sees the line and module of the deepest failure. Each source that makes records names its
// module in a constant kModule. KQ_FAIL and KQ_FAIL_ERRNO are the makers of failures.
#ifndef KQ_FOUNDATION_STATUS_H
#define KQ_FOUNDATION_STATUS_H

#include <cstdint>

#include "kqimageapi.h"

namespace kq {

// Negated Windows system error numbers, on all platforms.
enum class StatusCode : std::int32_t {
  kSuccess = 0,
  kFileNotFound = -2,
  kTooManyOpenFiles = -4,
  kAccessDenied = -5,
  kNotEnoughMemory = -8,
  kInvalidData = -13,
  kNoMoreFiles = -18,
  kWriteProtect = -19,
  kCrc = -23,
  kGenFailure = -31,
  kSharingViolation = -32,
  kNotSupported = -50,
  kBadNetName = -67,
  kReqNotAccep = -71,
  kFileExists = -80,
  kInvalidPassword = -86,
  kInvalidParameter = -87,
  kBrokenPipe = -109,
  kDiskFull = -112,
  kSemTimeout = -121,
  kInvalidName = -123,
  kBusy = -170,
  kMoreData = -234,
  kExceptionInService = -1064,
  kNoUnicodeTranslation = -1113,
  kCancelled = -1223,
  kRetry = -1237,
  kFileCorrupt = -1392,
  kUnsupportedType = -1630,
  kInvalidState = -5023,
  kEncryptionFailed = -6000,
  kDecryptionFailed = -6001,
};

inline bool Failed(const KQStatus& status) { return status.status != 0; }

// A success record: all zero but for the line, which carries no meaning.
KQStatus Success(int line = __builtin_LINE());

// The record of a place: status 0, line and module. A module name longer than 17 characters is cut.
KQStatus MakePlace(int line, const char* module);

// Behind KQ_FAIL and KQ_FAIL_ERRNO. MakeStatus is inline so that compilers and analysers see that
// what KQ_FAIL makes is a failure.
inline KQStatus MakeStatus(StatusCode code, int line, const char* module) {
  KQStatus record = MakePlace(line, module);
  record.status = static_cast<std::int32_t>(code);
  return record;
}
KQStatus MakeStatusFromErrno(int errnoValue, int line);

// The status number for an errno value; -31 for a value outside the table. 0 maps to 0.
std::int32_t StatusCodeFromErrno(int errnoValue);

}  // namespace kq

// A failure that no operating-system call caused; kModule is the module's name.
#define KQ_FAIL(code) ::kq::MakeStatus(::kq::StatusCode::code, __LINE__, kModule)

// A failed operating-system call, always told as of the module kqos_linux. The argument is errno,
// read before any other call. An errno of 0 makes a success record.
#define KQ_FAIL_ERRNO(errnoValue) ::kq::MakeStatusFromErrno((errnoValue), __LINE__)

// Hands a failed status up unchanged.
#define KQ_RETURN_IF_FAILED(expression)                          \
  do {                                                           \
    const KQStatus kqReturnedStatus = (expression);              \
    if (::kq::Failed(kqReturnedStatus)) return kqReturnedStatus; \
  } while (false)

#endif
