#include "enumeration/image_files_enumeration.h"

#include <algorithm>
#include <utility>

namespace kq {
namespace {

FileLinks FilesUnder(const FilesByIdentifier& files, const IdentifierText& key) {
  const auto [first, last] = files.equal_range(key);
  FileLinks found;
  std::transform(first, last, std::back_inserter(found),
                 [](const FilesByIdentifier::value_type& entry) { return entry.second; });
  return found;
}

// Makes sure that the next push_back can't fail.
void ReserveOneMore(FileLinks* links) {
  if (links->size() == links->capacity()) {
    links->reserve(std::max<std::size_t>(2 * links->size(), 2));
  }
}

// An entry that can later be put into a map without any allocation.
template <class Map>
typename Map::node_type MakeEntry(typename Map::key_type key, typename Map::mapped_type value) {
  Map single;
  return single.extract(single.emplace(std::move(key), std::move(value)));
}

}  // namespace

// The maps that borrow go before those that own, as members are destroyed from the last to the
// first.
ImageFilesEnumeration::~ImageFilesEnumeration() = default;

void ImageFilesEnumeration::Admit(std::unique_ptr<EnumeratedFile> admitted) {
  EnumeratedFile* const file = admitted.get();
  const IdentifierText imageText(file->imageId);
  const IdentifierText parentText(file->parentImageId);

  // Everything that needs memory.
  FileLinks parents = FilesUnder(filesByImageId, parentText);
  FileLinks children = FilesUnder(filesByParentId, imageText);
  for (EnumeratedFile* parent : parents) ReserveOneMore(&parent->children);
  for (EnumeratedFile* child : children) ReserveOneMore(&child->parents);
  auto baseByName = FilesByName::node_type();
  auto baseBySetId = FilesByIdentifier::node_type();
  if (file->IsBase()) {
    baseByName = MakeEntry<FilesByName>(file->name, file);
    baseBySetId = MakeEntry<FilesByIdentifier>(IdentifierText(file->imageSetId), file);
  }
  auto byImageId = MakeEntry<FilesByIdentifier>(imageText, file);
  auto byParentId = MakeEntry<FilesByIdentifier>(parentText, file);
  auto byName = MakeEntry<decltype(filesByName)>(file->name, std::move(admitted));

  // Nothing from here on can fail.
  file->parents = std::move(parents);
  file->children = std::move(children);
  for (EnumeratedFile* parent : file->parents) parent->children.push_back(file);
  for (EnumeratedFile* child : file->children) child->parents.push_back(file);
  file->admissionNumber = filesByName.size();
  filesByName.insert(std::move(byName));
  basesByName.insert(std::move(baseByName));  // an empty entry is ignored
  basesBySetId.insert(std::move(baseBySetId));
  filesByImageId.insert(std::move(byImageId));
  filesByParentId.insert(std::move(byParentId));
}

}  // namespace kq
