#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <set>

#include "frame/FileManager.h"
#include "frame/Module.h"
#include "frame/Registration.h"
#include "package/QXPackageInfo.h"
#include "platform/registry.h"
#include "support/ScopedRegistry.h"

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

constexpr char kModule[] = "/opt/qx \"lib\"/libqxgroupmgr.so";
const std::string kFm = "CLSID\\{41035C38-1441-4016-B34A-DBE6374ACCF2}";
const std::string kLib = "TypeLib\\{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}";

std::string Value(const std::string& key, const std::string& name = "") {
  std::string data = "<none>";
  return registry::RegQueryValue(key, name, data), data;
}

TEST(RegistrationTest, RegisterReRegisterUnregister) {
  const ScopedRegistry store;
  const std::string other = "CLSID\\{00000000-0000-0000-0000-000000000001}";
  ASSERT_EQ(registry::RegSetValue(other, "", "other"), registry::kErrorSuccess);
  ASSERT_EQ(module::RegisterServer(kModule), S_OK);
  // What the module path fills in (quotes and all), and the keys both classes need to be made.
  const std::string pkg = "{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}";
  const struct { std::string key, name, value; } rows[] = {
      {kFm + "\\InprocServer32", "", kModule}, {kFm + "\\InprocServer32", "ThreadingModel", "Apartment"},
      {"CLSID\\" + pkg + "\\InprocServer32", "", kModule}, {"QXGroupMgr.QXPackageInfo.1\\CLSID", "", pkg},
      {"QXGroupMgr.FileManager\\CurVer", "", "QXGroupMgr.FileManager.1"},
      {kFm + "\\TypeLib", "", "{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}"},
      {kLib + "\\1.0", "", "QXGroupMgr 1.0 Type Library"}, {kLib + "\\1.0\\0\\linux64", "", kModule},
      {kLib + "\\1.0\\HELPDIR", "", "/opt/qx \"lib\""}, {kLib + "\\1.0\\FLAGS", "", "0"}, {other, "", "other"}};
  for (const auto& row : rows) EXPECT_EQ(Value(row.key, row.name), row.value) << row.key;

  // Planted keys: the class's own key is replaced whole, the ProgID keys are written over.
  const std::string planted[] = {kFm + "\\Planted", kFm + "\\Programmable\\Planted",
                                 "QXGroupMgr.FileManager.1\\Planted"};
  for (const std::string& key : planted) ASSERT_EQ(registry::RegCreateKey(key), registry::kErrorSuccess);
  ASSERT_EQ(registry::RegSetValue(kFm + "\\InprocServer32", "Stale", "x"), registry::kErrorSuccess);
  ASSERT_EQ(module::RegisterServer(kModule), S_OK);
  const std::pair<std::string, bool> after[] = {
      {planted[0], false}, {planted[1], false}, {planted[2], true}, {kFm + "\\Programmable", true}};
  for (const auto& [key, there] : after)
    EXPECT_EQ(registry::RegOpenKey(key) == registry::kErrorSuccess, there) << key;
  EXPECT_EQ(Value(kFm + "\\InprocServer32", "Stale"), "<none>");

  // Unregistration takes every key it wrote, ProgIDs with what was planted below them, and
  // leaves CLSID, TypeLib and the other class.
  ASSERT_EQ(module::UnregisterServer(), S_OK);
  registry::Tree tree;
  ASSERT_EQ(registry::Load(tree), registry::kErrorSuccess);
  EXPECT_EQ(tree.Serialize(), "Windows Registry Editor Version 5.00\n\n[HKEY_CLASSES_ROOT\\CLSID]\n\n"
                              "[HKEY_CLASSES_ROOT\\" + other + "]\n@=\"other\"\n\n"
                              "[HKEY_CLASSES_ROOT\\TypeLib]\n\n");
  EXPECT_EQ(module::UnregisterServer(), S_OK) << "nothing left to remove is no failure";
}

TEST(RegistrationTest, StoresThatCannotTakeTheChange) {
  const std::string header = "Windows Registry Editor Version 5.00\n";
  // leaf: the store, under a fresh folder; blocker, made first: "file" (a file named "sub") or
  // "folder" (the store); bytes: the store's, when it is a file.
  const struct { const char* what; const char* leaf; const char* blocker; std::string bytes; mode_t fileMode, folderMode; LONG error; } rows[] = {
      {"damaged", "registry.reg", "", "not a registry file\n", 0600, 0700, registry::kErrorBadDb},
      {"store is a folder", "registry.reg", "folder", "", 0600, 0700, registry::kErrorCantRead},
      {"store's folder is a file", "sub/registry.reg", "file", "", 0600, 0700, registry::kErrorCantWrite},
      {"unreadable", "registry.reg", "", header, 0000, 0700, registry::kErrorCantRead},
      {"read-only folder", "registry.reg", "", header, 0400, 0500, registry::kErrorCantWrite},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    if (row.fileMode != 0600 && ::geteuid() == 0) continue;  // permissions do not stop root
    const ScopedRegistry store(row.leaf);
    const std::string blocker = row.blocker;
    if (blocker == "folder") std::filesystem::create_directory(store.file());
    if (blocker == "file") store.dir().Write("sub", "x");
    if (blocker.empty()) store.dir().Write(row.leaf, row.bytes);
    ::chmod(store.file().c_str(), row.fileMode);
    ::chmod(store.dir().path().c_str(), row.folderMode);
    EXPECT_EQ(module::RegisterServer(kModule), HRESULT_FROM_WIN32(row.error));
    EXPECT_EQ(module::UnregisterServer(), HRESULT_FROM_WIN32(row.error));
    ::chmod(store.dir().path().c_str(), 0700);
    ::chmod(store.file().c_str(), 0600);
    if (blocker.empty()) { EXPECT_EQ(ReadFileBytes(store.file()), row.bytes); }
    const std::set<std::string> kept = {"registry.reg", "registry.reg.lock", "sub"};  // no half-written file
    for (const auto& e : std::filesystem::directory_iterator(store.dir().path()))
      EXPECT_TRUE(kept.contains(e.path().filename())) << e.path();
  }
}

}  // namespace
}  // namespace qx::test
