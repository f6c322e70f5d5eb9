// ZipGroupContainer on archives we build and on archives other tools made: members, folders,
// nested groups, the XML listing, the bounds on nesting and the private temporary folder.
#include "containers/ZipGroupContainer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "archive/VxXml.h"
#include "archive/VxZip.h"
#include "containers/ContainerFactory.h"
#include "containers/OldGroupBytes.h"
#include "platform/Diagnostic.h"
#include "support/ZipBytes.h"
#include "support/TempDir.h"

namespace qx {
namespace {

namespace sfs = std::filesystem;
using test::ReadFileBytes;
using test::TempDir;

const std::string kSamples = QX_TEST_DATA_DIR "/../../samples/";

// An old-style KC group of two variables, as the worked example holds it.
std::string KdgBytes() { return ReadFileBytes(kSamples + "math.kdg"); }

// Stored members (folders for names ending in "/") dated 2004-02-05 14:05:32, built from the
// layout, so our reader meets bytes it did not write.
std::string Zip(const TempDir& dir, const std::string& name,
                const std::vector<std::pair<std::string, std::string>>& members) {
  std::vector<ziptest::Member> built;
  for (const auto& [member, bytes] : members) {
    ziptest::Member& m = built.emplace_back(member, bytes, 0);
    m.date = 0x3045;
    m.time = 0x70B0;
    if (member.back() == '/') m.externalAttributes = 0x10;
  }
  return dir.Write(name, ziptest::BuildZip(built));
}

std::string Xml(GroupContainer& c, int meta, const std::string& pattern) {
  std::string xml;
  return c.WriteContentsXml(xml, meta, pattern) != 0 ? xml : "(failed)";
}
StringList List(GroupContainer& c) {
  StringList names;
  c.ListMembers(names);
  return names;
}

bool ToolAccepts(const std::string& archive) {
  return std::system(("unzip -tqq '" + archive + "' >/dev/null 2>&1").c_str()) == 0 &&
         std::system(("python3 -c \"import zipfile,sys; z=zipfile.ZipFile(sys.argv[1]); "
                      "sys.exit(z.testzip() is not None)\" '" + archive + "'").c_str()) == 0;
}

class ZipGroupTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("TMPDIR", tmp.path().c_str(), 1); }
  void TearDown() override {
    // Nothing of ours may stay in the temporary folder.
    EXPECT_TRUE(sfs::is_empty(tmp.path())) << "left in " << tmp.path();
    unsetenv("TMPDIR");
  }
  TempDir dir;
  TempDir tmp;
  ContainerFactory factory;
};

TEST_F(ZipGroupTest, WorkedExampleListsElementByElement) {
  const std::string g = Zip(dir, "lesson.qxg", {{"unit1/data.kdg", KdgBytes()},
                                                  {"unit1/quiz.kdp", std::string(1203, 'q')},
                                                  {"intro.kdp", std::string(860, 'i')}});
  auto c = factory.CreateContainer(g);
  ASSERT_NE(c, nullptr);
  const std::string date = "Date=\"2004.2.4.5.14.5.32.0\"";
  EXPECT_EQ(Xml(*c, 1, "*"),
            "\r\n<group name=\"lesson.qxg\">\r\n<dir name=\"unit1\">\r\n"
            "<file Size=\"1203\" CompSize=\"1203\" " + date + ">quiz.kdp</file>\r\n"
            "<group name=\"data.kdg\">\r\n<file Size=\"27\">PROG.kdp</file>\r\n"
            "<file Size=\"26\">A.kdn</file>\r\n<file Size=\"37\">L1.kdl</file>\r\n</group>\r\n"
            "</dir>\r\n<file Size=\"860\" CompSize=\"860\" " + date + ">intro.kdp</file>\r\n"
            "</group>\r\n");
  // No meta: the zip members lose their attributes, the nested group's keep "Size".
  EXPECT_EQ(Xml(*c, 0, "*.kdg"),
            "\r\n<group name=\"lesson.qxg\">\r\n<dir name=\"unit1\">\r\n<file>quiz.kdp</file>\r\n"
            "<group name=\"data.kdg\">\r\n<file Size=\"27\">PROG.kdp</file>\r\n"
            "<file Size=\"26\">A.kdn</file>\r\n<file Size=\"37\">L1.kdl</file>\r\n</group>\r\n"
            "</dir>\r\n<file>intro.kdp</file>\r\n</group>\r\n");
  // No pattern, or one naming no group extension: data.kdg stays a file, first in its folder.
  for (const char* pattern : {"", "*.kdp;", "*.kdgx"}) {
    SCOPED_TRACE(pattern);
    EXPECT_EQ(Xml(*c, 0, pattern),
              "\r\n<group name=\"lesson.qxg\">\r\n<dir name=\"unit1\">\r\n<file>data.kdg</file>\r\n"
              "<file>quiz.kdp</file>\r\n</dir>\r\n<file>intro.kdp</file>\r\n</group>\r\n");
  }
}

