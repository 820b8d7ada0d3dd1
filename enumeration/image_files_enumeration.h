// The catalogue behind an enumeration's handle: the image files of the directories that a client
// has added, and how they depend on each other. It lives in memory only, and it only grows: nothing
// is removed or read again, whatever happens on the disk.
//
// Two files with one ImageId are two copies of one image; both are in it. File B is a child of file
// A if B's ParentImageId is A's ImageId, so with copies the relation is many to many.
//
// The enumeration owns every directory and every file; all other maps and lists borrow. There is no
// lock here: the mutex of the handle is held for each exported operation as a whole, and that makes
// it safe for a query to write into the scratch fields of the records.
//
// This room alone throws: std::bad_alloc, and nothing else on purpose. An exported function turns
// it into a status (exported_frame.h).
#ifndef KQ_ENUMERATION_IMAGE_FILES_ENUMERATION_H
#define KQ_ENUMERATION_IMAGE_FILES_ENUMERATION_H

#include <map>
#include <memory>
#include <string>

#include "enumeration/enumerated_file.h"

namespace kq {

// std::string compares bytes as unsigned and puts the shorter first where one begins the other.
// Entries of equal key stay in the order of admission.
using FilesByName = std::multimap<std::string, EnumeratedFile*>;
using FilesByIdentifier = std::multimap<IdentifierText, EnumeratedFile*>;

class ImageFilesEnumeration {
 public:
  ImageFilesEnumeration() = default;
  ImageFilesEnumeration(const ImageFilesEnumeration&) = delete;
  ImageFilesEnumeration& operator=(const ImageFilesEnumeration&) = delete;
  virtual ~ImageFilesEnumeration();

  // Links the file with its parents and children among the files that are there, and enters it into
  // the maps. Links are made in both directions at each admission, so the relation does not depend
  // on the order of admissions; only the order inside the lists does. All or nothing: if it throws,
  // the catalogue is as it was.
  void Admit(std::unique_ptr<EnumeratedFile> file);

  // By EnumeratedDirectory::path.
  std::map<std::string, std::unique_ptr<EnumeratedDirectory>> directories;

  // Every admitted file, base or not, complete or not; parts are not in it. Whole paths are no key:
  // a file is found by its name here and then told by its directory.
  std::multimap<std::string, std::unique_ptr<EnumeratedFile>> filesByName;

  FilesByName basesByName;
  FilesByIdentifier basesBySetId;     // by imageSetId; no query reads it
  FilesByIdentifier filesByImageId;   // every admitted file, by imageId
  FilesByIdentifier filesByParentId;  // every admitted file, by parentImageId
};

}  // namespace kq

#endif
