#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "frame/FrameFixtures.h"
#include "platform/codepage.h"
#include "platform/fs.h"
#include "resources/Resources.h"
#include "support/TempDir.h"

namespace qx::test {
namespace {

struct FileManagerTest : ScriptedTest { ShellRecorder shellEvents; };

// Every method that works on one group: no container or a failing operation gives E_FAIL, no
// notification and no out-argument; success gives the method's status, exactly the notification
// it should, and the container sees the lists sorted and folders completed with its separator.
TEST_F(FileManagerTest, ContainerCalls) {
  const std::string g = "/nonexistent-qx-dir/g.grp";
  const LONG kUpdate = shell::SHCNE_UPDATEDIR;
  const struct { const char16_t* member; std::vector<std::string> args; LONG event; const char* calls; } rows[] = {
      {u"CreateGrpFile", {g, "z,y"}, shell::SHCNE_CREATE, "CreateWithMembers([y,z]|)"},
      {u"ExpandGrpFile", {g, "out"}, 0, nullptr}, {u"ReadContents", {g, kOut}, 0, nullptr},
      {u"ExtractFile", {g, "A,B", "/out/"}, 0, "ExtractMember(A,B|/out/) DeleteMembers([A,B])"},
      {u"AddFiles", {g, "/x/c.8xp,/x/a.8xp", "sub"}, kUpdate, "AddMembers([/x/a.8xp,/x/c.8xp]|sub\\)"},
      {u"AddFiles", {g, "f", "a/b"}, kUpdate, "AddMembers([f]|a\\b\\)"},
      {u"AddFiles", {g, "f", kNull}, kUpdate, "AddMembers([f]|)"},
      {u"DeleteFile", {g, "b,a"}, kUpdate, "DeleteMembers([a,b])"},
      {u"DeleteFiles", {g, "caf\xC3\xA9"}, kUpdate, "DeleteMembers([caf\xe9])"},  // 1252 inside
      {u"GetFile", {g, "A,B", "/out"}, 0, "ExtractMember(A,B|/out/)"},
      {u"GetFile", {g, "A", ""}, 0, "ExtractMember(A|)"},
      {u"ReadContentsXml", {g, "7", "*.qxg"}, 0, "WriteContentsXml(7|*.qxg)"},
  };
  for (const auto& row : rows) {
    for (int variant = 0; variant < 3; ++variant) {
      SCOPED_TRACE(codepage::WideToUtf8(row.member) + " " + row.args[1] + " variant " + std::to_string(variant));
      script.makeContainer = variant != 0;  // 0: no container, 1: operation fails, 2: success
      script.result = variant == 2 ? 1 : 0;
      script.calls.clear();
      std::string out = "unset";
      const HRESULT hr = CallByName(static_cast<IGroupManager2*>(fm), row.member, row.args, &out);
      EXPECT_EQ(script.live, 0) << "container outlived the call";
      EXPECT_EQ(hr, variant < 2 ? E_FAIL : S_OK);
      if (variant < 2) { EXPECT_EQ(out, "") << "out-argument written on failure"; }
      using Events = std::vector<ShellRecorder::Event>;  // the notification, if any, names the group
      EXPECT_EQ(shellEvents.Take(), (variant < 2 || !row.event ? Events{} : Events{{row.event, 0x2001u, g, false}}));
      if (variant == 2 && row.calls != nullptr) { EXPECT_EQ(script.Calls(), row.calls); }
    }
  }
}

TEST_F(FileManagerTest, NullOutPointersComeFirst) {
  script.makeContainer = false;  // even a group that cannot be opened gives E_POINTER
  const Bstr g(u"g");
  EXPECT_EQ(fm->ReadContents(g.get(), nullptr), E_POINTER);
  EXPECT_EQ(fm->ReadContentsXml(g.get(), 0, nullptr, nullptr), E_POINTER);
  EXPECT_EQ(fm->get_IsGroup(g.get(), nullptr), E_POINTER);
  EXPECT_EQ(fm->SplitPath(nullptr, nullptr), E_POINTER);
}

TEST_F(FileManagerTest, ExtractFileFailsWhenRemovalFails) {
  script.failOnly = "DeleteMembers";
  EXPECT_EQ(fm->ExtractFile(Bstr(u"g").get(), Bstr(u"m").get(), Bstr(u"").get()), E_FAIL);
  EXPECT_EQ(script.Calls(), "ExtractMember(m|) DeleteMembers([m])");
  EXPECT_EQ(script.live, 0);
}

TEST_F(FileManagerTest, ReadContentsJoinsNames) {
  const std::pair<StringList, std::u16string> rows[] = {
      {{"A", "B", "C"}, u"A,B,C"}, {{}, u""}, {{"dir\\x.kdp", "\xe9.kdp"}, u"dir\\x.kdp,\u00e9.kdp"}};
  for (const auto& [members, expected] : rows) {
    script.members = members;
    Bstr text;
    ASSERT_EQ(fm->ReadContents(Bstr(u"g").get(), text.receive()), S_OK);
    ASSERT_NE(text.get(), nullptr);  // an empty group gives an empty string, not none
    EXPECT_EQ(text.view(), expected);
  }
}

// The container class CreateGrpFile picks: the extension first, then the first sorted file's
// family; anything else is a zip-based group. A group file already there is updated, not created.
TEST_F(FileManagerTest, CreateGrpFileChoosesContainerKind) {
  TempDir dir;
  using namespace std::string_view_literals;
  const std::string ma = dir.Write("a.map", "**QXMA**\x01\x00 rest of file"sv);
  const std::string kc = dir.Write("z.kdp", "**QXKC**\x1A\x0A\x00 rest of file"sv);
  const std::string flash = dir.Write("f.app", "**QXFL**\x01\x00 rest"sv), text = dir.Write("t.txt", "plain text"sv);
  const std::string d = dir.path() + "/", old = dir.Write("old.grp", "old");
  using enum ContainerKind;
  const struct { std::string group, files; ContainerKind expected; } cases[] = {
      {d + "g.grp", kc + "," + ma, OldMA} /* a.map sorts first */, {d + "g.qxg", kc + "," + ma, Zip},
      {d + "g.QxP", ma, Zip}, {d + "g.zip", kc, OldKC}, {d + "g", ma, OldMA}, {d + "g.grp", flash, Zip},
      {d + "g.grp", text, Zip}, {d + "g.grp", "", Zip}, {d + "g.grp", d + "missing.map", Zip}, {old, "a", Zip}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.group + " <- " + c.files);
    script.createdKinds.clear();
    const Bstr group(codepage::AnsiToWide(c.group)), files(codepage::AnsiToWide(c.files));
    ASSERT_EQ(fm->CreateGrpFile(group.get(), files.get()), S_OK);
    EXPECT_EQ(script.createdKinds, std::vector<ContainerKind>{c.expected});
    const LONG event = c.group == old ? shell::SHCNE_UPDATEDIR : shell::SHCNE_CREATE;
    EXPECT_EQ(shellEvents.Take(), (std::vector<ShellRecorder::Event>{{event, 0x2001u, c.group, false}}));
  }
}

TEST_F(FileManagerTest, AddPromptWithoutOwnerWindow) {
  const Bstr group(u"g"), files(u"f");
  using Prompts = std::vector<std::pair<std::string, PromptReason>>;
  const struct { const char* name; Prompts prompts; std::vector<PromptResult> answers; HRESULT expected; } cases[] = {
      {"nothing asked", {}, {}, S_OK}, {"duplicate replaced silently", {{"/x/a.kdp", PromptDuplicate}}, {PromptReplace}, S_OK},
      {"refused file cancels", {{"/x/a.kdp", PromptRefused}}, {PromptCancel}, 2},
      {"refusal after duplicate", {{"/x/a.kdp", PromptDuplicate}, {"/x/b.kdp", PromptRefused}},
       {PromptReplace, PromptCancel}, 2},
      {"container fails after refusal", {{"/x/a.kdp", PromptRefused}}, {PromptCancel}, E_FAIL}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    script.prompts = c.prompts;
    script.answers.clear();
    script.result = c.expected == E_FAIL ? 0 : 1;
    EXPECT_EQ(fm->AddFiles(group.get(), files.get(), nullptr), c.expected);
    EXPECT_EQ(script.answers, c.answers);
    EXPECT_EQ(fm->FilesSkipped(), c.expected == S_OK ? 0 : 1);  // set even when the call fails
    EXPECT_EQ(shellEvents.Take().size(), c.expected == S_OK ? 1u : 0u);
  }
}

// Which refusal each file gets, named without its folder.
TEST_F(FileManagerTest, RefusedFileShowsMessageOverOwnerWindow) {
  TempDir dir;
  using namespace std::string_view_literals;
  const std::string app = dir.Write("app.fla", "**QXFL**\x01" "data"sv);
  const std::string prog = dir.Write("prog.kdp", "**QXKC**\x1A\x0A\0data"sv);
  OwnerWindow owner(fm, ui::IDOK);
  script.prompts = {{app, PromptRefused}, {prog, PromptRefused}};
  const Bstr group(u"g"), files(u"f");
  EXPECT_EQ(fm->AddFiles(group.get(), files.get(), nullptr), 2);
  const auto& shown = owner.host->Messages();
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_TRUE(shown[0].text.find("the file app.fla to") != std::string::npos) << shown[0].text;
  EXPECT_TRUE(shown[0].text.find("FlashApps") != std::string::npos) << shown[0].text;
  EXPECT_TRUE(shown[1].text.find("the file prog.kdp to") != std::string::npos) << shown[1].text;
  EXPECT_TRUE(shown[1].text.find("same QX device type") != std::string::npos) << shown[1].text;
  EXPECT_EQ(std::pair(shown[0].caption, shown[0].type), std::pair(std::string("Adding File"), 0x30u));
  ASSERT_EQ(fm->put_ShowUI(nullptr), S_OK);  // a null handle switches the messages off again
  EXPECT_EQ(fm->AddFiles(group.get(), files.get(), nullptr), 2);
  EXPECT_EQ(shown.size(), 2u);
}

// With an owner window a duplicate is asked about: each button's answer reaches the container,
// Skip and Cancel make the call report files left out, and the question names the file as is.
TEST_F(FileManagerTest, DuplicateQuestionOverOwnerWindow) {
  const struct { int button; PromptResult answer; HRESULT status; } cases[] = {
      {IDC_REPLACE, PromptReplace, S_OK}, {IDC_REPLACE_ALL, PromptReplaceAll, S_OK},
      {IDC_SKIP, PromptSkip, 2}, {IDC_CANCEL, PromptCancel, 2}};
  OwnerWindow owner(fm, IDC_REPLACE);
  const Bstr group(u"g"), files(u"f");
  script.prompts = {{"/data/50%s.kdp", PromptDuplicate}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.button);
    owner.host->SetCommand(c.button);
    owner.host->Clear();
    script.answers.clear();
    EXPECT_EQ(fm->AddFiles(group.get(), files.get(), nullptr), c.status);
    EXPECT_EQ(script.answers, std::vector<PromptResult>{c.answer});
    ASSERT_EQ(owner.host->Dialogs().size(), 1u);
    EXPECT_EQ(owner.host->Dialogs()[0].caption, "Duplicate File Found");
    EXPECT_EQ(owner.host->Dialogs()[0].TextOf(IDC_DUPLICATE_TEXT),
              "50%s.kdp already exists in this group file.  What would you like to do?");
  }
  // A window that is gone cannot show the dialog: its failure result goes to the container.
  ui::ReleaseOwnerWindow(owner.hwnd);
  script.answers.clear();
  EXPECT_EQ(fm->AddFiles(group.get(), files.get(), nullptr), S_OK);
  EXPECT_EQ(script.answers, std::vector<PromptResult>{static_cast<PromptResult>(0)});
}

