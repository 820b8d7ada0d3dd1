// Nothing secret is in memory that the library frees: no password in either form, no key made from
// one, no data key, no key blob. Tried with every operation that touches an enciphered image, with
// damaged and truncated files, and with each allocation and each read failing in turn.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <functional>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kqimageapi.h"
#include "tests/secrets/free_watch.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"
#include "tests/support/temp_dir.h"

namespace kqtest {
namespace {

constexpr char kPassword[] =
    "Zw\u00F6lf Boxk\u00E4mpfer jagen Viktor \u00FCber den Deich \U0001F512";
constexpr char kWrongPassword[] = "Victor jagt zw\u00F6lf Boxk\u00E4mpfer quer durch Sylt";
constexpr std::size_t kFixedBytes = 114;  // of a header; the key blob follows

std::span<const std::uint8_t> AsBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

Bytes Digest(const EVP_MD* algorithm, const Bytes& message) {
  Bytes digest(EVP_MAX_MD_SIZE);
  unsigned length = 0;
  EXPECT_EQ(EVP_Digest(message.data(), message.size(), digest.data(), &length, algorithm, nullptr),
            1);
  digest.resize(length);
  return digest;
}

// As a cipher holds them that takes a key as big-endian words.
Bytes SwappedWords(const Bytes& key) {
  Bytes swapped;
  for (std::size_t i = 0; i < key.size(); ++i) swapped.push_back(key[i / 4 * 4 + 3 - i % 4]);
  return swapped;
}

// The 256 entries of RC4, one u32 each, behind the 16 bytes of keystream that a blob's test takes.
Bytes Rc4Entries(const Bytes& key) {
  std::vector<std::size_t> state(256);
  std::iota(state.begin(), state.end(), 0u);
  for (std::size_t i = 0, j = 0; i < 256; ++i) {
    j = (j + state[i] + key[i % key.size()]) % 256;
    std::swap(state[i], state[j]);
  }
  for (std::size_t i = 1, j = 0; i <= 16; ++i) {
    j = (j + state[i]) % 256;
    std::swap(state[i], state[j]);
  }
  Bytes entries;
  for (std::size_t i = 0; i < 256; ++i) Set32(&entries, 4 * i, state[i]);
  return entries;
}

void AddKey(const char* name, const Bytes& key) {
  AddSecret(name, key);
  AddSecret(name, SwappedWords(key));
}

void AddPassword(std::string_view password) {
  const Bytes units = PasswordUnits(password);
  AddSecret("password", AsBytes(password));
  AddSecret("password in UTF-16", units);
  AddKey("MD5 of the password", Digest(EVP_md5(), units));
  AddKey("SHA-1 of the password", Digest(EVP_sha1(), units));
}

void AddImageKey(const ImageKey& key) {
  AddSecret("key blob", key.blob);
  AddKey("data key", key.dataKey);
  if (key.type == 3) AddSecret("RC4 state", Rc4Entries(key.dataKey), 64, 4);
}

std::string Describe(std::span<const Finding> findings) {
  std::string text;
  for (const Finding& finding : findings) {
    text += std::string(finding.secret) + " at " + std::to_string(finding.offset) + " of " +
            std::to_string(finding.blockBytes) + " freed bytes; ";
  }
  return text;
}

// Runs calls of the library under the watch.
void ExpectNoSecretFreed(const std::string& what, const std::function<void()>& calls) {
  {
    const FreeWatch watch;
    calls();
  }
  EXPECT_EQ(Describe(Findings()), "") << what;
}

// ---- The watch itself ----

class FreeWatchTest : public testing::Test {
 protected:
  FreeWatchTest() { AddSecret("secret", AsBytes("a secret of many bytes")); }
  ~FreeWatchTest() override { ForgetSecrets(); }

