#include "frame/Registration.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>

#include <string_view>

#include "frame/Module.h"
#include "frame/TypeLibrary.h"
#include "platform/Diagnostic.h"
#include "platform/codepage.h"
#include "platform/com.h"
#include "platform/fs.h"
#include "platform/registry.h"
#include "resources/Resources.h"

namespace qx::module {

namespace {

using registry::Key;
using registry::Tree;

constexpr std::string_view kClassesKey = "CLSID";
// The system kind the type library is registered for, as the loader of this build names it.
constexpr std::string_view kSystemKind = sizeof(void*) == 8 ? "linux64" : "linux32";

// A value as ".reg" text quotes it (the script holds UTF-8).
std::string RegString(std::string_view ansi) {
  std::string out;
  for (const char c : codepage::AnsiToUtf8(ansi)) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '"': out += "\\\""; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      default: out += c;
    }
  }
  return out;
}

// The script with "%MODULE%" replaced, parsed.
LONG LoadScript(int id, const std::string& modulePath, Tree& script) {
  const char* text = LoadRegistryScript(id);
  if (text == nullptr) return registry::kErrorFileNotFound;
  std::string filled = text;
  const std::string module = RegString(modulePath);
  constexpr std::string_view kModule = "%MODULE%";
  for (size_t at = filled.find(kModule); at != std::string::npos;
       at = filled.find(kModule, at + module.size()))
    filled.replace(at, kModule.size(), module);
  return script.Parse(filled);
}

LONG Merge(Tree& store, const Key& key, const std::string& path) {
  if (!path.empty()) {
    if (const LONG status = store.CreateKey(path); status != registry::kErrorSuccess) return status;
    for (const auto& [name, data] : key.values)
      if (const LONG status = store.SetValue(path, name, data); status != registry::kErrorSuccess)
        return status;
  }
  for (const auto& [name, child] : key.subkeys)
    if (const LONG status = Merge(store, *child, path.empty() ? name : path + "\\" + name);
        status != registry::kErrorSuccess)
      return status;
  return registry::kErrorSuccess;
}

// The keys a script owns whole: its top-level keys, but for the shared CLSID key the class keys
// beneath it.
std::vector<std::string> OwnedKeys(const Tree& script) {
  std::vector<std::string> keys;
  for (const auto& [name, key] : script.Find("")->subkeys) {
    if (registry::NoCaseLess{}(name, kClassesKey) || registry::NoCaseLess{}(kClassesKey, name)) {
      keys.push_back(name);
      continue;
    }
    for (const auto& [classKey, unused] : key->subkeys) keys.push_back(name + "\\" + classKey);
  }
  return keys;
}

LONG DeleteIfThere(Tree& store, const std::string& path) {
  const LONG status = store.DeleteTree(path);
  return status == registry::kErrorFileNotFound ? registry::kErrorSuccess : status;
}

std::string TypeLibKey() {
  const typelib::Library& lib = typelib::TheLibrary();
  return "TypeLib\\" + GuidToString(*lib.libid) + "\\" + std::to_string(lib.majorVersion) + "." +
         std::to_string(lib.minorVersion);
}

std::string FolderOf(const std::string& path) {
  const size_t cut = path.find_last_of('/');
  if (cut == std::string::npos) return {};
  return cut == 0 ? "/" : path.substr(0, cut);
}

LONG RegisterTypeLibrary(Tree& store, const std::string& modulePath) {
  const std::string version = TypeLibKey();
  const std::pair<std::string, std::string> values[] = {
      {version, std::string(typelib::TheLibrary().help)},
      {version + "\\FLAGS", "0"},
      {version + "\\0\\" + std::string(kSystemKind), modulePath},
      {version + "\\HELPDIR", FolderOf(modulePath)},
  };
  for (const auto& [key, data] : values)
    if (const LONG status = store.SetValue(key, "", data); status != registry::kErrorSuccess)
      return status;
  return registry::kErrorSuccess;
}

// Removes this system kind's entry, then each key above it that is left without subkeys, up to
// the library's own key.
LONG UnregisterTypeLibrary(Tree& store) {
  const std::string version = TypeLibKey();
  const std::string lcid = version + "\\0";
  if (const LONG status = DeleteIfThere(store, lcid + "\\" + std::string(kSystemKind));
      status != registry::kErrorSuccess)
    return status;
  const auto childless = [&](const std::string& path) {
    const Key* key = store.Find(path);
    return key != nullptr && key->subkeys.empty();
  };
  if (childless(lcid)) store.DeleteTree(lcid);
  // Only FLAGS and HELPDIR left: no locale registers the version any more.
  if (const Key* key = store.Find(version); key != nullptr) {
    bool locales = false;
    for (const auto& [name, unused] : key->subkeys)
      if (!name.empty() && name.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos)
        locales = true;
    if (!locales) store.DeleteTree(version);
  }
  const std::string library = version.substr(0, version.find_last_of('\\'));
  if (childless(library)) store.DeleteTree(library);
  return registry::kErrorSuccess;
}

HRESULT Finish(LONG status, const char* doing) {
  if (status == registry::kErrorSuccess) return S_OK;
  const char* why = status == registry::kErrorBadDb      ? "does not parse; it was left as it is"
                    : status == registry::kErrorCantRead  ? "cannot be read"
                    : status == registry::kErrorCantWrite ? "cannot be written (or its lock file)"
                                                          : "refused the change";
  diag::Record("registry", registry::StorePath(), std::string(why) + " while " + doing);
  return HRESULT_FROM_WIN32(status);
}

}  // namespace

std::string ModulePath() {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&ModulePath), &info) == 0 || info.dli_fname == nullptr)
    return {};
  char resolved[PATH_MAX];
  if (::realpath(info.dli_fname, resolved) == nullptr) return {};
  return fs::FromNative(resolved);
}

HRESULT RegisterServer(const std::string& modulePath) {
  if (modulePath.empty()) {
    diag::Record("registry", "", "the module's own path is unknown");
    return E_FAIL;
  }
  const LONG status = registry::Update([&](Tree& store) {
    for (const int id : RegistryScripts()) {
      Tree script;
      if (const LONG s = LoadScript(id, modulePath, script); s != registry::kErrorSuccess) return s;
      for (const std::string& key : OwnedKeys(script)) {
        // A class's own key is written afresh: nothing a former registration left stays.
        if (key.find('\\') == std::string::npos) continue;
        if (const LONG s = DeleteIfThere(store, key); s != registry::kErrorSuccess) return s;
      }
      if (const LONG s = Merge(store, *script.Find(""), ""); s != registry::kErrorSuccess) return s;
    }
    return RegisterTypeLibrary(store, modulePath);
  });
  return Finish(status, "registering");
}

HRESULT UnregisterServer() {
  const LONG status = registry::Update([&](Tree& store) {
    for (const int id : RegistryScripts()) {
      Tree script;
      if (const LONG s = LoadScript(id, "", script); s != registry::kErrorSuccess) return s;
      for (const std::string& key : OwnedKeys(script))
        if (const LONG s = DeleteIfThere(store, key); s != registry::kErrorSuccess) return s;
    }
    return UnregisterTypeLibrary(store);
  });
  return Finish(status, "unregistering");
}

}  // namespace qx::module
