#include "frame/Module.h"

#include <mutex>
#include <new>

#include "frame/FileManager.h"
#include "package/QXPackageInfo.h"
#include "qxgroupmgr/QXGroupMgr.h"

namespace qx::module {

namespace {

std::atomic<LONG> gLockCount{0};

struct ClassRow {
  const CLSID* clsid;
  int registryResource;     // the registry script that registers the class
  CreateInstanceFn create;  // null while the class is not part of this build
  std::atomic<ClassFactory*> classObject{nullptr};
};

// In this order: FileManager, QXPackageInfo.
ClassRow gClassTable[] = {
    {&CLSID_FileManager, 102, &FileManager::CreateInstance, {}},
    {&CLSID_QXPackageInfo, 104, &QXPackageInfo::CreateInstance, {}},
};

std::mutex gClassObjectLock;

ClassFactory* ClassObjectOf(ClassRow& row) {
  ClassFactory* cf = row.classObject.load(std::memory_order_acquire);
  if (cf != nullptr) return cf;
  std::lock_guard<std::mutex> guard(gClassObjectLock);
  cf = row.classObject.load(std::memory_order_relaxed);
  if (cf == nullptr) {
    cf = new (std::nothrow) ClassFactory(row.create);
    if (cf == nullptr) return nullptr;
    cf->AddRef();  // the module's own reference
    row.classObject.store(cf, std::memory_order_release);
  }
  return cf;
}

}  // namespace

void Lock() { gLockCount.fetch_add(1, std::memory_order_relaxed); }
void Unlock() { gLockCount.fetch_sub(1, std::memory_order_relaxed); }
LONG LockCount() { return gLockCount.load(std::memory_order_relaxed); }

HRESULT GetClassObject(REFCLSID clsid, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  for (ClassRow& row : gClassTable) {
    if (*row.clsid != clsid) continue;
    if (row.create == nullptr) return CLASS_E_CLASSNOTAVAILABLE;
    ClassFactory* cf = ClassObjectOf(row);
    if (cf == nullptr) return E_OUTOFMEMORY;
    return cf->QueryInterface(riid, ppv);
  }
  return CLASS_E_CLASSNOTAVAILABLE;
}

std::vector<int> RegistryScripts() {
  std::vector<int> ids;
  for (const ClassRow& row : gClassTable) ids.push_back(row.registryResource);
  return ids;
}

HRESULT CanUnloadNow() { return LockCount() == 0 ? S_OK : S_FALSE; }

void Shutdown() {
  std::lock_guard<std::mutex> guard(gClassObjectLock);
  for (ClassRow& row : gClassTable)
    if (ClassFactory* cf = row.classObject.exchange(nullptr)) cf->Release();
}

// ---- ClassFactory ----------------------------------------------------------------------------------

HRESULT ClassFactory::QueryInterface(REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  if (riid == IID_IUnknown || riid == IID_IClassFactory) {
    *ppv = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
  }
  *ppv = nullptr;
  return E_NOINTERFACE;
}

ULONG ClassFactory::AddRef() {
  const ULONG count = refs_.Increment();
  if (count == 2) Lock();
  return count;
}

ULONG ClassFactory::Release() {
  const ULONG count = refs_.Decrement();
  if (count == 1) Unlock();
  if (count == 0) delete this;
  return count;
}

HRESULT ClassFactory::CreateInstance(IUnknown* outer, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  if (outer != nullptr && riid != IID_IUnknown) return CLASS_E_NOAGGREGATION;
  try {
    return create_(outer, riid, ppv);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

HRESULT ClassFactory::LockServer(BOOL lock) {
  if (lock) Lock();
  else Unlock();
  return S_OK;
}

}  // namespace qx::module
