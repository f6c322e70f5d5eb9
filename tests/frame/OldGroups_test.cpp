// Old-style groups and flash files end to end through FileManager with the real containers:
// one scenario a step at a time, each with its status, its shell event and the listing after it.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>

#include "frame/FileManager.h"
#include "frame/FrameFixtures.h"
#include "platform/codepage.h"
#include "platform/ui.h"
#include "resources/Resources.h"
#include "support/ScopedRegistry.h"
#include "support/TempDir.h"

namespace qx::test {
namespace {

const std::string kSamples = QX_TEST_DATA_DIR "/../../samples/";

Bstr B(const std::string& utf8) { return Bstr(codepage::Utf8ToWide(utf8)); }

class OldGroupsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(FileManager::CreateInstance(nullptr, IID_IGroupManager2,
                                          reinterpret_cast<void**>(&fm)),
              S_OK);
    std::filesystem::create_directory(dir / "out");
  }
  void TearDown() override {
    fm->put_ShowUI(nullptr);
    if (owner != nullptr) ui::ReleaseOwnerWindow(owner);
    fm->Release();
  }
  std::string Listing(const std::string& group) {
    Bstr names;
    if (fm->ReadContents(B(group).get(), names.receive()) != S_OK) return "<failed>";
    return codepage::WideToUtf8(names.view());
  }
  void Answer(int control) {
    if (owner == nullptr) {
      host = std::make_shared<ui::FixedAnswerHost>(control);
      owner = ui::BindOwnerWindow(host);
      fm->put_ShowUI(owner);
    }
    host->SetCommand(control);
  }

  ScopedRegistry registry;
  const TempDir& dir = registry.dir();
  IGroupManager2* fm = nullptr;
  ShellRecorder shell;
  std::shared_ptr<ui::FixedAnswerHost> host;
  HWND owner = nullptr;
};

struct Step {
  const char* name;
  std::function<HRESULT()> call;
  HRESULT status;
  LONG event;           // 0: no notification
  const char* listing;  // ReadContents afterwards
};

