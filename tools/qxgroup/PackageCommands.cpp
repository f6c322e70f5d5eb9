#include "qxgroup/PackageCommands.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

#include "frame/Module.h"
#include "platform/registry.h"
#include "qxgroup/Automation.h"
#include "qxgroup/Json.h"
#include "qxgroup/JsonOutput.h"

namespace qx::cli {

namespace {

using Getter = HRESULT (IQXPackageInfo::*)(BSTR*);

// In the order the table shows them; the label is what people read, the name what scripts get.
const struct {
  const char* name;
  const char* label;
  Getter get;
} kProperties[] = {
    {"Title", "Title", &IQXPackageInfo::get_Title},
    {"Type", "Type", &IQXPackageInfo::get_Type},
    {"GradeLevel", "Grade level", &IQXPackageInfo::get_GradeLevel},
    {"TeachingTime", "Teaching time", &IQXPackageInfo::get_TeachingTime},
    {"Abstract", "Abstract", &IQXPackageInfo::get_Abstract},
    {"Objectives", "Objectives", &IQXPackageInfo::get_Objectives},
    {"LearningTool", "Learning tool", &IQXPackageInfo::get_LearningTool},
    {"Connectivity", "Connectivity", &IQXPackageInfo::get_Connectivity},
    {"SupportingHardware", "Supporting hardware", &IQXPackageInfo::get_SupportingHardware},
    {"HandHeldApps", "Handheld apps", &IQXPackageInfo::get_HandHeldApps},
    {"ComputerApps", "Computer apps", &IQXPackageInfo::get_ComputerApps},
};

class PackageInfo {
 public:
  PackageInfo() {
    IClassFactory* factory = nullptr;
    HRESULT hr = module::GetClassObject(CLSID_QXPackageInfo, IID_IClassFactory,
                                        reinterpret_cast<void**>(&factory));
    if (SUCCEEDED(hr)) {
      hr = factory->CreateInstance(nullptr, IID_IQXPackageInfo, reinterpret_cast<void**>(&p_));
      factory->Release();
    }
    if (FAILED(hr) || p_ == nullptr)
      throw Failure{"cannot create a QXPackageInfo (" + HexStatus(hr) + ")"};
  }
  ~PackageInfo() { p_->Release(); }
  PackageInfo(const PackageInfo&) = delete;
  PackageInfo& operator=(const PackageInfo&) = delete;
  IQXPackageInfo* operator->() const { return p_; }
  IQXPackageInfo* get() const { return p_; }

