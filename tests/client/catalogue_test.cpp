// Families of images: list, chain, and how the other commands find a chain and names for new files.

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "include/kqimageformat.h"
#include "tests/client/client_fixture.h"
#include "tests/support/image_builder.h"

namespace kqtest {
namespace {

using NameSet = std::set<std::string>;
using Arguments = std::vector<std::string>;
namespace fs = std::filesystem;

class CatalogueTest : public ClientTest {
 protected:
  void SetUp() override {
    volume_ = MakeVolume(50000, 1);
    Put("volume", volume_);
    Folder("b");
  }

  std::string Folder(const std::string& name) const {
    fs::create_directories(Path(name));
    return Path(name);
  }

  // Changes the volume and stores the change under that name.
  void Step(const std::string& image, const std::string& out) {
    ++volume_[volume_.size() / 2];
    Put("volume", volume_);
    Increment(Path("volume"), Path(image), Path(out));
  }

  // The headers alone of an image, without any data.
  void PutHeader(const std::string& name, std::uint32_t id, std::uint32_t parent,
                 std::uint32_t part = 0, bool isLast = true) const {
    ImageSpec spec;
    spec.header.imageId = MakeId(id);
    spec.header.parentImageId = MakeId(parent);
    spec.header.partIndex = part;
    spec.index.lastPart = isLast ? 0xFFFFFFFF : 0;
    WriteFile(Path(name), BuildImage(spec));
  }

  static ClientResult Succeed(const Arguments& arguments) {
    ClientResult result = RunClient(arguments);
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return result;
  }
  static std::string Fail(const Arguments& arguments, int exitStatus = 1) {
    const ClientResult result = RunClient(arguments);
    EXPECT_EQ(result.exitStatus, exitStatus);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(result.err.starts_with("kqimage: ")) << result.err;
    return result.err;
  }

  // The list's JSON, and from it one file's object.
  static nlohmann::json List(const Arguments& folders) {
    return nlohmann::json::parse(Succeed(Joined({"list", "--json"}, folders)).out);
  }
  static nlohmann::json FileIn(const nlohmann::json& list, const std::string& path) {
    for (const auto& family : list["families"]) {
      for (const auto& file : family["files"]) {
        if (file["file"] == path) return file;
      }
    }
    ADD_FAILURE() << path << " is not listed";
    return {};
  }

