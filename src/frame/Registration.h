// Registration of the module's classes and type library in the registry store:
//
//   QXGroupMgr.FileManager.1 (+ \CLSID), QXGroupMgr.FileManager (+ \CLSID, \CurVer),
//   CLSID\{...} with ProgID, VersionIndependentProgID, Programmable, InprocServer32, TypeLib
//   (the same for QXPackageInfo, from registry scripts 102 and 104), and
//   TypeLib\{LIBID}\1.0 with 0\linux64, FLAGS and HELPDIR.
//
// All of it is one change of the store: it is written whole or not at all.
#pragma once

#include <string>

#include "qxgroupmgr/com.h"

namespace qx::module {

// The full path of the file this code was loaded from (1252): the shared module, or the program
// the core library is linked into. Empty when it cannot be found.
std::string ModulePath();

// Writes the entries of both classes and of the type library for the module at `modulePath`
// (full path, 1252). A class's own key CLSID\{...} is replaced whole. The store's failure as a
// status code (HRESULT_FROM_WIN32 of its error), with a diagnostic naming the store.
HRESULT RegisterServer(const std::string& modulePath);
// Removes what RegisterServer wrote; the CLSID and TypeLib keys themselves stay. Keys already
// gone are no failure.
HRESULT UnregisterServer();

}  // namespace qx::module
