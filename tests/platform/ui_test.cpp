#include "platform/ui.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

namespace qx::ui {
namespace {

constexpr int kTextId = 201;

// A copy of the duplicate-file dialog's layout; this suite does not link the resources.
const DialogTemplate& TestTemplate() {
  static const DialogTemplate t{201, "Duplicate File Found", 0, 0, 249, 87, "MS Sans Serif", 8,
                                {{3, DialogItem::DefPushButton, "&Replace", 7, 66, 50, 14},
                                 {4, DialogItem::PushButton, "Replace &All", 68, 66, 50, 14},
                                 {5, DialogItem::PushButton, "&Skip", 129, 66, 50, 14},
                                 {2, DialogItem::PushButton, "Cancel", 190, 66, 50, 14},
                                 {kTextId, DialogItem::Static, "", 7, 7, 235, 51}}};
  return t;
}

const DialogTemplate* TestSource(int id) { return id == 201 ? &TestTemplate() : nullptr; }

// A dialog class in the platform's shape: `this` travels in lParam of WM_INITDIALOG and is
// kept in the dialog's user value.
class AnswerDialog {
 public:
  explicit AnswerDialog(std::string text) : text_(std::move(text)) {}
  intptr_t Show(HWND owner) {
    return DialogBoxParamA(owner, 201, &Proc, reinterpret_cast<intptr_t>(this));
  }
  int initCount = 0;

