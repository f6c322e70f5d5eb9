// Old-style groups end to end through FileManager with the real containers, a step at a time.
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

// Container rules (folders, deletion, families) are the container tests' business; here the
// status, notification and listing each kind of outcome gives through the frame.
TEST_F(OldGroupsTest, MAStyleGroupScenario) {
  const std::string g = dir / "g.mag", out = dir / "out";
  const std::string prog = kSamples + "prog1.map", greet = kSamples + "greeting.mas",
                    area = kSamples + "area.rap";
  const char* three = "main.PROG1.map,main.AREA.map,main.GREETING.mas";
  auto add = [&](const std::string& files) { return fm->AddFiles(B(g).get(), B(files).get(), nullptr); };
  const std::vector<Step> steps = {
      {"create new", [&] { return fm->CreateGrpFile(B(g).get(), B(prog + "," + greet).get()); },
       S_OK, shell::SHCNE_CREATE, "main.PROG1.map,main.GREETING.mas"},
      {"create over it", [&] { return fm->CreateGrpFile(B(g).get(), B(greet).get()); }, S_OK,
       shell::SHCNE_UPDATEDIR, "main.GREETING.mas"},
      {"add ra file as MA", [&] { return add(area + "," + prog); }, S_OK, shell::SHCNE_UPDATEDIR, three},
      {"duplicate skipped", [&] { Answer(IDC_SKIP); return add(prog); }, 2, 0, three},
      {"flash refused", [&] { return add(kSamples + "Hello.kdk"); }, E_FAIL, 0, three},
      {"other family refused", [&] { return add(kSamples + "PROG.kdp"); }, E_FAIL, 0, three},
      // The group changes, yet nothing is notified.
      {"extract moves it", [&] { return fm->ExtractFile(B(g).get(), B("main.PROG1.map").get(), B(out).get()); },
       S_OK, 0, "main.AREA.map,main.GREETING.mas"},
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
    ASSERT_EQ(shell.events.size(), s.event == 0 ? 0u : 1u);
    if (s.event != 0) {
      EXPECT_EQ(shell.events[0].eventId, s.event);
      EXPECT_EQ(shell.events[0].item1, g);
    }
    EXPECT_EQ(Listing(g), s.listing);
  }
  // The refusals were shown over the owner window with their own texts.
  ASSERT_EQ(host->Messages().size(), 2u);
  EXPECT_EQ(host->Messages()[0].text, FormatStringResource(IDS_NO_FLASHAPPS, "Hello.kdk"));
  EXPECT_EQ(host->Messages()[1].text, FormatStringResource(IDS_OTHER_DEVICE_TYPE, "PROG.kdp"));
  ASSERT_EQ(host->Dialogs().size(), 1u);
  EXPECT_EQ(host->Dialogs()[0].TextOf(IDC_DUPLICATE_TEXT),
            "prog1.map already exists in this group file.  What would you like to do?");
  // What came out is the single-variable file that went in.
  EXPECT_EQ(ReadFileBytes(out + "/main.PROG1.map"), ReadFileBytes(prog));
  EXPECT_EQ(ReadFileBytes(out + "/main.GREETING.mas"), ReadFileBytes(greet));
}

}  // namespace
}  // namespace qx::test