TEST_F(OldGroupsTest, MAStyleGroupScenario) {
  const std::string g = dir / "g.mag", out = dir / "out";
  const std::string prog = kSamples + "prog1.map", greet = kSamples + "greeting.mas",
                    area = kSamples + "area.rap";
  const std::vector<Step> steps = {
      {"create new", [&] { return fm->CreateGrpFile(B(g).get(), B(prog + "," + greet).get()); },
       S_OK, shell::SHCNE_CREATE, "main.PROG1.map,main.GREETING.mas"},
      {"create over it", [&] { return fm->CreateGrpFile(B(g).get(), B(greet).get()); }, S_OK,
       shell::SHCNE_UPDATEDIR, "main.GREETING.mas"},
      {"add ra file as MA", [&] { return fm->AddFiles(B(g).get(), B(area + "," + prog).get(), nullptr); },
       S_OK, shell::SHCNE_UPDATEDIR, "main.PROG1.map,main.AREA.map,main.GREETING.mas"},
      {"duplicate skipped",
       [&] {
         Answer(IDC_SKIP);
         return fm->AddFiles(B(g).get(), B(prog).get(), nullptr);
       },
       2, 0, "main.PROG1.map,main.AREA.map,main.GREETING.mas"},
      {"duplicate replaced",
       [&] {
         Answer(IDC_REPLACE);
         return fm->AddFiles(B(g).get(), B(prog).get(), nullptr);
       },
       S_OK, shell::SHCNE_UPDATEDIR, "main.PROG1.map,main.AREA.map,main.GREETING.mas"},
      {"flash refused", [&] { return fm->AddFiles(B(g).get(), B(kSamples + "Hello.kdk").get(), nullptr); },
       E_FAIL, 0, "main.PROG1.map,main.AREA.map,main.GREETING.mas"},
      {"other family refused", [&] { return fm->AddFiles(B(g).get(), B(kSamples + "PROG.kdp").get(), nullptr); },
       E_FAIL, 0, "main.PROG1.map,main.AREA.map,main.GREETING.mas"},
      {"the file's own folder wins over the destination",
       [&] { return fm->AddFiles(B(g).get(), B(prog).get(), B("work").get()); }, S_OK,
       shell::SHCNE_UPDATEDIR, "main.PROG1.map,main.AREA.map,main.GREETING.mas"},
      {"get leaves it", [&] { return fm->GetFile(B(g).get(), B("main.AREA.map").get(), B(out).get()); },
       S_OK, 0, "main.PROG1.map,main.AREA.map,main.GREETING.mas"},
      // The group changes, yet nothing is notified.
      {"extract moves it", [&] { return fm->ExtractFile(B(g).get(), B("main.PROG1.map").get(), B(out).get()); },
       S_OK, 0, "main.AREA.map,main.GREETING.mas"},
      {"no such member", [&] { return fm->GetFile(B(g).get(), B("main.NOPE.map").get(), B(out).get()); },
       E_FAIL, 0, "main.AREA.map,main.GREETING.mas"},
      {"delete one of an unknown pair", [&] { return fm->DeleteFiles(B(g).get(), B("main.AREA.map,main.NOPE.map").get()); },
       E_FAIL, 0, "main.AREA.map,main.GREETING.mas"},
      {"delete all refused", [&] { return fm->DeleteFiles(B(g).get(), B("main.AREA.map,main.GREETING.mas").get()); },
       E_FAIL, 0, "main.AREA.map,main.GREETING.mas"},
      {"delete one", [&] { return fm->DeleteFile(B(g).get(), B("main.AREA.map").get()); },
       S_OK, shell::SHCNE_UPDATEDIR, "main.GREETING.mas"},
      {"expand", [&] { return fm->ExpandGrpFile(B(g).get(), B(out).get()); }, S_OK, 0,
       "main.GREETING.mas"},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.name);
    shell.events.clear();
    EXPECT_EQ(s.call(), s.status);
    if (s.event == 0) {
      EXPECT_TRUE(shell.events.empty());
    } else {
      ASSERT_EQ(shell.events.size(), 1u);
      EXPECT_EQ(shell.events[0].eventId, s.event);
      EXPECT_EQ(shell.events[0].item1, g);
    }
    EXPECT_EQ(Listing(g), s.listing);
  }
  // The refusals were shown over the owner window with their own texts.
  ASSERT_EQ(host->Messages().size(), 2u);
  EXPECT_EQ(host->Messages()[0].text, FormatStringResource(IDS_NO_FLASHAPPS, "Hello.kdk"));
  EXPECT_EQ(host->Messages()[1].text, FormatStringResource(IDS_OTHER_DEVICE_TYPE, "PROG.kdp"));
  // The duplicate question named the file.
  ASSERT_EQ(host->Dialogs().size(), 3u);
  EXPECT_EQ(host->Dialogs()[0].TextOf(IDC_DUPLICATE_TEXT),
            "prog1.map already exists in this group file.  What would you like to do?");
  // What came out is the single-variable file that went in.
  EXPECT_EQ(ReadFileBytes(out + "/main.PROG1.map"), ReadFileBytes(prog));
  EXPECT_EQ(ReadFileBytes(out + "/main.GREETING.mas"), ReadFileBytes(greet));
  EXPECT_TRUE(std::filesystem::exists(out + "/main.AREA.map"));
}

TEST_F(OldGroupsTest, ContentsXmlOfBothLayouts) {
  const std::string mag = dir / "g.mag", kdg = dir / "k.kdg";
  ASSERT_EQ(fm->CreateGrpFile(B(mag).get(), B(kSamples + "prog1.map").get()), S_OK);
  ASSERT_EQ(fm->CreateGrpFile(B(kdg).get(), B(kSamples + "PROG.kdp").get()), S_OK);
  const struct {
    std::string group;
    const char* xml;
  } cases[] = {
      {mag, "\r\n<group name=\"g.mag\">\r\n<file Size=\"14\">main.PROG1.map</file>\r\n</group>\r\n"},
      {kdg, "\r\n<group name=\"k.kdg\">\r\n<file Size=\"27\">PROG.kdp</file>\r\n</group>\r\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.group);
    Bstr xml;
    // Both options are the zip listing's; old-style groups ignore them.
    ASSERT_EQ(fm->ReadContentsXml(B(c.group).get(), 1, B("*").get(), xml.receive()), S_OK);
    EXPECT_EQ(codepage::WideToUtf8(xml.view()), c.xml);
  }
}

}  // namespace
}  // namespace qx::test
