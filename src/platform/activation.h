// Class activation: CoCreateInstance and CLSIDFromProgID over the registry stand-in.
//
// A class is found in this order:
//   1. the registry store has CLSID\{clsid}\InprocServer32 naming a module: the module is loaded
//      (and kept loaded for the life of the process) and its DllGetClassObject asked for the
//      class object, which makes the instance;
//   2. a class built into the running process, entered with RegisterBuiltinClass;
//   3. otherwise REGDB_E_CLASSNOTREG.
// So a registered module replaces a built-in class of the same CLSID.
//
//   RegisterBuiltinClass(CLSID_Thing, &Thing::CreateInstance);
//   IThing* thing = nullptr;
//   HRESULT hr = CoCreateInstance(CLSID_Thing, nullptr, CLSCTX_INPROC_SERVER, IID_IThing,
//                                 reinterpret_cast<void**>(&thing));
#pragma once

#include "qxgroupmgr/com.h"

#ifndef CLSCTX_INPROC_SERVER
#define CLSCTX_INPROC_SERVER 0x1u
#define CLSCTX_INPROC_HANDLER 0x2u
#define CLSCTX_LOCAL_SERVER 0x4u
#define CLSCTX_REMOTE_SERVER 0x10u
#define CLSCTX_ALL 0x17u
#endif
#ifndef CO_E_ERRORINDLL
// The registered module has no DllGetClassObject.
#define CO_E_ERRORINDLL ((HRESULT)0x800401F9u)
#endif
/* Win32 error 126 (ERROR_MOD_NOT_FOUND) as a status code: the registered module cannot be loaded. */
#define QX_E_MOD_NOT_FOUND ((HRESULT)0x8007007Eu)

namespace qx {

// Makes a new instance of a built-in class and asks it for `riid`. `outer` is null unless the
// caller aggregates; a class that cannot be aggregated answers CLASS_E_NOAGGREGATION.
using BuiltinCreateFn = HRESULT (*)(IUnknown* outer, REFIID riid, void** ppv);

// Enters a class built into this process. Registering the same CLSID again replaces the entry.
// `progId`, when given, is answered by CLSIDFromProgID when the registry has no such ProgID.
void RegisterBuiltinClass(REFCLSID clsid, BuiltinCreateFn create, const char* progId = nullptr);

// Forgets the built-in classes and the loaded modules (which stay loaded); for module unload.
void ReleaseActivationState();

// Makes an instance of `clsid` and asks it for `riid`. Results:
//   E_POINTER                  null `ppv` (otherwise *ppv is null on every failure)
//   CLASS_E_NOAGGREGATION      `outer` given with an interface other than IUnknown
//   REGDB_E_CLASSNOTREG        neither registered nor built in, or `context` has no
//                              CLSCTX_INPROC_SERVER (only in-process servers exist here)
//   QX_E_MOD_NOT_FOUND         the registered module cannot be loaded
//   CO_E_ERRORINDLL            the registered module has no DllGetClassObject
//   CLASS_E_CLASSNOTAVAILABLE  the registered module does not serve the class
//   E_NOINTERFACE              the instance has no interface `riid`
HRESULT CoCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD context, REFIID riid, void** ppv);

// The CLSID named by the ProgID: the default value of "<progId>\CLSID" in the registry store
// (a ProgID without one is followed to the ProgID its CurVer names), else a built-in class's
// ProgID. E_INVALIDARG for null arguments, CO_E_CLASSSTRING when the
// ProgID is unknown or its CLSID text is not a braced GUID.
HRESULT CLSIDFromProgID(const OLECHAR* progId, CLSID* clsid);

}  // namespace qx