// The folder skeleton is the one the archive service's own directory listing gives.
TEST_F(ZipGroupTest, SkeletonMatchesArchiveDirectoryListing) {
  const std::vector<std::vector<std::string>> rows = {
      {"a.kdp", "sub/b.kdp", "sub/"},
      {"x/y/z.txt", "x/a.txt", "w/", "x/y/", "top.txt", "x/y/q&<.txt"},
      {"d/a", "d/a/b", "D/c"},
  };
  for (const auto& names : rows) {
    SCOPED_TRACE(names.front());
    std::vector<std::pair<std::string, std::string>> members;
    for (const std::string& n : names) members.emplace_back(n, n.back() == '/' ? "" : "data");
    const std::string g = Zip(dir, "s.zip", members);
    VxZip zip;
    ASSERT_TRUE(zip.OpenZip(g.c_str()));
    VxString listing;
    ASSERT_TRUE(zip.GetDirectoryAsXML(listing));
    VxXml doc;
    ASSERT_TRUE(doc.LoadXml(listing.GetString()));
    doc.SetTag("group");
    doc.AddAttribute("name", "s.zip");
    VxString expected;
    doc.GetXml(expected);
    auto c = factory.CreateContainer(g);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(Xml(*c, 0, ""), std::string(expected.View()));
  }
}

// Meta information goes to the first element breadth-first that carries each path part, when
// that one lies one level below the part before.
TEST_F(ZipGroupTest, MetaGoesToTheFirstElementOneLevelDown) {
  const std::string d = " Date=\"2004.2.4.5.14.5.32.0\"";
  struct Row { std::vector<std::pair<std::string, std::string>> members; std::string body; };
  const Row rows[] = {
      // y\a.kdp meets x's a.kdp first, at the right depth: that one carries both sets.
      {{{"x/a.kdp", "1"}, {"y/a.kdp", "22"}},
       "<dir name=\"x\">\r\n<file Size=\"1\" CompSize=\"1\"" + d + " Size=\"2\" CompSize=\"2\"" + d +
           ">a.kdp</file>\r\n</dir>\r\n<dir name=\"y\">\r\n<file>a.kdp</file>\r\n</dir>\r\n"},
      // A top-level a.kdp is met first for every path, at the wrong depth for the folders'.
      {{{"x/a.kdp", "1"}, {"a.kdp", "333"}},
       "<dir name=\"x\">\r\n<file>a.kdp</file>\r\n</dir>\r\n<file Size=\"3\" CompSize=\"3\"" + d +
           ">a.kdp</file>\r\n"},
      // A directory entry gives its attributes to its folder.
      {{{"w/", ""}, {"w/b", "1"}},
       "<dir name=\"w\" Size=\"0\" CompSize=\"0\"" + d + ">\r\n<file Size=\"1\" CompSize=\"1\"" + d +
           ">b</file>\r\n</dir>\r\n"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.body);
    auto c = factory.CreateContainer(Zip(dir, "m.zip", r.members));
    EXPECT_EQ(Xml(*c, 1, ""), "\r\n<group name=\"m.zip\">\r\n" + r.body + "</group>\r\n");
  }
}

