// Writes the seeds of every fuzz target, made of what the library itself writes and of whole files
// composed for the tests: make_seeds FOLDER makes FOLDER/TARGET/seed-N.
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>

#include "codec/lzo_block.h"
#include "codec/lzss_encoder.h"
#include "codec/lzw_encoder.h"
#include "codec/stream_codec_drive.h"
#include "fuzz/fuzz_input.h"
#include "header/partition_tables_test.h"
#include "kqimageapi.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"
#include "tests/support/temp_dir.h"

namespace kqfuzz {
namespace {

class SeedFolder {
 public:
  explicit SeedFolder(std::filesystem::path folder) : folder_(std::move(folder)) {}

  void Add(const std::string& target, const Bytes& seed) {
    const std::filesystem::path folder = folder_ / target;
    std::filesystem::create_directories(folder);
    kqtest::WriteFile(folder / ("seed-" + std::to_string(count_[target]++)), seed);
  }

 private:
  std::filesystem::path folder_;
  std::map<std::string, int> count_;
};

Bytes Behind(const Bytes& front, const Bytes& rest) {
  Bytes all = front;
  kqtest::Append(&all, rest);
  return all;
}

Bytes TextBytes(const std::string& text) { return {text.begin(), text.end()}; }

// Headers of every encryption type, with and without what is optional.
void AddHeaders(SeedFolder* seeds) {
  for (std::uint32_t encryption = 0; encryption <= 4; ++encryption) {
    for (std::uint32_t kind = 0; kind < 4; ++kind) {
      kqtest::ImageSpec spec;
      spec.header.comment = u"a comment";
      if (kind % 2 == 1) spec.header.record = kqtest::RecordFields();
      if (kind / 2 == 1) {
        kqtest::ProtectedFields fields;
        fields.partitionStyle = 2;
        fields.texts = {u"first", u"second", u"third", u"MPLIST=one"};
        spec.header.laterSectors = kqtest::ProtectedSectorBytes(fields);
        spec.header.generation = 5;
      }
      if (encryption != 0) kqtest::EncipherImage(&spec, encryption, "secret");
      const Bytes file = kqtest::BuildImage(spec);
      seeds->Add("header", Behind({1}, file));
      seeds->Add("repair", Behind({static_cast<std::uint8_t>(kind | 0x0C)}, file));
    }
  }
}

void AddPartitionTables(SeedFolder* seeds) {
  for (std::uint32_t style = 0; style <= 2; ++style) {
    kqtest::ProtectedFields fields;
    fields.partitionStyle = style;
    fields.texts = {u"volume", u"label", u"NTFS", u"MPLIST=C:\\"};
    Bytes sectors = kqtest::ProtectedSectorBytes(fields);
    Bytes table(2048);
    kqtest::Set16(&table, 510, 0xAA55);
    table[446] = 0x80;
    table[446 + 4] = style == 2 ? 0xEE : 7;
    kqtest::Set32(&table, 446 + 8, 63);
    kqtest::Set32(&table, 446 + 12, 1000);
    table[462 + 4] = 5;
    kqtest::Set32(&table, 462 + 8, 2000);
    kqtest::Set32(&table, 462 + 12, 3000);
    if (style == 2) kqtest::SetBytes(&table, 512, TextBytes("EFI PART"));
    kqtest::Append(&sectors, table);
    // Sector size 512, the style's mark, room for every answer.
    const auto mark = static_cast<std::uint8_t>(style);
    seeds->Add("protected", Behind({1, 0, mark, 0xBC, 0x02}, sectors));
    seeds->Add("protected", Behind({1, 0, static_cast<std::uint8_t>(mark | 0x34), 0, 0}, sectors));
  }
}

void AddStreams(SeedFolder* seeds) {
  const kq::OwnedStreamCodec lzw = kq::LzwEncoder::Create();
  const kq::OwnedStreamCodec lzss = kq::LzssEncoder::Create();
  Bytes text;
  for (int i = 0; i < 60; ++i) kqtest::Append(&text, TextBytes("line " + std::to_string(i * i)));
  for (const Bytes& plain : {TextBytes("a"), text, Bytes(3000, 7), kqtest::PatternBytes(1, 700)}) {
    constexpr std::size_t kRoom = 1 << 16;
    seeds->Add("lzo", Behind({1, 0}, kqtest::LzoFrames(plain, 500)));
    seeds->Add("lzo", Behind({1, 0}, kqtest::LzoFrame(plain)));
    seeds->Add("lzw",
               Behind({0xFF, 0xFF, 0xFF}, kqtest::DriveWhole(lzw.get(), plain, kRoom).output));
    seeds->Add("lzss",
               Behind({0xFF, 0xFF, 0xFF}, kqtest::DriveWhole(lzss.get(), plain, kRoom).output));
    // The target encodes its input as well, which leads to streams.
    seeds->Add("huffman", plain);
  }
}

void AddRest(SeedFolder* seeds) {
  using Pairs = std::vector<std::pair<std::uint64_t, std::uint32_t>>;
  seeds->Add("run_list", kqtest::EncodeRunList(
                             Pairs{{0x100000, 8}, {0x200000, 8}, {0x1F0000, 16}, {0x1F2000, 16}}));
  seeds->Add("run_list", kqtest::EncodeRunList(Pairs{{0x1000, 9}, {0x1080, 5}, {~0ull << 9, 1}}));
  for (const char* text : {"plain", "Gr\xC3\xBC\xC3\x9F", "\xE2\x82\xAC\xF0\x9F\x94\x91",
                           "\xC0\x80", "\xED\xA0\x80"}) {
    seeds->Add("text", TextBytes(text));
  }
  seeds->Add("configuration", TextBytes("ChunkCache_MaxCachedBytes=123456\n"
                                        "ChunkHeaderCache_MaxCachedBytes = 99\n"));
  seeds->Add("configuration", TextBytes("ChunkCache_MaxCachedBytes=18446744073709551616"));
  for (std::uint8_t kind = 0; kind < 16; ++kind) {
    seeds->Add("chain", Behind({static_cast<std::uint8_t>(kind % 5), 0, kind, 2, 0},
                               kqtest::PatternBytes(kind, 200)));
  }
}

// Sparse files as they stand after a clean close, with a few extents and with more than a node
// holds.
void AddSparseFiles(SeedFolder* seeds) {
  const kqtest::TempDir folder;
  const std::string path = folder.Path("sparse");
  for (const std::uint32_t extents : {1u, 5u, 400u}) {
    std::uint64_t handle = 0;
    FUZZ_CHECK(KQSparseFileOpen2(path.c_str(), KQ_SPARSE_CREATE_ALWAYS, 0, 4, &handle).status == 0);
    const Bytes data = kqtest::PatternBytes(extents, 512);
    for (std::uint32_t i = 0; i < extents; ++i) {
      // All data of a large file in the input would leave no room for a tree.
      const std::uint64_t offset = std::uint64_t{i * 7 % extents} * 1024;
      const std::uint32_t bytes = extents > 5 ? 1 : 512;
      FUZZ_CHECK(KQSparseFileWrite(handle, offset, data.data(), bytes, nullptr).status == 0);
    }
    FUZZ_CHECK(KQSparseFileClose(handle, 0).status == 0);
    if (extents > 5) continue;
    const Bytes file = kqtest::ReadFile(path);
    // Two reads and a write in front of the file.
    seeds->Add("sparse", Behind({2, 3, 1, 0, 0, 64, 0, 0, 0, 8, 0, 1, 1, 0, 2, 255, 3}, file));
    seeds->Add("convert", Behind({0}, file));
    seeds->Add("convert", Behind({1, 0}, file));
  }
  for (std::uint8_t cache = 0; cache < 4; ++cache) {
    seeds->Add("sparse", Behind({cache, 20}, kqtest::PatternBytes(cache, 90)));
  }
  for (std::uint8_t flags = 0; flags < 16; ++flags) {
    seeds->Add("catalogue", Behind({flags, 7, 0}, kqtest::PatternBytes(flags, 90)));
  }
}

}  // namespace
}  // namespace kqfuzz

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: make_seeds FOLDER\n", stderr);
    return 2;
  }
  kqfuzz::SeedFolder seeds(argv[1]);
  kqfuzz::AddHeaders(&seeds);
  kqfuzz::AddPartitionTables(&seeds);
  kqfuzz::AddStreams(&seeds);
  kqfuzz::AddRest(&seeds);
  kqfuzz::AddSparseFiles(&seeds);
  return 0;
}