  // A block with some text at a place. The compiler must not know that nobody reads it.
  static char* Block(std::size_t size, std::size_t offset, std::string_view text) {
    static char* volatile block = nullptr;
    block = static_cast<char*>(std::calloc(size, 1));
    std::copy(text.begin(), text.end(), block + offset);
    return block;
  }
};

TEST_F(FreeWatchTest, FindsAnyEightBytesOfASecretAtAnyPlace) {
  for (const std::size_t offset : {std::size_t{0}, std::size_t{37}, std::size_t{92}}) {
    char* const block = Block(100, offset, "t of man");
    {
      const FreeWatch watch;
      std::free(block);
    }
    ASSERT_EQ(Findings().size(), 1u);
    EXPECT_EQ(std::string_view(Findings()[0].secret), "secret");
    EXPECT_EQ(Findings()[0].offset, offset);
  }
}

TEST_F(FreeWatchTest, FindsASecretThatAMoveOrADeleteLeaves) {
  char* block = Block(100, 10, "a secret");
  {
    const FreeWatch watch;
    block = static_cast<char*>(std::realloc(block, 100000));
  }
  EXPECT_EQ(Findings().size(), 1u);
  std::free(block);

  static std::string* volatile text = nullptr;
  text = new std::string("a secret of many bytes");
  {
    const FreeWatch watch;
    delete text;
  }
  EXPECT_EQ(Findings().size(), 1u);
}

TEST_F(FreeWatchTest, FindsNothingInOtherBlocksNorWithoutAWatch) {
  char* const other = Block(100, 10, "a secre");
  char* const unwatched = Block(100, 10, "a secret");
  {
    const FreeWatch watch;
    std::free(other);
  }
  EXPECT_EQ(FreedBlocks(), 1u);
  std::free(unwatched);
  EXPECT_TRUE(Findings().empty());
}

// A path is no secret, and the library frees its copy as it is.
TEST_F(FreeWatchTest, SeesWhatTheLibraryFrees) {
  const TempDir dir;
  const std::string path = dir.Path("a secret of many bytes");
  WriteFile(path, Bytes(1000));
  ImageFileInfo info;
  {
    const FreeWatch watch;
    KQImageFileGetInfo(path.c_str(), &info);
  }
  EXPECT_FALSE(Findings().empty());
}

// ---- The library ----

struct Variant {
  std::string name;
  Bytes file;
};

class SecretsTest : public testing::TestWithParam<std::uint32_t> {
 protected:
  SecretsTest() {
    AddPassword(kPassword);
    AddPassword(kWrongPassword);
    AddImageKey(key_);
    AddImageKey(newKey_);
    Bytes random = newKey_.dataKey;
    if (type_ != 1) {
      const Bytes testValue(newKey_.blob.end() - 32, newKey_.blob.end() - 16);
      Append(&random, testValue);
    }
    SetRandomBytes(random);
    randomBytes_ = static_cast<int>(random.size());
  }
  ~SecretsTest() override {
    faults = {};
    ForgetSecrets();
  }

  ImageSpec Spec(std::uint32_t sectorSize) const {
    ImageSpec spec;
    spec.header.sectorSize = sectorSize;
    spec.header.laterSectors = PatternBytes(3, std::size_t{3} * sectorSize);
    if (sectorSize >= 512) {
      spec.header.comment = u"a comment";
      spec.header.record.emplace();
    }
    spec.header.encryptionType = type_;
    spec.header.keyBlob = key_.blob;
    spec.encipher = EncipherWith(key_);
    spec.chunks = {RawChunk({{0, 4}}, PatternBytes(1, std::size_t{4} * sectorSize)),
                   RawChunk({{0x10000, 2}}, PatternBytes(2, std::size_t{2} * sectorSize))};
    return spec;
  }