TEST_F(ZipGroupTest, FoldersAsMembersAndNames) {
  const std::string g = Zip(dir, "f.qxg", {{"docs/a.kdp", "A"}, {"docs/b.kdp", "B"}, {"docsx.kdp", "X"}});
  auto c = factory.CreateContainer(g);
  ASSERT_NE(c, nullptr);
  auto* z = static_cast<ZipGroupContainer*>(c.get());
  struct Row { const char* name; int contains; int folder; };
  for (const Row& r : {Row{"DOCS\\A.KDP", 1, 0}, Row{"docs", 0, 1}, Row{"Docs", 0, 1},
                       Row{"docsx.kdp", 1, 0}, Row{"docs\\", 0, 0}, Row{"nope", 0, 0}}) {
    SCOPED_TRACE(r.name);
    EXPECT_EQ(c->ContainsMember(r.name), r.contains);
    EXPECT_EQ(z->IsFolderName(r.name), r.folder);
  }
  std::string group, inner;
  z->SplitMemberPath("docs\\a.kdp\\V", group, inner);
  EXPECT_EQ(group + "|" + inner, "docs\\a.kdp|V");
  z->SplitMemberPath("newdir\\", group, inner);
  EXPECT_EQ(group + "|" + inner, "|newdir\\");

  const std::string out = dir / "out/";
  sfs::create_directory(out);
  EXPECT_EQ(c->ExtractMember("docs", out), 1);
  EXPECT_EQ(ReadFileBytes(out + "docs/a.kdp") + ReadFileBytes(out + "docs/b.kdp"), "AB");
  EXPECT_EQ(c->ExtractMember("docs\\a.kdp", out), 1);
  EXPECT_EQ(ReadFileBytes(out + "a.kdp"), "A");
  EXPECT_EQ(c->ExtractMember("", out), 0);

  EXPECT_EQ(c->DeleteMembers({"docs"}), 1);
  EXPECT_EQ(List(*c), (StringList{"docsx.kdp"}));
  EXPECT_TRUE(ToolAccepts(g));
  // A name that is nowhere fails and leaves the file as it was.
  const std::string before = ReadFileBytes(g);
  EXPECT_EQ(c->DeleteMembers({"docsx.kdp", "missing\\x"}), 0);
  EXPECT_EQ(ReadFileBytes(g), before);
}

