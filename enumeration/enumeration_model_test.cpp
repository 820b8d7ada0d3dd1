// Random catalogues on the disk, and every query answered by a plain model from the definitions
// alone.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "enumeration/enumeration_test_support.h"
#include "tests/support/test_seed.h"

namespace {

using kqtest::ImageFile;
using kqtest::ImageSpec;
using kqtest::Listed;

// One for all catalogues of a run; each adds its own number.
std::uint32_t Seed() {
  static const std::uint32_t seed = kqtest::TestSeed();
  return seed;
}

// A file that was written, and what the catalogue must make of it.
struct ModelFile {
  std::string folder;  // with its slash
  std::string name;
  ImageFile image;
  bool isSound = true;  // otherwise it is not admitted
  bool isIncomplete = false;
  std::vector<std::string> parts;
};
using ModelList = std::vector<const ModelFile*>;

// Answers from the admitted files, which stand in the order of their admission.
class Model {
 public:
  void Admit(const ModelFile* file) {
    files_.push_back(file);
    byId_[file->image.id].push_back(file);
    byParent_[file->image.parent].push_back(file);
  }
  const ModelList& files() const { return files_; }

  ModelList Parents(const ModelFile* file) const {
    return file->image.parent != 0 ? Under(byId_, file->image.parent) : ModelList();
  }
  ModelList Children(const ModelFile* file) const { return Under(byParent_, file->image.id); }

  // Fostered files, in the order of reaching; only from bases of one set if it is given.
  ModelList Fostered(const std::uint32_t* set = nullptr) const {
    ModelList bases = Where([&](const ModelFile* file) {
      return file->image.parent == 0 && !file->isIncomplete &&
             (set == nullptr || file->image.set == *set);
    });
    std::stable_sort(bases.begin(), bases.end(), [](const ModelFile* a, const ModelFile* b) {
      return std::lexicographical_compare(
          a->name.begin(), a->name.end(), b->name.begin(), b->name.end(), [](char x, char y) {
            return static_cast<unsigned char>(x) < static_cast<unsigned char>(y);
          });
    });
    std::deque<const ModelFile*> queue(bases.begin(), bases.end());
    std::set<const ModelFile*> met(bases.begin(), bases.end());
    ModelList reached;
    while (!queue.empty()) {
      const ModelFile* file = queue.front();
      queue.pop_front();
      reached.push_back(file);
      for (const ModelFile* child : Children(file)) {
        if (!child->isIncomplete && met.insert(child).second) queue.push_back(child);
      }
    }
    return reached;
  }
  ModelList Orphans() const {
    const ModelList fostered = Fostered();
    const std::set<const ModelFile*> isFostered(fostered.begin(), fostered.end());
    return Where([&](const ModelFile* file) { return !isFostered.contains(file); });
  }
  ModelList Snapshots(std::uint32_t snapshot) const {
    ModelList found;
    for (const ModelFile* file : Fostered()) {
      if (file->image.snapshot == snapshot) found.push_back(file);
    }
    return found;
  }

  // Empty if there is none.
  ModelList Chain(const ModelFile* target) const {
    const ModelList sound = Fostered(&target->image.set);
    if (std::find(sound.begin(), sound.end(), target) == sound.end()) return {};
    if (target->image.parent == 0) return {target};
    // Whole ways, from the target up, level by level; the first to come to a file keeps it.
    std::set<const ModelFile*> met = {target};
    std::vector<ModelList> level = {{target}};
    while (!level.empty()) {
      std::vector<ModelList> next;
      for (const ModelList& way : level) {
        for (const ModelFile* parent : Parents(way.back())) {
          ModelList longer = way;
          longer.push_back(parent);
          if (parent->image.parent == 0) return {longer.rbegin(), longer.rend()};
          if (met.insert(parent).second) next.push_back(longer);
        }
      }
      level = next;
    }
    return {};
  }

