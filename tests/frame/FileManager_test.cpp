#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "frame/FileManager.h"
#include "frame/FrameFixtures.h"
#include "platform/codepage.h"
#include "platform/ui.h"
#include "resources/Resources.h"
#include "support/TempDir.h"

namespace qx::test {
namespace {

const char16_t* const kMissingGroup = u"/nonexistent-qx-dir/g.grp";

class FileManagerTest : public ::testing::Test {
 protected:
  Script script;
  Held<ScriptedFileManager> fm{new ScriptedFileManager(script)};
  ShellRecorder shellEvents;
};

// Every method that works on one group: no container or a failing operation gives E_FAIL and no
// notification; success gives the method's status and exactly the notification it should.
struct ContainerCallCase {
  const char* name;
  std::function<HRESULT(IGroupManager2*)> call;
  LONG successEvent;  // 0: no notification
};

TEST_F(FileManagerTest, StatusAndNotificationOfContainerCalls) {
  const Bstr group(kMissingGroup), list(u"b,a"), name(u"m"), dir(u"out");
  BSTR out = nullptr;
  const std::vector<ContainerCallCase> cases = {
      {"CreateGrpFile", [&](IGroupManager2* f) { return f->CreateGrpFile(group.get(), list.get()); },
       shell::SHCNE_CREATE},
      {"ExpandGrpFile", [&](IGroupManager2* f) { return f->ExpandGrpFile(group.get(), dir.get()); }, 0},
      {"ExtractFile",
       [&](IGroupManager2* f) { return f->ExtractFile(group.get(), name.get(), dir.get()); }, 0},
      {"AddFiles", [&](IGroupManager2* f) { return f->AddFiles(group.get(), list.get(), dir.get()); },
       shell::SHCNE_UPDATEDIR},
      {"ReadContents", [&](IGroupManager2* f) { return f->ReadContents(group.get(), &out); }, 0},
      {"DeleteFile", [&](IGroupManager2* f) { return f->DeleteFile(group.get(), name.get()); },
       shell::SHCNE_UPDATEDIR},
      {"DeleteFiles", [&](IGroupManager2* f) { return f->DeleteFiles(group.get(), list.get()); },
       shell::SHCNE_UPDATEDIR},
      {"GetFile", [&](IGroupManager2* f) { return f->GetFile(group.get(), name.get(), dir.get()); }, 0},
      {"ReadContentsXml",
       [&](IGroupManager2* f) { return f->ReadContentsXml(group.get(), 1, nullptr, &out); }, 0},
  };
  for (const ContainerCallCase& c : cases) {
    SCOPED_TRACE(c.name);
    for (int variant = 0; variant < 3; ++variant) {
      SCOPED_TRACE(variant == 0 ? "no container" : variant == 1 ? "operation fails" : "success");
      script.makeContainer = variant != 0;
      script.result = variant == 2 ? 1 : 0;
      shellEvents.events.clear();
      out = nullptr;
      const HRESULT hr = c.call(fm.p);
      EXPECT_EQ(script.live, 0) << "container outlived the call";
      if (variant < 2) {
        EXPECT_EQ(hr, E_FAIL);
        EXPECT_TRUE(shellEvents.events.empty());
        EXPECT_EQ(out, nullptr) << "out-argument written on failure";
        continue;
      }
      EXPECT_EQ(hr, S_OK);
      SysFreeString(out);
      if (c.successEvent == 0) {
        EXPECT_TRUE(shellEvents.events.empty());
        continue;
      }
      ASSERT_EQ(shellEvents.events.size(), 1u);
      const shell::ChangeEvent& e = shellEvents.events[0];
      EXPECT_EQ(e.eventId, c.successEvent);
      EXPECT_EQ(e.flags, 0x2001u);
      EXPECT_EQ(e.item1, "/nonexistent-qx-dir/g.grp");
      EXPECT_FALSE(e.item2Present);
    }
  }
}

TEST_F(FileManagerTest, NullOutPointersComeFirst) {
  script.makeContainer = false;  // even a group that cannot be opened gives E_POINTER
  const Bstr group(kMissingGroup);
  EXPECT_EQ(fm->ReadContents(group.get(), nullptr), E_POINTER);
  EXPECT_EQ(fm->ReadContentsXml(group.get(), 0, nullptr, nullptr), E_POINTER);
  EXPECT_EQ(fm->get_IsGroup(group.get(), nullptr), E_POINTER);
  EXPECT_TRUE(script.calls.empty());
}

// How arguments reach the container: lists sorted, folders completed with the right separator.
TEST_F(FileManagerTest, ArgumentsReachTheContainer) {
  struct Case {
    const char* name;
    std::function<HRESULT(IGroupManager2*)> call;
    const char* expectedCalls;
  };
  auto b = [](const char16_t* s) { return Bstr(s); };
  const std::vector<Case> cases = {
      {"AddFiles folder completed", [&](IGroupManager2* f) {
         return f->AddFiles(b(u"g").get(), b(u"/x/c.8xp,/x/a.8xp").get(), b(u"sub").get()); },
       "AddMembers([/x/a.8xp,/x/c.8xp]|sub\\)"},
      {"AddFiles slash becomes backslash", [&](IGroupManager2* f) {
         return f->AddFiles(b(u"g").get(), b(u"f").get(), b(u"a/b").get()); },
       "AddMembers([f]|a\\b\\)"},
      {"AddFiles null folder", [&](IGroupManager2* f) {
         return f->AddFiles(b(u"g").get(), b(u"f").get(), nullptr); },
       "AddMembers([f]|)"},
      {"GetFile completes destination", [&](IGroupManager2* f) {
         return f->GetFile(b(u"g").get(), b(u"A,B").get(), b(u"/out").get()); },
       "ExtractMember(A,B|/out/)"},
      {"GetFile empty destination", [&](IGroupManager2* f) {
         return f->GetFile(b(u"g").get(), b(u"A").get(), b(u"").get()); },
       "ExtractMember(A|)"},
      {"ExtractFile removes exactly that member", [&](IGroupManager2* f) {
         return f->ExtractFile(b(u"g").get(), b(u"A,B").get(), b(u"/out/").get()); },
       "ExtractMember(A,B|/out/) DeleteMembers([A,B])"},
      {"DeleteFile splits at commas", [&](IGroupManager2* f) {
         return f->DeleteFile(b(u"g").get(), b(u"b,a").get()); },
       "DeleteMembers([a,b])"},
      {"CreateGrpFile writes sorted list at top level", [&](IGroupManager2* f) {
         return f->CreateGrpFile(b(u"/none/x.qxg").get(), b(u"z,y").get()); },
       "CreateWithMembers([y,z]|)"},
      {"ReadContentsXml passes flag and pattern", [&](IGroupManager2* f) {
         BSTR xml = nullptr;
         const HRESULT hr = f->ReadContentsXml(b(u"g").get(), 7, b(u"*.qxg").get(), &xml);
         SysFreeString(xml);
         return hr; },
       "WriteContentsXml(7|*.qxg)"},
      {"non-ASCII text arrives as 1252", [&](IGroupManager2* f) {
         return f->DeleteFiles(b(u"g").get(), b(u"caf\u00e9").get()); },
       "DeleteMembers([caf\xe9])"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    script.calls.clear();
    EXPECT_TRUE(SUCCEEDED(c.call(fm.p)));
    std::string joined;
    for (const std::string& call : script.calls) joined += (joined.empty() ? "" : " ") + call;
    EXPECT_EQ(joined, c.expectedCalls);
  }
}

TEST_F(FileManagerTest, ExtractFileFailsWhenRemovalFails) {
  script.failOnly = "DeleteMembers";
  const Bstr g(u"g"), m(u"m"), d(u"");
  EXPECT_EQ(fm->ExtractFile(g.get(), m.get(), d.get()), E_FAIL);
  EXPECT_EQ(script.calls, (std::vector<std::string>{"ExtractMember(m|)", "DeleteMembers([m])"}));
  EXPECT_EQ(script.live, 0);
}

TEST_F(FileManagerTest, ReadContentsJoinsNames) {
  struct Case {
    StringList members;
    std::u16string expected;
  };
  const std::vector<Case> cases = {
      {{"A", "B", "C"}, u"A,B,C"},
      {{}, u""},
      {{"dir\\x.kdp", "\xe9.kdp"}, u"dir\\x.kdp,\u00e9.kdp"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.members));
    script.members = c.members;
    Bstr text;
    const Bstr group(u"g");
    ASSERT_EQ(fm->ReadContents(group.get(), text.receive()), S_OK);
    ASSERT_NE(text.get(), nullptr);
    EXPECT_EQ(text.view(), c.expected);
  }
}

TEST_F(FileManagerTest, CreateGrpFileNotifiesUpdateForAnExistingFile) {
  TempDir dir;
  const Bstr group(codepage::Utf8ToWide(dir.Write("existing.grp", "old"))), files(u"a");
  ASSERT_EQ(fm->CreateGrpFile(group.get(), files.get()), S_OK);
  ASSERT_EQ(shellEvents.events.size(), 1u);
  EXPECT_EQ(shellEvents.events[0].eventId, shell::SHCNE_UPDATEDIR);
}

// The container class CreateGrpFile picks: the extension first, then the first sorted file's
// family; anything else is a zip-based group.
TEST_F(FileManagerTest, CreateGrpFileChoosesContainerKind) {
  TempDir dir;
  using namespace std::string_view_literals;
  const std::string ma = dir.Write("a.map", "**QXMA**\x01\x00 rest of file"sv);
  const std::string kc = dir.Write("z.kdp", "**QXKC**\x1A\x0A\x00 rest of file"sv);
  const std::string flash = dir.Write("f.app", "**QXFL**\x01\x00 rest"sv);
  const std::string text = dir.Write("t.txt", "plain text"sv);

  struct Case {
    std::string group;
    std::string files;
    ContainerKind expected;
  };
  const std::string d = dir.path() + "/";
  const std::vector<Case> cases = {
      {d + "g.grp", kc + "," + ma, ContainerKind::OldMA},  // a.map sorts first
      {d + "g.qxg", kc + "," + ma, ContainerKind::Zip},
      {d + "g.QxP", ma, ContainerKind::Zip},
      {d + "g.zip", kc, ContainerKind::OldKC},
      {d + "g", ma, ContainerKind::OldMA},
      {d + "g.grp", flash, ContainerKind::Zip},
      {d + "g.grp", text, ContainerKind::Zip},
      {d + "g.grp", "", ContainerKind::Zip},
      {d + "g.grp", d + "missing.map", ContainerKind::Zip},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.group + " <- " + c.files);
    script.createdKinds.clear();
    const Bstr group(codepage::AnsiToWide(c.group)), files(codepage::AnsiToWide(c.files));
    ASSERT_EQ(fm->CreateGrpFile(group.get(), files.get()), S_OK);
    ASSERT_EQ(script.createdKinds.size(), 1u);
    EXPECT_EQ(script.createdKinds[0], c.expected);
  }
}

TEST_F(FileManagerTest, AddPromptWithoutOwnerWindow) {
  struct Case {
    const char* name;
    std::vector<std::pair<std::string, PromptReason>> prompts;
    std::vector<PromptResult> answers;
    HRESULT expected;
    bool notified;
  };
  const std::vector<Case> cases = {
      {"nothing asked", {}, {}, S_OK, true},
      {"duplicate replaced silently", {{"/x/a.kdp", PromptDuplicate}}, {PromptReplace}, S_OK, true},
      {"refused file cancels", {{"/x/a.kdp", PromptRefused}}, {PromptCancel}, 2, false},
      {"refusal after duplicate",
       {{"/x/a.kdp", PromptDuplicate}, {"/x/b.kdp", PromptRefused}},
       {PromptReplace, PromptCancel}, 2, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    script.prompts = c.prompts;
    script.answers.clear();
    shellEvents.events.clear();
    const Bstr group(u"g"), files(u"f");
    EXPECT_EQ(fm->AddFiles(group.get(), files.get(), nullptr), c.expected);
    EXPECT_EQ(script.answers, c.answers);
    EXPECT_EQ(fm->FilesSkipped(), c.expected == 2 ? 1 : 0);
    EXPECT_EQ(shellEvents.events.size(), c.notified ? 1u : 0u);
  }
  // A refusal the container turns into failure is E_FAIL, with FilesSkipped still set.
  script.prompts = {{"/x/a.kdp", PromptRefused}};
  script.result = 0;
  const Bstr group(u"g"), files(u"f");
  EXPECT_EQ(fm->AddFiles(group.get(), files.get(), nullptr), E_FAIL);
  EXPECT_EQ(fm->FilesSkipped(), 1);
}

TEST_F(FileManagerTest, RefusedFileShowsMessageOverOwnerWindow) {
  TempDir dir;
  using namespace std::string_view_literals;
  const std::string app = dir.Write("app.fla", "**QXFL**\x01" "data"sv);
  const std::string prog = dir.Write("prog.kdp", "**QXKC**\x1A\x0A\0data"sv);

  auto host = std::make_shared<ui::FixedAnswerHost>(ui::IDOK);
  HWND owner = ui::BindOwnerWindow(host);
  ASSERT_EQ(fm->put_ShowUI(owner), S_OK);
  script.prompts = {{app, PromptRefused}, {prog, PromptRefused}};
  const Bstr group(u"g"), files(u"f");
  EXPECT_EQ(fm->AddFiles(group.get(), files.get(), nullptr), 2);
  ASSERT_EQ(host->Messages().size(), 2u);
  EXPECT_EQ(host->Messages()[0].text,
            "Cannot add the file app.fla to the group.\nOld-style group files cannot contain FlashApps.");
  EXPECT_EQ(host->Messages()[1].text,
            "Cannot add the file prog.kdp to the group.\nOld-style group files can only contain files "
            "that are of the same QX device type.");
  EXPECT_EQ(host->Messages()[0].caption, "Adding File");
  EXPECT_EQ(host->Messages()[0].type, 0x30u);

  // A null handle switches the messages off again.
  ASSERT_EQ(fm->put_ShowUI(nullptr), S_OK);
  EXPECT_EQ(fm->OwnerWindow(), nullptr);
  EXPECT_EQ(fm->AddFiles(group.get(), files.get(), nullptr), 2);
  EXPECT_EQ(host->Messages().size(), 2u);
  ui::ReleaseOwnerWindow(owner);
}

// With an owner window a duplicate is asked about: each button's answer reaches the container,
// Skip and Cancel make the call report files left out, and the question names the file as is.
TEST_F(FileManagerTest, DuplicateQuestionOverOwnerWindow) {
  const struct {
    int button;
    PromptResult answer;
    HRESULT status;
  } cases[] = {
      {IDC_REPLACE, PromptReplace, S_OK},
      {IDC_REPLACE_ALL, PromptReplaceAll, S_OK},
      {IDC_SKIP, PromptSkip, 2},
      {IDC_CANCEL, PromptCancel, 2},
  };
  auto host = std::make_shared<ui::FixedAnswerHost>(IDC_REPLACE);
  HWND owner = ui::BindOwnerWindow(host);
  ASSERT_EQ(fm->put_ShowUI(owner), S_OK);
  const Bstr group(u"g"), files(u"f");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.button);
    host->SetCommand(c.button);
    host->Clear();
    script.prompts = {{"/data/50%s.kdp", PromptDuplicate}};
    script.answers.clear();
    EXPECT_EQ(fm->AddFiles(group.get(), files.get(), nullptr), c.status);
    EXPECT_EQ(script.answers, std::vector<PromptResult>{c.answer});
    ASSERT_EQ(host->Dialogs().size(), 1u);
    EXPECT_EQ(host->Dialogs()[0].caption, "Duplicate File Found");
    EXPECT_EQ(host->Dialogs()[0].TextOf(IDC_DUPLICATE_TEXT),
              "50%s.kdp already exists in this group file.  What would you like to do?");
  }
  // A window that is gone cannot show the dialog: its failure result goes to the container.
  ui::ReleaseOwnerWindow(owner);
  script.answers.clear();
  EXPECT_EQ(fm->AddFiles(group.get(), files.get(), nullptr), S_OK);
  EXPECT_EQ(script.answers, std::vector<PromptResult>{static_cast<PromptResult>(0)});
  fm->put_ShowUI(nullptr);
}

