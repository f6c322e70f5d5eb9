// Registry scripts 102 (FileManager) and 104 (QXPackageInfo): the keys each class writes under
// the classes root, in the store's own ".reg" form. "%MODULE%" stands for the module's full path
// and is put in, escaped as a ".reg" string, when the script is run. Registration replaces the
// class's own key CLSID\{...} whole; unregistration removes every key a script names but the
// shared CLSID key.
#include "resources/Resources.h"

namespace qx {

namespace {

constexpr char kFileManagerScript[] = R"(Windows Registry Editor Version 5.00

[HKEY_CLASSES_ROOT\QXGroupMgr.FileManager.1]
@="FileManager Class"

[HKEY_CLASSES_ROOT\QXGroupMgr.FileManager.1\CLSID]
@="{41035C38-1441-4016-B34A-DBE6374ACCF2}"

[HKEY_CLASSES_ROOT\QXGroupMgr.FileManager]
@="FileManager Class"

[HKEY_CLASSES_ROOT\QXGroupMgr.FileManager\CLSID]
@="{41035C38-1441-4016-B34A-DBE6374ACCF2}"

[HKEY_CLASSES_ROOT\QXGroupMgr.FileManager\CurVer]
@="QXGroupMgr.FileManager.1"

[HKEY_CLASSES_ROOT\CLSID\{41035C38-1441-4016-B34A-DBE6374ACCF2}]
@="FileManager Class"

[HKEY_CLASSES_ROOT\CLSID\{41035C38-1441-4016-B34A-DBE6374ACCF2}\ProgID]
@="QXGroupMgr.FileManager.1"

[HKEY_CLASSES_ROOT\CLSID\{41035C38-1441-4016-B34A-DBE6374ACCF2}\VersionIndependentProgID]
@="QXGroupMgr.FileManager"

[HKEY_CLASSES_ROOT\CLSID\{41035C38-1441-4016-B34A-DBE6374ACCF2}\Programmable]

[HKEY_CLASSES_ROOT\CLSID\{41035C38-1441-4016-B34A-DBE6374ACCF2}\InprocServer32]
@="%MODULE%"
"ThreadingModel"="Apartment"

[HKEY_CLASSES_ROOT\CLSID\{41035C38-1441-4016-B34A-DBE6374ACCF2}\TypeLib]
@="{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}"
)";

constexpr char kPackageInfoScript[] = R"(Windows Registry Editor Version 5.00

[HKEY_CLASSES_ROOT\QXGroupMgr.QXPackageInfo.1]
@="QXPackageInfo Class"

[HKEY_CLASSES_ROOT\QXGroupMgr.QXPackageInfo.1\CLSID]
@="{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}"

[HKEY_CLASSES_ROOT\QXGroupMgr.QXPackageInfo]
@="QXPackageInfo Class"

[HKEY_CLASSES_ROOT\QXGroupMgr.QXPackageInfo\CLSID]
@="{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}"

[HKEY_CLASSES_ROOT\QXGroupMgr.QXPackageInfo\CurVer]
@="QXGroupMgr.QXPackageInfo.1"

[HKEY_CLASSES_ROOT\CLSID\{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}]
@="QXPackageInfo Class"

[HKEY_CLASSES_ROOT\CLSID\{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}\ProgID]
@="QXGroupMgr.QXPackageInfo.1"

[HKEY_CLASSES_ROOT\CLSID\{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}\VersionIndependentProgID]
@="QXGroupMgr.QXPackageInfo"

[HKEY_CLASSES_ROOT\CLSID\{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}\Programmable]

[HKEY_CLASSES_ROOT\CLSID\{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}\InprocServer32]
@="%MODULE%"
"ThreadingModel"="Apartment"

[HKEY_CLASSES_ROOT\CLSID\{721D5BA1-17A0-418E-84CC-F7C8F403ACEF}\TypeLib]
@="{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}"
)";

}  // namespace

const char* LoadRegistryScript(int id) {
  switch (id) {
    case IDR_FILEMANAGER: return kFileManagerScript;
    case IDR_QXPACKAGEINFO: return kPackageInfoScript;
    default: return nullptr;
  }
}

}  // namespace qx