 private:
  static intptr_t Proc(DialogHandle dlg, unsigned msg, uintptr_t wParam, intptr_t lParam) {
    if (msg == WM_INITDIALOG) {
      SetWindowLongPtrA(dlg, DWLP_USER, lParam);
      auto* self = reinterpret_cast<AnswerDialog*>(lParam);
      ++self->initCount;
      SetWindowTextA(GetDlgItem(dlg, kTextId), self->text_.c_str());
      return 1;
    }
    if (msg != WM_COMMAND || GetWindowLongPtrA(dlg, DWLP_USER) == 0) return 0;
    // Replace, Replace All, Skip and Cancel end the dialog with 1 to 4.
    const unsigned buttons[] = {3, 4, 5, 2};
    for (intptr_t answer = 1; answer <= 4; ++answer) {
      if (LOWORD(wParam) != buttons[answer - 1]) continue;
      EndDialog(dlg, answer);
      return 1;
    }
    return 0;
  }
  std::string text_;
};

class UiTest : public ::testing::Test {
 protected:
  void SetUp() override { previous_ = SetTemplateSource(&TestSource); }
  void TearDown() override { SetTemplateSource(previous_); }
  TemplateSource previous_ = nullptr;
};

TEST_F(UiTest, OwnerWithoutHostShowsNothing) {
  auto host = std::make_shared<FixedAnswerHost>(3);
  HWND released = BindOwnerWindow(host);
  ReleaseOwnerWindow(released);
  struct Row {
    const char* name;
    HWND owner;
  };
  const Row rows[] = {{"null", nullptr},
                      {"released", released},
                      {"never bound", reinterpret_cast<HWND>(uintptr_t{0x8})}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    AnswerDialog dialog("x");
    EXPECT_EQ(dialog.Show(row.owner), 0);
    EXPECT_EQ(dialog.initCount, 0);
    EXPECT_EQ(MessageBoxA(row.owner, "t", "c", MB_OK), 0);
  }
  EXPECT_TRUE(host->Dialogs().empty());
  EXPECT_TRUE(host->Messages().empty());
  EXPECT_EQ(BindOwnerWindow(nullptr), nullptr);
}

TEST_F(UiTest, FixedAnswerPressesItsButton) {
  struct Row {
    int command;
    intptr_t result;
  };
  // The last row: a command the dialog ignores never ends it.
  const Row rows[] = {{3, 1}, {4, 2}, {5, 3}, {2, 4}, {99, -1}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.command);
    auto host = std::make_shared<FixedAnswerHost>(row.command);
    HWND owner = BindOwnerWindow(host);
    AnswerDialog dialog("PROG1.kdp already exists");
    EXPECT_EQ(dialog.Show(owner), row.result);
    EXPECT_EQ(dialog.initCount, 1);
    ASSERT_EQ(host->Dialogs().size(), 1u);
    const auto& shown = host->Dialogs()[0];
    EXPECT_EQ(shown.templateId, 201);
    EXPECT_EQ(shown.caption, "Duplicate File Found");
    EXPECT_EQ(shown.TextOf(kTextId), "PROG1.kdp already exists");
    EXPECT_EQ(shown.TextOf(4), "Replace &All");
    ReleaseOwnerWindow(owner);
  }
}

// No procedure or no template: -1; a dialog ended while it initialises is never shown.
TEST_F(UiTest, DialogFailures) {
  auto host = std::make_shared<FixedAnswerHost>(3);
  HWND owner = BindOwnerWindow(host);
  EXPECT_EQ(DialogBoxParamA(owner, 201, nullptr, 0), -1);
  auto proc = [](DialogHandle dlg, unsigned msg, uintptr_t, intptr_t) -> intptr_t {
    if (msg == WM_INITDIALOG) EndDialog(dlg, 42);
    if (msg == WM_COMMAND) EndDialog(dlg, 7);
    return 1;
  };
  EXPECT_EQ(DialogBoxParamA(owner, 201, proc, 0), 42);
  SetTemplateSource(nullptr);
  EXPECT_EQ(AnswerDialog("x").Show(owner), -1);
  EXPECT_TRUE(host->Dialogs().empty());
  ReleaseOwnerWindow(owner);
}

TEST_F(UiTest, MessageBoxRecordsAndAnswersOk) {
  auto host = std::make_shared<FixedAnswerHost>(2);
  HWND owner = BindOwnerWindow(host);
  EXPECT_EQ(
      MessageBoxA(owner, "Cannot add the file a.kfl", "Adding File", MB_OK | MB_ICONEXCLAMATION),
      IDOK);
  EXPECT_EQ(MessageBoxA(owner, nullptr, nullptr, MB_OK), IDOK);
  ASSERT_EQ(host->Messages().size(), 2u);
  EXPECT_EQ(host->Messages()[0].text, "Cannot add the file a.kfl");
  EXPECT_EQ(host->Messages()[0].caption, "Adding File");
  EXPECT_EQ(host->Messages()[0].type, 0x30u);
  EXPECT_EQ(host->Messages()[1].text, "");
  ReleaseOwnerWindow(owner);
}

// ---- The terminal prompt, on a pseudo-terminal ----------------------------------------------

struct Pty {
  Pty() {
    master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) return;
    const char* name = ptsname(master);
    if (name == nullptr) return;
    path = name;
    slave = open(name, O_RDWR | O_NOCTTY);
  }
  ~Pty() {
    if (slave >= 0) close(slave);
    if (master >= 0) close(master);
  }
  bool ok() const { return slave >= 0; }

