// The records of an enumeration: a directory that was added, and a file that was found in it.
//
// All of them belong to one ImageFilesEnumeration, live as long as it does, and are guarded by the
// mutex of its handle.
#ifndef KQ_ENUMERATION_ENUMERATED_FILE_H
#define KQ_ENUMERATION_ENUMERATED_FILE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "enumeration/identifier.h"

namespace kq {

// The path without the prefix \\?\ that other systems' tools put before long paths. A path of four
// characters or fewer stays as it is.
std::string_view PlainPath(std::string_view path);

struct EnumeratedDirectory {
  explicit EnumeratedDirectory(std::string fullPath)
      : path(std::move(fullPath)), plainPath(PlainPath(path)) {}

  std::string path;  // absolute, with one slash at its end; the root directory has two
  std::string plainPath;
};

class EnumeratedFile;
using FileLinks = std::vector<EnumeratedFile*>;  // borrowed

// An image file, or a continuation part of a split image. Of a part, queries read only name and
// directory.
class EnumeratedFile {
 public:
  EnumeratedFile() = default;
  EnumeratedFile(const EnumeratedFile&) = delete;
  EnumeratedFile& operator=(const EnumeratedFile&) = delete;
  virtual ~EnumeratedFile();

  bool IsBase() const { return IsZero(parentImageId); }

  std::string name;  // one path component, in directory
  Identifier imageId{};
  Identifier parentImageId{};  // all zero in a base
  Identifier imageSetId{};
  std::uint32_t partIndex = 0;
  std::uint32_t lastPart = 0;        // 0: a continuation part follows
  std::uint32_t generation = 0;      // in a part, the main file's
  std::uint32_t nextGeneration = 0;  // in a part, the main file's
  std::uint64_t creationTimeUtc = 0;

  // Scratch of the search for the shortest path, which sets both in every file before it begins.
  std::int32_t pathLevel = -1;  // -1: unvisited
  EnumeratedFile* pathPredecessor = nullptr;

  bool hasExtendedRecord = false;
  Identifier snapshotSetId{};  // all zero without an ExtendedRecord
  const EnumeratedDirectory* directory = nullptr;

  // Two views of one relation: A stands in B's parents as often as B in A's children. Both in the
  // order in which the links were made. With copies of an image there are several parents.
  FileLinks parents;
  FileLinks children;

  // The continuation parts that were found, in ascending order. They are this record's own, since
  // nobody else knows them.
  std::vector<std::unique_ptr<EnumeratedFile>> parts;
  bool isIncomplete = false;  // a part is missing or does not fit

  // For a record that goes while its relatives stay: its destructor takes it out of their lists.
  // False in an enumeration, which goes as a whole.
  bool unlinkOnDestroy = false;

  std::size_t admissionNumber = 0;  // counted from 0; no meaning in a part
};

}  // namespace kq

#endif
