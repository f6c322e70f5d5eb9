// What a caller learns from GetErrorInfo after calls through IDispatch: the file or member at
// fault after a failure, nothing after a success.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "frame/FileManager.h"
#include "platform/ErrorInfo.h"
#include "platform/codepage.h"
#include "platform/ui.h"
#include "qxgroupmgr/ErrorCode.h"
#include "support/ScopedRegistry.h"
#include "support/TempDir.h"

namespace qx::test {
namespace {

const std::string kSamples = QX_TEST_DATA_DIR "/../../samples/";
const std::string kOut = "<out>";

struct Taken {
  std::string source, description, code;
};

// Takes the thread's error information; all empty when there is none.
Taken TakeErrorInfo() {
  IErrorInfo* info = nullptr;
  if (GetErrorInfo(0, &info) != S_OK) return {};
  Bstr source, description, code;
  info->GetSource(source.receive());
  info->GetDescription(description.receive());
  IQXErrorCode* coded = nullptr;
  if (info->QueryInterface(IID_IQXErrorCode, reinterpret_cast<void**>(&coded)) == S_OK) {
    coded->GetCode(code.receive());
    coded->Release();
  }
  info->Release();
  return {codepage::WideToUtf8(source.view()), codepage::WideToUtf8(description.view()),
          codepage::WideToUtf8(code.view())};
}

class ErrorInfoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(FileManager::CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(&fm)),
              S_OK);
    for (const char* name : {"prog1.map", "greeting.mas", "PROG.kdp", "Hello.kdk", "notes.txt"})
      std::filesystem::copy_file(kSamples + name, dir / name);
    std::filesystem::create_directory(dir / "out");
    std::filesystem::copy_file(dir / "prog1.map", dir / "a,b.map");
    ASSERT_EQ(Call(u"CreateGrpFile", {dir / "g.mag", dir / "greeting.mas," + dir / "prog1.map"}),
              S_OK);
  }
  void TearDown() override { fm->Release(); }

  // Calls a member by name with string arguments, as a script does; kOut stands for an [out]
  // string.
  HRESULT Call(const char16_t* name, const std::vector<std::string>& args) {
    DISPID id = 0;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    if (fm->GetIDsOfNames(IID_NULL, names, 1, 0, &id) != S_OK) return E_UNEXPECTED;
    std::vector<Bstr> strings;
    std::vector<VARIANT> reversed;
    strings.reserve(args.size());
    for (auto it = args.rbegin(); it != args.rend(); ++it) {
      VARIANT v;
      VariantInit(&v);
      if (*it == kOut) {
        strings.emplace_back();
        v.vt = VT_BYREF | VT_BSTR;
        v.pbstrVal = strings.back().address();
      } else {
        strings.emplace_back(codepage::Utf8ToWide(*it));
        v.vt = VT_BSTR;
        v.bstrVal = strings.back().get();
      }
      reversed.push_back(v);
    }
    VARIANT result;
    VariantInit(&result);
    DISPPARAMS params{reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
    const HRESULT hr = fm->Invoke(id, IID_NULL, 0, DISPATCH_METHOD, &params, &result, nullptr, nullptr);
    VariantClear(&result);
    return hr;
  }

  ScopedRegistry registry;
  const TempDir& dir = registry.dir();
  IDispatch* fm = nullptr;
};

TEST_F(ErrorInfoTest, FailuresNameTheFileOrMemberAndSuccessClears) {
  // A truncated copy of a group whose header still says group: the parse names the offset.
  const std::string bytes = [&] {
    std::ifstream in(dir / "g.mag", std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }();
  dir.Write("cut.mag", bytes.substr(0, bytes.size() - 20));

  struct Row {
    const char* name;
    const char16_t* member;
    std::vector<std::string> args;
    HRESULT hr;
    std::string description;  // "" for a call that leaves nothing
    std::string code;
  };
  const std::string out = dir / "out";
  const std::vector<Row> rows = {
      {"text file is no group", u"ReadContents", {dir / "notes.txt", kOut}, E_FAIL,
       dir / "notes.txt: not a group file (unknown signature)", "not-a-group"},
      {"missing group", u"DeleteFiles", {dir / "gone.mag", "x"}, E_FAIL,
       dir / "gone.mag: not a group file (no such file)", "not-a-group"},
      {"unknown member", u"GetFile", {dir / "g.mag", "main.NOPE.map", out}, E_FAIL,
       "main.NOPE.map: no such member in " + dir / "g.mag", "no-member"},
      {"flash file refused", u"AddFiles", {dir / "g.mag", dir / "Hello.kdk", ""}, E_FAIL,
       dir / "Hello.kdk: cannot go into " + dir / "g.mag" +
           ": old-style groups cannot hold flash applications", "flash-file"},
      {"other family refused", u"AddFiles", {dir / "g.mag", dir / "PROG.kdp", ""}, E_FAIL,
       dir / "PROG.kdp: cannot go into " + dir / "g.mag" +
           ": a KDX-family file; the group holds MA-family files", "other-family"},
      {"comma inside a name", u"AddFiles", {dir / "g.mag", dir / "a,b.map", ""}, E_FAIL,
       dir / "a,b.map: holds a comma, so the comma-separated list of files cut it into names "
             "that do not exist", "comma-in-name"},
      {"damaged group", u"DeleteFiles", {dir / "cut.mag", "main.PROG1.map"}, E_FAIL,
       dir / "cut.mag: ", "bad-offset"},  // then what the layout reader saw, and the offset
      {"flash file missing", u"ExpandFlashFile", {dir / "none.kdk", out, kOut}, QX_E_OPEN_FAILED,
       dir / "none.kdk: no such file", "cannot-open"},
      {"success", u"ReadContents", {dir / "g.mag", kOut}, S_OK, "", ""},
      {"unknown name", u"NoSuchMember", {}, E_UNEXPECTED,
       "NoSuchMember: is not a member of IGroupManager2", "no-such-name"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    // A reason left from before must never be read as this call's.
    IErrorInfo* stale = NewErrorInfo("stale", "stale");
    SetErrorInfo(0, stale);
    stale->Release();
    EXPECT_EQ(Call(r.member, r.args), r.hr);
    const auto [source, description, code] = TakeErrorInfo();
    if (r.description.empty()) {
      EXPECT_EQ(description, "");
      continue;
    }
    EXPECT_EQ(source, "QXGroupMgr.FileManager");
    EXPECT_EQ(description.substr(0, r.description.size()), r.description) << description;
    EXPECT_EQ(code, r.code);
    EXPECT_EQ(TakeErrorInfo().description, "") << "taking it empties the slot";
  }
}

TEST_F(ErrorInfoTest, SkippedFilesAreListedOnePerLine) {
  auto host = std::make_shared<ui::FixedAnswerHost>(5);  // Skip
  HWND owner = ui::BindOwnerWindow(host);
  static_cast<IGroupManager2*>(fm)->put_ShowUI(owner);
  EXPECT_EQ(Call(u"AddFiles", {dir / "g.mag", dir / "greeting.mas," + dir / "prog1.map", ""}), 2);
  EXPECT_EQ(TakeErrorInfo().description, dir / "g.mag: files left out:\n" + dir / "greeting.mas\n" +
                                        dir / "prog1.map");
  static_cast<IGroupManager2*>(fm)->put_ShowUI(nullptr);
  ui::ReleaseOwnerWindow(owner);
}

}  // namespace
}  // namespace qx::test