// With the real factory: no file that is not a group gets a container.
TEST(FileManagerFilesTest, NonGroupsFailEveryContainerCall) {
  TempDir dir;
  dir.Write("t.txt", "plain text");
  dir.Write("f.app", "**QXFL**\x01" "data");
  IGroupManager2* fm = nullptr;
  ASSERT_EQ(FileManager::CreateInstance(nullptr, IID_IGroupManager2, reinterpret_cast<void**>(&fm)), S_OK);
  for (const std::string name : {"missing.grp", "t.txt", "f.app"}) {
    SCOPED_TRACE(name);
    // Every method opens its group the same way; the scripted table above covers each one.
    const Bstr group(codepage::Utf8ToWide(dir / name)), arg(u"x"), d(u"");
    EXPECT_EQ(fm->AddFiles(group.get(), arg.get(), d.get()), E_FAIL);
    LONG value = 7;
    EXPECT_EQ(fm->get_IsGroup(group.get(), &value), S_OK);
    EXPECT_EQ(value, 0);
  }
  fm->Release();
}

TEST(FileManagerFilesTest, ExpandFlashFileReportsWhatItWrote) {
  TempDir dir;
  std::filesystem::create_directory(dir / "out");
  // Two application records for the KDX family, named One and Two, with 3 data bytes each.
  std::string flash;
  for (const std::string name : {"One", "Two"}) {
    std::string header(78, '\0');
    header.replace(0, 8, "**QXFL**");
    header[0x10] = static_cast<char>(name.size());
    header.replace(0x11, name.size(), name);
    header[0x30] = '\x73';
    header[0x31] = '\x24';
    header[0x4A] = 3;
    flash += header + "abc";
  }
  dir.Write("two.fla", flash);

  IGroupManager2* fm = nullptr;
  ASSERT_EQ(FileManager::CreateInstance(nullptr, IID_IGroupManager2, reinterpret_cast<void**>(&fm)), S_OK);
  const std::string out = dir / "out";
  const Bstr file(codepage::Utf8ToWide(dir / "two.fla")), dest(codepage::Utf8ToWide(out));
  Bstr list(u"released by the call");
  ASSERT_EQ(fm->ExpandFlashFile(file.get(), dest.get(), list.address()), S_OK);
  EXPECT_EQ(codepage::WideToUtf8(list.view()), out + "/One.kdk," + out + "/Two.kdk,");
  EXPECT_TRUE(std::filesystem::exists(out + "/Two.kdk"));

  // A file that cannot be opened leaves the list alone.
  const Bstr missing(codepage::Utf8ToWide(dir / "missing.fla"));
  BSTR before = list.get();
  EXPECT_EQ(fm->ExpandFlashFile(missing.get(), dest.get(), list.address()), QX_E_OPEN_FAILED);
  EXPECT_EQ(list.get(), before);
  fm->Release();
}

}  // namespace
}  // namespace qx::test
