// What the tests of this room share: small image files in a temporary folder, an enumeration
// through the exported functions, and a catalogue of records made in memory.
#ifndef KQ_ENUMERATION_ENUMERATION_TEST_SUPPORT_H
#define KQ_ENUMERATION_ENUMERATION_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "enumeration/file_list_format.h"
#include "enumeration/image_files_enumeration.h"
#include "kqimageapi.h"
#include "tests/support/image_builder.h"
#include "tests/support/temp_dir.h"

namespace kqtest {

constexpr char kModuleName[] = "ImageFilesEnumer";

// An image file as the catalogue sees it; numbers are those of MakeId.
struct ImageFile {
  std::uint32_t id = 1;
  std::uint32_t parent = 0;  // 0: a base
  std::uint32_t set = 0x5E7;
  std::uint32_t part = 0;
  bool isLast = true;          // false: a continuation part follows
  std::uint32_t snapshot = 0;  // 0: no ExtendedRecord
};

inline ImageSpec SpecOf(const ImageFile& file) {
  ImageSpec spec;
  spec.header.imageId = MakeId(file.id);
  spec.header.parentImageId = MakeId(file.parent);
  spec.header.imageSetId = MakeId(file.set);
  spec.header.partIndex = file.part;
  if (file.snapshot != 0) {
    spec.header.record.emplace();
    spec.header.record->snapshotSetId = MakeId(file.snapshot);
  }
  spec.index.lastPart = file.isLast ? 0xFFFFFFFF : 0;
  return spec;
}

inline void WriteSpec(const std::string& path, const ImageSpec& spec) {
  WriteFile(path, BuildImage(spec));
}
inline void WriteImage(const std::string& path, const ImageFile& file) {
  WriteSpec(path, SpecOf(file));
}

// What a list query gives.
struct Listed {
  std::int32_t status = 0;
  std::string text;
  bool operator==(const Listed&) const = default;
};
inline void PrintTo(const Listed& listed, std::ostream* out) {
  *out << listed.status << " [" << listed.text << "]";
}

// Asks for the size, then for the text with a buffer of just that size.
template <class Query>
Listed AskForText(const Query& query) {
  std::uint32_t size = 0;
  const KQStatus asked = query(nullptr, &size);
  if (asked.status != KQ_STATUS_MORE_DATA) return {asked.status, ""};
  std::string text(size, '\xEE');
  const std::uint32_t given = size;
  const KQStatus got = query(text.data(), &size);
  EXPECT_EQ(size, given);
  EXPECT_EQ(text.back(), '\0');
  text.pop_back();
  EXPECT_EQ(text.find('\0'), std::string::npos);
  return {got.status, text};
}

// A folder and an enumeration. Lists come with "|" between bare names, unless told otherwise.
class EnumerationTest : public testing::Test {
 protected:
  EnumerationTest() {
    EXPECT_EQ(KQImageFilesEnumerationCreate(&handle_, 0, 0).status, 0);
    EXPECT_NE(handle_, 0u);
  }
  ~EnumerationTest() override {
    if (handle_ != 0) {
      EXPECT_EQ(KQImageFilesEnumerationClose(handle_).status, 0);
    }
  }

  std::string Path(const std::string& name) const { return folder_ + "/" + name; }
  std::string MakeFolder(const std::string& name) const {
    std::filesystem::create_directory(Path(name));
    return Path(name);
  }
  void Write(const std::string& name, const ImageFile& file) const { WriteImage(Path(name), file); }
  KQStatus AddDirectory(const std::string& path) const {
    return KQImageFilesEnumerationAddDirectory(handle_, path.c_str(), 0, 0);
  }
  void Add(const std::string& path) const { ASSERT_EQ(AddDirectory(path).status, 0); }
  void Add() const { Add(folder_); }

  using PathQuery = KQStatus(std::uint64_t, const char*, const char*, std::uint32_t, char*,
                             std::uint32_t*);
  using SetQuery = KQStatus(std::uint64_t, const char*, std::uint32_t, char*, std::uint32_t*);

  Listed Ask(PathQuery* query, const std::string& path, std::uint32_t flags = KQ_LIST_NO_QUOTES,
             const char* separator = "|") const {
    return AskForText([&](char* buffer, std::uint32_t* size) {
      return query(handle_, path.c_str(), separator, flags, buffer, size);
    });
  }
  Listed Ask(SetQuery* query, std::uint32_t flags = KQ_LIST_NO_QUOTES,
             const char* separator = "|") const {
    return AskForText([&](char* buffer, std::uint32_t* size) {
      return query(handle_, separator, flags, buffer, size);
    });
  }
  Listed Chain(const std::string& name) const {
    return Ask(KQImageFilesEnumerationQueryShortestPathToBase, Path(name));
  }
  Listed Roots(const std::string& name) const {
    return Ask(KQImageFilesEnumerationQueryRoots, Path(name));
  }
  Listed Dependents(const std::string& name) const {
    return Ask(KQImageFilesEnumerationQueryAllPureDependents, Path(name));
  }
  Listed Fostered() const { return Ask(KQImageFilesEnumerationQueryAllFostered); }
  Listed Orphans() const { return Ask(KQImageFilesEnumerationQueryAllOrphans); }
  Listed Snapshots(std::uint32_t snapshot) const {
    const Id id = MakeId(snapshot);
    return AskForText([&](char* buffer, std::uint32_t* size) {
      return KQImageFilesEnumerationQuerySnapshotSet(handle_, id.data(), "|", KQ_LIST_NO_QUOTES,
                                                     buffer, size);
    });
  }
  // A list of bare names in which the first file carries its directory.
  Listed Names(const std::string& names) const { return {0, folder_ + "/" + names}; }

  TempDir temporary_;
  std::string folder_ = std::filesystem::canonical(temporary_.Path()).string();
  std::uint64_t handle_ = 0;
};

// Records without files.
class MemoryCatalogue {
 public:
  MemoryCatalogue() {
    auto made = std::make_unique<kq::EnumeratedDirectory>("/d/");
    directory_ = made.get();
    enumeration.directories.emplace("/d/", std::move(made));
  }

  kq::EnumeratedFile* Admit(const std::string& name, std::uint32_t id, std::uint32_t parent,
                            bool isIncomplete = false) {
    auto file = std::make_unique<kq::EnumeratedFile>();
    file->name = name;
    file->imageId = MakeId(id);
    file->parentImageId = MakeId(parent);
    file->imageSetId = MakeId(0x5E7);
    file->lastPart = isIncomplete ? 0 : 0xFFFFFFFF;
    file->isIncomplete = isIncomplete;
    file->directory = directory_;
    kq::EnumeratedFile* admitted = file.get();
    enumeration.Admit(std::move(file));
    return admitted;
  }

  kq::ImageFilesEnumeration enumeration;

 private:
  const kq::EnumeratedDirectory* directory_;
};

inline std::string NamesOf(const kq::FileList& files) {
  std::string names;
  for (const kq::EnumeratedFile* file : files) {
    names += (names.empty() ? "" : " ") + file->name;
  }
  return names;
}

}  // namespace kqtest

#endif