  // The image, and what can be wrong with it.
  std::vector<Variant> Variants(std::uint32_t sectorSize) const {
    ImageLayout layout;
    const Bytes good = BuildImage(Spec(sectorSize), &layout);
    const std::size_t dataKeyBytes = key_.dataKey.size();
    std::vector<Variant> variants = {{"good", good}};
    const auto add = [&](const std::string& name, const auto& change) {
      variants.push_back({name, good});
      change(&variants.back().file);
    };
    add("wrapped key damaged", [](Bytes* file) { (*file)[kFixedBytes] ^= 1; });
    if (type_ != 1) {
      add("test value damaged", [&](Bytes* file) { (*file)[kFixedBytes + dataKeyBytes] ^= 1; });
      add("test block damaged",
          [&](Bytes* file) { (*file)[kFixedBytes + dataKeyBytes + 31] ^= 1; });
    }
    for (const std::size_t length : {std::size_t{0}, key_.blob.size() - 1, std::size_t{0xFFFF}}) {
      add("blob length " + std::to_string(length),
          [&](Bytes* file) { Set16(file, kFixedBytes - 2, length); });
    }
    add("no magic", [](Bytes* file) { (*file)[0] ^= 1; });
    add("no index", [&](Bytes* file) { Set64(file, layout.pointerOffset, 0); });
    for (const std::size_t size :
         {std::size_t{120}, std::size_t{150}, kFixedBytes + key_.blob.size(), std::size_t{200},
          std::size_t{sectorSize}, std::size_t{sectorSize} + 1, std::size_t{sectorSize} * 3 - 7,
          static_cast<std::size_t>(layout.headerBytes),
          static_cast<std::size_t>(layout.indexOffset), good.size() - 1}) {
      add("cut at " + std::to_string(size), [&](Bytes* file) { file->resize(size); });
    }
    return variants;
  }

  // Each query, and the opening, reading and closing of a chain.
  void ReadAll(const std::string& path, const char* password) {
    ImageFileInfo info;
    ImageFileInfo2 info2;
    bool opens = false;
    std::uint32_t size = 0;
    KQImageFileGetInfo(path.c_str(), &info);
    KQImageFileGetInfo2(path.c_str(), &info2);
    KQImageFileGetAllHeaderSectors(path.c_str(), password, nullptr, &size);
    size = static_cast<std::uint32_t>(sizeof buffer_);
    KQImageFileGetAllHeaderSectors(path.c_str(), password, buffer_, &size);
    size = 1;
    KQImageFileGetExtraSectors(path.c_str(), password, buffer_, &size);
    KQImageFileTestPassword(path.c_str(), password, &opens);
    std::uint64_t handle = 0;
    if (KQImageFilesOpen(path.c_str(), password, 0, &handle).status == 0) {
      KQImageFilesRead(handle, 0, buffer_, sizeof buffer_, nullptr);
      KQImageFilesRead(handle, 0x10001, buffer_, 500, nullptr);
      KQImageFilesClose(handle, nullptr, nullptr, 0);
    }
  }

  // The making of an image with the given template.
  void Create(const Bytes& headerTemplate, const char* password, const std::string& path) {
    std::uint64_t handle = 0;
    created_ = KQNewImageFileCreate2(headerTemplate.data(),
                                     static_cast<std::uint32_t>(headerTemplate.size()), password,
                                     path.c_str(), nullptr, nullptr, nullptr, nullptr, &handle)
                   .status;
    if (created_ != 0) return;
    KQNewImageFileWrite(handle, data_.data(), static_cast<std::uint32_t>(data_.size()), 0x4000);
    closed_ = KQNewImageFileClose(handle, "what the image is").status;
  }

  // Repeats the calls with each allocation, then with each read failing in turn.
  void ExpectNoSecretFreedWhateverFails(const std::string& what,
                                        const std::function<void()>& calls) {
    for (int Faults::*const fault : {&Faults::allocation, &Faults::alignedRead}) {
      int failed = 0;
      do {
        faults = {};
        faults.*fault = failed;
        ExpectNoSecretFreed(what + ", failing call " + std::to_string(failed), calls);
        ++failed;
      } while (FaultHappened());
    }
    faults = {};
  }

  const std::uint32_t type_ = GetParam();
  const ImageKey key_ = MakeImageKey(type_, kPassword, 1);
  const ImageKey newKey_ = MakeImageKey(type_, kPassword, 2);
  const Bytes data_ = PatternBytes(4, 4096);
  TempDir dir_;
  int randomBytes_ = 0;  // that a new image takes
  std::int32_t created_ = 0;
  std::int32_t closed_ = 0;

