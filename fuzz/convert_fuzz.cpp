// Any bytes as a sparse file that becomes an increment, and as one laid over a chain. Neither it
// nor the parent changes; an increment that was made opens with its parent and holds what the
// sparse file held.
#include <string>

#include "fuzz/fuzz_input.h"
#include "fuzz/scratch_folder.h"
#include "kqimageapi.h"
#include "tests/support/image_builder.h"

namespace {

using kqfuzz::Bytes;

constexpr std::uint32_t kVolumeBytes = 1 << 16;

Bytes ReadVolume(const std::string& files, std::uint64_t sparse, std::int32_t* status) {
  Bytes volume(kVolumeBytes);
  std::uint64_t handle = 0;
  *status = KQImageFilesOpen(files.c_str(), nullptr, sparse, &handle).status;
  if (*status != 0) return volume;
  *status = KQImageFilesRead(handle, 0, volume.data(), kVolumeBytes, nullptr).status;
  const KQStatus closed = KQImageFilesClose(handle, nullptr, nullptr, 0);
  if (*status == 0) *status = closed.status;
  return volume;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kqfuzz::ScratchFolder folder;
  folder.Empty();
  kqfuzz::FuzzInput input(data, size);
  const std::uint32_t compression = input.U8() % 2 == 0 ? 0 : 5 + input.U8() % 2;
  Bytes sparse = input.Rest();
  sparse.resize((sparse.size() + 4095) / 4096 * 4096);
  folder.Write("s", sparse);

  kqtest::ImageSpec spec;
  spec.header.compressionType = compression;
  spec.header.sourceSize = kVolumeBytes;
  spec.chunks = {kqtest::RawChunk({{0, 16}}, kqtest::PatternBytes(1, 16 * 512))};
  const Bytes parent = kqtest::BuildImage(spec);
  folder.Write("p.twf", parent);

  const std::string parentPath = folder.Path("p.twf");
  const std::string sparsePath = folder.Path("s");
  const std::string newPath = folder.Path("n.twi");
  const KQStatus made = KQConvertSparseToIncremental(sparsePath.c_str(), parentPath.c_str(),
                                                     nullptr, newPath.c_str(), nullptr);
  FUZZ_CHECK(folder.Read("s") == sparse && folder.Read("p.twf") == parent);

  std::uint64_t handle = 0;
  const KQStatus opened =
      KQSparseFileOpen2(sparsePath.c_str(), KQ_SPARSE_OPEN_EXISTING, 1, 3, &handle);
  FUZZ_CHECK(made.status != 0 || opened.status == 0);
  if (opened.status != 0) return 0;
  std::int32_t laidOver = 0;
  ReadVolume(parentPath, handle, &laidOver);
  if (made.status == 0 && std::filesystem::exists(newPath)) {
    std::int32_t status = 0;
    ReadVolume(parentPath + "|" + newPath, 0, &status);
    FUZZ_CHECK(status == 0);
  }
  FUZZ_CHECK(folder.Read("s") == sparse && folder.Read("p.twf") == parent);
  return 0;
}
