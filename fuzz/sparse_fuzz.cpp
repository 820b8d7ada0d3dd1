// Any bytes as a sparse file, read and written at ranges that the input gives. Reading never
// changes the file, and a range reads the same twice; what was written into a damaged file need not
// come back. Where the input brings no file, a new one is held against a flat model, also after a
// close.
#include <algorithm>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/scratch_folder.h"
#include "kqimageapi.h"

namespace {

using kqfuzz::Bytes;
using kqfuzz::FuzzInput;

constexpr std::uint32_t kVolumeBytes = 1 << 16;
constexpr std::uint32_t kLongest = 1 << 13;

struct Operation {
  bool write;
  std::uint64_t offset;
  std::uint32_t size;
  std::uint8_t fill;
};

std::vector<Operation> TakeOperations(FuzzInput* input) {
  std::vector<Operation> operations(input->U8() % 24);
  for (Operation& operation : operations) {
    const std::uint8_t kind = input->U8();
    operation.write = kind % 2 == 0;
    operation.offset = kind >= 0xF8 ? input->U64() : input->U16();
    operation.size = input->Between(1, kLongest);
    if (kind % 4 >= 2) {
      operation.offset &= ~std::uint64_t{511};
      operation.size = (operation.size + 511) & ~511u;
    }
    operation.fill = static_cast<std::uint8_t>(1 + kind % 250);
  }
  return operations;
}

KQStatus Read(std::uint64_t handle, const Operation& operation, std::uint8_t background,
              Bytes* bytes) {
  bytes->assign(operation.size, background);
  std::uint32_t count = 0;
  const KQStatus status =
      KQSparseFileRead(handle, operation.offset, bytes->data(), operation.size, &count);
  FUZZ_CHECK(count == (status.status == 0 ? operation.size : 0));
  return status;
}

void ReadOnly(const kqfuzz::ScratchFolder& folder, const std::vector<Operation>& operations,
              const Bytes& file) {
  std::uint64_t handle = 0;
  const KQStatus opened =
      KQSparseFileOpen2(folder.Path("s").c_str(), KQ_SPARSE_OPEN_EXISTING, 1, 2, &handle);
  if (opened.status == 0) {
    for (const Operation& operation : operations) {
      Bytes first;
      Bytes second;
      const KQStatus one = Read(handle, operation, 0xEE, &first);
      const KQStatus two = Read(handle, operation, 0xEE, &second);
      FUZZ_CHECK(one.status == two.status && first == second);
      const KQStatus written = KQSparseFileWrite(handle, 0, first.data(), 1, nullptr);
      FUZZ_CHECK(written.status == KQ_STATUS_WRITE_PROTECT);
    }
    FUZZ_CHECK(KQSparseFileClose(handle, 0).status == 0);
  }
  FUZZ_CHECK(folder.Read("s") == file);
}

void Write(const kqfuzz::ScratchFolder& folder, const std::vector<Operation>& operations,
           std::uint16_t cacheNodes) {
  std::uint64_t handle = 0;
  const KQStatus opened =
      KQSparseFileOpen2(folder.Path("s").c_str(), KQ_SPARSE_OPEN_EXISTING, 0, cacheNodes, &handle);
  if (opened.status != 0) return;
  for (const Operation& operation : operations) {
    Bytes bytes;
    if (operation.write) {
      const Bytes written(operation.size, operation.fill);
      std::uint32_t count = 0;
      const KQStatus status =
          KQSparseFileWrite(handle, operation.offset, written.data(), operation.size, &count);
      FUZZ_CHECK(count == (status.status == 0 ? operation.size : 0));
    } else {
      Read(handle, operation, 0, &bytes);
    }
  }
  KQSparseFileClose(handle, 0);
}

void HoldAgainstModel(const kqfuzz::ScratchFolder& folder, const std::vector<Operation>& operations,
                      std::uint16_t cacheNodes) {
  constexpr std::uint8_t kNothing = 0;
  Bytes model(kVolumeBytes + 2 * kLongest, kNothing);
  std::uint64_t handle = 0;
  std::string path = folder.Path("new");
  FUZZ_CHECK(KQSparseFileOpen2(path.c_str(), KQ_SPARSE_CREATE_NEW, 0, cacheNodes, &handle).status ==
             0);
  for (Operation operation : operations) {
    operation.offset %= kVolumeBytes;
    if (operation.write) {
      const Bytes written(operation.size, operation.fill);
      FUZZ_CHECK(
          KQSparseFileWrite(handle, operation.offset, written.data(), operation.size, nullptr)
              .status == 0);
      std::fill_n(model.begin() + static_cast<std::ptrdiff_t>(operation.offset), operation.size,
                  operation.fill);
    } else {
      Bytes bytes;
      FUZZ_CHECK(Read(handle, operation, kNothing, &bytes).status == 0);
      FUZZ_CHECK(std::equal(bytes.begin(), bytes.end(),
                            model.begin() + static_cast<std::ptrdiff_t>(operation.offset)));
    }
  }
  std::uint64_t held = 0;
  FUZZ_CHECK(KQSparseFileGetNumDataBytes(handle, &held).status == 0);
  FUZZ_CHECK(held == static_cast<std::uint64_t>(
                         std::count_if(model.begin(), model.end(), [](auto b) { return b != 0; })));
  FUZZ_CHECK(KQSparseFileClose(handle, 0).status == 0);

  FUZZ_CHECK(
      KQSparseFileOpen2(path.c_str(), KQ_SPARSE_OPEN_EXISTING, 1, cacheNodes, &handle).status == 0);
  Bytes all(model.size(), kNothing);
  FUZZ_CHECK(
      KQSparseFileRead(handle, 0, all.data(), static_cast<std::uint32_t>(all.size()), nullptr)
          .status == 0);
  FUZZ_CHECK(all == model);
  FUZZ_CHECK(KQSparseFileClose(handle, 0).status == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kqfuzz::ScratchFolder folder;
  folder.Empty();
  FuzzInput input(data, size);
  const std::uint16_t cacheNodes = input.U8();
  const std::vector<Operation> operations = TakeOperations(&input);
  Bytes file = input.Rest();
  if (file.empty()) {
    HoldAgainstModel(folder, operations, cacheNodes);
    return 0;
  }
  file.resize((file.size() + 4095) / 4096 * 4096);
  folder.Write("s", file);
  ReadOnly(folder, operations, file);
  Write(folder, operations, cacheNodes);
  return 0;
}