TEST(SplitListTest, CutsAndSortsBytewise) {
  // One trailing comma ends the list; case matters, a prefix is smaller, bytes compare unsigned,
  // blanks belong to the item.
  const std::pair<std::string, StringList> cases[] = {
      {"b,a,a", {"a", "a", "b"}}, {"a,b,", {"a", "b"}}, {"a,,b", {"", "a", "b"}}, {",", {""}}, {"", {}},
      {"ab,a,B", {"B", "a", "ab"}}, {"\xe9,z", {"z", "\xe9"}}, {" b,b", {" b", "b"}}};
  for (const auto& [text, expected] : cases) EXPECT_EQ(SplitList(text), expected) << text;
}

// <base>/data/grp.qxg exists, so path splitting finds where the file system ends.
struct GroupPathTest : ScriptedTest {
  void SetUp() override {
    std::filesystem::create_directory(root / "data");
    root.Write("data/grp.qxg", "PK");
    // A private temporary folder of its own, so other runs' leftovers never count.
    if (const char* old = std::getenv("TMPDIR")) oldTmp = old;
    ::setenv("TMPDIR", base.c_str(), 1);
  }
  void TearDown() override { oldTmp.empty() ? ::unsetenv("TMPDIR") : ::setenv("TMPDIR", oldTmp.c_str(), 1); }
  std::string oldTmp;
  TempDir root;
  const std::string base = root.path();
};

