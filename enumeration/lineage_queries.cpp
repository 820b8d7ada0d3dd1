#include "enumeration/lineage_queries.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "enumeration/lineage_map.h"

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

constexpr LineageRule kUpToRoots = {&EnumeratedFile::parents, true, true};
constexpr LineageRule kDownToAll = {&EnumeratedFile::children, false, false};

// Calls visit(file, distance) for each listed file, depth first: each file before those that lie
// behind it, and these in their lists' order. distance is the number of steps from start.
template <class Visit>
void WalkLineage(const ImageFilesEnumeration& enumeration, const LineageRule& rule,
                 const LineageMap& map, const EnumeratedFile& start, const Visit& visit) {
  struct Step {
    const EnumeratedFile* file;
    std::size_t nextLink;
    std::size_t distance;
  };
  std::vector<Step> way;
  // The files on the way, and of a cycle that the way has entered those that have been visited.
  std::vector<bool> isVisited(enumeration.filesByName.size());
  const auto enter = [&](const EnumeratedFile& from, std::size_t distanceOfFrom) {
    const LineageMap::Stretch& stretch = map.StretchFrom(from);
    const EnumeratedFile& file = *stretch.end;
    const std::size_t distance = distanceOfFrom + stretch.steps;
    isVisited[file.admissionNumber] = true;
    if (rule.Lists(file)) visit(file, distance);
    way.push_back({&file, 0, distance});
  };

  enter(start, 0);
  while (!way.empty()) {
    const EnumeratedFile& file = *way.back().file;
    const FileLinks& links = rule.LinksOf(file);
    if (way.back().nextLink < links.size()) {
      const EnumeratedFile& link = *links[way.back().nextLink++];
      // A cycle without a way out leads to no root; there is no need to go through it.
      if (rule.Follows(link) && !isVisited[link.admissionNumber] && map.ListedBytes(link) != 0) {
        enter(link, way.back().distance + 1);
      }
      continue;
    }
    way.pop_back();
    const bool leavesCycle = way.empty() || !map.AreOnOneCycle(*way.back().file, file);
    if (!leavesCycle) continue;
    for (const EnumeratedFile* member : map.CycleOf(file)) {
      isVisited[member->admissionNumber] = false;
    }
  }
}

// Whether the list's text can have a size of 32 bits. Its names alone decide here; the exact size
// is known when it is written.
bool FitsIntoText(const LineageMap& map, const EnumeratedFile& file) {
  return map.ListedBytes(file) < LineageMap::kManyBytes;
}

}  // namespace

KQStatus FindRoots(const ImageFilesEnumeration& enumeration, const EnumeratedFile& file,
                   FileList* roots) {
  roots->clear();
  if (file.isIncomplete) return KQ_FAIL(kNoMoreFiles);
  const LineageMap map(enumeration, kUpToRoots, file);
  if (map.ListedBytes(file) == 0) return KQ_FAIL(kNoMoreFiles);
  if (!FitsIntoText(map, file)) return KQ_FAIL(kNotEnoughMemory);

  // Depth first needs no memory for the ways that are still to be gone, and sorting by distance
  // gives the order of a walk breadth first: at equal distance both go from left to right.
  struct Root {
    const EnumeratedFile* file;
    std::size_t distance;
  };
  std::vector<Root> found;
  WalkLineage(enumeration, kUpToRoots, map, file,
              [&](const EnumeratedFile& root, std::size_t distance) {
                found.push_back({&root, distance});
              });
  std::stable_sort(found.begin(), found.end(),
                   [](const Root& a, const Root& b) { return a.distance < b.distance; });
  roots->reserve(found.size());
  for (const Root& root : found) roots->push_back(root.file);
  return Success();
}

KQStatus FindPureDependents(const ImageFilesEnumeration& enumeration, const EnumeratedFile& file,
                            FileList* dependents) {
  dependents->clear();
  const LineageMap map(enumeration, kDownToAll, file);
  if (!FitsIntoText(map, file)) return KQ_FAIL(kNotEnoughMemory);
  WalkLineage(enumeration, kDownToAll, map, file,
              [&](const EnumeratedFile& dependent, std::size_t /*distance*/) {
                dependents->push_back(&dependent);
              });
  return Success();
}

}  // namespace kq
