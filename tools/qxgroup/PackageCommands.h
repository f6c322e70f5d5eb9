// `qxgroup package` (a package's metadata) and `qxgroup register` (the module's registry
// entries). Each returns the exit status; bad arguments throw UsageError and failures Failure.
#pragma once

#include <string>
#include <vector>

#include "qxgroupmgr/com.h"

namespace qx::cli {

// The metadata of each package as a short table (empty properties left out), or with `json`
// one JSON object a line holding every property with its status code.
int CmdPackage(const std::vector<std::string>& files, bool json);
// Writes (or with `unregister` removes) the registry entries of the module at `modulePath`,
// default the module installed or built beside this program.
int CmdRegister(bool unregister, const std::string& modulePath);
// Why the registry store refused, from a registry status given as an HRESULT.
std::string RegistryFailure(HRESULT hr);

}  // namespace qx::cli
