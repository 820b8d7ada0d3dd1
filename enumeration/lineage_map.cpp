#include "enumeration/lineage_map.h"

#include <algorithm>

namespace kq {

bool LineageRule::Lists(const EnumeratedFile& file) const {
  const FileLinks& onward = LinksOf(file);
  return !listsEndsAlone || std::none_of(onward.begin(), onward.end(),
                                         [this](const auto* link) { return Follows(*link); });
}

LineageMap::LineageMap(const ImageFilesEnumeration& enumeration, const LineageRule& rule,
                       const EnumeratedFile& start)
    : rule_(rule), states_(enumeration.filesByName.size()) {
  Search(start);
}

// Tarjan's search for strongly connected components, with a stack of its own, since a chain can
// have more files than the thread's stack has room for. A component is closed when everything that
// can be reached from it has been closed.
void LineageMap::Search(const EnumeratedFile& start) {
  struct Step {
    const EnumeratedFile* file;
    std::size_t nextLink;
  };
  std::vector<Step> way;
  std::vector<const EnumeratedFile*> open;  // met, and in no closed component
  std::uint32_t met = 0;
  const auto enter = [&](const EnumeratedFile& file) {
    StateOf(file).order = StateOf(file).oldest = met++;
    open.push_back(&file);
    way.push_back({&file, 0});
  };

  enter(start);
  while (!way.empty()) {
    const EnumeratedFile& file = *way.back().file;
    State& state = StateOf(file);
    const FileLinks& links = rule_.LinksOf(file);
    if (way.back().nextLink < links.size()) {
      const EnumeratedFile& link = *links[way.back().nextLink++];
      if (!rule_.Follows(link)) continue;
      if (StateOf(link).order == kNone) {
        enter(link);
      } else if (StateOf(link).component == kNone) {
        state.oldest = std::min(state.oldest, StateOf(link).order);
      }
      continue;
    }
    way.pop_back();
    if (!way.empty()) {
      State& below = StateOf(*way.back().file);
      below.oldest = std::min(below.oldest, state.oldest);
    }
    if (state.oldest == state.order) CloseComponent(file, &open);
  }
}

void LineageMap::CloseComponent(const EnumeratedFile& root,
                                std::vector<const EnumeratedFile*>* open) {
  const auto number = static_cast<std::uint32_t>(components_.size());
  Component component{files_.size(), 0, 0};
  const EnumeratedFile* file = nullptr;
  do {
    file = open->back();
    open->pop_back();
    StateOf(*file).component = number;
    files_.push_back(file);
    ++component.count;
  } while (file != &root);
  // Not in components_ yet, so that only what was closed before is counted from there.
  component.listedBytes = CountBytes(component.members(files_));
  components_.push_back(component);
  for (const EnumeratedFile* member : component.members(files_)) {
    StateOf(*member).stretch = component.count == 1 ? FindStretch(*member) : Stretch{member, 0};
  }
}

// The file is on no cycle, and all that lies behind it is in closed components.
LineageMap::Stretch LineageMap::FindStretch(const EnumeratedFile& file) const {
  if (rule_.Lists(file)) return {&file, 0};
  const EnumeratedFile* onlyWay = nullptr;
  for (const EnumeratedFile* link : rule_.LinksOf(file)) {
    if (!rule_.Follows(*link) || ListedBytes(*link) == 0) continue;
    if (onlyWay != nullptr) return {&file, 0};
    onlyWay = link;
  }
  if (onlyWay == nullptr) return {&file, 0};
  const Stretch& onward = StretchFrom(*onlyWay);
  return {onward.end, onward.steps + 1};
}

// A walk that enters a cycle comes to each of its files once, so the sum is the same for all.
std::uint64_t LineageMap::CountBytes(std::span<const EnumeratedFile* const> members) const {
  std::uint64_t bytes = 0;
  const auto add = [&](std::uint64_t more) { bytes = std::min(bytes + more, kManyBytes); };
  for (const EnumeratedFile* file : members) {
    if (rule_.Lists(*file)) add(file->name.size() + 1);
    for (const EnumeratedFile* link : rule_.LinksOf(*file)) {
      if (rule_.Follows(*link) && !AreOnOneCycle(*link, *file)) add(ListedBytes(*link));
    }
  }
  return bytes;
}

}  // namespace kq
