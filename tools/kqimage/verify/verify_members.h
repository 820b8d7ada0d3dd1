// Which files a verification of an image looks at, and which others depend on them.
//
// FindChain ends at the first thing that is wrong; here as much of a chain is found as there is, so
// that all of its damage can be told.
#ifndef KQIMAGE_VERIFY_VERIFY_MEMBERS_H
#define KQIMAGE_VERIFY_VERIFY_MEMBERS_H

#include <kqimageapi.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kqimage/system/file_identity.h"
#include "kqimage/verify/verify_layout.h"

namespace kqimage {

using ImageId = std::array<std::uint8_t, 16>;

inline ImageId ImageIdOf(const std::uint8_t (&bytes)[16]) {
  ImageId id;
  std::memcpy(id.data(), bytes, id.size());
  return id;
}

// All files that are verified together, each read once whatever chains it is in.
class LayoutStore {
 public:
  // The file's place in the store. Throws a Failure if it can't be opened.
  std::size_t Get(const std::string& path);

  const std::vector<ImageLayout>& All() const { return layouts_; }
  void AddDamage(std::size_t i, Damage damage) { layouts_[i].damages.push_back(std::move(damage)); }
  const ImageLayout& At(std::size_t i) const { return layouts_[i]; }

 private:
  std::vector<ImageLayout> layouts_;
  std::map<FileIdentity, std::size_t> known_;
};

struct MissingFile {
  Damage damage;
  ImageId image = {};  // whose part or parent it is
};

struct VerifiedChain {
  std::string image;                 // as it was named
  std::vector<std::size_t> files;    // in the store, base first, as far as they were found
  std::vector<MissingFile> missing;  // what is not there
  std::vector<std::string> notes;    // of files in the folders that can't be used
};

// The chain of the image, with its other files from its own folder and the given ones.
VerifiedChain FindVerifiedChain(const std::string& image, const std::vector<std::string>& folders,
                                LayoutStore& store);

// The paths of the images that build on one with the given identifiers, directly or not, in the
// folders and among the files of the store.
std::vector<std::string> FindDependents(const std::vector<ImageId>& ids,
                                        const std::vector<std::string>& folders,
                                        const LayoutStore& store);

// The folders in which the rest of a file's family is looked for.
std::vector<std::string> FamilyFolders(const std::string& file,
                                       const std::vector<std::string>& others);

}  // namespace kqimage

#endif