TEST_F(ZipGroupTest, AddingFilesTreesAndDuplicates) {
  const std::string g = dir / "a.qxg";
  ZipGroupContainer c(g, &factory);
  const std::string small = dir.Write("small.kdp", std::string(10, 's'));
  const std::string large = dir.Write("large.bin", std::string(70000, 'l'));
  sfs::create_directories(dir / "set/sub");
  dir.Write("set/one.txt", "1");
  dir.Write("set/sub/two.txt", "2");
  ASSERT_EQ(c.CreateWithMembers({small, large}, ""), 1);
  int32_t state = 0;
  ASSERT_EQ(c.AddMembers({dir / "set", small}, "unit1\\", &state, nullptr, nullptr), 1);
  StringList names = List(c);
  std::sort(names.begin() + 2, names.end());
  EXPECT_EQ(names, (StringList{"small.kdp", "large.bin", "unit1\\set\\one.txt",
                               "unit1\\set\\sub\\two.txt", "unit1\\small.kdp"}));
  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(g.c_str()));
  EXPECT_EQ(zip.GetEntryByName("small.kdp")->GetCompressedSize(), 10u);
  EXPECT_LT(zip.GetEntryByName("large.bin")->GetCompressedSize(), 70000u);

  // Duplicates: replaced without a prompt; a prompt's skip keeps the group byte for byte.
  sfs::create_directories(dir / "d");
  const std::string changed = dir.Write("d/small.kdp", "changed");
  state = 0;
  ASSERT_EQ(c.AddMembers({changed}, "", &state, nullptr, nullptr), 1);
  ASSERT_TRUE(zip.OpenZip(g.c_str()));
  EXPECT_EQ(zip.GetEntryByName("small.kdp")->GetUncompressedSize(), 7u);
  EXPECT_EQ(c.GetMemberCount(), 5);
  test::RecordingPrompt skip;
  const std::string before = ReadFileBytes(g);
  state = 0;
  EXPECT_EQ(c.AddMembers({small}, "", &state, &test::RecordingPrompt::Ask, &skip), 1);
  EXPECT_EQ(skip.asked, (std::vector<PromptReason>{PromptDuplicate}));
  EXPECT_EQ(ReadFileBytes(g), before);
  // Replace All on the first duplicate: later ones are not asked about.
  test::RecordingPrompt all;
  all.answer = PromptReplaceAll;
  state = 0;
  EXPECT_EQ(c.AddMembers({large, small}, "", &state, &test::RecordingPrompt::Ask, &all), 1);
  EXPECT_EQ(all.asked.size(), 1u);
  EXPECT_EQ(c.GetMemberCount(), 5);
  // A 0-byte file fails the call; what came before it in the call stays.
  sfs::create_directories(dir / "e");
  const std::string empty = dir.Write("e/zzz.kdp", "");
  const std::string first = dir.Write("e/aaa.kdp", "a");
  state = 0;
  EXPECT_EQ(c.AddMembers({first, empty}, "", &state, nullptr, nullptr), 0);
  EXPECT_EQ(c.ContainsMember("aaa.kdp"), 1);
  EXPECT_EQ(c.ContainsMember("zzz.kdp"), 0);
  // A destination inside a member that is not a group adds nothing and succeeds.
  state = 0;
  EXPECT_EQ(c.AddMembers({first}, "small.kdp\\", &state, nullptr, nullptr), 1);
  EXPECT_EQ(c.GetMemberCount(), 6);
  EXPECT_TRUE(ToolAccepts(g));
}

// lesson.qxg > unit1\inner.qxg > data.kdg: changed, extracted and listed three deep.
TEST_F(ZipGroupTest, NestedGroupsThreeDeep) {
  TempDir src;
  const std::string inner = Zip(src, "inner.qxg", {{"data.kdg", KdgBytes()}, {"n.txt", "n"}});
  const std::string g = Zip(dir, "lesson.qxg", {{"unit1/inner.qxg", ReadFileBytes(inner)}, {"z.txt", "z"}});
  auto c = factory.CreateContainer(g);
  ASSERT_NE(c, nullptr);
  const std::string out = dir / "out/";
  sfs::create_directory(out);
  EXPECT_EQ(c->ExtractMember("unit1\\inner.qxg\\data.kdg\\A.kdn", out), 1);
  EXPECT_TRUE(sfs::exists(out + "A.kdn"));
  EXPECT_EQ(c->ExtractMember("unit1\\inner.qxg\\nothing", out), 0);
  EXPECT_EQ(c->ExtractMember("unit1\\nothing\\x", out), 0);

  const std::string add = dir.Write("new.txt", "new");
  int32_t state = 0;
  ASSERT_EQ(c->AddMembers({add}, "unit1\\inner.qxg\\", &state, nullptr, nullptr), 1);
  ASSERT_EQ(c->DeleteMembers({"unit1\\inner.qxg\\data.kdg\\A.kdn", "unit1\\inner.qxg\\n.txt"}), 1);
  // The changed group is stored back once, under its name, at the end.
  EXPECT_EQ(List(*c), (StringList{"z.txt", "unit1\\inner.qxg"}));
  EXPECT_TRUE(ToolAccepts(g));
  const std::string xml = Xml(*c, 0, "*");
  EXPECT_NE(xml.find("<group name=\"inner.qxg\">\r\n<file>new.txt</file>\r\n<group name=\"data.kdg\">\r\n"
                     "<file Size=\"27\">PROG.kdp</file>\r\n<file Size=\"37\">L1.kdl</file>"),
            std::string::npos)
      << xml;
}

