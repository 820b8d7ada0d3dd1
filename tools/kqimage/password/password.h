// A password while the client needs it.
//
// Its bytes stay in one place: they are read into the object itself, never copied, and wiped when
// the object goes, on every path. Whoever needs it is handed a pointer and keeps none.
#ifndef KQIMAGE_PASSWORD_PASSWORD_H
#define KQIMAGE_PASSWORD_PASSWORD_H

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace kqimage {

class Password {
 public:
  // As many bytes as a terminal takes in one line.
  static constexpr std::size_t kMaxBytes = 4095;

  Password() = default;
  ~Password() { Wipe(); }
  Password(const Password&) = delete;
  Password& operator=(const Password&) = delete;

  // Takes the first line that the descriptor gives, without its end (LF or CR LF). More may have
  // been read from it. Origin says in messages what is read: "the password in FILE". Throws a
  // Failure if it can't be read or is too long, and Interrupted.
  void ReadLine(int fd, const std::string& origin);

  // Throws a Failure if no image can be enciphered with it: it is empty, not valid UTF-8, or holds
  // a NUL byte.
  void Check(const std::string& origin) const;

  // NUL-terminated; null if none has been read.
  const char* CString() const { return isRead_ ? bytes_.data() : nullptr; }

  bool operator==(const Password& other) const { return Text() == other.Text(); }

 private:
  std::string_view Text() const { return {bytes_.data(), length_}; }
  void Wipe();

  std::array<char, kMaxBytes + 2> bytes_ = {};  // with room for the longest line end
  std::size_t length_ = 0;
  bool isRead_ = false;
};

}  // namespace kqimage

#endif
