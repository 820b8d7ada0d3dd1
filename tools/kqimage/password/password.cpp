#include "kqimage/password/password.h"

#include <fmt/format.h>
#include <string.h>

#include <cerrno>
#include <span>

#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/text.h"

namespace kqimage {

void Password::Wipe() {
  explicit_bzero(bytes_.data(), bytes_.size());
  length_ = 0;
  isRead_ = false;
}

void Password::ReadLine(int fd, const std::string& origin) {
  Wipe();
  const std::span<char> place(bytes_);
  std::size_t filled = 0;
  std::size_t length = std::string_view::npos;
  while (length == std::string_view::npos && filled < place.size()) {
    const ssize_t got = ReadInterruptibly(fd, place.subspan(filled));
    if (got < 0) FailErrno(errno, "read", origin);
    filled += static_cast<std::size_t>(got);
    const std::string_view text(bytes_.data(), filled);
    length = text.find('\n');
    if (length != std::string_view::npos && text.substr(0, length).ends_with('\r')) --length;
    if (got == 0) length = filled;  // a last line without an end
  }
  if (length > kMaxBytes) {
    throw Failure(fmt::format("{} is longer than {} bytes", Printable(origin), kMaxBytes));
  }
  explicit_bzero(bytes_.data() + length, bytes_.size() - length);
  length_ = length;
  isRead_ = true;
}

void Password::Check(const std::string& origin) const {
  if (length_ == 0) {
    throw Failure(fmt::format("{} is empty; an image needs one that is not", Printable(origin)));
  }
  if (Text().find('\0') != std::string_view::npos) {
    throw Failure(fmt::format("{} holds a NUL byte, which no password can", Printable(origin)));
  }
  if (!Utf16Units(Text())) {
    throw Failure(fmt::format("{} is not valid UTF-8", Printable(origin)));
  }
}

}  // namespace kqimage
