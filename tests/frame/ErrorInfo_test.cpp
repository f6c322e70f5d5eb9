// What a caller learns from GetErrorInfo after calls through IDispatch: the file or member at
// fault after a failure, nothing after a success.
#include <gtest/gtest.h>

#include <filesystem>

#include "frame/FrameFixtures.h"
#include "platform/ErrorInfo.h"
#include "qxgroupmgr/ErrorCode.h"
#include "support/ScopedRegistry.h"
#include "support/TempDir.h"

namespace qx::test {
namespace {

const std::string kSamples = QX_TEST_DATA_DIR "/../../samples/";

struct Taken { std::string source, description, code; };

Taken TakeErrorInfo() {  // the thread's error information; all empty when there is none
  IErrorInfo* info = nullptr;
  if (GetErrorInfo(0, &info) != S_OK) return {};
  Bstr source, description, code;
  IQXErrorCode* coded = nullptr;
  info->GetSource(source.receive()), info->GetDescription(description.receive());
  if (info->QueryInterface(IID_IQXErrorCode, reinterpret_cast<void**>(&coded)) == S_OK)
    coded->GetCode(code.receive()), coded->Release();
  info->Release();
  const auto utf8 = [](const Bstr& text) { return codepage::WideToUtf8(text.view()); };
  return {utf8(source), utf8(description), utf8(code)};
}

struct ErrorInfoTest : ::testing::Test {
  void SetUp() override {
    ASSERT_EQ(FileManager::CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(&fm)), S_OK);
    for (const auto& [from, to] : {std::pair("prog1.map", "prog1.map"), {"greeting.mas", "greeting.mas"},
                                   {"prog1.map", "a,b.map"}})
      std::filesystem::copy_file(kSamples + from, dir / to);
    std::filesystem::create_directory(dir / "out");
    ASSERT_EQ(Call(u"CreateGrpFile", {dir / "g.mag", dir / "greeting.mas," + dir / "prog1.map"}), S_OK);
  }
  void TearDown() override { fm->Release(); }
  HRESULT Call(const char16_t* name, const std::vector<std::string>& args) { return CallByName(fm, name, args); }

  ScopedRegistry registry;
  const TempDir& dir = registry.dir();
  IDispatch* fm = nullptr;
};

// The texts of the reasons are checked through the command line (tests/cli/basics.sh); here
// that they reach the caller, one call's reason at a time.
TEST_F(ErrorInfoTest, FailuresNameTheFileOrMemberAndSuccessClears) {
  const std::string out = dir / "out";
  const struct { const char16_t* member; std::vector<std::string> args; HRESULT hr; std::string description, code; } rows[] = {
      {u"DeleteFiles", {dir / "gone.mag", "x"}, E_FAIL, dir / "gone.mag: not a group file (no such file)", "not-a-group"},
      {u"AddFiles", {dir / "g.mag", dir / "a,b.map", ""}, E_FAIL,
       dir / "a,b.map: holds a comma, so the comma-separated list of files cut it into names that do not exist", "comma-in-name"},
      {u"ExpandFlashFile", {dir / "none.kdk", out, kOut}, QX_E_OPEN_FAILED, dir / "none.kdk: no such file", "cannot-open"},
      {u"ReadContents", {dir / "g.mag", kOut}, S_OK, "", ""},  // a success leaves nothing
      {u"NoSuchMember", {}, DISP_E_UNKNOWNNAME, "NoSuchMember: is not a member of IGroupManager2", "no-such-name"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(codepage::WideToUtf8(r.member));
    IErrorInfo* stale = NewErrorInfo("stale", "stale");  // never to be read as this call's
    SetErrorInfo(0, stale);
    stale->Release();
    EXPECT_EQ(Call(r.member, r.args), r.hr);
    const auto [source, description, code] = TakeErrorInfo();
    if (r.description.empty()) { EXPECT_EQ(description, ""); continue; }
    EXPECT_EQ(source, "QXGroupMgr.FileManager");
    EXPECT_EQ(description.substr(0, r.description.size()), r.description) << description;
    EXPECT_EQ(code, r.code);
    EXPECT_EQ(TakeErrorInfo().description, "") << "taking it empties the slot";
  }
  // A flash file that cannot be opened leaves the caller's list alone.
  Bstr list(u"mine");
  const BSTR before = list.get();
  EXPECT_EQ(static_cast<IGroupManager2*>(fm)->ExpandFlashFile(Bstr(u"/none.kdk").get(), nullptr, list.address()), QX_E_OPEN_FAILED);
  EXPECT_EQ(list.get(), before);
}

TEST_F(ErrorInfoTest, SkippedFilesAreListedOnePerLine) {
  OwnerWindow owner(static_cast<IGroupManager2*>(fm), 5);  // Skip
  EXPECT_EQ(Call(u"AddFiles", {dir / "g.mag", dir / "greeting.mas," + dir / "prog1.map", ""}), 2);
  EXPECT_EQ(TakeErrorInfo().description, dir / "g.mag: files left out:\n" + dir / "greeting.mas\n" + dir / "prog1.map");
}

}  // namespace
}  // namespace qx::test
