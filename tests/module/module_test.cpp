// Uses the component the way an outside program does: the public headers and the shared module,
// nothing else.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "qxgroupmgr/QXGroupMgr.h"

extern "C" int RunCCaller(char* message, size_t size);

namespace {

const char16_t* const kMissingGroup = u"/nonexistent-qx-module-dir/none.grp";

struct Str {
  BSTR s;
  explicit Str(const char16_t* text) : s(SysAllocString(text)) {}
  ~Str() { SysFreeString(s); }
  Str(const Str&) = delete;
  Str& operator=(const Str&) = delete;
};

IClassFactory* ClassObject() {
  IClassFactory* cf = nullptr;
  EXPECT_EQ(DllGetClassObject(CLSID_FileManager, IID_IClassFactory, reinterpret_cast<void**>(&cf)), S_OK);
  return cf;
}

TEST(ModuleTest, ClassObjectIsCachedAndCountsWhileHeld) {
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
  IClassFactory* a = ClassObject();
  IClassFactory* b = ClassObject();
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a, b);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  a->Release();
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  b->Release();
  EXPECT_EQ(DllCanUnloadNow(), S_OK);

  void* p = nullptr;
  EXPECT_EQ(DllGetClassObject(CLSID_FileManager, IID_IClassFactory, nullptr), E_POINTER);
  EXPECT_EQ(DllGetClassObject(IID_IGroupManager2, IID_IClassFactory, &p), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(DllGetClassObject(CLSID_FileManager, IID_IDispatch, &p), E_NOINTERFACE);
}

// Status codes of each method are the frame tests' business; here only that calls cross the
// module boundary, through the vtable and through IDispatch (the C caller covers more of both).
TEST(ModuleTest, InstanceThroughTheTableAndDispatch) {
  IClassFactory* cf = ClassObject();
  IGroupManager2* fm = nullptr;
  ASSERT_EQ(cf->CreateInstance(nullptr, IID_IGroupManager2, reinterpret_cast<void**>(&fm)), S_OK);
  cf->Release();
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);

  const Str group(kMissingGroup);
  BSTR out = nullptr;
  EXPECT_EQ(fm->ReadContents(group.s, &out), E_FAIL);
  EXPECT_EQ(out, nullptr);
  // Why, from the module's error information; taking it empties the slot.
  IErrorInfo* info = nullptr;
  ASSERT_EQ(GetErrorInfo(0, &info), S_OK);
  BSTR why = nullptr;
  EXPECT_EQ(info->GetDescription(&why), S_OK);
  EXPECT_EQ(std::u16string_view(why, SysStringLen(why)),
            std::u16string(kMissingGroup) + u": not a group file (no such file)");
  SysFreeString(why);
  info->Release();
  EXPECT_EQ(GetErrorInfo(0, &info), S_FALSE);
  EXPECT_EQ(fm->ReadContents(group.s, &out), E_FAIL);  // left again, for the success to clear

  IFileManager* base = nullptr;
  ASSERT_EQ(fm->QueryInterface(IID_IFileManager, reinterpret_cast<void**>(&base)), S_OK);
  EXPECT_EQ(static_cast<void*>(base), static_cast<void*>(fm));
  base->Release();

  IDispatch* disp = nullptr;
  ASSERT_EQ(fm->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&disp)), S_OK);
  LPOLESTR names[] = {const_cast<LPOLESTR>(u"isgroup")};
  DISPID id = 0;
  ASSERT_EQ(disp->GetIDsOfNames(IID_NULL, names, 1, 0, &id), S_OK);
  EXPECT_EQ(id, 53);
  VARIANT arg;
  VariantInit(&arg);
  arg.vt = VT_BSTR;
  arg.bstrVal = group.s;
  DISPPARAMS one{&arg, nullptr, 1, 0};
  VARIANT result;
  VariantInit(&result);
  ASSERT_EQ(disp->Invoke(id, IID_NULL, 0, DISPATCH_PROPERTYGET, &one, &result, nullptr, nullptr), S_OK);
  EXPECT_EQ(result.vt, VT_I4);
  EXPECT_EQ(result.lVal, 0);
  EXPECT_EQ(GetErrorInfo(0, &info), S_FALSE) << "a successful call leaves nothing";
  EXPECT_EQ(info, nullptr);
  disp->Release();

  EXPECT_EQ(fm->Release(), 0u);
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST(ModuleTest, CallerWrittenInC) {
  char message[256] = "";
  EXPECT_EQ(RunCCaller(message, sizeof message), 0) << message;
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

}  // namespace
