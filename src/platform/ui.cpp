#include "platform/ui.h"

#include <atomic>
#include <mutex>
#include <unordered_map>

#include "platform/codepage.h"

namespace qx::ui {

// ---- Templates --------------------------------------------------------------------------------

namespace {
std::atomic<TemplateSource> g_templateSource{nullptr};
}  // namespace

TemplateSource SetTemplateSource(TemplateSource source) {
  return g_templateSource.exchange(source);
}

const DialogTemplate* FindTemplate(int id) {
  TemplateSource source = g_templateSource.load();
  return source != nullptr ? source(id) : nullptr;
}

char Mnemonic(const std::string& text) {
  for (size_t i = 0; i + 1 < text.size(); ++i) {
    if (text[i] != '&') continue;
    if (text[i + 1] != '&') return text[i + 1];
    ++i;  // "&&" is a literal ampersand
  }
  return 0;
}

std::string StripMnemonic(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '&' && i + 1 < text.size()) ++i;
    out += text[i];
  }
  return out;
}

// ---- DialogState ------------------------------------------------------------------------------

DialogState::DialogState(const DialogTemplate& tmpl, DialogProc proc, intptr_t param)
    : template_(tmpl), proc_(proc), param_(param), caption_(tmpl.caption) {
  // Sized once: controls are handed out by address and must not move.
  controls_.reserve(tmpl.items.size());
  for (const DialogItem& item : tmpl.items)
    controls_.push_back({this, item.id, item.kind, item.text});
}

void DialogState::Initialize() {
  if (initialized_) return;
  initialized_ = true;
  // wParam names the control that gets the focus first: the default button.
  DialogControl* focus = nullptr;
  for (DialogControl& c : controls_)
    if (c.kind == DialogItem::DefPushButton) {
      focus = &c;
      break;
    }
  if (proc_ != nullptr) proc_(this, WM_INITDIALOG, reinterpret_cast<uintptr_t>(focus), param_);
}

void DialogState::Command(int controlId) {
  if (!initialized_ || ended_ || proc_ == nullptr) return;
  proc_(this, WM_COMMAND, MAKEWPARAM(static_cast<unsigned>(controlId), BN_CLICKED),
        reinterpret_cast<intptr_t>(Control(controlId)));
}

DialogControl* DialogState::Control(int id) {
  for (DialogControl& c : controls_)
    if (c.id == id) return &c;
  return nullptr;
}

const DialogControl* DialogState::Control(int id) const {
  for (const DialogControl& c : controls_)
    if (c.id == id) return &c;
  return nullptr;
}

int DialogState::DefaultCommand() const {
  for (const DialogControl& c : controls_)
    if (c.kind == DialogItem::DefPushButton) return c.id;
  return IDOK;
}

int DialogState::CommandForMnemonic(char letter) const {
  if (letter == 0) return 0;
  for (const DialogControl& c : controls_) {
    if (c.kind == DialogItem::Static) continue;
    if (codepage::Upper1252(Mnemonic(c.text)) == codepage::Upper1252(letter)) return c.id;
  }
  return 0;
}

void DialogState::End(intptr_t result) {
  if (ended_) return;  // the first EndDialog wins
  ended_ = true;
  result_ = result;
}

// ---- FixedAnswerHost --------------------------------------------------------------------------

std::string FixedAnswerHost::ShownDialog::TextOf(int controlId) const {
  for (const auto& [id, text] : texts)
    if (id == controlId) return text;
  return {};
}

intptr_t FixedAnswerHost::RunModal(const DialogTemplate& tmpl, DialogState& state) {
  state.Initialize();
  if (state.Ended()) return state.Result();  // ended during initialisation: never shown
  ShownDialog shown;
  shown.templateId = tmpl.id;
  shown.caption = state.Caption();
  for (const DialogControl& c : state.Controls()) shown.texts.emplace_back(c.id, c.text);
  dialogs_.push_back(std::move(shown));
  state.Command(commandId_);
  return state.Ended() ? state.Result() : -1;
}

