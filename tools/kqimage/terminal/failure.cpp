#include "kqimage/terminal/failure.h"

#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <system_error>

#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

struct StatusWords {
  std::int32_t status;
  std::string_view words;
};

constexpr std::array kStatusWords = {
    StatusWords{KQ_STATUS_FILE_NOT_FOUND, "there is no such file"},
    StatusWords{KQ_STATUS_TOO_MANY_OPEN_FILES, "too many files are open"},
    StatusWords{KQ_STATUS_ACCESS_DENIED, "permission denied"},
    StatusWords{KQ_STATUS_NOT_ENOUGH_MEMORY, "not enough memory"},
    StatusWords{KQ_STATUS_INVALID_DATA, "the file holds data that make no sense"},
    StatusWords{KQ_STATUS_NO_MORE_FILES, "the files do not form one complete chain"},
    StatusWords{KQ_STATUS_WRITE_PROTECT, "it is write-protected"},
    StatusWords{KQ_STATUS_CRC, "input or output error"},
    StatusWords{KQ_STATUS_GEN_FAILURE, "the operating system failed in a way it does not explain"},
    StatusWords{KQ_STATUS_SHARING_VIOLATION, "another program is using it"},
    StatusWords{KQ_STATUS_NOT_SUPPORTED, "the file system does not support this"},
    StatusWords{KQ_STATUS_FILE_EXISTS, "it exists already"},
    StatusWords{KQ_STATUS_INVALID_PASSWORD, "its password is missing or wrong"},
    StatusWords{KQ_STATUS_INVALID_PARAMETER, "the library refuses what it was asked to do"},
    StatusWords{KQ_STATUS_DISK_FULL, "no space left on the device"},
    StatusWords{KQ_STATUS_INVALID_NAME, "the file name is not valid"},
    StatusWords{KQ_STATUS_BUSY, "it is busy"},
    StatusWords{KQ_STATUS_FILE_CORRUPT, "it is damaged, or no image file"},
    StatusWords{KQ_STATUS_UNSUPPORTED_TYPE,
                "it is compressed in a way that can be written but not read back"},
    StatusWords{KQ_STATUS_ENCRYPTION_FAILED, "enciphering failed"},
    StatusWords{KQ_STATUS_DECRYPTION_FAILED, "deciphering failed"},
};

constexpr std::uint32_t kDetail1IsErrno = 2;

}  // namespace

std::string StatusText(const KQStatus& status) {
  if (status.detail2 == kDetail1IsErrno && status.detail1 != 0) {
    const int error = static_cast<int>(status.detail1);
    return fmt::format("{} (status {}, errno {})", std::generic_category().message(error),
                       status.status, error);
  }
  for (const StatusWords& known : kStatusWords) {
    if (known.status == status.status) {
      return fmt::format("{} (status {})", known.words, status.status);
    }
  }
  return fmt::format("it failed (status {})", status.status);
}

void FailErrno(int error, std::string_view action, std::string_view path) {
  throw Failure(fmt::format("cannot {} {}: {}", action, Printable(path),
                            std::generic_category().message(error)));
}

void Check(const KQStatus& status, std::string_view action, std::string_view path) {
  if (status.status == KQ_STATUS_SUCCESS) return;
  throw Failure(fmt::format("cannot {} {}: {}", action, Printable(path), StatusText(status)));
}

}  // namespace kqimage