  ModelList Roots(const ModelFile* start) const {
    if (start->isIncomplete) return {};
    ModelList roots;
    std::deque<const ModelFile*> queue = {start};
    while (!queue.empty()) {
      const ModelFile* file = queue.front();
      queue.pop_front();
      bool isRoot = true;
      for (const ModelFile* parent : Parents(file)) {
        if (parent->isIncomplete) continue;
        queue.push_back(parent);
        isRoot = false;
      }
      if (isRoot) roots.push_back(file);
    }
    return roots;
  }

  ModelList Dependents(const ModelFile* file) const {
    ModelList list;
    AppendDependents(file, &list);
    return list;
  }

 private:
  template <class Condition>
  ModelList Where(const Condition& condition) const {
    ModelList found;
    std::copy_if(files_.begin(), files_.end(), std::back_inserter(found), condition);
    return found;
  }

  void AppendDependents(const ModelFile* file, ModelList* list) const {
    list->push_back(file);
    for (const ModelFile* child : Children(file)) AppendDependents(child, list);
  }

  using ListsByNumber = std::map<std::uint32_t, ModelList>;
  static ModelList Under(const ListsByNumber& lists, std::uint32_t number) {
    const auto found = lists.find(number);
    return found != lists.end() ? found->second : ModelList();
  }

  ModelList files_;
  ListsByNumber byId_;
  ListsByNumber byParent_;
};

Listed TextOf(const ModelList& files, std::uint32_t flags, const std::string& separator) {
  if (files.empty()) return {-18, ""};
  std::vector<std::string> items;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const ModelFile& file = *files[i];
    const bool hasFolder = i == 0 || (flags & 1) != 0;
    items.push_back((hasFolder ? file.folder : "") + file.name);
    if ((flags & 2) == 0 || file.image.isLast) continue;
    for (const std::string& part : file.parts) {
      items.push_back(((flags & 1) != 0 ? file.folder : "") + part);
    }
  }
  Listed listed;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i != 0) listed.text += separator;
    listed.text += (flags & 4) != 0 ? items[i] : '"' + items[i] + '"';
  }
  return listed;
}

