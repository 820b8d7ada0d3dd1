// What kqimage list prints: families of images as trees, and files that are no sound images.
#ifndef KQIMAGE_REPORT_LIST_REPORT_H
#define KQIMAGE_REPORT_LIST_REPORT_H

#include <string>
#include <vector>

#include "kqimage/image/catalogue.h"
#include "kqimage/image/family_tree.h"

namespace kqimage {

struct ListReport {
  std::vector<FamilyMember> members;
  std::vector<FamilyDrawing> families;
  std::vector<LeftOutFile> leftOut;
};

// A tree for each family, with a heading, and below them what was left out.
std::string TextReport(const ListReport& report);

// One JSON object; the manual page lists its keys.
std::string JsonReport(const ListReport& report);

}  // namespace kqimage

#endif
