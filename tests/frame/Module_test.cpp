#include <gtest/gtest.h>

#include "frame/FileManager.h"
#include "frame/Module.h"
#include "package/QXPackageInfo.h"

namespace qx::test {
namespace {

// An outer object for aggregation: counts its references and hands out nothing but itself.
struct Outer final : IUnknown {
  HRESULT QueryInterface(REFIID riid, void** ppv) override {
    if (riid != IID_IUnknown) return E_NOINTERFACE;
    *ppv = this;
    AddRef();
    return S_OK;
  }
  ULONG AddRef() override { return ++refs; }
  ULONG Release() override { return --refs; }
  ULONG refs = 1;
};

IClassFactory* FileManagerClassObject() {
  IClassFactory* cf = nullptr;
  EXPECT_EQ(module::GetClassObject(CLSID_FileManager, IID_IClassFactory, reinterpret_cast<void**>(&cf)), S_OK);
  return cf;
}

TEST(ModuleTest, LockCountFollowsObjectsLocksAndHeldClassObjects) {
  const LONG base = module::LockCount();
  ASSERT_EQ(base, 0) << "a test left something alive";
  EXPECT_EQ(module::CanUnloadNow(), S_OK);

  IClassFactory* cf = FileManagerClassObject();
  EXPECT_EQ(module::LockCount(), 1);
  EXPECT_EQ(module::CanUnloadNow(), S_FALSE);
  IClassFactory* again = FileManagerClassObject();  // a second holder adds nothing
  EXPECT_EQ(module::LockCount(), 1);
  again->Release();
  EXPECT_EQ(module::LockCount(), 1);

  IGroupManager2* fm = nullptr;
  ASSERT_EQ(cf->CreateInstance(nullptr, IID_IGroupManager2, reinterpret_cast<void**>(&fm)), S_OK);
  EXPECT_EQ(module::LockCount(), 2);
  ASSERT_EQ(cf->LockServer(1), S_OK);
  EXPECT_EQ(module::LockCount(), 3);
  cf->Release();
  EXPECT_EQ(module::LockCount(), 2);
  fm->Release();
  EXPECT_EQ(module::LockCount(), 1);
  EXPECT_EQ(module::CanUnloadNow(), S_FALSE);
  cf = FileManagerClassObject();
  ASSERT_EQ(cf->LockServer(0), S_OK);
  cf->Release();
  EXPECT_EQ(module::CanUnloadNow(), S_OK);
}

TEST(ModuleTest, CreateInstanceArguments) {
  IClassFactory* cf = FileManagerClassObject();
  Outer outer;
  struct Case {
    const char* name;
    IUnknown* outer;
    const IID* iid;
    HRESULT expected;
  };
  const Case cases[] = {
      {"plain IGroupManager2", nullptr, &IID_IGroupManager2, S_OK},
      {"plain IFileManager", nullptr, &IID_IFileManager, S_OK},
      {"plain IDispatch", nullptr, &IID_IDispatch, S_OK},
      {"plain IUnknown", nullptr, &IID_IUnknown, S_OK},
      {"plain ISupportErrorInfo", nullptr, &IID_ISupportErrorInfo, S_OK},
      {"plain unknown interface", nullptr, &IID_IClassFactory, E_NOINTERFACE},
      {"outer with IGroupManager2", &outer, &IID_IGroupManager2, CLASS_E_NOAGGREGATION},
      {"outer with IDispatch", &outer, &IID_IDispatch, CLASS_E_NOAGGREGATION},
      {"outer with IUnknown", &outer, &IID_IUnknown, S_OK},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    void* p = reinterpret_cast<void*>(1);
    EXPECT_EQ(cf->CreateInstance(c.outer, *c.iid, &p), c.expected);
    if (c.expected == S_OK) {
      ASSERT_NE(p, nullptr);
      static_cast<IUnknown*>(p)->Release();
    } else {
      EXPECT_EQ(p, nullptr);
    }
    EXPECT_EQ(module::LockCount(), 1) << "an instance outlived its last reference";
  }
  EXPECT_EQ(cf->CreateInstance(nullptr, IID_IUnknown, nullptr), E_POINTER);
  EXPECT_EQ(outer.refs, 1u);
  cf->Release();
}

TEST(ModuleTest, AggregatedObjectDelegatesToItsOuter) {
  Outer outer;
  IUnknown* inner = nullptr;
  ASSERT_EQ(FileManager::CreateInstance(&outer, IID_IUnknown, reinterpret_cast<void**>(&inner)), S_OK);
  IGroupManager2* fm = nullptr;
  ASSERT_EQ(inner->QueryInterface(IID_IGroupManager2, reinterpret_cast<void**>(&fm)), S_OK);
  // The interface's reference went to the outer object, and its IUnknown is the outer one.
  EXPECT_EQ(outer.refs, 2u);
  IUnknown* identity = nullptr;
  ASSERT_EQ(fm->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity)), S_OK);
  EXPECT_EQ(identity, &outer);
  identity->Release();
  fm->Release();
  EXPECT_EQ(outer.refs, 1u);
  EXPECT_EQ(module::LockCount(), 1);
  inner->Release();
  EXPECT_EQ(module::LockCount(), 0);
}

