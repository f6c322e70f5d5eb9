#include "resources/Resources.h"

#include <gtest/gtest.h>

#include <memory>

namespace qx {
namespace {

TEST(StringTable, ExactTexts) {
  struct Row {
    int id;
    const char* text;
  };
  const Row rows[] = {
      {100, "QXGroupMgr"},
      {101, "%s already exists in this group file.  What would you like to do?"},
      {102,
       "Cannot add the file %s to the group.\nOld-style group files can only contain files that "
       "are of the same QX device type."},
      {103, "Adding File"},
      {104,
       "Cannot add the file %s to the group.\nOld-style group files cannot contain FlashApps."},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.id);
    const char* text = LoadStringResource(row.id);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, row.text);
  }
  for (int unknown : {0, 99, 105, 201, -1}) {
    SCOPED_TRACE(unknown);
    EXPECT_EQ(LoadStringResource(unknown), nullptr);
    EXPECT_EQ(FormatStringResource(unknown, "x"), "");
  }
}

TEST(StringTable, FormatsOneArgumentVerbatim) {
  struct Row {
    const char* name;
    const char* format;
    const char* argument;
    const char* want;
  };
  const Row rows[] = {
      {"percent in the name", "%s exists", "50%.kdp", "50%.kdp exists"},
      {"conversions in the name", "%s exists", "%s%d%n%%.kdp", "%s%d%n%%.kdp exists"},
      {"only the first %s", "%s and %s", "a", "a and %s"},
      {"other percent in the format", "100% of %s", "a", "100% of a"},
      {"no placeholder", "no args", "a", "no args"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(FormatOneArgument(row.format, row.argument), row.want);
  }
  EXPECT_EQ(FormatStringResource(IDS_FILE_EXISTS, "PROG1.kdp"),
            "PROG1.kdp already exists in this group file.  What would you like to do?");
  EXPECT_EQ(FormatStringResource(IDS_NO_FLASHAPPS, "app%1.kfl"),
            "Cannot add the file app%1.kfl to the group.\n"
            "Old-style group files cannot contain FlashApps.");
}

TEST(DialogTemplate, DuplicateFileLayout) {
  const ui::DialogTemplate* t = FindDialogTemplate(201);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->caption, "Duplicate File Found");
  // Template order is the order the buttons are offered in; the ids are the prompt's answers.
  const struct {
    int id;
    ui::DialogItem::Kind kind;
    const char* text;
  } rows[] = {
      {IDC_REPLACE, ui::DialogItem::DefPushButton, "&Replace"},
      {IDC_REPLACE_ALL, ui::DialogItem::PushButton, "Replace &All"},
      {IDC_SKIP, ui::DialogItem::PushButton, "&Skip"},
      {IDC_CANCEL, ui::DialogItem::PushButton, "Cancel"},
      {IDC_DUPLICATE_TEXT, ui::DialogItem::Static, ""},
  };
  ASSERT_EQ(t->items.size(), std::size(rows));
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].id);
    EXPECT_EQ(t->items[i].id, rows[i].id);
    EXPECT_EQ(t->items[i].kind, rows[i].kind);
    EXPECT_EQ(t->items[i].text, rows[i].text);
  }
  EXPECT_EQ(FindDialogTemplate(200), nullptr);
}

// Linking the resources is enough for the dialog calls to find the template.
TEST(DialogTemplate, ReachableThroughDialogCalls) {
  EXPECT_EQ(ui::FindTemplate(IDD_DUPLICATE_FILE), FindDialogTemplate(IDD_DUPLICATE_FILE));

  auto host = std::make_shared<ui::FixedAnswerHost>(IDC_SKIP);
  HWND owner = ui::BindOwnerWindow(host);
  auto proc = [](ui::DialogHandle dlg, unsigned msg, uintptr_t wParam, intptr_t) -> intptr_t {
    if (msg == ui::WM_INITDIALOG)
      ui::SetWindowTextA(ui::GetDlgItem(dlg, IDC_DUPLICATE_TEXT), "shown");
    if (msg == ui::WM_COMMAND) ui::EndDialog(dlg, static_cast<intptr_t>(ui::LOWORD(wParam)));
    return 1;
  };
  EXPECT_EQ(ui::DialogBoxParamA(owner, IDD_DUPLICATE_FILE, proc, 0), IDC_SKIP);
  ASSERT_EQ(host->Dialogs().size(), 1u);
  EXPECT_EQ(host->Dialogs()[0].TextOf(IDC_DUPLICATE_TEXT), "shown");
  ui::ReleaseOwnerWindow(owner);
}

}  // namespace
}  // namespace qx
