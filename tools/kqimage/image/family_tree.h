// How image files hang together, for drawing: which file builds on which, file by file.
//
// In the catalogue the relation is between images, and an image can have copies. Here each file
// builds on one file: of a parent's copies on a complete one, if there is any.
#ifndef KQIMAGE_IMAGE_FAMILY_TREE_H
#define KQIMAGE_IMAGE_FAMILY_TREE_H

#include <kqimageapi.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace kqimage {

struct FamilyMember {
  std::string path;
  std::vector<std::string> parts;  // the further parts of a split image, those that were found
  ImageFileInfo2 info = {};
  std::uint64_t size = 0;     // of all its files
  bool isOrphan = false;      // nothing can be restored from it
  bool isIncomplete = false;  // a part is missing or does not fit

  // What BuildFamilies finds, as places in the list of members.
  std::optional<std::size_t> buildsOn;
  std::optional<std::size_t> copyOf;
  bool isInRing = false;  // its parents lead back to it; the drawing begins with it
};

// A line of the drawing. A file stands below the one that it builds on, in the same column; all but
// the family's first are indented. Where several build on one file, the one with most behind it
// goes on in the column, and before it the others begin branches, indented further.
struct FamilyLine {
  std::size_t member;
  std::string indent;
};

// The lines of one family, from the file that builds on none of the others. Never empty.
using FamilyDrawing = std::vector<FamilyLine>;

// Fills what the members lack and draws all families, in the order of their first files' paths.
// Every member stands in one line of one drawing.
std::vector<FamilyDrawing> BuildFamilies(std::vector<FamilyMember>& members);

}  // namespace kqimage

#endif