TEST(ModuleTest, ErrorInfoForTheDispatchInterfacesOnly) {
  ISupportErrorInfo* info = nullptr;
  ASSERT_EQ(FileManager::CreateInstance(nullptr, IID_ISupportErrorInfo, reinterpret_cast<void**>(&info)), S_OK);
  const std::pair<const IID*, HRESULT> rows[] = {
      {&IID_IGroupManager2, S_OK}, {&IID_IFileManager, S_OK}, {&IID_IDispatch, S_OK},
      {&IID_IUnknown, S_FALSE},    {&IID_ISupportErrorInfo, S_FALSE}, {&IID_IQXPackageInfo, S_FALSE},
  };
  for (const auto& [iid, expected] : rows) EXPECT_EQ(info->InterfaceSupportsErrorInfo(*iid), expected) << GuidToString(*iid);
  EXPECT_EQ(info->Release(), 0u);
}


TEST(ModuleTest, PackageInfoClassObjectAndItsInstances) {
  IClassFactory* cf = nullptr;
  IClassFactory* again = nullptr;
  ASSERT_EQ(module::GetClassObject(CLSID_QXPackageInfo, IID_IClassFactory, reinterpret_cast<void**>(&cf)), S_OK);
  ASSERT_EQ(module::GetClassObject(CLSID_QXPackageInfo, IID_IUnknown, reinterpret_cast<void**>(&again)), S_OK);
  EXPECT_EQ(cf, again);
  IClassFactory* fmClass = FileManagerClassObject();
  EXPECT_NE(static_cast<void*>(cf), static_cast<void*>(fmClass));
  EXPECT_EQ(module::LockCount(), 2);
  fmClass->Release();
  again->Release();
  EXPECT_EQ(module::LockCount(), 1);
  Outer outer;
  const std::pair<const IID*, HRESULT> rows[] = {
      {&IID_IQXPackageInfo, S_OK},  {&IID_IDispatch, S_OK},          {&IID_IObjectSafety, S_OK},
      {&IID_ISupportErrorInfo, S_OK}, {&IID_IUnknown, S_OK},         {&IID_IGroupManager2, E_NOINTERFACE},
  };
  for (const auto& [iid, expected] : rows) {
    SCOPED_TRACE(GuidToString(*iid));
    void* p = nullptr;
    EXPECT_EQ(cf->CreateInstance(nullptr, *iid, &p), expected);
    EXPECT_EQ(module::LockCount(), expected == S_OK ? 2 : 1);
    if (p != nullptr) static_cast<IUnknown*>(p)->Release();
    EXPECT_EQ(cf->CreateInstance(&outer, *iid, &p), *iid == IID_IUnknown ? S_OK : CLASS_E_NOAGGREGATION);
    if (p != nullptr) static_cast<IUnknown*>(p)->Release();
    EXPECT_EQ(module::LockCount(), 1);
  }
  EXPECT_EQ(outer.refs, 1u);
  cf->Release();
  EXPECT_EQ(module::CanUnloadNow(), S_OK);
}

}  // namespace
}  // namespace qx::test
