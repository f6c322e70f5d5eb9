// Registry stand-in: the keys under the classes root, each with a default value and named string
// values, kept in one text file in the form of a ".reg" export:
//
//   Windows Registry Editor Version 5.00
//
//   [HKEY_CLASSES_ROOT\CLSID\{41035C38-...}\InprocServer32]
//   @="/usr/lib/libqxgroupmgr.so"
//   "ThreadingModel"="Apartment"
//
// The file is $QXGROUPMGR_REGISTRY, else ${XDG_CONFIG_HOME:-~/.config}/qxgroupmgr/registry.reg
// (looked up at every call). A missing file is an empty registry. Every change re-reads the file
// under an exclusive flock on "<file>.lock", applies itself and replaces the file by rename, so
// concurrent writers in several processes keep each other's changes and readers never see half a
// file. Readers re-read the file whenever it changed since they last looked.
//
// Key paths are relative to the classes root, separated by "\" and compared without regard to
// ASCII case: "CLSID\{...}\InprocServer32". Value name "" is the default value. All text is
// Windows-1252, as everywhere inside the component; the file holds it as UTF-8.
//
// A file that does not parse is never overwritten: every call answers kErrorBadDb until it is
// repaired or removed.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qxgroupmgr/com.h"

namespace qx::registry {

// Status codes, with the platform's values.
inline constexpr LONG kErrorSuccess = 0;
inline constexpr LONG kErrorFileNotFound = 2;      // no such key or value
inline constexpr LONG kErrorOutOfMemory = 14;
inline constexpr LONG kErrorInvalidParameter = 87;  // empty or malformed key path
inline constexpr LONG kErrorNoMoreItems = 259;      // enumeration past the last subkey
inline constexpr LONG kErrorBadDb = 1009;           // the file exists but does not parse
inline constexpr LONG kErrorCantRead = 1012;        // the file exists but cannot be read
inline constexpr LONG kErrorCantWrite = 1013;       // the file or its lock cannot be written

// ASCII case-insensitive ordering, for key and value names.
struct NoCaseLess {
  bool operator()(std::string_view a, std::string_view b) const;
  using is_transparent = void;
};

// One key: its values and subkeys. The name keeps the case it was created with.
struct Key {
  std::string name;
  std::map<std::string, std::string, NoCaseLess> values;  // "" is the default value
  std::map<std::string, std::unique_ptr<Key>, NoCaseLess> subkeys;
};

// An in-memory copy of the whole store. Paths as above; the root is the classes root itself.
class Tree {
 public:
  Tree();
  Tree(const Tree& other);
  Tree& operator=(const Tree& other);
  Tree(Tree&&) noexcept = default;
  Tree& operator=(Tree&&) noexcept = default;

  // The key at `path`, or null. "" is the root.
  const Key* Find(std::string_view path) const;
  // Creates the key and any missing parents. kErrorInvalidParameter for an empty or malformed
  // path ("", "\a", "a\\b", a name holding a control character or "]").
  LONG CreateKey(std::string_view path);
  // Creates the key when missing and sets the value.
  LONG SetValue(std::string_view path, std::string_view name, std::string_view data);
  // kErrorFileNotFound when the key or the value does not exist.
  LONG GetValue(std::string_view path, std::string_view name, std::string& data) const;
  LONG DeleteValue(std::string_view path, std::string_view name);
  // Deletes the key with all its subkeys; its parent stays. kErrorFileNotFound when missing.
  LONG DeleteTree(std::string_view path);
  // Names of the direct subkeys, sorted without regard to case. kErrorFileNotFound when missing.
  LONG SubKeys(std::string_view path, std::vector<std::string>& names) const;

  // The ".reg" text of the whole store (UTF-8), keys in sorted order, parents before children.
  std::string Serialize() const;
  // Parses ".reg" text. On failure returns kErrorBadDb, leaves the tree empty and puts the line
  // number and the reason into `error` when given ("line 4: value outside a key").
  LONG Parse(std::string_view text, std::string* error = nullptr);

 private:
  Key* FindMutable(std::string_view path);
  std::unique_ptr<Key> root_;
};

// Frees what the store keeps for the process (the parsed file); for module unload.
void ReleaseProcessState();

// The file the store lives in (see top of file).
std::string StorePath();

// The store as it is now in its file (re-read when the file changed since the last call).
// kErrorBadDb or kErrorCantRead when the file exists but cannot be used.
LONG Load(Tree& out);
// Runs `change` on the current contents under the store's lock and writes the result back when
// `change` returns kErrorSuccess; whatever `change` returns is the result. Several changes in one
// call cost one rewrite of the file.
LONG Update(const std::function<LONG(Tree&)>& change);

// ---- The platform's calls, one rewrite of the file each ---------------------------------------------

// Creates the key and any missing parents.
LONG RegCreateKey(std::string_view path);
// Sets a value of the key at `path`, creating the key when missing. `name` "" is the default.
LONG RegSetValue(std::string_view path, std::string_view name, std::string_view data);
LONG RegQueryValue(std::string_view path, std::string_view name, std::string& data);
LONG RegDeleteValue(std::string_view path, std::string_view name);
// Deletes the key with its subkeys; its parent stays.
LONG RegDeleteTree(std::string_view path);
// The name of the index-th subkey (sorted without regard to case); kErrorNoMoreItems past the end.
LONG RegEnumKey(std::string_view path, DWORD index, std::string& name);
// kErrorSuccess when the key exists.
LONG RegOpenKey(std::string_view path);

}  // namespace qx::registry
