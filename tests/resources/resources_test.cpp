#include "resources/Resources.h"

#include <gtest/gtest.h>

#include <memory>

namespace qx {
namespace {

// The texts themselves are checked where they are shown (the CLI prompt and refusal checks).
TEST(StringTable, UnknownIdsHaveNoText) {
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
}

// Linking the resources is enough for the dialog calls to find the template.
TEST(DialogTemplate, ReachableThroughDialogCalls) {
  EXPECT_EQ(ui::FindTemplate(IDD_DUPLICATE_FILE), FindDialogTemplate(IDD_DUPLICATE_FILE));
  EXPECT_EQ(FindDialogTemplate(200), nullptr);

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