  Volume volume_;
};

TEST_F(CatalogueTest, AListDrawsEachFamily) {
  Create(Path("volume"), Path("b/a.twf"), {"--compress", "none"});
  Step("b/a.twf", "b/a-i001.twi");
  Step("b/a-i001.twi", "b/branch.twi");
  Step("b/a-i001.twi", "b/a-i002.twi");
  Step("b/a-i002.twi", "b/a-i003.twi");
  PutText("password", "secret\n");
  Create(Path("volume"), Path("b/z.twf"),
         {"--encrypt", "aes256", "--password-file", Path("password")});
  const ClientResult result = Succeed({"list", Path("b")});
  std::vector<std::string> lines;
  for (std::size_t start = 0; start < result.out.size();) {
    const std::size_t end = result.out.find('\n', start);
    lines.push_back(result.out.substr(start, end - start));
    start = end + 1;
  }
  ASSERT_EQ(lines.size(), 8u) << result.out;
  const char* const starts[] = {
      "FILE",          nullptr, "  a-i001.twi ", "  └─ branch.twi ", "  a-i002.twi ",
      "  a-i003.twi ", "",      nullptr};
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string start =
        starts[i] != nullptr ? starts[i] : Path(i == 1 ? "b/a.twf " : "b/z.twf ");
    EXPECT_TRUE(lines[i].starts_with(start)) << lines[i];
  }
  for (const char* heading : {"GENERATION", "CREATED", "SIZE", "COMPRESSION", "ENCRYPTION"}) {
    EXPECT_NE(lines[0].find(heading), std::string::npos);
  }
  EXPECT_NE(lines[1].find(" none "), std::string::npos) << lines[1];
  EXPECT_NE(lines[7].find(" aes256"), std::string::npos) << lines[7];
  EXPECT_EQ(result.out.find("ORPHAN"), std::string::npos);
}

TEST_F(CatalogueTest, AListAsJsonTellsWhatEachFileIs) {
  Create(Path("volume"), Path("b/a.twf"));
  Step("b/a.twf", "b/b.twi");
  const nlohmann::json list = List({Path("b")});
  const nlohmann::json a = FileIn(list, Path("b/a.twf"));
  const nlohmann::json b = FileIn(list, Path("b/b.twi"));
  EXPECT_EQ(list["families"].size(), 1u);
  EXPECT_TRUE(list["notUsable"].empty());
  EXPECT_EQ(a["buildsOn"], nullptr);
  EXPECT_EQ(a["kind"], "full");
  EXPECT_EQ(a["fileSize"], fs::file_size(Path("b/a.twf")));
  EXPECT_EQ(a["volumeSize"], volume_.size());
  EXPECT_EQ(a["compression"], "lzo");
  EXPECT_EQ(a["encryption"], "none");
  EXPECT_EQ(a["isOrphan"], false);
  EXPECT_EQ(a["isIncomplete"], false);
  EXPECT_EQ(b["buildsOn"], Path("b/a.twf"));
  EXPECT_EQ(b["kind"], "incremental");
  EXPECT_EQ(b["generation"].get<int>(), a["generation"].get<int>() + 1);
  EXPECT_EQ(b["parentImageId"], a["imageId"]);
  EXPECT_EQ(b["imageSetId"], a["imageSetId"]);
}

TEST_F(CatalogueTest, OrphansIncompleteImagesCopiesAndRingsAreMarked) {
  PutHeader("b/lost.twi", 5, 99);
  PutHeader("b/below-lost.twi", 6, 5);
  PutHeader("b/split.twf", 1, 0, 0, false);
  PutHeader("b/split.TW1", 1, 0, 1, false);
  PutHeader("b/whole.twf", 2, 0, 0, false);
  PutHeader("b/whole.TW1", 2, 0, 1);
  PutHeader("b/whole-copy.twf", 2, 0);
  PutHeader("b/ring-a.twi", 7, 8);
  PutHeader("b/ring-b.twi", 8, 7);
  const nlohmann::json list = List({Path("b")});
  const auto at = [&](const char* name) { return FileIn(list, Path(name)); };
  EXPECT_EQ(at("b/lost.twi")["isOrphan"], true);
  EXPECT_EQ(at("b/lost.twi")["isIncomplete"], false);
  EXPECT_EQ(at("b/below-lost.twi")["isOrphan"], true);
  EXPECT_EQ(at("b/below-lost.twi")["buildsOn"], Path("b/lost.twi"));
  EXPECT_EQ(at("b/split.twf")["isIncomplete"], true);
  EXPECT_EQ(at("b/split.twf")["parts"].size(), 1u);
  EXPECT_EQ(at("b/whole.twf")["isIncomplete"], false);
  EXPECT_EQ(at("b/whole.twf")["isOrphan"], false);
  EXPECT_EQ(at("b/whole.twf")["parts"][0]["file"], Path("b/whole.TW1"));
  EXPECT_EQ(at("b/whole.twf")["copyOf"], Path("b/whole-copy.twf"));
  EXPECT_EQ(at("b/ring-b.twi")["buildsOn"], Path("b/ring-a.twi"));

  const std::string text = Succeed({"list", Path("b")}).out;
  for (const char* remark :
       {"ORPHAN: its parent 00000063-", "INCOMPLETE: part number 3 is missing or does not fit",
        "2 parts", "copy of ", "ORPHAN: it is its own ancestor"}) {
    EXPECT_NE(text.find(remark), std::string::npos) << remark << "\n" << text;
  }
}

TEST_F(CatalogueTest, FilesThatAreNoImagesAreNamedWithTheReason) {
  Put("b/text.twf", {'t', 'e', 'x', 't'});
  ImageSpec spec;
  spec.header.magic = KQ_MAGIC_OPEN;
  WriteFile(Path("b/open.twi"), BuildImage(spec));
  spec = {};
  spec.header.record.emplace();
  spec.headerCrc = 0x12345678;
  WriteFile(Path("b/damaged.twi"), BuildImage(spec));
  ASSERT_EQ(mkfifo(Path("b/pipe.twi").c_str(), 0600), 0);
  const std::string text = Succeed({"list", Path("b")}).out;
  EXPECT_TRUE(text.starts_with("no images\nNot usable:\n")) << text;
  EXPECT_NE(text.find(Path("b/open.twi") + ": it is unfinished"), std::string::npos) << text;
  EXPECT_NE(text.find(Path("b/damaged.twi") + ": its header is damaged"), std::string::npos)
      << text;
  EXPECT_NE(text.find(Path("b/text.twf") + ": "), std::string::npos) << text;
  EXPECT_EQ(text.find("pipe.twi"), std::string::npos) << text;
  EXPECT_EQ(List({Path("b")})["notUsable"].size(), 3u);
}

TEST_F(CatalogueTest, AFolderWithoutImagesGivesAnEmptyList) {
  EXPECT_EQ(Succeed({"list", Path("b")}).out, "no images\n");
}

TEST_F(CatalogueTest, ALinkThatLeadsNowhereIsNamed) {
  Create(Path("volume"), Path("b/a.twf"));
  fs::create_symlink("nowhere", Path("b/latest"));
  const ClientResult list = RunClient({"list", Path("b")});
  EXPECT_EQ(list.exitStatus, 1);
  EXPECT_NE(list.err.find(Path("b/latest") + ": No such file or directory"), std::string::npos)
      << list.err;
  EXPECT_TRUE(list.out.starts_with("FILE") || list.out.starts_with("no images")) << list.out;
}

TEST_F(CatalogueTest, FoldersThatCantBeSearchedAreFailures) {
  Create(Path("volume"), Path("a.twf"));
  Step("a.twf", "b.twi");
  for (const char* folder : {"missing", "volume"}) {
    EXPECT_NE(Fail({"list", Path(folder)}).find(Path(folder)), std::string::npos);
    EXPECT_NE(Fail({"chain", Path("b.twi"), "--search", Path(folder)}).find(Path(folder)),
              std::string::npos);
  }
  Fail({"list"}, 2);
}

TEST_F(CatalogueTest, AChainIsPrintedFromTheBaseWithAllParts) {
  PutHeader("b/base.twf", 1, 0, 0, false);
  PutHeader("b/base.TW1", 1, 0, 1);
  PutHeader("b/x.twi", 2, 1);
  PutHeader("b/y.twi", 3, 2);
  PutHeader("b/newer.twi", 4, 3);
  const std::string expected = Path("b/base.twf") + "\n" + Path("b/base.TW1") + "\n" +
                               Path("b/x.twi") + "\n" + Path("b/y.twi") + "\n";
  EXPECT_EQ(Succeed({"chain", Path("b/y.twi")}).out, expected);
  const nlohmann::json json =
      nlohmann::json::parse(Succeed({"chain", "--json", Path("b/y.twi")}).out);
  ASSERT_EQ(json["chain"].size(), 4u);
  EXPECT_EQ(json["chain"][1]["file"], Path("b/base.TW1"));
  Fail({"chain", "--json", "--null", Path("b/y.twi")}, 2);
}

TEST_F(CatalogueTest, NamesOfAnyBytesGoThroughUnchanged) {
  const std::string folder = Folder("a|b \"c\" 'd'\n\xFF");
  const std::string base = folder + "/x | y\n\xC3.twf";
  const std::string increment = folder + "/\"|\" quote\xFF.twi";
  Create(Path("volume"), base);
  ++volume_[7];
  Put("volume", volume_);
  Increment(Path("volume"), base, increment);
  EXPECT_EQ(Restore({increment}), volume_);
  EXPECT_EQ(Restore({increment, base}), volume_);
  EXPECT_EQ(Succeed({"chain", "--null", increment}).out, base + '\0' + increment + '\0');
  EXPECT_NE(Fail({"chain", increment}).find("\\x0a"), std::string::npos);

  const nlohmann::json chain =
      nlohmann::json::parse(Succeed({"chain", "--json", increment}).out)["chain"];
  std::string bytes;
  const std::string hex = chain[0]["fileHex"];
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  EXPECT_EQ(bytes, base);
  const std::string list = Succeed({"list", folder}).out;
  EXPECT_NE(list.find("x | y\\x0a\\xc3.twf"), std::string::npos) << list;
  EXPECT_NE(list.find("  \"|\" quote\\xff.twi"), std::string::npos) << list;
}

class SearchTest : public CatalogueTest {
 protected:
  // A chain whose files lie in three folders.
  void SetUp() override {
    CatalogueTest::SetUp();
    Create(Path("volume"), Path("a.twf"));
    Step("a.twf", "b.twi");
    Step("b.twi", "c.twi");
    Folder("x");
    Folder("y");
    fs::rename(Path("a.twf"), Path("x/a.twf"));
    fs::rename(Path("b.twi"), Path("y/b.twi"));
  }
};

TEST_F(SearchTest, OtherFoldersAreSearchedWhenTheyAreNamed) {
  const Arguments search = {"--search", Path("x"), "--search", Path("y")};
  EXPECT_EQ(Restore({Path("c.twi")}, search), volume_);
  EXPECT_EQ(Succeed(Joined({"chain", Path("c.twi")}, search)).out,
            Path("x/a.twf") + "\n" + Path("y/b.twi") + "\n" + Path("c.twi") + "\n");
  ++volume_[1];
  Put("volume", volume_);
  Increment(Path("volume"), Path("c.twi"), Path("d.twi"), search);
  EXPECT_EQ(Restore({Path("d.twi")}, search), volume_);
}

TEST_F(SearchTest, WhatIsMissingIsNamedWithAllFolders) {
  const std::string message = Fail({"chain", Path("c.twi"), "--search", Path("y")});
  EXPECT_NE(
      message.find("the parent of " + Path("y/b.twi") + " is missing: no file in the folders " +
                   folder_.Path() + ", " + Path("y") + " is the image "),
      std::string::npos)
      << message;
}

TEST_F(SearchTest, SearchingForNamedFilesMakesNoSense) {
  Fail({"restore", Path("c.twi"), Path("y/b.twi"), "--search", Path("x"), "--to", Path("new")}, 2);
  Fail({"increment", Path("volume"), Path("c.twi"), "--chain", Path("y/b.twi"), "--search",
        Path("x")},
       2);
}

TEST_F(SearchTest, AFolderOfLinksIsSearchedBesideTheTargetsFolder) {
  for (const char* name : {"x/a.twf", "y/b.twi", "c.twi"}) {
    fs::create_symlink(Path(name), Path("b/" + fs::path(name).filename().string()));
  }
  EXPECT_EQ(Restore({Path("b/c.twi")}), volume_);
}

TEST_F(SearchTest, InfoTellsTheChainOrWhatItLacks) {
  const ClientResult broken = Succeed({"info", Path("c.twi")});
  EXPECT_NE(broken.out.find("Chain             BROKEN: the parent of " + Path("c.twi")),
            std::string::npos)
      << broken.out;
  const Arguments whole = {"info", Path("c.twi"), "--search", Path("x"), "--search", Path("y")};
  const std::string blanks(18, ' ');
  EXPECT_NE(Succeed(whole).out.find("Chain             " + Path("x/a.twf") + "\n" + blanks +
                                    Path("y/b.twi") + "\n" + blanks + Path("c.twi") + "\n"),
            std::string::npos);
  const nlohmann::json lacking =
      nlohmann::json::parse(Succeed({"info", "--json", Path("c.twi")}).out);
  EXPECT_EQ(lacking["chain"], nullptr);
  EXPECT_NE(lacking["chainProblem"].get<std::string>().find("is missing"), std::string::npos);
  const nlohmann::json json = nlohmann::json::parse(Succeed(Joined(whole, {"--json"})).out);
  EXPECT_EQ(json["chain"].size(), 3u);
  EXPECT_EQ(json["chainProblem"], nullptr);
}

TEST_F(CatalogueTest, ACompleteCopyIsUsedWhereAnotherLacksAPart) {
  // Two copies of the base, of which one lacks its second part. Which of them the catalogue meets
  // first depends on the folder, so both orders are tried.
  Create(Path("volume"), Path("b/base.twf"));
  Step("b/base.twf", "b/inc.twi");
  Folder("cut");
  Volume bytes = ReadFile(Path("b/base.twf"));
  // LastPart is the second value of the index, in front of the file's last sector.
  ChunkIndexHead head = {};
  std::uint64_t place = 0;
  std::memcpy(&place, bytes.data() + bytes.size() - 512, sizeof place);
  std::memcpy(&head, bytes.data() + place, sizeof head);
  head.LastPart = 0;
  std::memcpy(bytes.data() + place, &head, sizeof head);
  WriteFile(Path("cut/base.twf"), bytes);
  EXPECT_EQ(Restore({Path("b/inc.twi")}, {"--search", Path("cut")}), volume_);
  fs::rename(Path("b/inc.twi"), Path("cut/inc.twi"));
  EXPECT_EQ(Restore({Path("cut/inc.twi")}, {"--search", Path("b")}), volume_);
}

TEST_F(CatalogueTest, ImagesThatNameEachOtherAsParentsAreRefused) {
  PutHeader("b/a.twi", 1, 2);
  PutHeader("b/b.twi", 2, 3);
  PutHeader("b/c.twi", 3, 1);
  const std::string message = Fail({"restore", Path("b/a.twi"), "--to", Path("new")});
  EXPECT_NE(message.find("is its own ancestor"), std::string::npos) << message;
}

class NamesTest : public CatalogueTest {};

TEST_F(NamesTest, AFolderIsEnoughForCreateAndIncrement) {
  Succeed({"create", "--quiet", Path("volume"), Path("b")});
  Succeed({"create", "--quiet", Path("volume"), Path("b")});
  EXPECT_TRUE(fs::exists(Path("b/volume-b001.twf")));
  EXPECT_TRUE(fs::exists(Path("b/volume-b002.twf")));
  const std::string other = Folder("other");
  for (const Arguments& out : {Arguments{}, Arguments{Path("b")}, Arguments{other}}) {
    ++volume_[1];
    Put("volume", volume_);
    Succeed(Joined({"increment", "--quiet", Path("volume"), Path("b/volume-b001.twf")}, out));
  }
  EXPECT_TRUE(fs::exists(Path("b/volume-b001-i001.twi")));
  EXPECT_TRUE(fs::exists(Path("b/volume-b001-i002.twi")));
  EXPECT_TRUE(fs::exists(Path("other/volume-b001-i003.twi")));
  EXPECT_EQ(Restore({Path("other/volume-b001-i003.twi")}, {"--search", Path("b")}), volume_);
}

TEST_F(NamesTest, SomethingElseInThePlaceOfTheNameIsNeverTouched) {
  Create(Path("volume"), Path("b/a.twf"));
  fs::create_directory(Path("b/a-i001.twi"));
  ++volume_[1];
  Put("volume", volume_);
  const std::string message = Fail({"increment", Path("volume"), Path("b/a.twf")});
  EXPECT_NE(message.find("a-i001.twi exists already"), std::string::npos) << message;
  EXPECT_TRUE(fs::is_directory(Path("b/a-i001.twi")));
}

TEST_F(NamesTest, InfoTellsTheNextNameAndTheKeyFile) {
  PutText("password", "secret\n");
  Create(Path("volume"), Path("b/x-b001.twf"),
         {"--encrypt", "aes128", "--password-file", Path("password")});
  Create(Path("volume"), Path("b/plain.twf"));
  const std::string text = Succeed({"info", Path("b/x-b001.twf")}).out;
  EXPECT_NE(text.find("Next increment    " + Path("b/x-b001-i001.twi") + "\n"), std::string::npos)
      << text;
  EXPECT_NE(text.find("Key file          " + Path("b/x-b001.twk") + "\n"), std::string::npos)
      << text;
  const std::string plain = Succeed({"info", Path("b/plain.twf")}).out;
  EXPECT_NE(plain.find("Next increment    " + Path("b/plain-i001.twi") + "\n"), std::string::npos);
  EXPECT_EQ(plain.find("Key file"), std::string::npos) << plain;
  const nlohmann::json json =
      nlohmann::json::parse(Succeed({"info", "--json", Path("b/x-b001.twf")}).out);
  EXPECT_EQ(json["nextImage"], Path("b/x-b001-i001.twi"));
  EXPECT_EQ(json["keyFile"], Path("b/x-b001.twk"));
}

}  // namespace
}  // namespace kqtest
