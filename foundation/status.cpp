#include "foundation/status.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace kq {

// The record crosses the exported interface, so its layout is fixed.
static_assert(sizeof(KQStatus) == 32);
static_assert(offsetof(KQStatus, status) == 0);
static_assert(offsetof(KQStatus, detail1) == 4);
static_assert(offsetof(KQStatus, detail2) == 8);
static_assert(offsetof(KQStatus, line) == 12);
static_assert(offsetof(KQStatus, file) == 14);

namespace {

constexpr char kErrnoModule[] = "kqos_linux";

// The value of detail2 that says that detail1 is an errno value.
constexpr std::uint32_t kDetailIsErrno = 2;

constexpr StatusCode CodeOf(int errnoValue) {
  switch (errnoValue) {
    case 0:
      return StatusCode::kSuccess;
    case EPERM:
    case EACCES:
      return StatusCode::kAccessDenied;
    case ENOENT:
      return StatusCode::kFileNotFound;
    case EINTR:
      return StatusCode::kCancelled;
    case EIO:
      return StatusCode::kCrc;
    case EBADF:
    case EINVAL:
      return StatusCode::kInvalidParameter;
    case EAGAIN:
      return StatusCode::kRetry;
    case ENOMEM:
    case ENOLCK:
      return StatusCode::kNotEnoughMemory;
    case EBUSY:
      return StatusCode::kBusy;
    case EEXIST:
      return StatusCode::kFileExists;
    case EMFILE:
      return StatusCode::kTooManyOpenFiles;
    case ETXTBSY:
      return StatusCode::kSharingViolation;
    case ENOSPC:
    case EDQUOT:
      return StatusCode::kDiskFull;
    case EROFS:
      return StatusCode::kWriteProtect;
    case EPIPE:
      return StatusCode::kBrokenPipe;
    case ENAMETOOLONG:
      return StatusCode::kInvalidName;
    case ENOSYS:
    case ENOTSUP:
      return StatusCode::kNotSupported;
    case EBADFD:
      return StatusCode::kInvalidState;
    case EILSEQ:
      return StatusCode::kNoUnicodeTranslation;
    case ENOBUFS:
      return StatusCode::kMoreData;
    case ETIMEDOUT:
      return StatusCode::kSemTimeout;
    case ECONNREFUSED:
      return StatusCode::kReqNotAccep;
    case EHOSTUNREACH:
      return StatusCode::kBadNetName;
    default:
      return StatusCode::kGenFailure;
  }
}

}  // namespace

KQStatus Success(int line) {
  KQStatus record{};
  record.line = static_cast<std::uint16_t>(line);
  return record;
}

KQStatus MakePlace(int line, const char* module) {
  KQStatus record = Success(line);
  // The record is zero to its end, so a name that is cut still has its NUL.
  std::memcpy(record.file, module, strnlen(module, sizeof record.file - 1));
  return record;
}

KQStatus MakeStatusFromErrno(int errnoValue, int line) {
  const StatusCode code = CodeOf(errnoValue);
  if (code == StatusCode::kSuccess) return Success(line);
  KQStatus record = MakeStatus(code, line, kErrnoModule);
  record.detail1 = static_cast<std::uint32_t>(errnoValue);
  record.detail2 = kDetailIsErrno;
  return record;
}

std::int32_t StatusCodeFromErrno(int errnoValue) {
  return static_cast<std::int32_t>(CodeOf(errnoValue));
}

}  // namespace kq
