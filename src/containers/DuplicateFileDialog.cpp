#include "containers/DuplicateFileDialog.h"

#include "resources/Resources.h"

namespace qx {

DuplicateFileDialog::DuplicateFileDialog(const std::string& fileName)
    : message_(FormatStringResource(IDS_FILE_EXISTS, fileName)) {}

intptr_t DuplicateFileDialog::DoModal(HWND owner) {
  return ui::DialogBoxParamA(owner, IDD_DUPLICATE_FILE, &DuplicateFileDialog::DialogProc,
                             reinterpret_cast<intptr_t>(this));
}

intptr_t DuplicateFileDialog::DialogProc(ui::DialogHandle dlg, unsigned msg, uintptr_t wParam,
                                         intptr_t lParam) {
  if (msg == ui::WM_INITDIALOG) {
    const auto* self = reinterpret_cast<const DuplicateFileDialog*>(lParam);
    ui::SetWindowTextA(ui::GetDlgItem(dlg, IDC_DUPLICATE_TEXT), self->message_.c_str());
    return 1;  // the platform puts the focus on the default button
  }
  if (msg != ui::WM_COMMAND) return 0;
  // Each button ends the dialog with its own answer; the order is the buttons' order.
  static constexpr struct {
    int control;
    intptr_t answer;
  } kAnswers[] = {{IDC_REPLACE, 1}, {IDC_REPLACE_ALL, 2}, {IDC_SKIP, 3}, {IDC_CANCEL, 4}};
  for (const auto& a : kAnswers) {
    if (static_cast<int>(ui::LOWORD(wParam)) == a.control) {
      ui::EndDialog(dlg, a.answer);
      return 1;
    }
  }
  return 0;
}

}  // namespace qx
