// The module's compiled-in resources: the string table, the duplicate-file dialog template and
// the registry scripts.
#pragma once

#include <string>
#include <string_view>

#include "platform/ui.h"

namespace qx {

// String table ids.
inline constexpr int IDS_PROJNAME = 100;           // "QXGroupMgr"
inline constexpr int IDS_FILE_EXISTS = 101;        // duplicate-file prompt text, one "%s"
inline constexpr int IDS_OTHER_DEVICE_TYPE = 102;  // refused: other device family, one "%s"
inline constexpr int IDS_ADDING_FILE = 103;        // caption of the refusal message boxes
inline constexpr int IDS_NO_FLASHAPPS = 104;       // refused: flash file, one "%s"

// The duplicate-file dialog and its controls.
inline constexpr int IDD_DUPLICATE_FILE = 201;
inline constexpr int IDC_DUPLICATE_TEXT = 201;  // static text
inline constexpr int IDC_REPLACE = 3;
inline constexpr int IDC_REPLACE_ALL = 4;
inline constexpr int IDC_SKIP = 5;
inline constexpr int IDC_CANCEL = 2;  // the platform's cancel command, also Esc

// Registry scripts (".reg" text with "%MODULE%" for the module's path), one per class.
inline constexpr int IDR_FILEMANAGER = 102;
inline constexpr int IDR_QXPACKAGEINFO = 104;
// The script with that id, or null.
const char* LoadRegistryScript(int id);

// The string with that id, or null when the table has none.
const char* LoadStringResource(int id);

// Puts `argument` in place of the first "%s" of `format`; every other character, other "%"
// included, is copied unchanged, and the argument is never looked into:
//   ("%s exists", "50%s.kdp") => "50%s.kdp exists";  ("100% %s", "x") => "100% x"
std::string FormatOneArgument(std::string_view format, std::string_view argument);
// The string with that id formatted with one argument; "" when the table has no such string.
std::string FormatStringResource(int id, std::string_view argument);

// The dialog template with that id, or null. The templates live for the whole program.
const ui::DialogTemplate* FindDialogTemplate(int id);

}  // namespace qx
