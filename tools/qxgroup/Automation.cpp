#include "qxgroup/Automation.h"

#include <cstdio>

#include "containers/ContainerFactory.h"
#include "formats/DeviceFamily.h"
#include "frame/Module.h"
#include "platform/codepage.h"
#include "platform/fs.h"
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

std::string WhyNotAGroup(const std::string& utf8Path) {
  const std::string path = codepage::Utf8ToAnsi(utf8Path);
  const uint32_t attrs = fs::GetAttributes(path);
  if (attrs == fs::kInvalidAttributes) return "no such file";
  if (attrs & fs::kAttrDirectory) return "is a folder";
  fs::File probe = fs::File::OpenRead(path);
  if (!probe.IsOpen()) return "cannot be read";
  if (probe.Size() == 0) return "empty file";
  probe.Close();

  const std::string sig = DetectFileSignature(path);
  if (sig == kSigUnknown) return "unknown signature";
  if (sig == kSigFlash) return "a flash file";
  const FamilyInfo* family = FindFamilyBySignature(sig);
  if (ContainerKindForSignature(sig) == ContainerKind::None) {
    if (family == nullptr) return "unknown signature";
    return "the " + std::string(family->name) + " device family has no group files";
  }
  ContainerFactory factory;
  if (factory.CreateContainer(path) != nullptr) return {};
  if (ConstructContainer(ContainerKindForSignature(sig), path, &factory) == nullptr)
    return sig == kSigZip ? "zip-based groups are not supported by this build"
                          : "old-style groups are not supported by this build";
  if (sig == kSigZip) return "not a readable zip archive";
  if (family != nullptr && std::string_view(family->name) == "HWL")
    return "HWL-family groups cannot be opened";
  return "a single-variable file, not a group";
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

std::string WhyNotAddable(const std::string& utf8Group, const std::string& utf8File) {
  const std::string groupSig = DetectFileSignature(codepage::Utf8ToAnsi(utf8Group));
  const std::string fileSig = DetectFileSignature(codepage::Utf8ToAnsi(utf8File));
  const ContainerKind kind = ContainerKindForSignature(groupSig);
  if (kind == ContainerKind::None || groupSig == kSigZip) return {};
  if (fileSig == kSigFlash) return "old-style groups cannot hold flash applications";
  if (fileSig == kSigUnknown) return "not a calculator file";
  if (AreFamiliesCompatible(groupSig, fileSig)) return {};
  const FamilyInfo* groupFamily = FindFamilyBySignature(groupSig);
  const FamilyInfo* fileFamily = FindFamilyBySignature(fileSig);
  if (groupFamily == nullptr) return {};
  const std::string fileWhat =
      fileFamily != nullptr ? "a " + std::string(fileFamily->name) + "-family file"
                            : "a file of an unknown device family";
  return fileWhat + "; the group holds " + std::string(groupFamily->name) + "-family files";
}

intptr_t RecordingHost::RunModal(const ui::DialogTemplate& tmpl, ui::DialogState& state) {
  const intptr_t result = inner_->RunModal(tmpl, state);
  std::string text;
  for (const ui::DialogControl& c : state.Controls())
    if (c.kind == ui::DialogItem::Static) text += c.text;
  answers_.push_back({std::move(text), state.Ended() ? state.Result() : result});
  return result;
}

int RecordingHost::MessageBox(const std::string& text, const std::string& caption,
                              unsigned type) {
  return inner_->MessageBox(text, caption, type);
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
