// The volume of a mounted chain, read and written by many threads.
//
// Calls on one handle of the library run one after the other, so a volume that is only read has
// several, each with its lock; the files behind them and the caches are shared. A volume that is
// written has one, because a sparse file belongs to one chain.
#ifndef KQIMAGE_MOUNT_MOUNTED_VOLUME_H
#define KQIMAGE_MOUNT_MOUNTED_VOLUME_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "kqimage/image/chain_reader.h"
#include "kqimage/verify/hidden_damage.h"

namespace kqimage {

class MountedVolume {
 public:
  // Opens the chain, which RefuseUnreadable has let pass; with the handle of a sparse file, which
  // becomes the volume's, it can be written. Throws a Failure.
  MountedVolume(const Chain& chain, const char* password, std::uint64_t sparse);

  std::uint64_t Size() const { return readers_.front()->chain.VolumeSize(); }
  bool TakesAnyPassword() const { return readers_.front()->chain.TakesAnyPassword(); }
  bool IsWritable() const { return isWritable_; }

  // Fills bytes, which lie within the volume. Throws a Failure.
  void Read(std::uint64_t offset, std::span<std::byte> bytes);

  // Writes bytes, which lie within the volume. Only whole sectors can become an image, so the
  // blocks that the bytes fill in part are read, changed and written as a whole.
  KQStatus Write(std::uint64_t offset, std::span<const std::byte> bytes);

  // Closes the volume, and the sparse file completely. No other call may run or follow.
  KQStatus Close();

 private:
  struct Reader {
    Reader(const Chain& files, const char* password, std::uint64_t sparse)
        : chain(files, password, sparse) {}
    std::mutex mutex;
    ChainReader chain;
  };

  std::unique_ptr<HiddenDamage> damage_;
  std::vector<std::unique_ptr<Reader>> readers_;
  bool isWritable_;
  std::uint64_t block_;         // the unit of writes: whole sectors
  std::uint64_t endOfSectors_;  // where the volume's last sector ends
};

}  // namespace kqimage

#endif
