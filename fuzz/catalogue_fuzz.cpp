// A folder of up to eight files whose headers the input relates to each other or damages. All
// queries end, say the same twice, and leave the files alone.
#include <functional>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/header_bytes.h"
#include "fuzz/scratch_folder.h"
#include "kqimageapi.h"
#include "tests/support/image_builder.h"

namespace {

using kqfuzz::Bytes;

struct Answer {
  std::int32_t status;
  std::string text;
  bool operator==(const Answer&) const = default;
};

using Query = std::function<KQStatus(char*, std::uint32_t*)>;

Answer Ask(const Query& query) {
  std::uint32_t size = 0;
  KQStatus status = query(nullptr, &size);
  if (status.status != KQ_STATUS_MORE_DATA) return {status.status, ""};
  std::string text(size, 'x');
  status = query(text.data(), &size);
  FUZZ_CHECK(status.status == 0);
  FUZZ_CHECK(text.back() == '\0');
  return {status.status, text};
}

void AskAll(std::uint64_t handle, const std::string& path, std::uint32_t flags) {
  const char* const file = path.c_str();
  const std::vector<Query> queries = {
      [&](char* b, std::uint32_t* s) {
        return KQImageFilesEnumerationQueryShortestPathToBase(handle, file, "///", flags, b, s);
      },
      [&](char* b, std::uint32_t* s) {
        return KQImageFilesEnumerationQueryRoots(handle, file, nullptr, flags, b, s);
      },
      [&](char* b, std::uint32_t* s) {
        return KQImageFilesEnumerationQueryAllPureDependents(handle, file, "|", flags, b, s);
      },
      [&](char* b, std::uint32_t* s) {
        return KQImageFilesEnumerationQueryAllFostered(handle, "", flags, b, s);
      },
      [&](char* b, std::uint32_t* s) { return KQImageGetNextAvailableImageFileName(file, b, s); },
      [&](char* b, std::uint32_t* s) {
        return KQImageFilesEnumerationQueryImageKeyFileName(file, b, s);
      },
  };
  for (const Query& query : queries) FUZZ_CHECK(Ask(query) == Ask(query));
  // In no order that may be relied on.
  Ask([&](char* b, std::uint32_t* s) {
    return KQImageFilesEnumerationQueryAllOrphans(handle, "///", flags, b, s);
  });
  std::uint8_t answer = 2;
  const KQStatus status = KQImageFilesEnumerationQueryImageHasDescendants(handle, file, &answer);
  FUZZ_CHECK(answer < 2 || (status.status != 0 && answer == 2));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kqfuzz::ScratchFolder folder;
  folder.Empty();
  kqfuzz::FuzzInput input(data, size);
  const std::uint32_t flags = input.U8() % 16;
  std::vector<std::string> names;
  std::vector<Bytes> files;
  for (std::uint32_t count = input.Between(1, 8); count > 0; --count) {
    kqtest::ImageSpec spec;
    spec.header.imageId = kqtest::MakeId(1 + input.U8() % 6);
    spec.header.parentImageId = kqtest::MakeId(input.U8() % 7);
    spec.header.generation = input.U8() % 4;
    spec.header.partIndex = input.U8() % 8 == 0 ? input.U8() % 4 : 0;
    const std::uint8_t kind = input.U8();
    spec.index.lastPart = kind % 4 == 0 ? kind / 64u : 0xFFFFFFFF;
    if (kind % 8 < 4) spec.header.record = kqtest::RecordFields();
    Bytes file = kqtest::BuildImage(spec);
    if (kind % 16 == 15) {
      kqtest::SetLe(&file, input.U16() % file.size(), input.U64(), 4);
      kqfuzz::LimitClaims(&file);
    }
    std::string name(1, static_cast<char>('a' + names.size() % 26));
    if (kind % 32 >= 16) name += "-b00" + std::to_string(input.U8() % 3);
    if (kind % 64 >= 48) name += "-i00" + std::to_string(input.U8() % 3);
    name += spec.header.parentImageId == kqtest::Id{} ? ".twf" : ".twi";
    folder.Write(name, file);
    names.push_back(name);
    files.push_back(file);
  }

  std::uint64_t handle = 0;
  FUZZ_CHECK(KQImageFilesEnumerationCreate(&handle, 0, 0).status == 0);
  FUZZ_CHECK(KQImageFilesEnumerationAddDirectory(handle, folder.Path().c_str(), 0, 0).status == 0);
  for (const std::string& name : names) AskAll(handle, folder.Path(name), flags);
  FUZZ_CHECK(KQImageFilesEnumerationClose(handle).status == 0);
  for (std::size_t i = 0; i < names.size(); ++i) FUZZ_CHECK(folder.Read(names[i]) == files[i]);
  return 0;
}
