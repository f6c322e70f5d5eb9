// The module's process-wide state: the lock count that decides when the module may be unloaded,
// and the class table with one cached class object per creatable class.
//
//   IClassFactory* cf = nullptr;
//   module::GetClassObject(CLSID_FileManager, IID_IClassFactory, (void**)&cf);
//   IGroupManager2* fm = nullptr;
//   cf->CreateInstance(nullptr, IID_IGroupManager2, (void**)&fm);
//   cf->Release();
#pragma once

#include <atomic>
#include <vector>

#include "platform/com.h"
#include "qxgroupmgr/com.h"

namespace qx::module {

// Live objects plus server locks plus class objects held by callers. Changed atomically.
void Lock();
void Unlock();
LONG LockCount();

// The class object of `clsid`, asked for `riid`. E_POINTER for a null `ppv` (otherwise *ppv is
// set to null first), CLASS_E_CLASSNOTAVAILABLE for a class the module does not serve. The
// same class object is returned every time.
HRESULT GetClassObject(REFCLSID clsid, REFIID riid, void** ppv);
// S_OK when the lock count is 0, else S_FALSE.
HRESULT CanUnloadNow();
// Releases the cached class objects; runs when the module is unloaded.
void Shutdown();
// The registry script of each class, in class-table order.
std::vector<int> RegistryScripts();

// Makes a new instance, aggregated when `outer` is given (then `riid` is IID_IUnknown and the
// result is the inner, non-delegating unknown), and asks it for `riid`.
using CreateInstanceFn = HRESULT (*)(IUnknown* outer, REFIID riid, void** ppv);

// The standard class factory over one creation function.
class ClassFactory final : public IClassFactory {
 public:
  explicit ClassFactory(CreateInstanceFn create) : create_(create) {}

  HRESULT QueryInterface(REFIID riid, void** ppv) override;
  // A class object counts in the lock count while anyone but the module holds it: its count
  // going 1 -> 2 locks the module, 2 -> 1 unlocks it.
  ULONG AddRef() override;
  ULONG Release() override;
  // E_POINTER for a null `ppv`; CLASS_E_NOAGGREGATION for an outer object with any interface
  // but IUnknown; E_OUTOFMEMORY when memory runs out.
  HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override;
  HRESULT LockServer(BOOL lock) override;

 private:
  ~ClassFactory() = default;
  CreateInstanceFn create_;
  ComRefCount refs_;
};

}  // namespace qx::module
