// Reads a chain of images as one flat volume.
//
// The library reports most damage by a status, but a chunk whose compressed stream is damaged reads
// as zero, and so does the rest of the same read, under a status of success. A restore must not
// take such zeros for data: verify/hidden_damage.h tells them apart.
#ifndef KQIMAGE_IMAGE_CHAIN_READER_H
#define KQIMAGE_IMAGE_CHAIN_READER_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "kqimage/image/image_file.h"
#include "kqimage/system/unique_fd.h"

namespace kqimage {

// Throws a Failure that names the file if one has data that the library can't read back.
void RefuseUnreadable(const Chain& chain);

class ChainReader {
 public:
  // Opens the chain, which RefuseUnreadable has let pass. Throws a Failure if that fails. The
  // password, needed if one of the files is enciphered, must have been tried on each of them: the
  // library takes a file that the process has open already with any. The handle of a sparse file to
  // lay over the chain becomes the reader's.
  explicit ChainReader(const Chain& chain, const char* password = nullptr,
                       std::uint64_t sparse = 0);
  ~ChainReader();
  ChainReader(const ChainReader&) = delete;
  ChainReader& operator=(const ChainReader&) = delete;

  // Fills bytes from the volume's offset; what no file holds is zero.
  void Read(std::uint64_t offset, std::span<std::byte> bytes) const;

  // Writes into the sparse file.
  KQStatus Write(std::uint64_t offset, std::span<const std::byte> bytes) const;

  // Closes the chain, and the sparse file completely; nothing else may be called then. Where that
  // can't fail, the destructor will do.
  KQStatus Close();

  // The SourceSize of the newest image.
  std::uint64_t VolumeSize() const { return volumeSize_; }

  // True if a wrong password would not have been noticed.
  bool TakesAnyPassword() const { return takesAnyPassword_; }

  // What to add to a message about damage.
  std::string PasswordDoubt() const;

  const std::string& NewestPath() const { return newestPath_; }

 private:
  std::string newestPath_;
  std::uint64_t volumeSize_ = 0;
  bool takesAnyPassword_ = false;  // a file's encryption can't tell a wrong one
  std::uint64_t handle_ = 0;
  std::vector<UniqueFd> opened_;  // files whose path can't stand in the library's list
};

}  // namespace kqimage

#endif