 private:
  IQXPackageInfo* p_ = nullptr;
};

ComponentError Reason(const char* fallback, const char* fallbackCode) {
  ComponentError why = TakeError();
  if (why.description.empty()) return {fallback, fallbackCode};
  if (why.code.empty()) why.code = "failed";
  return why;
}

// The module beside this program (the build folder), else where an install puts it.
std::string DefaultModule() {
  char self[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) throw Failure{"cannot find this program's own folder; give --module PATH"};
  std::string folder(self, static_cast<size_t>(n));
  folder.erase(folder.find_last_of('/') + 1);
  for (const char* relative : {"libqxgroupmgr.so", "../lib/libqxgroupmgr.so",
                               "../lib/x86_64-linux-gnu/libqxgroupmgr.so"})
    if (::access((folder + relative).c_str(), R_OK) == 0) return folder + relative;
  throw Failure{"no libqxgroupmgr.so beside " + folder + " or in its ../lib; give --module PATH"};
}

}  // namespace

int CmdPackage(const std::vector<std::string>& files, bool json) {
  int status = kExitOk;
  std::string documents;  // with --json: {"files":[...]}, one entry per file, as info gives
  for (const std::string& file : files) {
    CheckRepresentable(file, "file name");
    PackageInfo info;
    const Bstr path = ToBstr(file);
    const HRESULT opened = info->put_Filename(path.get());
    // After S_OK a reason is a warning: the manifest is there but does not load.
    const ComponentError why = opened == S_OK      ? TakeError()
                               : opened == S_FALSE ? Reason("holds no imsmanifest.xml", "no-manifest")
                                                   : Reason("not a group", "not-a-group");
    if (json) {
      JsonObject properties;
      JsonObject filename;
      filename.AddString("hr", HexStatus(opened));
      properties.AddRaw("Filename", filename.Str());
      for (const auto& p : kProperties) {
        Bstr value;
        JsonObject entry;
        entry.AddString("hr", HexStatus((info.get()->*p.get)(value.receive())));
        entry.AddString("value", FromBstr(value.get()));
        properties.AddRaw(p.name, entry.Str());
      }
      LONG isQxp = 0;
      JsonObject flag;
      flag.AddString("hr", HexStatus(info->get_IsQXP(&isQxp)));
      flag.AddInteger("value", isQxp);
      properties.AddRaw("IsQXP", flag.Str());
      JsonObject top;
      top.AddString("file", file);
      if (!why.description.empty()) {
        top.AddString(opened == S_OK ? "warning" : "error", why.description);
        if (!why.code.empty()) top.AddString("code", why.code);
      }
      top.AddRaw("properties", properties.Str());
      documents += (documents.empty() ? "" : ",") + top.Str();
      if (opened != S_OK) status = kExitFailed;
      continue;
    }
    if (opened != S_OK) {
      std::fprintf(stderr, "qxgroup: not a package: %s\n", why.description.c_str());
      status = kExitFailed;
      continue;
    }
    if (!why.description.empty()) std::fprintf(stderr, "qxgroup: warning: %s\n", why.description.c_str());
    std::printf("%s\n", file.c_str());
    for (const auto& p : kProperties) {
      Bstr value;
      (info.get()->*p.get)(value.receive());
      const std::string text = FromBstr(value.get());
      if (!text.empty()) std::printf("  %-20s %s\n", p.label, text.c_str());
    }
  }
  if (json) PrintJson("{\"files\":[" + documents + "]}");
  return status;
}

// Why the registry store refused, from the module's status (its own diagnostic stays inside it).
std::string RegistryFailure(HRESULT hr) {
  const std::string store = registry::StorePath();
  if (hr == HRESULT_FROM_WIN32(registry::kErrorBadDb))
    return "the registry file " + store + " does not parse; it was left as it is";
  if (hr == HRESULT_FROM_WIN32(registry::kErrorCantRead))
    return "the registry file " + store + " cannot be read";
  if (hr == HRESULT_FROM_WIN32(registry::kErrorCantWrite))
    return "the registry file " + store + " (or its lock file) cannot be written";
  return "the module answered " + HexStatus(hr);
}

int CmdRegister(bool unregister, const std::string& modulePath) {
  const std::string given = modulePath.empty() ? DefaultModule() : modulePath;
  char resolved[PATH_MAX];
  if (::realpath(given.c_str(), resolved) == nullptr) throw Failure{"no such module: " + given};
  // The module writes its own entries, under the path it was loaded from.
  void* handle = ::dlopen(resolved, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) throw Failure{"cannot load " + std::string(resolved) + ": " + ::dlerror()};
  using EntryFn = HRESULT (*)();
  const auto entry = reinterpret_cast<EntryFn>(
      ::dlsym(handle, unregister ? "DllUnregisterServer" : "DllRegisterServer"));
  const HRESULT hr = entry != nullptr ? entry() : E_NOTIMPL;
  ::dlclose(handle);
  if (entry == nullptr)
    throw Failure{std::string(resolved) + " is not a component module (no registration entry)"};
  if (FAILED(hr))
    throw Failure{"cannot " + std::string(unregister ? "unregister " : "register ") + resolved +
                  ": " + RegistryFailure(hr)};
  std::printf("%s %s %s %s\n", unregister ? "unregistered" : "registered", resolved,
              unregister ? "from" : "in", registry::StorePath().c_str());
  return kExitOk;
}

}  // namespace qx::cli
