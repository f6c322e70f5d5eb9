#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>

#include "frame/FrameFixtures.h"
#include "frame/TypeLibrary.h"
#include "platform/ErrorInfo.h"
#include "qxgroupmgr/ErrorCode.h"
#include "support/ScopedRegistry.h"
#include "support/TempDir.h"

namespace qx::test {
namespace {

VARIANT Var(VARTYPE vt) { VARIANT v; VariantInit(&v); v.vt = vt; return v; }
VARIANT Str(BSTR s) { VARIANT v = Var(VT_BSTR); v.bstrVal = s; return v; }
VARIANT I4(LONG n) { VARIANT v = Var(VT_I4); v.lVal = n; return v; }
VARIANT StrRef(BSTR* p) { VARIANT v = Var(VT_BYREF | VT_BSTR); v.pbstrVal = p; return v; }
VARIANT VarRef(VARIANT* p) { VARIANT v = Var(VT_BYREF | VT_VARIANT); v.pvarVal = p; return v; }

struct DispatchTest : ScriptedTest {
  HRESULT Call(const char16_t* name, std::vector<VARIANT> args, VARIANT* result = nullptr,
               WORD flags = DISPATCH_METHOD, UINT* argErr = nullptr) {
    return InvokeByName(static_cast<IGroupManager2*>(fm), name, std::move(args), result, flags, argErr);
  }
  Bstr group{u"g"};
};

TEST_F(DispatchTest, NamesAreFoundWhateverTheirCase) {
  const DISPID kNo = DISPID_UNKNOWN;
  const struct { std::vector<const char16_t*> names; HRESULT expected; std::vector<DISPID> ids; } cases[] = {
      {{u"readcontents"}, S_OK, {5}}, {{u"doesPathExist"}, S_OK, {56}},
      {{u"ReadContentsXml", u"SINCLUDESUBGRPSPATT", u"pxmlDir"}, S_OK, {52, 2, 3}},
      {{u"AddFiles", u"bdestfolder", u"nope"}, DISP_E_UNKNOWNNAME, {4, 2, kNo}},
      {{u"NoSuchMember", u"grpfile"}, DISP_E_UNKNOWNNAME, {kNo, kNo}},
      {{u"ReadContent"}, DISP_E_UNKNOWNNAME, {kNo}}, {{u"ReadContents\u00e9"}, DISP_E_UNKNOWNNAME, {kNo}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(codepage::WideToUtf8(c.names[0]));
    std::vector<LPOLESTR> names;
    for (const char16_t* n : c.names) names.push_back(const_cast<LPOLESTR>(n));
    std::vector<DISPID> ids(names.size(), 12345);
    EXPECT_EQ(fm->GetIDsOfNames(IID_NULL, names.data(), static_cast<UINT>(names.size()), 0, ids.data()), c.expected);
    EXPECT_EQ(ids, c.ids);
  }
}

TEST_F(DispatchTest, MalformedCallsAreRejectedBeforeTheMethodRuns) {
  Bstr other(u"x");
  BSTR out = nullptr;
  // Too few, a retval passed as argument; an integer for a string, a double for an integer, out
  // and in-out strings by value; a put or a method called as the other kind. argErr is checked
  // when not ~0u. More of each kind in python/tests/test_dispatch.py.
  const VARIANT g = Str(group.get()), x = Str(other.get());
  const WORD kMethod = DISPATCH_METHOD, kGet = DISPATCH_PROPERTYGET;
  const HRESULT kCount = DISP_E_BADPARAMCOUNT, kType = DISP_E_TYPEMISMATCH, kNotFound = DISP_E_MEMBERNOTFOUND;
  const struct { const char16_t* member; std::vector<VARIANT> args; WORD flags; HRESULT expected; UINT argErr; } cases[] = {
      {u"GetFile", {g, x}, kMethod, kCount, ~0u}, {u"IsGroup", {g, I4(0)}, kGet, kCount, ~0u},
      {u"DeleteFiles", {g, I4(3)}, kMethod, kType, 0}, {u"ExtractFile", {I4(1), x, x}, kMethod, kType, 2},
      {u"ReadContentsXml", {g, Var(VT_R8), x}, kMethod, kType, 1},
      {u"ReadContents", {g, Str(out)}, kMethod, kType, 0}, {u"ShowUI", {I4(0)}, kMethod, kNotFound, ~0u},
      {u"SplitPath", {g, StrRef(&out)}, kMethod, kType, 1}, {u"GetFile", {g, x, x}, kGet, kNotFound, ~0u}};
  for (const auto& c : cases) {
    SCOPED_TRACE(codepage::WideToUtf8(c.member) + " " + std::to_string(c.flags));
    script.calls.clear();
    UINT argErr = ~0u;
    EXPECT_EQ(Call(c.member, c.args, nullptr, c.flags, &argErr), c.expected);
    if (c.argErr != ~0u) { EXPECT_EQ(argErr, c.argErr); }
    EXPECT_TRUE(script.calls.empty());
  }
}

TEST_F(DispatchTest, NamedArgumentsOnlyForPropertyPut) {
  VARIANT handle = Var(VT_I8);
  DISPID named = (handle.llVal = 0x1234, DISPID_PROPERTYPUT);
  DISPPARAMS put{&handle, &named, 1, 1};
  EXPECT_EQ(fm->Invoke(55, IID_NULL, 0, DISPATCH_PROPERTYPUT, &put, nullptr, nullptr, nullptr), S_OK);
  EXPECT_EQ(fm->OwnerWindow(), reinterpret_cast<HWND>(0x1234));

  VARIANT args[] = {Str(nullptr), Str(group.get())};
  DISPID name = 0;
  DISPPARAMS method{args, &name, 2, 1};
  EXPECT_EQ(fm->Invoke(9, IID_NULL, 0, DISPATCH_METHOD, &method, nullptr, nullptr, nullptr), DISP_E_NONAMEDARGS);
  EXPECT_EQ(fm->Invoke(9, IID_IDispatch, 0, DISPATCH_METHOD, &method, nullptr, nullptr, nullptr), DISP_E_UNKNOWNINTERFACE);
  EXPECT_EQ(fm->Invoke(999, IID_NULL, 0, DISPATCH_METHOD, &method, nullptr, nullptr, nullptr), DISP_E_MEMBERNOTFOUND);
}

TEST_F(DispatchTest, ArgumentsGoInConvertedAndResultsComeBack) {
  // Strings by reference, empty and null variants, integers of other widths and in text.
  Bstr a(u"b,a"), number(u" 42 ");
  BSTR byRef = a.get();
  VARIANT shortInt = Var(VT_I2);
  shortInt.iVal = -3;
  ASSERT_EQ(Call(u"DeleteFiles", {Str(group.get()), StrRef(&byRef)}), S_OK);
  ASSERT_EQ(Call(u"AddFiles", {Str(group.get()), Var(VT_EMPTY), Var(VT_NULL)}), S_OK);
  for (const VARIANT& pattern : {shortInt, Str(number.get())}) {
    VARIANT result = Var(VT_EMPTY);
    ASSERT_EQ(Call(u"ReadContentsXml", {Str(group.get()), pattern, Str(nullptr)}, &result), S_OK);
    VariantClear(&result);
  }
  EXPECT_EQ(script.Calls(), "DeleteMembers([a,b]) AddMembers([]|) WriteContentsXml(-3|) WriteContentsXml(42|)");

  // Results as scripts take them (by-reference strings, retvals, S_FALSE) are checked in
  // python/tests/test_dispatch.py; here the cases a script does not make.
  script.members = {"A", "B"};  // [out] string through a by-reference variant holding nothing yet
  VARIANT holder = Var(VT_EMPTY);
  ASSERT_EQ(Call(u"ReadContents", {Str(group.get()), VarRef(&holder)}), S_OK);
  EXPECT_EQ(holder.vt, VT_BSTR);
  EXPECT_EQ(Bstr::Attach(holder.bstrVal).view(), u"A,B");
  // A result nobody asked for is freed (ASan would see a leak).
  ASSERT_EQ(Call(u"ReadContentsXml", {Str(group.get()), I4(1), Str(nullptr)}, nullptr), S_OK);
  // The method's own failure comes back as it is, with no result.
  script.makeContainer = false;
  VARIANT result = Var(VT_EMPTY);
  ASSERT_EQ(Call(u"ReadContentsXml", {Str(group.get()), I4(1), Str(nullptr)}, &result), E_FAIL);
  EXPECT_EQ(result.vt, VT_EMPTY);
}

// Each match of `pattern` in `text`: its groups, space-separated.
std::vector<std::string> All(const std::string& text, const char* pattern) {
  std::vector<std::string> found;
  const std::regex re(pattern);
  for (std::sregex_iterator m(text.begin(), text.end(), re), end; m != end; ++m)
    found.push_back(m->size() > 2 ? (*m)[1].str() + " " + (*m)[2].str() : (*m)[1].str());
  return found;
}

// The public header restates the table twice: dispids in comments beside the C++ methods and the
// order of the C function table. Both must follow the table, which IDispatch serves.
TEST(TypeLibraryTest, PublicHeaderFollowsTheTable) {
  std::ifstream in(QX_TEST_DATA_DIR "/../../include/qxgroupmgr/QXGroupMgr.h");
  ASSERT_TRUE(in);
  const std::string header{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  const auto block = [&](const std::string& start, const std::string& end) {
    const size_t from = header.find(start);
    return from == std::string::npos ? std::string() : header.substr(from, header.find(end, from) - from);
  };
  const auto cppName = [](const typelib::Member& m) {
    using enum typelib::MemberKind;
    return (m.kind == PropertyGet ? "get_" : m.kind == PropertyPut ? "put_" : "") + std::string(m.name);
  };
  for (const typelib::Interface* itf : typelib::TheLibrary().interfaces) {
    SCOPED_TRACE(std::string(itf->name));
    const std::string base = itf->base != nullptr ? std::string(itf->base->name) : "IDispatch";
    const std::string cpp = block("struct " + std::string(itf->name) + " : " + base + " {", "};");
    std::vector<std::string> described;
    for (const typelib::Member& m : itf->members)
      described.push_back(cppName(m) + " " + std::to_string(m.dispid));
    EXPECT_EQ(All(cpp, R"(virtual HRESULT (\w+)\([^;]*;\s*/\*\s*(\d+))"), described);

    const std::string c = block("typedef struct " + std::string(itf->name) + "Vtbl {", "}");
    if (c.empty()) continue;  // a base interface, laid out at the front of its derived one
    std::vector<std::string> expected = {"QueryInterface", "AddRef", "Release", "GetTypeInfoCount", "GetTypeInfo", "GetIDsOfNames", "Invoke"};
    for (const typelib::Member* m : typelib::AllMembers(*itf)) {
      EXPECT_EQ(m->vtableSlot, expected.size()) << m->name;
      expected.push_back(cppName(*m));
    }
    EXPECT_EQ(All(c, R"(\(\*(\w+)\))"), expected);
  }
}

// What a caller learns from GetErrorInfo after calls through IDispatch: the file or member at
// fault after a failure, nothing after a success.
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
  const struct { const char16_t* member; std::vector<std::string> args; HRESULT hr; std::string description, code; } rows[] = {
      {u"DeleteFiles", {dir / "gone.mag", "x"}, E_FAIL, dir / "gone.mag: not a group file (no such file)", "not-a-group"},
      {u"AddFiles", {dir / "g.mag", dir / "a,b.map", ""}, E_FAIL,
       dir / "a,b.map: holds a comma, so the comma-separated list of files cut it into names that do not exist", "comma-in-name"},
      {u"ExpandFlashFile", {dir / "none.kdk", dir / "out", kOut}, QX_E_OPEN_FAILED, dir / "none.kdk: no such file", "cannot-open"},
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
