#include <gtest/gtest.h>

#include "frame/FileManager.h"
#include "frame/Module.h"
#include "package/QXPackageInfo.h"

namespace qx::test {
namespace {

struct Outer final : IUnknown {  // for aggregation: counts its references, hands out only itself
  HRESULT QueryInterface(REFIID riid, void** ppv) override {
    return riid == IID_IUnknown ? (*ppv = this, AddRef(), S_OK) : E_NOINTERFACE;
  }
  ULONG AddRef() override { return ++refs; }
  ULONG Release() override { return --refs; }
  ULONG refs = 1;
};

IClassFactory* ClassObject(const CLSID& clsid) {
  IClassFactory* cf = nullptr;
  EXPECT_EQ(module::GetClassObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(&cf)), S_OK);
  return cf;
}

// Caching of the class object and DllCanUnloadNow are the module tests' business.
TEST(ModuleTest, LockCountFollowsObjectsAndLocks) {
  ASSERT_EQ(module::LockCount(), 0) << "a test left something alive";
  IClassFactory* cf = ClassObject(CLSID_FileManager);
  ClassObject(CLSID_QXPackageInfo)->Release();
  EXPECT_EQ(module::LockCount(), 1);
  IGroupManager2* fm = nullptr;
  ASSERT_EQ(cf->CreateInstance(nullptr, IID_IGroupManager2, reinterpret_cast<void**>(&fm)), S_OK);
  ASSERT_EQ(cf->LockServer(1), S_OK);
  EXPECT_EQ(module::LockCount(), 3);
  cf->Release();
  fm->Release();
  EXPECT_EQ(module::CanUnloadNow(), S_FALSE);
  cf = ClassObject(CLSID_FileManager);
  ASSERT_EQ(cf->LockServer(0), S_OK);
  cf->Release();
  EXPECT_EQ(module::CanUnloadNow(), S_OK);
}

TEST(ModuleTest, CreateInstanceArguments) {
  Outer outer;
  // plain: without an outer object; with one only IUnknown may be asked for.
  const CLSID *fm = &CLSID_FileManager, *pkg = &CLSID_QXPackageInfo;
  const struct { const CLSID* clsid; const IID* iid; HRESULT plain; } rows[] = {
      {fm, &IID_IGroupManager2, S_OK}, {fm, &IID_IFileManager, S_OK}, {fm, &IID_IDispatch, S_OK},
      {fm, &IID_IUnknown, S_OK}, {fm, &IID_ISupportErrorInfo, S_OK}, {fm, &IID_IClassFactory, E_NOINTERFACE},
      {pkg, &IID_IQXPackageInfo, S_OK}, {pkg, &IID_IObjectSafety, S_OK}, {pkg, &IID_ISupportErrorInfo, S_OK},
      {pkg, &IID_IUnknown, S_OK}, {pkg, &IID_IGroupManager2, E_NOINTERFACE}};
  for (const auto& row : rows) {
    SCOPED_TRACE(GuidToString(*row.clsid) + " " + GuidToString(*row.iid));
    IClassFactory* cf = ClassObject(*row.clsid);
    for (IUnknown* with : {static_cast<IUnknown*>(nullptr), static_cast<IUnknown*>(&outer)}) {
      const HRESULT expected = with == nullptr || *row.iid == IID_IUnknown ? row.plain : CLASS_E_NOAGGREGATION;
      void* p = reinterpret_cast<void*>(1);
      EXPECT_EQ(cf->CreateInstance(with, *row.iid, &p), expected);
      EXPECT_EQ(p != nullptr, expected == S_OK);
      EXPECT_EQ(module::LockCount(), expected == S_OK ? 2 : 1);
      if (p != nullptr) static_cast<IUnknown*>(p)->Release();
      EXPECT_EQ(module::LockCount(), 1) << "an instance outlived its last reference";
    }
    EXPECT_EQ(cf->CreateInstance(nullptr, IID_IUnknown, nullptr), E_POINTER);
    cf->Release();
  }
  EXPECT_EQ(outer.refs, 1u);
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
  inner->Release();
  EXPECT_EQ(module::LockCount(), 0);
}

TEST(ModuleTest, ErrorInfoForTheDispatchInterfacesOnly) {
  ISupportErrorInfo* info = nullptr;
  ASSERT_EQ(FileManager::CreateInstance(nullptr, IID_ISupportErrorInfo, reinterpret_cast<void**>(&info)), S_OK);
  const std::pair<const IID*, HRESULT> rows[] = {{&IID_IGroupManager2, S_OK}, {&IID_IFileManager, S_OK},
      {&IID_IDispatch, S_OK}, {&IID_IUnknown, S_FALSE}, {&IID_IQXPackageInfo, S_FALSE}};
  for (const auto& [iid, expected] : rows)
    EXPECT_EQ(info->InterfaceSupportsErrorInfo(*iid), expected) << GuidToString(*iid);
  EXPECT_EQ(info->Release(), 0u);
}

}  // namespace
}  // namespace qx::test