TEST_F(GroupPathTest, SplitGroupPathCutsWhereTheFileSystemEnds) {
  const std::string g = base + "/data/grp.qxg", data = base + "/data";
  const struct { std::string path, group, inGroup; } cases[] = {
      {g + "/folder/file.kdp", g, "folder\\file.kdp"}, {g, g, ""}, {g + "/", g, ""}, {g + "//x", g, "x"},
      {data, data, ""}, {data + "/missing/x.kdp", data, "missing\\x.kdp"},
      {"qx-no-such-dir/x", "", "qx-no-such-dir\\x"}, {"", "", ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    const GroupPathParts parts = SplitGroupPath(c.path);
    EXPECT_EQ(parts.group + "|" + parts.inGroup, c.group + "|" + c.inGroup);
  }
}

TEST_F(GroupPathTest, DoesPathExistAsksTheRightQuestion) {
  const std::string g = base + "/data/grp.qxg", temp = GetTempGroupFolder();
  std::filesystem::remove(fs::ToNative(temp));
  const std::string x = g + "/x.kdp", nested = g + "/dir/x.kdp";
  const std::string work = "ExtractMember(dir\\x.kdp|" + temp + "call-";
  const struct { std::string path; bool made; int result; HRESULT hr; LONG out; std::string call; } rows[] = {
      {x, true, 1, S_OK, 1, "ContainsMember(x.kdp)"}, {x, true, 0, S_OK, 0, "ContainsMember(x.kdp)"},
      {g, true, 1, S_OK, 1, "ContainsMember()"}, {x, false, 1, S_FALSE, 0, ""},  // no container
      // In a folder: copied out into the call's own work folder in the private temporary folder
      // and looked for there (the fake writes nothing); the work folder goes with the call.
      {nested, true, 1, S_OK, 0, work}, {nested, true, 0, S_OK, 0, work}};
  for (const auto& c : rows) {
    SCOPED_TRACE(c.path + " " + std::to_string(c.made) + std::to_string(c.result));
    script.calls.clear();
    script.makeContainer = c.made;
    script.result = c.result;
    LONG value = 77;
    EXPECT_EQ(fm->get_DoesPathExist(Bstr(codepage::AnsiToWide(c.path)).get(), &value), c.hr);
    EXPECT_EQ(value, c.out);
    EXPECT_EQ(script.calls.size(), c.call.empty() ? 0u : 1u);
    EXPECT_TRUE(script.Calls().starts_with(c.call)) << script.Calls();
    EXPECT_FALSE(std::filesystem::exists(fs::ToNative(temp))) << "work folder left behind";
  }
}

// Groups and other files: python/tests/test_dispatch.py. A member that cannot be copied out is
// no group, and no failure.
TEST_F(GroupPathTest, IsGroupOfAMemberThatCannotBeCopiedOut) {
  script.makeContainer = false;
  const Bstr member(codepage::AnsiToWide(base + "/data/grp.qxg/sub.qxg"));
  LONG value = 77;
  ASSERT_EQ(fm->get_IsGroup(member.get(), &value), S_OK);
  EXPECT_EQ(value, 0);
  EXPECT_TRUE(std::filesystem::is_directory(fs::ToNative(GetTempGroupFolder())));
}

}  // namespace
}  // namespace qx::test