// A chain of 20 archives each holding the next, and a member claiming 4 GiB: the listing
// stops at the depth limit or the byte budget, changes through them fail cleanly.
TEST_F(ZipGroupTest, NestingIsBounded) {
  std::string chain = ziptest::BuildZip({{"leaf.txt", "x", 0}});
  for (int i = 0; i < 20; ++i) chain = ziptest::BuildZip({{"c.qxg", chain, 0}});
  auto c = factory.CreateContainer(dir.Write("c.qxg", chain));
  ASSERT_NE(c, nullptr);
  std::string deep;
  for (int i = 0; i < 20; ++i) deep += "c.qxg\\";
  diag::Clear();
  EXPECT_EQ(c->DeleteMembers({deep + "leaf.txt"}), 0);
  ASSERT_NE(diag::Current(), nullptr);
  EXPECT_EQ(diag::Current()->code, "nesting-too-deep");

  // Sizes claimed in both headers: 0xF0000000 bytes.
  ziptest::Member huge{"huge.qxg", "small", 0};
  huge.uncompressedSize = 0xF0000000;
  const std::string hugePath = dir.Write("big.qxg", ziptest::BuildZip({huge}));
  auto h = factory.CreateContainer(hugePath);
  ASSERT_NE(h, nullptr);
  EXPECT_NE(Xml(*h, 0, "*").find("<file>huge.qxg</file>"), std::string::npos);
  diag::Clear();
  EXPECT_EQ(h->DeleteMembers({"huge.qxg\\x"}), 0);
  EXPECT_EQ(diag::Current()->code, "nesting-too-large");
}

// Archives made by other tools, folders written their way (bsdtar leaves 0x10 off "unit1/").
TEST_F(ZipGroupTest, ArchivesOtherToolsMade) {
  sfs::create_directories(dir / "tree/unit1/deep");
  dir.Write("tree/unit1/a.kdp", "aa");
  dir.Write("tree/unit1/deep/b.kdp", "bb");
  struct Tool { const char* name; const char* command; };
  const Tool tools[] = {
      {"zip", "cd tree && zip -qr ../g.qxg unit1"},
      {"bsdtar", "cd tree && bsdtar --format zip -cf ../g.qxg unit1"},
      {"7z", "cd tree && 7z a -tzip ../g.qxg unit1 >/dev/null"},
      {"python", "cd tree && python3 -c \"import zipfile,os; z=zipfile.ZipFile('../g.qxg','w'); "
                 "[z.write(os.path.join(r,n)) for r,ds,fs in os.walk('unit1') for n in ds+fs]\""},
  };
  for (const Tool& t : tools) {
    SCOPED_TRACE(t.name);
    sfs::remove(dir / "g.qxg");
    if (std::system(("cd " + dir.path() + " && (" + t.command + ") 2>/dev/null").c_str()) != 0) {
      ADD_FAILURE() << t.name << " could not make the archive (scripts/setup.sh installs it)";
      continue;
    }
    auto c = factory.CreateContainer(dir / "g.qxg");
    ASSERT_NE(c, nullptr);
    const std::string xml = Xml(*c, 0, "*");
    EXPECT_EQ(xml.find("<file>unit1</file>"), std::string::npos) << xml;
    EXPECT_NE(xml.find("<dir name=\"unit1\">"), std::string::npos) << xml;
    const std::string out = dir / "x/";
    sfs::remove_all(out);
    sfs::create_directory(out);
    EXPECT_EQ(c->ExtractMember("unit1", out), 1);
    EXPECT_EQ(c->ExtractMember("unit1\\deep\\", out), 1);  // a folder entry of its own writes nothing
    EXPECT_EQ(ReadFileBytes(out + "unit1/deep/b.kdp"), "bb");
    const std::string add = dir.Write("n.kdp", "new");
    int32_t state = 0;
    EXPECT_EQ(c->AddMembers({add}, "unit1\\", &state, nullptr, nullptr), 1);
    EXPECT_EQ(c->ContainsMember("unit1\\n.kdp"), 1);
    EXPECT_TRUE(ToolAccepts(dir / "g.qxg"));
  }
}

}  // namespace
}  // namespace qx
