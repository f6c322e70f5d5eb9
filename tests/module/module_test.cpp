// Uses the component the way an outside program does: the public headers and the shared module,
// nothing else.
#include <gtest/gtest.h>

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
  // Served once the package class is part of the module.
  EXPECT_EQ(DllGetClassObject(CLSID_QXPackageInfo, IID_IClassFactory, &p), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(DllGetClassObject(CLSID_FileManager, IID_IDispatch, &p), E_NOINTERFACE);
  EXPECT_EQ(DllRegisterServer(), E_NOTIMPL);
}

TEST(ModuleTest, InstanceThroughTheTable) {
  IClassFactory* cf = ClassObject();
  IGroupManager2* fm = nullptr;
  ASSERT_EQ(cf->CreateInstance(nullptr, IID_IGroupManager2, reinterpret_cast<void**>(&fm)), S_OK);
  cf->Release();
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);

  const Str group(kMissingGroup);
  BSTR out = nullptr;
  EXPECT_EQ(fm->UseQXAscii(1), E_NOTIMPL);
  EXPECT_EQ(fm->ReadContents(group.s, &out), E_FAIL);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(fm->ReadContents(group.s, nullptr), E_POINTER);
  EXPECT_EQ(fm->ReadContentsXml(group.s, 0, nullptr, nullptr), E_POINTER);
  EXPECT_EQ(fm->DeleteFiles(group.s, nullptr), E_FAIL);
  EXPECT_EQ(fm->put_ShowUI(nullptr), S_OK);
  LONG isGroup = 5;
  EXPECT_EQ(fm->get_IsGroup(group.s, &isGroup), S_OK);
  EXPECT_EQ(isGroup, 0);

  IFileManager* base = nullptr;
  ASSERT_EQ(fm->QueryInterface(IID_IFileManager, reinterpret_cast<void**>(&base)), S_OK);
  EXPECT_EQ(static_cast<void*>(base), static_cast<void*>(fm));
  base->Release();

  EXPECT_EQ(fm->Release(), 0u);
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST(ModuleTest, InstanceThroughDispatch) {
  IClassFactory* cf = ClassObject();
  IDispatch* disp = nullptr;
  ASSERT_EQ(cf->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(&disp)), S_OK);
  cf->Release();

  LPOLESTR names[] = {const_cast<LPOLESTR>(u"readcontentsxml")};
  DISPID id = 0;
  ASSERT_EQ(disp->GetIDsOfNames(IID_NULL, names, 1, 0, &id), S_OK);
  EXPECT_EQ(id, 52);

  const Str group(kMissingGroup);
  VARIANT args[3];
  for (VARIANT& v : args) VariantInit(&v);
  args[2].vt = VT_BSTR;  // grpfile (arguments are passed last first)
  args[2].bstrVal = group.s;
  args[1].vt = VT_I4;    // bIncludeMetaInfo
  args[1].lVal = 1;
  args[0].vt = VT_EMPTY; // sIncludeSubGrpsPatt: empty
  DISPPARAMS params{args, nullptr, 3, 0};
  VARIANT result;
  VariantInit(&result);
  EXPECT_EQ(disp->Invoke(id, IID_NULL, 0, DISPATCH_METHOD | DISPATCH_PROPERTYGET, &params, &result,
                         nullptr, nullptr),
            E_FAIL);
  EXPECT_EQ(result.vt, VT_EMPTY);

  // IsGroup, a property get with an integer retval.
  DISPPARAMS one{&args[2], nullptr, 1, 0};
  ASSERT_EQ(disp->Invoke(53, IID_NULL, 0, DISPATCH_PROPERTYGET, &one, &result, nullptr, nullptr), S_OK);
  EXPECT_EQ(result.vt, VT_I4);
  EXPECT_EQ(result.lVal, 0);

  VARIANT flag;
  VariantInit(&flag);
  flag.vt = VT_BOOL;
  flag.boolVal = VARIANT_TRUE;
  DISPPARAMS useAscii{&flag, nullptr, 1, 0};
  EXPECT_EQ(disp->Invoke(8, IID_NULL, 0, DISPATCH_METHOD, &useAscii, nullptr, nullptr, nullptr), E_NOTIMPL);
  UINT argErr = 99;
  EXPECT_EQ(disp->Invoke(8, IID_NULL, 0, DISPATCH_METHOD, &one, nullptr, nullptr, &argErr),
            DISP_E_TYPEMISMATCH);
  EXPECT_EQ(argErr, 0u);
  disp->Release();
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST(ModuleTest, CallerWrittenInC) {
  char message[256] = "";
  EXPECT_EQ(RunCCaller(message, sizeof message), 0) << message;
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

}  // namespace
