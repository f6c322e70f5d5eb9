#include "platform/activation.h"

#include <dlfcn.h>

#include <map>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "platform/ProcessState.h"
#include "platform/codepage.h"
#include "platform/com.h"
#include "platform/registry.h"

namespace qx {

namespace {

struct BuiltinClass {
  CLSID clsid;
  BuiltinCreateFn create;
  std::string progId;
};

using GetClassObjectFn = HRESULT (*)(REFCLSID, REFIID, void**);

// Built-in classes and loaded modules.
struct ActivationState {
  std::mutex mutex;
  std::vector<BuiltinClass> builtins;                // a handful; searched in order
  std::map<std::string, GetClassObjectFn> modules;  // native path -> its DllGetClassObject
};

ProcessState<ActivationState> gState;

ActivationState& State() { return gState.Get(); }

bool FindBuiltin(REFCLSID clsid, BuiltinCreateFn& create) {
  ActivationState& state = State();
  std::lock_guard<std::mutex> guard(state.mutex);
  for (const BuiltinClass& row : state.builtins) {
    if (row.clsid == clsid) {
      create = row.create;
      return true;
    }
  }
  return false;
}

// Loads the module (once per process; it stays loaded) and finds its DllGetClassObject.
HRESULT ModuleEntry(const std::string& ansiPath, GetClassObjectFn& entry) {
  const std::string path = codepage::AnsiToUtf8(ansiPath);
  ActivationState& state = State();
  std::lock_guard<std::mutex> guard(state.mutex);
  if (const auto it = state.modules.find(path); it != state.modules.end()) {
    entry = it->second;
    return S_OK;
  }
  void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return QX_E_MOD_NOT_FOUND;
  void* symbol = ::dlsym(handle, "DllGetClassObject");
  if (symbol == nullptr) {
    ::dlclose(handle);
    return CO_E_ERRORINDLL;
  }
  entry = reinterpret_cast<GetClassObjectFn>(symbol);
  state.modules.emplace(path, entry);
  return S_OK;
}

HRESULT CreateFromModule(const std::string& modulePath, REFCLSID clsid, IUnknown* outer,
                         REFIID riid, void** ppv) {
  GetClassObjectFn getClassObject = nullptr;
  if (const HRESULT hr = ModuleEntry(modulePath, getClassObject); FAILED(hr)) return hr;
  IClassFactory* factory = nullptr;
  if (const HRESULT hr = getClassObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(&factory));
      FAILED(hr) || factory == nullptr)
    return FAILED(hr) ? hr : CLASS_E_CLASSNOTAVAILABLE;
  const HRESULT hr = factory->CreateInstance(outer, riid, ppv);
  factory->Release();
  if (FAILED(hr)) *ppv = nullptr;
  return hr;
}

}  // namespace

void ReleaseActivationState() { gState.Release(); }

void RegisterBuiltinClass(REFCLSID clsid, BuiltinCreateFn create, const char* progId) {
  ActivationState& state = State();
  std::lock_guard<std::mutex> guard(state.mutex);
  for (BuiltinClass& row : state.builtins) {
    if (row.clsid == clsid) {
      row.create = create;
      row.progId = progId != nullptr ? progId : "";
      return;
    }
  }
  state.builtins.push_back({clsid, create, progId != nullptr ? progId : ""});
}

HRESULT CoCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD context, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  if (outer != nullptr && riid != IID_IUnknown) return CLASS_E_NOAGGREGATION;
  if ((context & CLSCTX_INPROC_SERVER) == 0) return REGDB_E_CLASSNOTREG;
  try {
    // An unreadable store counts as holding no registration, so built-in classes still work.
    std::string modulePath;
    const std::string key = "CLSID\\" + GuidToString(clsid) + "\\InprocServer32";
    if (registry::RegQueryValue(key, "", modulePath) == registry::kErrorSuccess &&
        !modulePath.empty())
      return CreateFromModule(modulePath, clsid, outer, riid, ppv);

    BuiltinCreateFn create = nullptr;
    if (!FindBuiltin(clsid, create)) return REGDB_E_CLASSNOTREG;
    const HRESULT hr = create(outer, riid, ppv);
    if (FAILED(hr)) *ppv = nullptr;
    return hr;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT CLSIDFromProgID(const OLECHAR* progId, CLSID* clsid) {
  if (progId == nullptr || clsid == nullptr) return E_INVALIDARG;
  try {
    const std::string name = codepage::WideToAnsi(progId);
    std::string text;
    // A version-independent ProgID without a CLSID of its own names its current version; a few
    // hops at most, so a CurVer loop ends.
    std::string current = name;
    for (int hop = 0; hop < 4 && !current.empty(); ++hop) {
      if (registry::RegQueryValue(current + "\\CLSID", "", text) == registry::kErrorSuccess) {
        const auto guid = GuidFromString(text);
        if (!guid) return CO_E_CLASSSTRING;
        *clsid = *guid;
        return S_OK;
      }
      if (registry::RegQueryValue(current + "\\CurVer", "", text) != registry::kErrorSuccess) break;
      current = text;
    }
    ActivationState& state = State();
    std::lock_guard<std::mutex> guard(state.mutex);
    for (const BuiltinClass& row : state.builtins) {
      if (!row.progId.empty() && registry::NoCaseLess{}(row.progId, name) == false &&
          registry::NoCaseLess{}(name, row.progId) == false) {
        *clsid = row.clsid;
        return S_OK;
      }
    }
    return CO_E_CLASSSTRING;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

}  // namespace qx
