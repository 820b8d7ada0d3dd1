// The files that can be reached from one file upward or downward, and which of them form cycles.
//
// No file of this library ever is its own ancestor. But a header can name any parent, so two or
// more files can name each other, and the walks of lineage_queries.h must end all the same.
#ifndef KQ_ENUMERATION_LINEAGE_MAP_H
#define KQ_ENUMERATION_LINEAGE_MAP_H

#include <cstdint>
#include <span>
#include <vector>

#include "enumeration/image_files_enumeration.h"

namespace kq {

// Which way a walk goes and what it lists.
struct LineageRule {
  FileLinks EnumeratedFile::*links;
  bool skipsIncomplete;
  bool listsEndsAlone;  // only files from which the walk can't go on

  const FileLinks& LinksOf(const EnumeratedFile& file) const { return file.*links; }
  bool Follows(const EnumeratedFile& file) const { return !(skipsIncomplete && file.isIncomplete); }
  bool Lists(const EnumeratedFile& file) const;
};

// Made in time and memory that grow with the number of files and links, not of ways: with copies
// of images, ways can double with every generation.
class LineageMap {
 public:
  // Throws std::bad_alloc.
  LineageMap(const ImageFilesEnumeration& enumeration, const LineageRule& rule,
             const EnumeratedFile& start);

  // The file and all with which it is on a common cycle; most often the file alone.
  std::span<const EnumeratedFile* const> CycleOf(const EnumeratedFile& file) const {
    return ComponentOf(file).members(files_);
  }
  bool AreOnOneCycle(const EnumeratedFile& a, const EnumeratedFile& b) const {
    return StateOf(a).component == StateOf(b).component;
  }

  // The bytes of the names, each with one byte more, that a walk from the file lists, counted as
  // often as they are listed. kManyBytes stands for all larger numbers.
  static constexpr std::uint64_t kManyBytes = std::uint64_t{1} << 32;
  std::uint64_t ListedBytes(const EnumeratedFile& file) const {
    return ComponentOf(file).listedBytes;
  }

  // Where a walk that passes the file comes to a choice, an end or a cycle, and after how many
  // steps. Between, there is one way on and nothing to list, so that walking many ways through a
  // long chain need not go through it each time.
  struct Stretch {
    const EnumeratedFile* end = nullptr;
    std::size_t steps = 0;
  };
  const Stretch& StretchFrom(const EnumeratedFile& file) const { return StateOf(file).stretch; }

 private:
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  struct State {
    std::uint32_t order = kNone;   // in which the search came to the file
    std::uint32_t oldest = kNone;  // the smallest order known to be reached from it
    std::uint32_t component = kNone;
    Stretch stretch;
  };

  // Files that all reach each other; they stand side by side in files_.
  struct Component {
    std::size_t first;
    std::size_t count;
    std::uint64_t listedBytes;
    std::span<const EnumeratedFile* const> members(
        const std::vector<const EnumeratedFile*>& files) const {
      return std::span(files).subspan(first, count);
    }
  };

  State& StateOf(const EnumeratedFile& file) { return states_[file.admissionNumber]; }
  const State& StateOf(const EnumeratedFile& file) const { return states_[file.admissionNumber]; }
  const Component& ComponentOf(const EnumeratedFile& file) const {
    return components_[StateOf(file).component];
  }
  void Search(const EnumeratedFile& start);
  void CloseComponent(const EnumeratedFile& root, std::vector<const EnumeratedFile*>* open);
  Stretch FindStretch(const EnumeratedFile& file) const;
  std::uint64_t CountBytes(std::span<const EnumeratedFile* const> members) const;

  LineageRule rule_;
  std::vector<State> states_;  // by admissionNumber
  std::vector<const EnumeratedFile*> files_;
  std::vector<Component> components_;
};

}  // namespace kq

#endif
