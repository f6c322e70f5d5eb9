// Shows the duplicate-file prompt or a refusal message box on the real terminal and prints
// the answer, for tests/platform/terminal_prompt_check.sh. Disabled: it waits for a person
// (or tmux) to press a key. Run with
//   test_resources --gtest_also_run_disabled_tests --gtest_filter='*TerminalPromptDriver*'
// Environment: QX_PROMPT_MODE=dialog|message, QX_PROMPT_PIDFILE=file to write the pid to.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "resources/Resources.h"

namespace qx {
namespace {

intptr_t DuplicateProc(ui::DialogHandle dlg, unsigned msg, uintptr_t wParam, intptr_t lParam) {
  if (msg == ui::WM_INITDIALOG) {
    ui::SetWindowTextA(ui::GetDlgItem(dlg, IDC_DUPLICATE_TEXT),
                       reinterpret_cast<const char*>(lParam));
    return 1;
  }
  if (msg != ui::WM_COMMAND) return 0;
  const unsigned buttons[] = {IDC_REPLACE, IDC_REPLACE_ALL, IDC_SKIP, IDC_CANCEL};  // answers 1 to 4
  for (intptr_t answer = 1; answer <= 4; ++answer) {
    if (ui::LOWORD(wParam) != buttons[answer - 1]) continue;
    ui::EndDialog(dlg, answer);
    return 1;
  }
  return 0;
}

TEST(TerminalPrompt, DISABLED_TerminalPromptDriver) {
  if (const char* pidFile = std::getenv("QX_PROMPT_PIDFILE")) {
    if (FILE* f = std::fopen(pidFile, "w")) {
      std::fprintf(f, "%d\n", static_cast<int>(getpid()));
      std::fclose(f);
    }
  }
  const char* mode = std::getenv("QX_PROMPT_MODE");
  HWND owner = ui::BindOwnerWindow(std::make_shared<ui::TerminalHost>());
  long result = 0;
  if (mode != nullptr && std::string(mode) == "message") {
    std::string text = FormatStringResource(IDS_NO_FLASHAPPS, "app%1.kfl");
    result = ui::MessageBoxA(owner, text.c_str(), LoadStringResource(IDS_ADDING_FILE),
                             ui::MB_OK | ui::MB_ICONEXCLAMATION);
  } else {
    std::string text = FormatStringResource(IDS_FILE_EXISTS, "PROG%1.kdp");
    result = static_cast<long>(ui::DialogBoxParamA(owner, IDD_DUPLICATE_FILE, &DuplicateProc,
                                                   reinterpret_cast<intptr_t>(text.c_str())));
  }
  ui::ReleaseOwnerWindow(owner);
  std::printf("result=%ld\n", result);
  std::fflush(stdout);
}

}  // namespace
}  // namespace qx
