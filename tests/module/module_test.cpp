// Uses the component the way an outside program does: the public headers and the shared module,
// nothing else. Calls through IDispatch across the module: python/tests and `qxgroup call`.
#include <gtest/gtest.h>

#include "qxgroupmgr/QXGroupMgr.h"

extern "C" int RunCCaller(char* message, size_t size);

namespace {

IClassFactory* ClassObject() {
  IClassFactory* cf = nullptr;
  EXPECT_EQ(DllGetClassObject(CLSID_FileManager, IID_IClassFactory, reinterpret_cast<void**>(&cf)), S_OK);
  return cf;
}

TEST(ModuleTest, ClassObjectIsCachedAndItAndInstancesHoldTheModule) {
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
  IClassFactory *a = ClassObject(), *b = ClassObject();
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

  // An instance alone keeps the module loaded; its base interface is the same table.
  IClassFactory* cf = ClassObject();
  IGroupManager2* fm = nullptr;
  ASSERT_EQ(cf->CreateInstance(nullptr, IID_IGroupManager2, reinterpret_cast<void**>(&fm)), S_OK);
  cf->Release();
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  IFileManager* base = nullptr;
  ASSERT_EQ(fm->QueryInterface(IID_IFileManager, reinterpret_cast<void**>(&base)), S_OK);
  EXPECT_EQ(static_cast<void*>(base), static_cast<void*>(fm));
  base->Release();
  fm->Release();  // the last release and the unload check after it: the C caller
}

TEST(ModuleTest, CallerWrittenInC) {
  char message[256] = "";
  EXPECT_EQ(RunCCaller(message, sizeof message), 0) << message;
}

}  // namespace