 private:
  std::uint8_t buffer_[0x8000] = {};
};

INSTANTIATE_TEST_SUITE_P(EncryptionTypes, SecretsTest, testing::Values(1u, 2u, 3u, 4u),
                         testing::PrintToStringParamName());

// 208: no block size divides it, so every read takes the way through a bounce buffer.
constexpr std::uint32_t kSectorSizes[] = {208, 256, 512, 4096};

TEST_P(SecretsTest, NoneIsFreedByReadingAnyFileWithAnyPassword) {
  const std::string path = dir_.Path("image.twf");
  for (const std::uint32_t sectorSize : kSectorSizes) {
    for (const Variant& variant : Variants(sectorSize)) {
      WriteFile(path, variant.file);
      for (const char* password : {static_cast<const char*>(nullptr), "", kPassword, kWrongPassword,
                                   "no UTF-8 \xFF in this one"}) {
        ExpectNoSecretFreed(std::to_string(sectorSize) + ", " + variant.name + ", password " +
                                (password != nullptr ? password : "none"),
                            [&] { ReadAll(path, password); });
      }
    }
  }
}

TEST_P(SecretsTest, NoneIsFreedWhenMemoryOrAReadFails) {
  const std::string path = dir_.Path("image.twf");
  for (const std::uint32_t sectorSize : kSectorSizes) {
    WriteFile(path, BuildImage(Spec(sectorSize)));
    ExpectNoSecretFreedWhateverFails(std::to_string(sectorSize), [&] { ReadAll(path, kPassword); });
  }
}

// The file that turns out to be open under another path is thrown away again.
TEST_P(SecretsTest, NoneIsFreedWithTheSecondCopyOfAnOpenImage) {
  const Bytes image = BuildImage(Spec(512));
  const std::string path = dir_.Path("image.twf");
  const std::string copy = dir_.Path("copy.twf");
  WriteFile(path, image);
  WriteFile(copy, image);
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  std::int32_t opened[3] = {1, 1, 1};
  ExpectNoSecretFreed("two paths", [&] {
    opened[0] = KQImageFilesOpen(path.c_str(), kPassword, 0, &first).status;
    opened[1] = KQImageFilesOpen(copy.c_str(), kPassword, 0, &second).status;
    KQImageFilesClose(first, nullptr, nullptr, 0);
    opened[2] = KQImageFilesOpen(path.c_str(), kWrongPassword, 0, &first).status;
    KQImageFilesClose(second, nullptr, nullptr, 0);
    KQImageFilesClose(first, nullptr, nullptr, 0);
  });
  EXPECT_EQ(opened[0], 0);
  EXPECT_EQ(opened[1], 0);
}

TEST_P(SecretsTest, NoneIsFreedByMakingAnImage) {
  const std::string path = dir_.Path("new.twf");
  for (const std::uint32_t sectorSize : kSectorSizes) {
    const Bytes headerTemplate = BuildHeader(Spec(sectorSize));
    ExpectNoSecretFreed(std::to_string(sectorSize),
                        [&] { Create(headerTemplate, kPassword, path); });
    ASSERT_EQ(created_, 0);
    ASSERT_EQ(closed_, 0);
    // The keys searched for are those of the new image.
    const Bytes file = ReadFile(path);
    ASSERT_GT(file.size(), kFixedBytes + newKey_.blob.size());
    EXPECT_TRUE(std::equal(newKey_.blob.begin(), newKey_.blob.end(), file.begin() + kFixedBytes));
  }
}

TEST_P(SecretsTest, NoneIsFreedByAnImageThatCanNotBeMade) {
  const std::string path = dir_.Path("new.twf");
  const Bytes good = BuildHeader(Spec(512));
  const auto expect = [&](const std::string& what, const Bytes& headerTemplate,
                          const char* password, const std::string& file) {
    ExpectNoSecretFreed(what, [&] { Create(headerTemplate, password, file); });
    EXPECT_NE(created_, 0) << what;
  };
  expect("no folder", good, kPassword, dir_.Path("missing/new.twf"));
  expect("full device", good, kPassword, "/dev/full");
  expect("no password", good, nullptr, path);
  expect("no UTF-8", good, "no UTF-8 \xFF in this one", path);
  if (type_ != 1) expect("wrong password", good, kWrongPassword, path);
  ImageSpec unknownCodec = Spec(512);
  unknownCodec.header.compressionType = 9;
  expect("unknown codec", BuildHeader(unknownCodec), kPassword, path);
  for (const int bytes : {0, 8, randomBytes_ - 1}) {
    faults.randomBytes = bytes;
    expect("no randomness after " + std::to_string(bytes), good, kPassword, path);
    faults = {};
  }
}

TEST_P(SecretsTest, NoneIsFreedWhenMemoryFailsInTheMaking) {
  const std::string path = dir_.Path("new.twf");
  const Bytes headerTemplate = BuildHeader(Spec(512));
  ExpectNoSecretFreedWhateverFails("making", [&] { Create(headerTemplate, kPassword, path); });
}

TEST_P(SecretsTest, NoneIsFreedByAConversion) {
  const std::string sparsePath = dir_.Path("sparse");
  const std::string path = dir_.Path("new.twi");
  std::uint64_t sparse = 0;
  ASSERT_EQ(KQSparseFileOpen2(sparsePath.c_str(), KQ_SPARSE_CREATE_NEW, 0, 10, &sparse).status, 0);
  ASSERT_EQ(KQSparseFileWrite(sparse, 0x4000, data_.data(), 4096, nullptr).status, 0);
  ASSERT_EQ(KQSparseFileClose(sparse, 0).status, 0);
  for (const std::uint32_t sectorSize : {512U, 4096U}) {
    const std::string parent = dir_.Path("parent.twf");
    WriteFile(parent, BuildImage(Spec(sectorSize)));
    const auto convert = [&](const char* password, const std::string& file) {
      created_ = KQConvertSparseToIncremental(sparsePath.c_str(), parent.c_str(), password,
                                              file.c_str(), "what the image is")
                     .status;
    };
    const auto close = [&] {
      std::uint64_t chain = 0;
      KQSparseFileOpen2(sparsePath.c_str(), KQ_SPARSE_OPEN_EXISTING, 0, 10, &sparse);
      if (KQImageFilesOpen(parent.c_str(), kPassword, sparse, &chain).status != 0) return;
      closed_ = KQImageFilesClose(chain, path.c_str(), "what the image is", 0).status;
    };
    ExpectNoSecretFreed("wrong password", [&] { convert(kWrongPassword, path); });
    ExpectNoSecretFreed("full device", [&] { convert(kPassword, "/dev/full"); });
    EXPECT_NE(created_, 0);
    ExpectNoSecretFreedWhateverFails("converting", [&] { convert(kPassword, path); });
    ASSERT_EQ(created_, 0);
    closed_ = 1;
    ExpectNoSecretFreed("closing", close);
    ASSERT_EQ(closed_, 0);
    // The keys searched for are those of the new image too.
    const Bytes file = ReadFile(path);
    EXPECT_TRUE(std::equal(newKey_.blob.begin(), newKey_.blob.end(), file.begin() + kFixedBytes));
  }
}

// A file that may not grow: the header can be written, or the header and the chunk, and no more.
TEST_P(SecretsTest, NoneIsFreedByACloseThatFails) {
  const std::string path = dir_.Path("new.twf");
  const Bytes headerTemplate = BuildHeader(Spec(512));
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto previous = signal(SIGXFSZ, SIG_IGN);
  for (const rlim_t extra : {rlim_t{100}, rlim_t{5120}}) {
    const rlimit limited{headerTemplate.size() + extra, before.rlim_max};
    closed_ = 0;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
    ExpectNoSecretFreed("limit " + std::to_string(extra),
                        [&] { Create(headerTemplate, kPassword, path); });
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(created_, 0);
  }
  signal(SIGXFSZ, previous);
  EXPECT_NE(closed_, 0);
}

}  // namespace
}  // namespace kqtest
