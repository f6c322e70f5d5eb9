// User interface stand-in: modal dialogs from templates and message boxes, shown over an
// owner window. An owner window is an opaque HWND bound to a Host, which decides how a dialog
// is really shown (a prompt on the terminal, a fixed answer for scripts and tests).
//
// Dialog code is written in the platform's shape: a dialog procedure receives WM_INITDIALOG
// (lParam = the DialogBoxParamA parameter) and WM_COMMAND (LOWORD(wParam) = control id),
// and calls EndDialog, GetDlgItem, SetWindowTextA, Set/GetWindowLongPtrA(DWLP_USER):
//
//   intptr_t Proc(DialogHandle dlg, unsigned msg, uintptr_t wParam, intptr_t lParam) {
//     if (msg == WM_INITDIALOG) { SetWindowTextA(GetDlgItem(dlg, 201), "text"); return 1; }
//     if (msg == WM_COMMAND && LOWORD(wParam) == IDCANCEL) { EndDialog(dlg, 4); return 1; }
//     return 0;
//   }
//   intptr_t answer = DialogBoxParamA(owner, 201, Proc, 0);
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qxgroupmgr/com.h"

namespace qx::ui {

// ---- Constants, with the platform's values --------------------------------------------------

inline constexpr unsigned WM_INITDIALOG = 0x0110;
inline constexpr unsigned WM_COMMAND = 0x0111;
inline constexpr unsigned BN_CLICKED = 0;
inline constexpr int IDOK = 1;
inline constexpr int IDCANCEL = 2;
inline constexpr unsigned MB_OK = 0x00;
inline constexpr unsigned MB_ICONEXCLAMATION = 0x30;
// Index of the dialog's user value for Set/GetWindowLongPtrA (its 64-bit platform value).
inline constexpr int DWLP_USER = 2 * static_cast<int>(sizeof(intptr_t));

constexpr unsigned LOWORD(uintptr_t value) { return static_cast<unsigned>(value & 0xFFFFu); }
constexpr unsigned HIWORD(uintptr_t value) {
  return static_cast<unsigned>((value >> 16) & 0xFFFFu);
}
constexpr uintptr_t MAKEWPARAM(unsigned low, unsigned high) {
  return static_cast<uintptr_t>((low & 0xFFFFu) | ((high & 0xFFFFu) << 16));
}

// ---- Templates ------------------------------------------------------------------------------

// Positions and sizes are in dialog units. A "&" in a button text marks the next character as
// the button's mnemonic ("&&" is a literal "&").
struct DialogItem {
  enum Kind { DefPushButton, PushButton, Static };
  int id = 0;
  Kind kind = Static;
  std::string text;
  int x = 0, y = 0, cx = 0, cy = 0;
};

struct DialogTemplate {
  int id = 0;
  std::string caption;
  int x = 0, y = 0, cx = 0, cy = 0;
  std::string font;
  int pointSize = 0;
  std::vector<DialogItem> items;
};

// Where DialogBoxParamA finds templates by id: a function that returns the template or null.
// The resources register theirs when the program starts, so this module never depends on them.
using TemplateSource = const DialogTemplate* (*)(int id);
// Replaces the source and returns the one before; null removes it (every template is then
// unknown).
TemplateSource SetTemplateSource(TemplateSource source);
// The template with that id from the registered source, or null.
const DialogTemplate* FindTemplate(int id);

// The mnemonic character of a button text ("Replace &All" -> 'A'), or 0 when it has none.
char Mnemonic(const std::string& text);
// The text without its mnemonic markers ("Replace &All" -> "Replace All", "a&&b" -> "a&b").
std::string StripMnemonic(const std::string& text);

// ---- A running dialog -----------------------------------------------------------------------

class DialogState;

// One control of a running dialog: its template entry and its current text.
struct DialogControl {
  DialogState* dialog = nullptr;
  int id = 0;
  DialogItem::Kind kind = DialogItem::Static;
  std::string text;
};

using DialogHandle = DialogState*;
using ControlHandle = DialogControl*;
using DialogProc = intptr_t (*)(DialogHandle dlg, unsigned msg, uintptr_t wParam, intptr_t lParam);

// The state of one modal dialog while it runs: the controls made from the template, the dialog
// procedure and whether EndDialog has been called. A Host drives it: Initialize() once, then
// Command(id) for each button the user presses, until Ended().
class DialogState {
 public:
  DialogState(const DialogTemplate& tmpl, DialogProc proc, intptr_t param);
  DialogState(const DialogState&) = delete;
  DialogState& operator=(const DialogState&) = delete;

  // Sends WM_INITDIALOG with the parameter. Does nothing the second time.
  void Initialize();
  // Sends WM_COMMAND for a button click on the control (BN_CLICKED, the control's handle as
  // lParam, null for an id without a control). Ignored before Initialize and after the end.
  void Command(int controlId);

  bool Ended() const { return ended_; }
  // The value given to EndDialog; 0 before the end.
  intptr_t Result() const { return result_; }

  const DialogTemplate& Template() const { return template_; }
  const std::string& Caption() const { return caption_; }
  // Controls in template order.
  const std::vector<DialogControl>& Controls() const { return controls_; }
  // The control with that id, or null.
  DialogControl* Control(int id);
  const DialogControl* Control(int id) const;
  // The id a press of Enter gives: the first default push button, else IDOK.
  int DefaultCommand() const;
  // The button whose mnemonic is that letter (case-insensitive), or 0.
  int CommandForMnemonic(char letter) const;

  // What the platform calls do on this dialog.
  void End(intptr_t result);
  void SetCaption(std::string text) { caption_ = std::move(text); }
  intptr_t UserData() const { return userData_; }
  void SetUserData(intptr_t value) { userData_ = value; }

