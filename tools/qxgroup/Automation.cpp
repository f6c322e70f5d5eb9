#include "qxgroup/Automation.h"

#include <cstdio>

#include "frame/Module.h"
#include "platform/codepage.h"
#include "platform/shell.h"

namespace qx::cli {

FileManagerSession::FileManagerSession() {
  IClassFactory* factory = nullptr;
  HRESULT hr = module::GetClassObject(CLSID_FileManager, IID_IClassFactory,
                                      reinterpret_cast<void**>(&factory));
  if (FAILED(hr) || factory == nullptr) {
    error_ = "cannot get the FileManager class object (" + HexStatus(hr) + ")";
    return;
  }
  hr = factory->CreateInstance(nullptr, IID_IGroupManager2, reinterpret_cast<void**>(&fm_));
  factory->Release();
  if (FAILED(hr) || fm_ == nullptr) {
    fm_ = nullptr;
    error_ = "cannot create a FileManager (" + HexStatus(hr) + ")";
  }
}

FileManagerSession::~FileManagerSession() {
  if (fm_ != nullptr) fm_->Release();
}

FileManagerSession& Session() {
  static FileManagerSession session;
  if (session.get() == nullptr) throw Failure{session.Error()};
  return session;
}

Bstr ToBstr(std::string_view utf8) { return Bstr(codepage::Utf8ToWide(utf8)); }

std::string FromBstr(BSTR text) {
  if (text == nullptr) return {};
  return codepage::WideToUtf8(std::u16string_view(text, SysStringLen(text)));
}

void CheckRepresentable(const std::string& utf8Path, std::string_view what) {
  if (codepage::AnsiToUtf8(codepage::Utf8ToAnsi(utf8Path)) != utf8Path)
    throw UsageError{std::string(what) + " cannot be written in the Windows-1252 character set: " +
                     utf8Path};
}

void CheckListItem(const std::string& utf8Item, std::string_view what) {
  if (utf8Item.empty()) throw UsageError{std::string(what) + " is empty"};
  if (utf8Item.find(',') != std::string::npos)
    throw UsageError{std::string(what) + " holds a comma, which cannot travel in a list: " +
                     utf8Item};
  CheckRepresentable(utf8Item, what);
}

std::string JoinList(const std::vector<std::string>& items, std::string_view what) {
  std::string joined;
  for (const std::string& item : items) {
    CheckListItem(item, what);
    if (!joined.empty()) joined.push_back(',');
    joined += item;
  }
  return joined;
}

std::string HexStatus(HRESULT hr) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08X", static_cast<unsigned>(hr));
  return buf;
}

ComponentError TakeError() {
  IErrorInfo* info = nullptr;
  if (GetErrorInfo(0, &info) != S_OK || info == nullptr) return {};
  Bstr description, code;
  info->GetDescription(description.receive());
  IQXErrorCode* coded = nullptr;
  if (info->QueryInterface(IID_IQXErrorCode, reinterpret_cast<void**>(&coded)) == S_OK) {
    coded->GetCode(code.receive());
    coded->Release();
  }
  info->Release();
  return {FromBstr(description.get()), FromBstr(code.get())};
}

void FailWithReason(const std::string& otherwise) {
  const ComponentError why = TakeError();
  if (why.description.empty()) throw Failure{otherwise};
  throw Failure{why.description, why.code.empty() ? "failed" : why.code};
}

std::vector<std::string> TakeFilesLeftOut() {
  const std::string description = TakeErrorDescription();
  std::vector<std::string> files;
  size_t start = description.find('\n');
  while (start != std::string::npos) {
    const size_t end = description.find('\n', start + 1);
    files.push_back(description.substr(start + 1, end == std::string::npos ? end : end - start - 1));
    start = end;
  }
  return files;
}

OwnerWindow::OwnerWindow(IGroupManager2* fm, std::shared_ptr<ui::Host> host) : fm_(fm) {
  if (host == nullptr) return;
  window_ = ui::BindOwnerWindow(std::move(host));
  fm_->put_ShowUI(window_);
}

OwnerWindow::~OwnerWindow() {
  if (window_ == nullptr) return;
  fm_->put_ShowUI(nullptr);
  ui::ReleaseOwnerWindow(window_);
}

NotificationEcho::NotificationEcho(bool enabled) {
  if (!enabled) return;
  token_ = shell::AddObserver([](const shell::ChangeEvent& e) {
    const char* what = e.eventId == shell::SHCNE_CREATE      ? "created"
                       : e.eventId == shell::SHCNE_UPDATEDIR ? "updated"
                                                             : "changed";
    std::fprintf(stderr, "qxgroup: shell notified: %s %s\n", what,
                 codepage::AnsiToUtf8(e.item1).c_str());
  });
}

NotificationEcho::~NotificationEcho() {
  if (token_ != 0) shell::RemoveObserver(token_);
}

}  // namespace qx::cli
