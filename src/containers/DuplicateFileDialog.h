// The question asked when a file being added has the name of a member the group already holds:
// Replace, Replace All, Skip or Cancel, as a modal dialog over the caller's owner window.
#pragma once

#include <cstdint>
#include <string>

#include "platform/ui.h"
#include "qxgroupmgr/com.h"

namespace qx {

class DuplicateFileDialog {
 public:
  // `fileName` is the added file's name and extension, without its folder.
  explicit DuplicateFileDialog(const std::string& fileName);
  DuplicateFileDialog(const DuplicateFileDialog&) = delete;
  DuplicateFileDialog& operator=(const DuplicateFileDialog&) = delete;

  // Runs the dialog modally over `owner`. Returns 1 Replace, 2 Replace All, 3 Skip, 4 Cancel,
  // or the platform's failure result unchanged (0 for an invalid owner, -1 otherwise).
  intptr_t DoModal(HWND owner);

  const std::string& Message() const { return message_; }

 private:
  static intptr_t DialogProc(ui::DialogHandle dlg, unsigned msg, uintptr_t wParam, intptr_t lParam);

  std::string message_;
};

}  // namespace qx