  // Reads what the program shows until `marker` appears or two seconds pass.
  std::string ReadUntil(const std::string& marker) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (screen.find(marker) == std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
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

  int master = -1;
  int slave = -1;
  std::string path;
  std::string screen;
};

tcflag_t LocalFlags(int fd) {
  termios t{};
  tcgetattr(fd, &t);
  return t.c_lflag;
}

TEST_F(UiTest, TerminalPromptKeys) {
  struct Row {
    const char* name;
    std::string keys;
    intptr_t result;
  };
  const Row rows[] = {
      {"Enter is the default button", "\r", 1},
      {"Esc alone cancels", "\x1b", 4},
      {"Ctrl-C cancels", "\x03", 4},
      {"letter", "s", 3},
      {"letter, upper case", "A", 2},
      {"Alt+letter", "\x1b" "a", 2},
      {"unknown key beeps, then a letter", "xr", 1},
      {"cursor key is ignored", "\x1b[A\x1bOB\r", 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Pty pty;
    ASSERT_TRUE(pty.ok());
    tcflag_t before = LocalFlags(pty.slave);
    auto host = std::make_shared<TerminalHost>(pty.path);
    HWND owner = BindOwnerWindow(host);
    intptr_t result = 0;
    std::thread prompt([&] { result = AnswerDialog("PROG1.kdp exists").Show(owner); });
    std::string screen = pty.ReadUntil("Cancel");
    pty.Type(row.keys);
    prompt.join();
    screen = pty.ReadUntil("\n-> ");
    EXPECT_EQ(result, row.result);
    EXPECT_NE(screen.find("Duplicate File Found"), std::string::npos) << screen;
    EXPECT_NE(screen.find("PROG1.kdp exists"), std::string::npos) << screen;
    EXPECT_NE(screen.find("<[R]eplace>  Replace [A]ll  [S]kip  Cancel"), std::string::npos)
        << screen;
    EXPECT_EQ(LocalFlags(pty.slave), before);
    ReleaseOwnerWindow(owner);
  }
}

// A dialog procedure may show a message box on the same terminal before it ends.
TEST_F(UiTest, TerminalMessageBoxFromDialog) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  tcflag_t before = LocalFlags(pty.slave);
  HWND owner = BindOwnerWindow(std::make_shared<TerminalHost>(pty.path));
  auto proc = [](DialogHandle dlg, unsigned msg, uintptr_t wParam, intptr_t lParam) -> intptr_t {
    if (msg == WM_INITDIALOG) SetWindowLongPtrA(dlg, DWLP_USER, lParam);
    if (msg != WM_COMMAND) return 0;
    auto owner = reinterpret_cast<HWND>(GetWindowLongPtrA(dlg, DWLP_USER));
    EndDialog(dlg, MessageBoxA(owner, "inner", "Box", MB_OK) * 10 + LOWORD(wParam));
    return 1;
  };
  intptr_t result = 0;
  std::thread prompt(
      [&] { result = DialogBoxParamA(owner, 201, proc, reinterpret_cast<intptr_t>(owner)); });
  pty.ReadUntil("Cancel");
  pty.Type("s");
  pty.ReadUntil("<OK>");
  pty.Type("\r");
  prompt.join();
  EXPECT_EQ(result, 15);
  EXPECT_EQ(LocalFlags(pty.slave), before);
  ReleaseOwnerWindow(owner);
}

TEST_F(UiTest, TerminalMessageBox) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  tcflag_t before = LocalFlags(pty.slave);
  TerminalHost host(pty.path);
  int result = 0;
  // A control character in a name must not reach the terminal as such.
  std::thread box(
      [&] { result = host.MessageBox("Cannot add a\x1b[2J.kfl\nNo.", "Adding File", 0x30); });
  std::string screen = pty.ReadUntil("<OK>");
  pty.Type("q\r");
  box.join();
  EXPECT_EQ(result, IDOK);
  EXPECT_NE(screen.find("Adding File"), std::string::npos) << screen;
  EXPECT_NE(screen.find("Cannot add a?[2J.kfl\r\nNo."), std::string::npos) << screen;
  EXPECT_EQ(LocalFlags(pty.slave), before);
}

TEST_F(UiTest, TerminalMissing) {
  // A process without a controlling terminal cannot open /dev/tty.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    setsid();
    HWND owner = BindOwnerWindow(std::make_shared<TerminalHost>());
    intptr_t dialog = AnswerDialog("x").Show(owner);
    int box = MessageBoxA(owner, "t", "c", 0);
    _exit(dialog == -1 && box == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(UiTest, TerminalRestoredWhenKilled) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  tcflag_t before = LocalFlags(pty.slave);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    HWND owner = BindOwnerWindow(std::make_shared<TerminalHost>(pty.path));
    AnswerDialog("x").Show(owner);
    _exit(0);
  }
  pty.ReadUntil("Cancel");
  EXPECT_NE(LocalFlags(pty.slave) & ECHO, before & ECHO) << "raw mode while the prompt waits";
  kill(child, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_EQ(LocalFlags(pty.slave), before);
}

}  // namespace
}  // namespace qx::ui
