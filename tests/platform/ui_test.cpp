#include "platform/ui.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "resources/Resources.h"

namespace qx::ui {
namespace {

// The texts are checked where they are shown (frame prompt tests, CLI prompt checks).
TEST(StringTable, UnknownIdsHaveNoText) {
  for (int unknown : {0, 99, 105, 201, -1}) {
    EXPECT_EQ(LoadStringResource(unknown), nullptr) << unknown;
    EXPECT_EQ(FormatStringResource(unknown, "x"), "") << unknown;
  }
}

// Shows lParam's text and ends with the id of the button pressed; other commands are ignored.
intptr_t Proc(DialogHandle dlg, unsigned msg, uintptr_t wParam, intptr_t lParam) {
  if (msg == WM_INITDIALOG)
    SetWindowTextA(GetDlgItem(dlg, IDC_DUPLICATE_TEXT), reinterpret_cast<const char*>(lParam));
  if (msg == WM_COMMAND && GetDlgItem(dlg, LOWORD(wParam)) != nullptr) EndDialog(dlg, LOWORD(wParam));
  return 1;
}

intptr_t Ask(HWND owner, const char* text = "x") {
  return DialogBoxParamA(owner, IDD_DUPLICATE_FILE, &Proc, reinterpret_cast<intptr_t>(text));
}

TEST(Dialogs, OwnerWithoutHostShowsNothing) {
  auto host = std::make_shared<FixedAnswerHost>(IDC_REPLACE);
  HWND released = BindOwnerWindow(host);
  EXPECT_EQ(BindOwnerWindow(nullptr), nullptr);
  ReleaseOwnerWindow(released);
  for (HWND owner : {HWND{}, released, reinterpret_cast<HWND>(uintptr_t{0x8})}) {
    EXPECT_EQ(Ask(owner), 0);
    EXPECT_EQ(MessageBoxA(owner, "t", "c", MB_OK), 0);
  }
  EXPECT_TRUE(host->Dialogs().empty() && host->Messages().empty());
}

// The buttons' answers, texts and message box types: the frame's prompt tests. No procedure, no
// template or a command the dialog ignores: -1; a dialog ended while it initialises is never shown.
TEST(Dialogs, Failures) {
  auto host = std::make_shared<FixedAnswerHost>(99);
  HWND owner = BindOwnerWindow(host);
  EXPECT_EQ(Ask(owner), -1);
  EXPECT_EQ(host->Dialogs().size(), 1u);
  host->Clear();
  EXPECT_EQ(DialogBoxParamA(owner, IDD_DUPLICATE_FILE, nullptr, 0), -1);
  EXPECT_EQ(DialogBoxParamA(owner, 200, &Proc, 0), -1);
  auto proc = [](DialogHandle dlg, unsigned msg, uintptr_t, intptr_t) -> intptr_t {
    EndDialog(dlg, msg == WM_INITDIALOG ? 42 : 7);
    return 1;
  };
  EXPECT_EQ(DialogBoxParamA(owner, IDD_DUPLICATE_FILE, proc, 0), 42);
  EXPECT_TRUE(host->Dialogs().empty());
  EXPECT_EQ(MessageBoxA(owner, nullptr, nullptr, MB_OK), IDOK);
  ASSERT_EQ(host->Messages().size(), 1u);
  EXPECT_EQ(host->Messages()[0].text, "");
  ReleaseOwnerWindow(owner);
}

struct Pty {
  Pty() {
    master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 || ptsname(master) == nullptr) return;
    path = ptsname(master);
    slave = open(path.c_str(), O_RDWR | O_NOCTTY);
    before = Mode();
    owner = BindOwnerWindow(std::make_shared<TerminalHost>(path));
  }
  ~Pty() { ReleaseOwnerWindow(owner), close(slave), close(master); }
  // Reads what the program shows until `marker` appears or two seconds pass.
  std::string ReadUntil(const std::string& marker) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (screen.find(marker) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
      pollfd p{master, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      char buffer[512];
      ssize_t n = read(master, buffer, sizeof buffer);
      if (n <= 0) break;
      screen.append(buffer, static_cast<size_t>(n));
    }
    return screen;
  }
  void Type(const std::string& keys) {
    ASSERT_EQ(write(master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  tcflag_t Mode() const {
    termios t{};
    return tcgetattr(slave, &t) == 0 ? t.c_lflag : ~tcflag_t{0};
  }
  bool Restored() const { return Mode() == before; }  // the terminal is back in the mode it was in

  HWND owner = nullptr;
  int master = -1, slave = -1;
  tcflag_t before = 0;
  std::string path, screen;
};

// What the terminal shows for the question: the CLI prompt checks, which read it off the screen.
TEST(TerminalPrompt, Keys) {
  const struct { const char* name; std::string keys; intptr_t result; } rows[] = {
      {"Enter is the default button", "\r", IDC_REPLACE}, {"Esc alone cancels", "\x1b", IDC_CANCEL},
      {"Ctrl-C cancels", "\x03", IDC_CANCEL}, {"letter, upper case", "A", IDC_REPLACE_ALL},
      {"Alt+letter", "\x1b" "s", IDC_SKIP}, {"unknown key beeps, then a letter", "xr", IDC_REPLACE},
      {"cursor keys are ignored", "\x1b[A\x1bOB\r", IDC_REPLACE},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Pty pty;
    ASSERT_GE(pty.slave, 0);
    intptr_t result = 0;
    std::thread prompt([&] { result = Ask(pty.owner, "PROG1.kdp exists"); });
    pty.ReadUntil("Cancel");
    pty.Type(row.keys);
    prompt.join();
    EXPECT_EQ(result, row.result);
    EXPECT_TRUE(pty.Restored());
  }
}

// A dialog procedure may show a message box on the same terminal before it ends; a control
// character in a text must not reach the terminal as such.
TEST(TerminalPrompt, MessageBoxFromDialog) {
  Pty pty;
  ASSERT_GE(pty.slave, 0);
  auto proc = [](DialogHandle dlg, unsigned msg, uintptr_t wParam, intptr_t lParam) -> intptr_t {
    if (msg == WM_INITDIALOG) SetWindowLongPtrA(dlg, DWLP_USER, lParam);
    if (msg != WM_COMMAND) return 0;
    auto owner = reinterpret_cast<HWND>(GetWindowLongPtrA(dlg, DWLP_USER));
    EndDialog(dlg, MessageBoxA(owner, "Cannot add a\x1b[2J.kfl\nNo.", "Adding File", MB_OK) * 10 + LOWORD(wParam));
    return 1;
  };
  intptr_t result = 0;
  std::thread prompt([&] {
    result = DialogBoxParamA(pty.owner, IDD_DUPLICATE_FILE, proc, reinterpret_cast<intptr_t>(pty.owner)); });
  pty.ReadUntil("Cancel");
  pty.Type("s");
  const std::string screen = pty.ReadUntil("<OK>");
  pty.Type("q\r");
  prompt.join();
  EXPECT_EQ(result, 10 + IDC_SKIP);
  EXPECT_NE(screen.find("Adding File"), std::string::npos) << screen;
  EXPECT_NE(screen.find("Cannot add a?[2J.kfl\r\nNo."), std::string::npos) << screen;
  EXPECT_TRUE(pty.Restored());
}

// A terminal that cannot be opened: the dialog fails and the message box answers nothing.
TEST(TerminalPrompt, Missing) {
  HWND owner = BindOwnerWindow(std::make_shared<TerminalHost>("/nonexistent/tty"));
  EXPECT_EQ(Ask(owner), -1);
  EXPECT_EQ(MessageBoxA(owner, "t", "c", 0), 0);
  ReleaseOwnerWindow(owner);
}

}  // namespace
}  // namespace qx::ui
