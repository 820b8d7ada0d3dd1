// A file in memory that the library can open by a path.
#ifndef KQ_FUZZ_SCRATCH_FILE_H
#define KQ_FUZZ_SCRATCH_FILE_H

#include <cstdint>
#include <span>
#include <string>

#include "tests/support/bytes.h"

namespace kqfuzz {

class ScratchFile {
 public:
  ScratchFile();
  ~ScratchFile();
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  // Good as long as the file is.
  const std::string& Path() const { return path_; }

  void Write(std::span<const std::uint8_t> bytes) const;  // replaces all
  kqtest::Bytes Read() const;
  // Of an unsaved state, to be compared with a later one.
  bool Holds(std::span<const std::uint8_t> bytes) const;

 private:
  int fd_;
  std::string path_;
};

}  // namespace kqfuzz

#endif