class EnumerationModelTest : public kqtest::EnumerationTest,
                             public testing::WithParamInterface<int> {
 protected:
  static constexpr int kSnapshots = 3;

  std::uint32_t Below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_()) % limit; }
  bool OneIn(std::uint32_t chance) { return Below(chance) == 0; }
  template <class List>
  const auto& AnyOf(const List& list) {
    return list[Below(static_cast<std::uint32_t>(std::size(list)))];
  }

  void WriteCatalogue(std::uint32_t count) {
    const std::uint32_t folders = 1 + Below(4);
    for (std::uint32_t i = 0; i < folders; ++i) {
      folders_.push_back(MakeFolder("folder " + std::to_string(i)) + "/");
    }
    for (std::uint32_t i = 0; i < count; ++i) WriteOne();
  }

  // A new base, an increment of an image or of none, or a copy of an image. A parent's number is
  // below its child's, so no file is its own ancestor.
  ImageFile NewImage() {
    ImageFile image;
    if (!images_.empty() && OneIn(12)) {
      image = AnyOf(images_);
      image.isLast = true;
      if (OneIn(8)) image.parent = 0;
      return image;
    }
    image.id = nextId_++;
    image.snapshot = OneIn(3) ? 0x9000 + Below(kSnapshots) : 0;
    if (images_.empty() || OneIn(12)) {
      image.set = 0x5E70 + image.id;
      return image;
    }
    const auto recent = std::min<std::uint32_t>(60, static_cast<std::uint32_t>(images_.size()));
    const ImageFile& parent =
        images_[images_.size() - 1 - Below(OneIn(2) ? std::min(recent, 4u) : recent)];
    image.parent = OneIn(25) ? 0xFFFF : parent.id;
    image.set = OneIn(15) ? 0x7777 : parent.set;
    return image;
  }

  std::string NewName(const ImageFile& image) {
    static constexpr const char* kExtensions[2][3] = {{".twi", ".TWI", ".tWi"},
                                                      {".twf", ".TWF", ".Twf"}};
    static constexpr const char* kPrefixes[] = {"host-b001-i", "a b", "\xFF\xC3",
                                                "line\n",      "Z",   ""};
    return AnyOf(kPrefixes) + std::to_string(Below(1000)) + "-" + std::to_string(files_.size()) +
           AnyOf(kExtensions[image.parent == 0 ? 1 : 0]);
  }

  void WriteOne() {
    ModelFile file;
    file.image = NewImage();
    file.folder = AnyOf(folders_);
    file.name = NewName(file.image);
    if (!files_.empty() && OneIn(10)) file.name = files_[Below(FileCount())].name;
    for (const ModelFile& other : files_) {
      if (other.folder == file.folder && other.name == file.name) return;
    }
    images_.push_back(file.image);
    if (OneIn(8)) WriteParts(&file);
    ImageSpec spec = kqtest::SpecOf(file.image);
    if (OneIn(15)) {
      file.isSound = false;
      Spoil(&spec);
    }
    kqtest::WriteSpec(file.folder + file.name, spec);
    files_.push_back(file);
  }
  std::uint32_t FileCount() const { return static_cast<std::uint32_t>(files_.size()); }

  void Spoil(ImageSpec* spec) {
    switch (Below(5)) {
      case 0:
        spec->header.magic = "OPEN";
        break;
      case 1:
        spec->header.sourceSize = 0;
        break;
      case 2:
        spec->header.imageSetId = {};
        break;
      case 3:
        spec->header.record.emplace();
        spec->headerCrc = 0x11111111;
        break;
      default:
        spec->index.pointerTail = {1};
    }
  }

  // Makes the file the head of a split image. Its parts can have any of their names, and one may be
  // missing or wrong.
  void WriteParts(ModelFile* file) {
    // Two heads with one stem would share their parts.
    static constexpr const char* kSuffixes[] = {".TW", ".tw", ".Tw", ".tW"};
    const std::string stem = file->name.substr(0, file->name.rfind('.'));
    if (!stems_.insert(file->folder + stem).second) return;
    file->image.isLast = false;
    const std::uint32_t count = 1 + Below(3);
    const std::uint32_t wrong = OneIn(3) ? 1 + Below(count) : 0;
    for (std::uint32_t number = 1; number <= count; ++number) {
      const std::string suffix = AnyOf(kSuffixes) + std::to_string(number);
      const std::string name = (OneIn(2) ? stem : file->name) + suffix;
      ImageFile part = file->image;
      part.part = number;
      part.isLast = number == count;
      if (number == wrong) {
        file->isIncomplete = true;
        if (OneIn(2)) {
          (OneIn(2) ? part.part : part.id) += 0xEE00;
          kqtest::WriteImage(file->folder + name, part);
        }
        continue;
      }
      kqtest::WriteImage(file->folder + name, part);
      if (!file->isIncomplete) file->parts.push_back(name);
    }
  }

  void AddFolder(const std::string& folder) {
    Add(folder);
    std::map<std::string, const ModelFile*> byName;
    for (const ModelFile& file : files_) {
      if (file.folder == folder) byName[file.name] = &file;
    }
    DIR* directory = opendir(folder.c_str());
    ASSERT_NE(directory, nullptr);
    for (const dirent* entry = readdir(directory); entry != nullptr; entry = readdir(directory)) {
      const auto found = byName.find(entry->d_name);
      if (found != byName.end() && found->second->isSound) model_.Admit(found->second);
    }
    closedir(directory);
  }

  template <class Query, class... Leading>
  Listed AskWith(std::uint32_t flags, const std::string& separator, Query* query,
                 Leading... leading) {
    return kqtest::AskForText([&](char* buffer, std::uint32_t* size) {
      return query(handle_, leading..., separator.c_str(), flags, buffer, size);
    });
  }

  void CheckSets() {
    static constexpr const char* kSeparators[] = {" ", "|", "", "\n--\n"};
    const ModelList fostered = model_.Fostered();
    const ModelList orphans = model_.Orphans();
    for (std::uint32_t flags = 0; flags < 16; ++flags) {
      const std::string separator = AnyOf(kSeparators);
      EXPECT_EQ(AskWith(flags, separator, KQImageFilesEnumerationQueryAllFostered),
                TextOf(fostered, flags, separator));
      EXPECT_EQ(AskWith(flags, separator, KQImageFilesEnumerationQueryAllOrphans),
                TextOf(orphans, flags, separator));
    }
    // One more than there are: a set without members.
    for (std::uint32_t snapshot = 0x9000; snapshot <= 0x9000 + kSnapshots; ++snapshot) {
      const kqtest::Id id = kqtest::MakeId(snapshot);
      const std::uint32_t flags = Below(16);
      EXPECT_EQ(AskWith(flags, "|", KQImageFilesEnumerationQuerySnapshotSet, id.data()),
                TextOf(model_.Snapshots(snapshot), flags, "|"));
    }
  }

  void CheckFile(const ModelFile& file) {
    const std::string path = file.folder + file.name;
    SCOPED_TRACE(path);
    const bool isKnown =
        std::find(model_.files().begin(), model_.files().end(), &file) != model_.files().end();
    const std::uint32_t flags = Below(16);
    const std::string separator = "<>";
    const auto expect = [&](const ModelList& list) {
      return isKnown ? TextOf(list, flags, separator) : Listed{-2, ""};
    };
    EXPECT_EQ(
        AskWith(flags, separator, KQImageFilesEnumerationQueryShortestPathToBase, path.c_str()),
        expect(isKnown ? model_.Chain(&file) : ModelList()));
    EXPECT_EQ(AskWith(flags, separator, KQImageFilesEnumerationQueryRoots, path.c_str()),
              expect(isKnown ? model_.Roots(&file) : ModelList()));
    EXPECT_EQ(
        AskWith(flags, separator, KQImageFilesEnumerationQueryAllPureDependents, path.c_str()),
        expect(isKnown ? model_.Dependents(&file) : ModelList()));
    std::uint8_t answer = 0xEE;
    EXPECT_EQ(
        KQImageFilesEnumerationQueryImageHasDescendants(handle_, path.c_str(), &answer).status,
        isKnown ? 0 : -2);
    EXPECT_EQ(answer, !isKnown ? 0xEE : model_.Children(&file).empty() ? 0 : 1);
  }

  void CheckFiles(std::size_t atMost) {
    std::vector<const ModelFile*> checked;
    for (const ModelFile& file : files_) checked.push_back(&file);
    std::shuffle(checked.begin(), checked.end(), random_);
    checked.resize(std::min(checked.size(), atMost));
    for (const ModelFile* file : checked) CheckFile(*file);
  }

  std::mt19937 random_{Seed() + static_cast<std::uint32_t>(GetParam())};
  std::vector<std::string> folders_;
  std::deque<ModelFile> files_;  // at fixed addresses
  std::vector<ImageFile> images_;
  std::set<std::string> stems_;
  std::uint32_t nextId_ = 1;
  Model model_;
};

TEST_P(EnumerationModelTest, EveryQueryAnswersAsTheDefinitionsDo) {
  constexpr int kBig = 10;
  const std::uint32_t count = GetParam() == kBig ? 2000 : 1 + Below(200);
  SCOPED_TRACE("seed " + std::to_string(Seed()));
  WriteCatalogue(count);
  for (const std::string& folder : folders_) {
    AddFolder(folder);
    CheckSets();
    CheckFiles(GetParam() == kBig ? 10 : 40);
  }
  CheckFiles(GetParam() == kBig ? 40 : 200);
}

INSTANTIATE_TEST_SUITE_P(Catalogues, EnumerationModelTest, testing::Range(0, 11));

}  // namespace
