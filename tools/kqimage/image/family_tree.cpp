#include "kqimage/image/family_tree.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <numeric>
#include <tuple>

#include "kqimage/image/image_file.h"

namespace kqimage {
namespace {

using Id = std::array<std::uint8_t, 16>;

Id IdOf(const std::uint8_t (&bytes)[16]) {
  Id id;
  std::memcpy(id.data(), bytes, id.size());
  return id;
}

// Sets copyOf and buildsOn.
void FindParents(std::vector<FamilyMember>& members) {
  // Of copies the complete one with the first path stands for all.
  std::map<Id, std::size_t> standsFor;
  const auto isBetter = [&](std::size_t a, std::size_t b) {
    return std::tie(members[a].isIncomplete, members[a].path) <
           std::tie(members[b].isIncomplete, members[b].path);
  };
  for (std::size_t i = 0; i < members.size(); ++i) {
    const auto [found, isNew] = standsFor.emplace(IdOf(members[i].info.basic.imageId), i);
    if (!isNew && isBetter(i, found->second)) found->second = i;
  }
  for (std::size_t i = 0; i < members.size(); ++i) {
    FamilyMember& member = members[i];
    const std::size_t original = standsFor.at(IdOf(member.info.basic.imageId));
    if (original != i) member.copyOf = original;
    const auto parent = standsFor.find(IdOf(member.info.basic.parentImageId));
    if (parent != standsFor.end()) member.buildsOn = parent->second;
  }
}

// A damaged header can name any parent. Cuts each ring at its first path, so that what is left has
// a beginning.
void CutRings(std::vector<FamilyMember>& members, const std::vector<std::size_t>& byPath) {
  enum class State { kUnseen, kOnWay, kDone };
  std::vector<State> states(members.size(), State::kUnseen);
  std::vector<std::size_t> way;
  for (const std::size_t start : byPath) {
    way.clear();
    std::optional<std::size_t> at = start;
    while (at && states[*at] == State::kUnseen) {
      states[*at] = State::kOnWay;
      way.push_back(*at);
      at = members[*at].buildsOn;
    }
    if (at && states[*at] == State::kOnWay) {
      const auto ring = std::find(way.begin(), way.end(), *at);
      const auto first = std::min_element(ring, way.end(), [&](std::size_t a, std::size_t b) {
        return members[a].path < members[b].path;
      });
      members[*first].isInRing = true;
      members[*first].buildsOn.reset();
    }
    for (const std::size_t passed : way) states[passed] = State::kDone;
  }
}

class Drawer {
 public:
  Drawer(const std::vector<FamilyMember>& members, const std::vector<std::size_t>& byPath)
      : members_(members), children_(members.size()), weights_(members.size(), 1) {
    for (const std::size_t i : byPath) {
      if (members[i].buildsOn) children_[*members[i].buildsOn].push_back(i);
    }
    for (auto& children : children_) {
      std::stable_sort(children.begin(), children.end(), [&](std::size_t a, std::size_t b) {
        return members[a].info.basic.creationTime < members[b].info.basic.creationTime;
      });
    }
    Weigh();
  }

  FamilyDrawing Draw(std::size_t root) const {
    FamilyDrawing drawing;
    DrawColumn(root, "", "  ", drawing);
    return drawing;
  }

 private:
  // How many files each has at and behind it. Without recursion: a chain can be long.
  void Weigh() {
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < members_.size(); ++i) {
      if (!members_[i].buildsOn) order.push_back(i);
    }
    for (std::size_t next = 0; next < order.size(); ++next) {
      order.insert(order.end(), children_[order[next]].begin(), children_[order[next]].end());
    }
    for (auto i = order.rbegin(); i != order.rend(); ++i) {
      if (members_[*i].buildsOn) weights_[*members_[*i].buildsOn] += weights_[*i];
    }
  }

  // A branch has at most half of the files that its column has, so branches don't nest deeply.
  void DrawColumn(std::size_t first, const std::string& firstIndent, const std::string& indent,
                  FamilyDrawing& drawing) const {
    std::optional<std::size_t> at = first;
    while (at) {
      drawing.push_back({*at, *at == first ? firstIndent : indent});
      const std::vector<std::size_t>& children = children_[*at];
      const auto heaviest =
          std::max_element(children.begin(), children.end(),
                           [&](std::size_t a, std::size_t b) { return weights_[a] < weights_[b]; });
      std::size_t branchesLeft = children.empty() ? 0 : children.size() - 1;
      for (auto child = children.begin(); child != children.end(); ++child) {
        if (child == heaviest) continue;
        const bool isLast = --branchesLeft == 0;
        DrawColumn(*child, indent + (isLast ? "└─ " : "├─ "), indent + (isLast ? "   " : "│  "),
                   drawing);
      }
      at = heaviest != children.end() ? std::optional(*heaviest) : std::nullopt;
    }
  }

  const std::vector<FamilyMember>& members_;
  std::vector<std::vector<std::size_t>> children_;
  std::vector<std::size_t> weights_;
};

}  // namespace

std::vector<FamilyDrawing> BuildFamilies(std::vector<FamilyMember>& members) {
  std::vector<std::size_t> byPath(members.size());
  std::iota(byPath.begin(), byPath.end(), std::size_t{0});
  std::sort(byPath.begin(), byPath.end(),
            [&](std::size_t a, std::size_t b) { return members[a].path < members[b].path; });
  FindParents(members);
  CutRings(members, byPath);
  const Drawer drawer(members, byPath);
  std::vector<FamilyDrawing> drawings;
  for (const std::size_t i : byPath) {
    if (!members[i].buildsOn) drawings.push_back(drawer.Draw(i));
  }
  return drawings;
}

}  // namespace kqimage
