// The module's exported entry points. Compiled into libqxgroupmgr.so only; programs that link
// the core library reach the same state through qx::module.
#include "archive/VxXml.h"
#include "frame/Module.h"
#include "frame/Registration.h"
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
// the archive and XML services keep for the whole process (the zip service keeps nothing but
// its entry serial counter, which needs no release).
__attribute__((destructor)) void UnloadModule() {
  qx::module::Shutdown();
  qx::VxXml::ReleaseProcessState();
}

}  // namespace