int FixedAnswerHost::MessageBox(const std::string& text, const std::string& caption,
                                unsigned type) {
  messages_.push_back({text, caption, type});
  return IDOK;
}

void FixedAnswerHost::Clear() {
  dialogs_.clear();
  messages_.clear();
}

// ---- Owner windows ----------------------------------------------------------------------------

namespace {

struct OwnerTable {
  std::mutex mutex;
  // Handle values are multiples of 16 from here on, never reused.
  uintptr_t next = 0x10000;
  std::unordered_map<uintptr_t, std::shared_ptr<Host>> hosts;
};

OwnerTable& Owners() {
  static OwnerTable table;
  return table;
}

}  // namespace

HWND BindOwnerWindow(std::shared_ptr<Host> host) {
  if (!host) return nullptr;
  OwnerTable& t = Owners();
  std::lock_guard<std::mutex> lock(t.mutex);
  uintptr_t value = t.next;
  t.next += 16;
  t.hosts.emplace(value, std::move(host));
  return reinterpret_cast<HWND>(value);
}

void ReleaseOwnerWindow(HWND owner) {
  OwnerTable& t = Owners();
  std::lock_guard<std::mutex> lock(t.mutex);
  t.hosts.erase(reinterpret_cast<uintptr_t>(owner));
}

std::shared_ptr<Host> HostOf(HWND owner) {
  if (owner == nullptr) return nullptr;
  OwnerTable& t = Owners();
  std::lock_guard<std::mutex> lock(t.mutex);
  auto it = t.hosts.find(reinterpret_cast<uintptr_t>(owner));
  return it != t.hosts.end() ? it->second : nullptr;
}

// ---- Platform calls ---------------------------------------------------------------------------

intptr_t DialogBoxParamA(HWND owner, int templateId, DialogProc proc, intptr_t param) {
  try {
    std::shared_ptr<Host> host = HostOf(owner);
    if (!host) return 0;
    const DialogTemplate* tmpl = FindTemplate(templateId);
    if (tmpl == nullptr || proc == nullptr) return -1;
    DialogState state(*tmpl, proc, param);
    host->RunModal(*tmpl, state);
    return state.Ended() ? state.Result() : -1;
  } catch (...) {
    return -1;
  }
}

BOOL EndDialog(DialogHandle dlg, intptr_t result) {
  if (dlg == nullptr) return 0;
  dlg->End(result);
  return 1;
}

ControlHandle GetDlgItem(DialogHandle dlg, int id) {
  return dlg != nullptr ? dlg->Control(id) : nullptr;
}

BOOL SetWindowTextA(ControlHandle control, const char* text) {
  if (control == nullptr) return 0;
  control->text = text != nullptr ? text : "";
  return 1;
}

BOOL SetWindowTextA(DialogHandle dlg, const char* text) {
  if (dlg == nullptr) return 0;
  dlg->SetCaption(text != nullptr ? text : "");
  return 1;
}

intptr_t SetWindowLongPtrA(DialogHandle dlg, int index, intptr_t value) {
  if (dlg == nullptr || index != DWLP_USER) return 0;
  intptr_t previous = dlg->UserData();
  dlg->SetUserData(value);
  return previous;
}

intptr_t GetWindowLongPtrA(DialogHandle dlg, int index) {
  return (dlg != nullptr && index == DWLP_USER) ? dlg->UserData() : 0;
}

int MessageBoxA(HWND owner, const char* text, const char* caption, unsigned type) {
  try {
    std::shared_ptr<Host> host = HostOf(owner);
    if (!host) return 0;
    return host->MessageBox(text != nullptr ? text : "", caption != nullptr ? caption : "", type);
  } catch (...) {
    return 0;
  }
}

}  // namespace qx::ui
