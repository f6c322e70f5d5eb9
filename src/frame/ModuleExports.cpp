// The module's exported entry points. Compiled into libqxgroupmgr.so only; programs that link
// the core library reach the same state through qx::module.
#include <cstdlib>

#include "archive/VxXml.h"
#include "frame/Module.h"
#include "frame/Registration.h"
#include "platform/activation.h"
#include "platform/registry.h"
#include "qxgroupmgr/QXGroupMgr.h"

extern "C" {

HRESULT DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv) {
  return qx::module::GetClassObject(rclsid, riid, ppv);
}

HRESULT DllCanUnloadNow(void) { return qx::module::CanUnloadNow(); }

// Both classes and the type library, for this module's own path.
HRESULT DllRegisterServer(void) {
  return qx::module::RegisterServer(qx::module::ModulePath());
}
HRESULT DllUnregisterServer(void) { return qx::module::UnregisterServer(); }

}  // extern "C"

namespace {

// Runs when the module is unloaded (dlclose or process exit): the class objects first, then what
// the archive and XML services, the registry store and activation keep for the whole process.
void UnloadModule() {
  qx::module::Shutdown();
  qx::VxXml::ReleaseProcessState();
  qx::registry::ReleaseProcessState();
  qx::ReleaseActivationState();
}

// Registered before any static object of the module is made, so it runs after all of them are
// destroyed (one of them may still free a document or release an object on its way out). An
// atexit inside a shared object belongs to that object: dlclose runs it too.
__attribute__((constructor(101))) void LoadModule() { std::atexit(UnloadModule); }

}  // namespace
