#include "frame/Registration.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/registry.h"
#include "support/ScopedRegistry.h"

namespace qx::test {
namespace {

constexpr char kModule[] = "/opt/qx \"lib\"/libqxgroupmgr.so";

// What registering the module at kModule writes, key by key, written out from the tables of
// the two classes and the type library.
constexpr char kRegistered[] = R"(Windows Registry Editor Version 5.00

[HKEY_CLASSES_ROOT\CLSID]

[HKEY_CLASSES_ROOT\CLSID\{41035C38-1441-4016-B34A-DBE6374ACCF2}]
@="FileManager Class"

[HKEY_CLASSES_ROOT\CLSID\{41035C38-1441-4016-B34A-DBE6374ACCF2}\InprocServer32]
@="/opt/qx \"lib\"/libqxgroupmgr.so"
"ThreadingModel"="Apartment"

[HKEY_CLASSES_ROOT\CLSID\{41035C38-1441-4016-B34A-DBE6374ACCF2}\ProgID]
@="QXGroupMgr.FileManager.1"

[HKEY_CLASSES_ROOT\CLSID\{41035C38-1441-4016-B34A-DBE6374ACCF2}\Programmable]

[HKEY_CLASSES_ROOT\CLSID\{41035C38-1441-4016-B34A-DBE6374ACCF2}\TypeLib]
@="{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}"

[HKEY_CLASSES_ROOT\CLSID\{41035C38-1441-4016-B34A-DBE6374ACCF2}\VersionIndependentProgID]
@="QXGroupMgr.FileManager"

[HKEY_CLASSES_ROOT\CLSID\{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}]
@="QXPackageInfo Class"

[HKEY_CLASSES_ROOT\CLSID\{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}\InprocServer32]
@="/opt/qx \"lib\"/libqxgroupmgr.so"
"ThreadingModel"="Apartment"

[HKEY_CLASSES_ROOT\CLSID\{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}\ProgID]
@="QXGroupMgr.QXPackageInfo.1"

[HKEY_CLASSES_ROOT\CLSID\{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}\Programmable]

[HKEY_CLASSES_ROOT\CLSID\{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}\TypeLib]
@="{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}"

[HKEY_CLASSES_ROOT\CLSID\{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}\VersionIndependentProgID]
@="QXGroupMgr.QXPackageInfo"

[HKEY_CLASSES_ROOT\QXGroupMgr.FileManager]
@="FileManager Class"

[HKEY_CLASSES_ROOT\QXGroupMgr.FileManager\CLSID]
@="{41035C38-1441-4016-B34A-DBE6374ACCF2}"

[HKEY_CLASSES_ROOT\QXGroupMgr.FileManager\CurVer]
@="QXGroupMgr.FileManager.1"

[HKEY_CLASSES_ROOT\QXGroupMgr.FileManager.1]
@="FileManager Class"

[HKEY_CLASSES_ROOT\QXGroupMgr.FileManager.1\CLSID]
@="{41035C38-1441-4016-B34A-DBE6374ACCF2}"

[HKEY_CLASSES_ROOT\QXGroupMgr.QXPackageInfo]
@="QXPackageInfo Class"

[HKEY_CLASSES_ROOT\QXGroupMgr.QXPackageInfo\CLSID]
@="{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}"

[HKEY_CLASSES_ROOT\QXGroupMgr.QXPackageInfo\CurVer]
@="QXGroupMgr.QXPackageInfo.1"

[HKEY_CLASSES_ROOT\QXGroupMgr.QXPackageInfo.1]
@="QXPackageInfo Class"

[HKEY_CLASSES_ROOT\QXGroupMgr.QXPackageInfo.1\CLSID]
@="{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}"

[HKEY_CLASSES_ROOT\TypeLib]

[HKEY_CLASSES_ROOT\TypeLib\{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}]

[HKEY_CLASSES_ROOT\TypeLib\{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}\1.0]
@="QXGroupMgr 1.0 Type Library"

[HKEY_CLASSES_ROOT\TypeLib\{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}\1.0\0]

[HKEY_CLASSES_ROOT\TypeLib\{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}\1.0\0\linux64]
@="/opt/qx \"lib\"/libqxgroupmgr.so"

[HKEY_CLASSES_ROOT\TypeLib\{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}\1.0\FLAGS]
@="0"

[HKEY_CLASSES_ROOT\TypeLib\{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}\1.0\HELPDIR]
@="/opt/qx \"lib\""

)";

std::string StoreText() {
  registry::Tree tree;
  EXPECT_EQ(registry::Load(tree), registry::kErrorSuccess);
  return tree.Serialize();
}

TEST(RegistrationTest, RegisterReRegisterUnregister) {
  const ScopedRegistry store;
  ASSERT_EQ(registry::RegSetValue("CLSID\\{00000000-0000-0000-0000-000000000001}", "", "other"),
            registry::kErrorSuccess);
  ASSERT_EQ(module::RegisterServer(kModule), S_OK);
  std::string expected = kRegistered;
  const std::string other =
      "[HKEY_CLASSES_ROOT\\CLSID\\{00000000-0000-0000-0000-000000000001}]\n@=\"other\"\n\n";
  expected.insert(expected.find("[HKEY_CLASSES_ROOT\\CLSID\\{4103"), other);
  EXPECT_EQ(StoreText(), expected);

  // Planted keys: the class's own key is replaced whole, the ProgID keys are written over.
  const std::string fm = "CLSID\\{41035C38-1441-4016-B34A-DBE6374ACCF2}";
  for (const std::string& key : {fm + "\\Planted", fm + "\\Programmable\\Planted",
                                std::string("QXGroupMgr.FileManager.1\\Planted")})
    ASSERT_EQ(registry::RegCreateKey(key), registry::kErrorSuccess);
  ASSERT_EQ(registry::RegSetValue(fm + "\\InprocServer32", "Stale", "x"), registry::kErrorSuccess);
  ASSERT_EQ(module::RegisterServer(kModule), S_OK);
  for (const std::string& key : {fm + "\\Planted", fm + "\\Programmable\\Planted"})
    EXPECT_NE(registry::RegOpenKey(key), registry::kErrorSuccess) << key;
  std::string stale;
  EXPECT_NE(registry::RegQueryValue(fm + "\\InprocServer32", "Stale", stale), registry::kErrorSuccess);
  EXPECT_EQ(registry::RegOpenKey("QXGroupMgr.FileManager.1\\Planted"), registry::kErrorSuccess);

  // Unregistration takes every key it wrote, ProgIDs with what was planted below them, and
  // leaves CLSID, TypeLib and the other class.
  ASSERT_EQ(module::UnregisterServer(), S_OK);
  EXPECT_EQ(StoreText(), "Windows Registry Editor Version 5.00\n\n[HKEY_CLASSES_ROOT\\CLSID]\n\n" +
                             other + "[HKEY_CLASSES_ROOT\\TypeLib]\n\n");
  EXPECT_EQ(module::UnregisterServer(), S_OK) << "nothing left to remove is no failure";
}

TEST(RegistrationTest, StoresThatCannotTakeTheChange) {
  const std::string header = "Windows Registry Editor Version 5.00\n";
  const struct {
    const char* what;
    const char* leaf;       // the store, under a fresh folder
    const char* blocker;    // made first: "file" (a file named "sub") or "folder" (the store)
    std::string bytes;      // the store's bytes, when it is a file
    mode_t fileMode, folderMode;
    bool needsNonRoot;      // permissions do not stop root
    LONG error;
  } rows[] = {
      {"damaged", "registry.reg", "", "not a registry file\n", 0600, 0700, false, registry::kErrorBadDb},
      {"store is a folder", "registry.reg", "folder", "", 0600, 0700, false, registry::kErrorCantRead},
      {"store's folder is a file", "sub/registry.reg", "file", "", 0600, 0700, false,
       registry::kErrorCantWrite},
      {"unreadable", "registry.reg", "", header, 0000, 0700, true, registry::kErrorCantRead},
      {"read-only folder", "registry.reg", "", header, 0400, 0500, true, registry::kErrorCantWrite},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    if (row.needsNonRoot && ::geteuid() == 0) continue;
    const ScopedRegistry store(row.leaf);
    const std::string blocker = row.blocker;
    if (blocker == "folder") std::filesystem::create_directory(store.file());
    if (blocker == "file") store.dir().Write("sub", "x");
    if (blocker.empty()) store.dir().Write(row.leaf, row.bytes);
    ::chmod(store.file().c_str(), row.fileMode);
    ::chmod(store.dir().path().c_str(), row.folderMode);
    EXPECT_EQ(module::RegisterServer(kModule), HRESULT_FROM_WIN32(row.error));
    EXPECT_EQ(module::UnregisterServer(), HRESULT_FROM_WIN32(row.error));
    ::chmod(store.dir().path().c_str(), 0700);
    ::chmod(store.file().c_str(), 0600);
    if (blocker.empty()) {
      EXPECT_EQ(ReadFileBytes(store.file()), row.bytes);
    }
    int entries = 0;
    for (const auto& e : std::filesystem::directory_iterator(store.dir().path())) {
      const std::string name = e.path().filename().string();
      entries += name != "registry.reg" && name != "registry.reg.lock" && name != "sub";
    }
    EXPECT_EQ(entries, 0) << "a half-written file was left beside the store";
  }
}

}  // namespace
}  // namespace qx::test