 private:
  const DialogTemplate& template_;
  DialogProc proc_;
  intptr_t param_;
  std::string caption_;
  std::vector<DialogControl> controls_;
  intptr_t userData_ = 0;
  intptr_t result_ = 0;
  bool initialized_ = false;
  bool ended_ = false;
};

// ---- Hosts ----------------------------------------------------------------------------------

class Host {
 public:
  virtual ~Host() = default;
  // Runs the dialog modally: Initialize, then commands until it has ended. Returns the
  // EndDialog result, or -1 when the dialog cannot be shown (DialogBoxParamA returns the
  // EndDialog result whenever the dialog has ended, whatever this returns).
  virtual intptr_t RunModal(const DialogTemplate& tmpl, DialogState& state) = 0;
  // Shows a message box and waits until it is closed. Returns the id of the button that
  // closed it (IDOK), or 0 when it cannot be shown.
  virtual int MessageBox(const std::string& text, const std::string& caption, unsigned type) = 0;
};

// Answers every dialog by pressing one control (after WM_INITDIALOG) and every message box
// with OK, and records what was shown, for scripts (`--on-duplicate=skip`) and tests.
// Not meant to be shared between threads.
class FixedAnswerHost : public Host {
 public:
  struct ShownDialog {
    int templateId = 0;
    std::string caption;
    // Control id and text, in template order, as they were after WM_INITDIALOG.
    std::vector<std::pair<int, std::string>> texts;
    // The text of the control with that id, or "" when there is none.
    std::string TextOf(int controlId) const;
  };
  struct ShownMessage {
    std::string text;
    std::string caption;
    unsigned type = 0;
  };

  explicit FixedAnswerHost(int commandId) : commandId_(commandId) {}

  // A dialog that does not end on the command (a procedure that ignores it) gives -1, as a
  // real modal loop would otherwise never return.
  intptr_t RunModal(const DialogTemplate& tmpl, DialogState& state) override;
  int MessageBox(const std::string& text, const std::string& caption, unsigned type) override;

  void SetCommand(int commandId) { commandId_ = commandId; }
  int Command() const { return commandId_; }
  const std::vector<ShownDialog>& Dialogs() const { return dialogs_; }
  const std::vector<ShownMessage>& Messages() const { return messages_; }
  void Clear();

 private:
  int commandId_;
  std::vector<ShownDialog> dialogs_;
  std::vector<ShownMessage> messages_;
};

// A real modal prompt on the controlling terminal (/dev/tty, never stdin/stdout, so it works
// while those are redirected). The dialog shows its caption, its static texts and its buttons
// in template order with their mnemonics, the default one in angle brackets:
//   <[R]eplace>  Replace [A]ll  [S]kip  Cancel
// Keys (the terminal is in raw mode meanwhile, restored on every way out, also when SIGINT,
// SIGTERM, SIGHUP or SIGQUIT arrive): Enter = the default button; Esc or Ctrl-C = Cancel (2);
// a letter, or Alt+letter (Esc then the letter) = the button with that mnemonic,
// case-insensitive; anything else beeps. If the terminal goes away, or a signal arrives whose
// handler returns, the dialog gets Cancel (2).
// Message boxes show caption and text and wait for Enter (or Esc).
// Text is shown as UTF-8; control characters in it are shown as '?'.
// Without a terminal (opening the device fails) RunModal returns -1 and MessageBox 0.
class TerminalHost : public Host {
 public:
  explicit TerminalHost(std::string device = "/dev/tty") : device_(std::move(device)) {}
  intptr_t RunModal(const DialogTemplate& tmpl, DialogState& state) override;
  int MessageBox(const std::string& text, const std::string& caption, unsigned type) override;

 private:
  std::string device_;
};

// ---- Owner windows ----------------------------------------------------------------------------

// Makes a new owner window handle for the host. Handles are never reused, so a released one
// stays invalid. Null when `host` is null.
HWND BindOwnerWindow(std::shared_ptr<Host> host);
// Unbinds the handle; unknown handles are ignored. A dialog already running keeps its host.
void ReleaseOwnerWindow(HWND owner);
// The host bound to the handle, or null.
std::shared_ptr<Host> HostOf(HWND owner);

// ---- Platform calls -------------------------------------------------------------------------

// Runs the dialog with that template modally over the owner. Returns 0 when the owner is null
// or not bound, -1 when the template is unknown or the host cannot show it, else the value
// the dialog procedure gave EndDialog.
intptr_t DialogBoxParamA(HWND owner, int templateId, DialogProc proc, intptr_t param);
// Ends the dialog with that result once the procedure returns. FALSE for a null handle.
BOOL EndDialog(DialogHandle dlg, intptr_t result);
// The control with that id, or null.
ControlHandle GetDlgItem(DialogHandle dlg, int id);
// Sets a control's text (null text = ""). FALSE for a null handle.
BOOL SetWindowTextA(ControlHandle control, const char* text);
// Sets the dialog's caption. FALSE for a null handle.
BOOL SetWindowTextA(DialogHandle dlg, const char* text);
// The dialog's user value (index DWLP_USER); other indices are not stored and give 0.
// SetWindowLongPtrA returns the previous value.
intptr_t SetWindowLongPtrA(DialogHandle dlg, int index, intptr_t value);
intptr_t GetWindowLongPtrA(DialogHandle dlg, int index);

// Shows a message box over the owner (null text or caption = ""). IDOK when closed, 0 when
// the owner is null or not bound or the host cannot show it.
int MessageBoxA(HWND owner, const char* text, const char* caption, unsigned type);

}  // namespace qx::ui
