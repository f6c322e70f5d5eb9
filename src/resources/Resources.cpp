#include "resources/Resources.h"

#include <iterator>

namespace qx {
namespace {

struct StringEntry {
  int id;
  const char* text;
};

constexpr StringEntry kStrings[] = {
    {IDS_PROJNAME, "QXGroupMgr"},
    {IDS_FILE_EXISTS, "%s already exists in this group file.  What would you like to do?"},
    {IDS_OTHER_DEVICE_TYPE,
     "Cannot add the file %s to the group.\nOld-style group files can only contain files that "
     "are of the same QX device type."},
    {IDS_ADDING_FILE, "Adding File"},
    {IDS_NO_FLASHAPPS,
     "Cannot add the file %s to the group.\nOld-style group files cannot contain FlashApps."},
};

const ui::DialogTemplate& DuplicateFileTemplate() {
  // Built on first use, so no other static object's start-up order matters.
  static const ui::DialogTemplate dialog{
      IDD_DUPLICATE_FILE,
      "Duplicate File Found",
      0, 0, 249, 87,  // x, y, width, height in dialog units
      "MS Sans Serif",
      8,
      {
          {IDC_REPLACE, ui::DialogItem::DefPushButton, "&Replace", 7, 66, 50, 14},
          {IDC_REPLACE_ALL, ui::DialogItem::PushButton, "Replace &All", 68, 66, 50, 14},
          {IDC_SKIP, ui::DialogItem::PushButton, "&Skip", 129, 66, 50, 14},
          {IDC_CANCEL, ui::DialogItem::PushButton, "Cancel", 190, 66, 50, 14},
          {IDC_DUPLICATE_TEXT, ui::DialogItem::Static, "", 7, 7, 235, 51},
      },
  };
  return dialog;
}

// Hands the templates to the user-interface module when the program starts; the subsystems
// are linked as object files, so this object is always kept.
struct TemplateRegistrar {
  TemplateRegistrar() { ui::SetTemplateSource(&FindDialogTemplate); }
};
const TemplateRegistrar registrar;

}  // namespace

const char* LoadStringResource(int id) {
  for (const StringEntry& entry : kStrings)
    if (entry.id == id) return entry.text;
  return nullptr;
}

std::string FormatOneArgument(std::string_view format, std::string_view argument) {
  std::string out;
  size_t at = format.find("%s");
  if (at == std::string_view::npos) return std::string(format);
  out.reserve(format.size() + argument.size());
  out.append(format.substr(0, at));
  out.append(argument);
  out.append(format.substr(at + 2));
  return out;
}

std::string FormatStringResource(int id, std::string_view argument) {
  const char* format = LoadStringResource(id);
  return format != nullptr ? FormatOneArgument(format, argument) : std::string();
}

const ui::DialogTemplate* FindDialogTemplate(int id) {
  if (id == IDD_DUPLICATE_FILE) return &DuplicateFileTemplate();
  return nullptr;
}

}  // namespace qx
