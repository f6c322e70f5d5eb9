#include "frame/FileManager.h"

#include <algorithm>
#include <new>

#include "containers/DuplicateFileDialog.h"
#include "formats/DeviceFamily.h"
#include "formats/FlashFile.h"
#include "frame/Module.h"
#include "frame/TypeLibrary.h"
#include "platform/codepage.h"
#include "platform/fs.h"
#include "platform/TempFolder.h"
#include "platform/shell.h"
#include "platform/ui.h"
#include "resources/Resources.h"

namespace qx {

namespace {

constexpr char kMemberSeparator = '\\';
constexpr char kPathSeparator = '/';
constexpr HRESULT kFilesLeftOut = 2;  // AddFiles: success, but not every file went in

// A caller's string in 1252; null is the empty string. Conversion stops at the first NUL, as the
// platform's converter does for NUL-terminated input.
std::string ToAnsi(BSTR text) {
  if (text == nullptr) return {};
  return codepage::WideToAnsi(std::u16string_view(text));
}

// A new automation string for the caller; it owns it.
BSTR ToBstr(std::string_view ansi) {
  const std::u16string wide = codepage::AnsiToWide(ansi);
  return SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
}

void NotifyShell(LONG eventId, const std::string& groupPath) {
  shell::SHChangeNotify(eventId, shell::SHCNF_PATHA | shell::SHCNF_FLUSHNOWAIT, groupPath.c_str(),
                        nullptr);
}

// Runs a method body; exceptions from the standard library end the call as a failure instead of
// crossing the interface.
template <class Body>
HRESULT Guarded(Body&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

std::string LastComponent(std::string_view path, char separator) {
  const size_t cut = path.find_last_of(separator);
  return std::string(cut == std::string_view::npos ? path : path.substr(cut + 1));
}

// The early-bound call behind each dispid: the only member-specific part of dispatch; checking
// and converting the arguments is the type library's.
HRESULT CallMember(void* object, const typelib::Member& member, typelib::Argument* a) {
  auto* fm = static_cast<IGroupManager2*>(object);
  switch (member.dispid) {
    case 1: return fm->CreateGrpFile(a[0].str, a[1].str);
    case 2: return fm->ExpandGrpFile(a[0].str, a[1].str);
    case 3: return fm->ExtractFile(a[0].str, a[1].str, a[2].str);
    case 4: return fm->AddFiles(a[0].str, a[1].str, a[2].str);
    case 5: return fm->ReadContents(a[0].str, a[1].strOut);
    case 6: return fm->DeleteFile(a[0].str, a[1].str);
    case 7: return fm->ExpandFlashFile(a[0].str, a[1].str, a[2].strOut);
    case 8: return fm->UseQXAscii(a[0].value);
    case 9: return fm->DeleteFiles(a[0].str, a[1].str);
    case 51: return fm->GetFile(a[0].str, a[1].str, a[2].str);
    case 52: return fm->ReadContentsXml(a[0].str, a[1].value, a[2].str, a[3].strOut);
    case 53: return fm->get_IsGroup(a[0].str, a[1].valueOut);
    case 54: return fm->SplitPath(a[0].strOut, a[1].strOut);
    case 55: return fm->put_ShowUI(a[0].window);
    case 56: return fm->get_DoesPathExist(a[0].str, a[1].valueOut);
    default: return DISP_E_MEMBERNOTFOUND;
  }
}

const typelib::Interface& DispatchInterface() {
  static const typelib::Interface* itf = typelib::FindInterface(IID_IGroupManager2);
  return *itf;
}

}  // namespace

// ---- Helpers ---------------------------------------------------------------------------------------

StringList SplitList(std::string_view text) {
  StringList list;
  size_t start = 0;
  for (size_t comma = text.find(','); comma != std::string_view::npos;
       comma = text.find(',', start)) {
    list.emplace_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  if (start < text.size()) list.emplace_back(text.substr(start));
  // Bytewise on unsigned bytes, shorter first on a common prefix; equal items keep text order.
  std::stable_sort(list.begin(), list.end(), [](const std::string& a, const std::string& b) {
    return std::lexicographical_compare(
        a.begin(), a.end(), b.begin(), b.end(),
        [](char x, char y) { return static_cast<unsigned char>(x) < static_cast<unsigned char>(y); });
  });
  return list;
}

std::string CompleteFolder(std::string folder, char separator) {
  if (!folder.empty() && folder.back() != separator) folder += separator;
  return folder;
}

std::string MemberFolder(std::string folder) {
  std::replace(folder.begin(), folder.end(), kPathSeparator, kMemberSeparator);
  return CompleteFolder(std::move(folder), kMemberSeparator);
}

std::string UpperExtension(std::string_view path) {
  const std::string name = LastComponent(path, kPathSeparator);
  const size_t dot = name.find_last_of('.');
  if (dot == std::string::npos) return {};
  std::string ext = name.substr(dot);
  for (char& c : ext)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return ext;
}

bool PathPrefixExists(const std::string& path) {
  fs::FindData found;
  if (fs::Finder().First(path, found)) return true;
  // A folder that can be listed counts too: "p/*" finds at least "." ("" stands for the root).
  return fs::Finder().First(path + kPathSeparator + '*', found);
}

GroupPathParts SplitGroupPath(const std::string& path) {
  std::string prev;
  std::string cur;
  size_t start = 0;
  // A network path's server name alone is never tested: the first prefix is the share.
  if (path.size() >= 2 && path[0] == kPathSeparator && path[1] == kPathSeparator) {
    const size_t k = path.find(kPathSeparator, 2);
    cur = path.substr(0, k);
    start = k == std::string::npos ? path.size() : k + 1;
  }
  GroupPathParts parts;
  for (;;) {
    size_t k = path.find(kPathSeparator, start);
    if (k == std::string::npos) k = path.size();
    prev = std::move(cur);
    cur = path.substr(0, k);
    if (!PathPrefixExists(cur)) {
      parts.group = prev;
      const size_t rest = path.find_first_not_of(kPathSeparator, prev.size());
      if (rest != std::string::npos) parts.inGroup = path.substr(rest);
      std::replace(parts.inGroup.begin(), parts.inGroup.end(), kPathSeparator, kMemberSeparator);
      return parts;
    }
    if (k == path.size()) {
      parts.group = path;
      return parts;
    }
    start = k + 1;
  }
}

std::string GetTempGroupFolder() {
  // Private to the user and checked before use; empty (and the next step fails) when unfit.
  return fs::PrivateTempFolder();
}

// ---- Object life -------------------------------------------------------------------------------------

FileManager::FileManager(IUnknown* outer)
    : inner_(this), controlling_(outer != nullptr ? outer : &inner_) {
  module::Lock();
}

FileManager::~FileManager() { module::Unlock(); }

HRESULT FileManager::CreateInstance(IUnknown* outer, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  if (outer != nullptr && riid != IID_IUnknown) return CLASS_E_NOAGGREGATION;
  auto* object = new FileManager(outer);
  // Hold a reference while asking, so a refused interface destroys the new object.
  object->inner_.AddRef();
  const HRESULT hr = object->inner_.QueryInterface(riid, ppv);
  object->inner_.Release();
  return hr;
}

HRESULT FileManager::Inner::QueryInterface(REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  if (riid == IID_IUnknown) {
    *ppv = static_cast<IUnknown*>(this);
  } else if (riid == IID_IDispatch || riid == IID_IFileManager || riid == IID_IGroupManager2) {
    *ppv = static_cast<IGroupManager2*>(self);
  } else {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  static_cast<IUnknown*>(*ppv)->AddRef();
  return S_OK;
}

ULONG FileManager::Inner::AddRef() { return self->refs_.Increment(); }

ULONG FileManager::Inner::Release() {
  const ULONG count = self->refs_.Decrement();
  if (count == 0) delete self;
  return count;
}

HRESULT FileManager::QueryInterface(REFIID riid, void** ppv) {
  return controlling_->QueryInterface(riid, ppv);
}
ULONG FileManager::AddRef() { return controlling_->AddRef(); }
ULONG FileManager::Release() { return controlling_->Release(); }

// ---- IDispatch ---------------------------------------------------------------------------------------

HRESULT FileManager::GetTypeInfoCount(UINT* pctinfo) {
  if (pctinfo == nullptr) return E_POINTER;
  *pctinfo = 0;
  return S_OK;
}

HRESULT FileManager::GetTypeInfo(UINT, LCID, ITypeInfo** ppTInfo) {
  if (ppTInfo != nullptr) *ppTInfo = nullptr;
  return DISP_E_BADINDEX;  // no type information objects are served
}

HRESULT FileManager::GetIDsOfNames(REFIID riid, LPOLESTR* rgszNames, UINT cNames, LCID,
                                   DISPID* rgDispId) {
  if (riid != IID_NULL) return DISP_E_UNKNOWNINTERFACE;
  return typelib::GetIDsOfNames(DispatchInterface(), rgszNames, cNames, rgDispId);
}

HRESULT FileManager::Invoke(DISPID dispIdMember, REFIID riid, LCID, WORD wFlags,
                            DISPPARAMS* pDispParams, VARIANT* pVarResult, EXCEPINFO*,
                            UINT* puArgErr) {
  return Guarded([&] {
    return typelib::Invoke(DispatchInterface(), static_cast<IGroupManager2*>(this), &CallMember,
                           dispIdMember, riid, wFlags, pDispParams, pVarResult, puArgErr);
  });
}

// ---- Building groups ---------------------------------------------------------------------------------

std::unique_ptr<GroupContainer> FileManager::ConstructForCreate(ContainerKind kind,
                                                                const std::string& path) {
  return ConstructContainer(kind, path, this);
}

HRESULT FileManager::CreateGrpFile(BSTR grpfile, BSTR newfiles) {
  return Guarded([&] {
    const std::string group = ToAnsi(grpfile);
    const bool existed = fs::Exists(group);
    const StringList files = SplitList(ToAnsi(newfiles));
    const std::string ext = UpperExtension(group);
    const std::string signature = files.empty() ? std::string(kSigUnknown) : DetectFileSignature(files[0]);
    // The extension forces a zip-based group; otherwise the first file's family decides, and
    // anything no old-style class takes goes into a zip-based group too.
    ContainerKind kind = ContainerKind::Zip;
    if (ext != ".QXG" && ext != ".QXP") {
      kind = ContainerKindForSignature(signature);
      if (kind == ContainerKind::None) kind = ContainerKind::Zip;
    }
    std::unique_ptr<GroupContainer> container = ConstructForCreate(kind, group);
    if (container == nullptr || container->CreateWithMembers(files, "") == 0) return E_FAIL;
    NotifyShell(existed ? shell::SHCNE_UPDATEDIR : shell::SHCNE_CREATE, group);
    return S_OK;
  });
}

HRESULT FileManager::AddFiles(BSTR grpfile, BSTR indfiles, BSTR bdestFolder) {
  return Guarded([&] {
    const std::string group = ToAnsi(grpfile);
    const std::string destFolder = MemberFolder(ToAnsi(bdestFolder));
    std::unique_ptr<GroupContainer> container = CreateContainer(group);
    if (container == nullptr) return E_FAIL;
    const StringList files = SplitList(ToAnsi(indfiles));
    filesSkipped_ = 0;
    int32_t promptState = 0;
    if (container->AddMembers(files, destFolder, &promptState, &FileManager::AddPrompt, this) == 0)
      return E_FAIL;
    if (filesSkipped_ != 0) return kFilesLeftOut;
    NotifyShell(shell::SHCNE_UPDATEDIR, group);
    return S_OK;
  });
}

PromptResult FileManager::AddPrompt(const std::string& filePath, PromptReason reason,
                                    GroupContainer*, void* context) {
  return static_cast<FileManager*>(context)->OnAddPrompt(filePath, reason);
}

PromptResult FileManager::OnAddPrompt(const std::string& filePath, PromptReason reason) {
  const std::string fileName = LastComponent(filePath, kPathSeparator);
  if (reason == PromptRefused) {
    if (owner_ != nullptr) {
      const int textId =
          DetectFileSignature(filePath) == kSigFlash ? IDS_NO_FLASHAPPS : IDS_OTHER_DEVICE_TYPE;
      const std::string text = FormatStringResource(textId, fileName);
      const char* caption = LoadStringResource(IDS_ADDING_FILE);
      ui::MessageBoxA(owner_, text.c_str(), caption, ui::MB_OK | ui::MB_ICONEXCLAMATION);
    }
    filesSkipped_ = 1;
    return PromptCancel;
  }
  // A duplicate without an owner window is replaced without a question.
  if (owner_ == nullptr) return PromptReplace;
  DuplicateFileDialog dialog(fileName);
  const intptr_t answer = dialog.DoModal(owner_);
  if (answer == PromptSkip || answer == PromptCancel) filesSkipped_ = 1;
  return static_cast<PromptResult>(answer);
}

HRESULT FileManager::DeleteFiles(BSTR grpfile, BSTR indfiles) {
  return Guarded([&] {
    const std::string group = ToAnsi(grpfile);
    std::unique_ptr<GroupContainer> container = CreateContainer(group);
    if (container == nullptr) return E_FAIL;
    if (container->DeleteMembers(SplitList(ToAnsi(indfiles))) == 0) return E_FAIL;
    NotifyShell(shell::SHCNE_UPDATEDIR, group);
    return S_OK;
  });
}

HRESULT FileManager::DeleteFile(BSTR grpfile, BSTR indfile) {
  // Through the object's own interface, so a name with a comma is two names.
  return static_cast<IGroupManager2*>(this)->DeleteFiles(grpfile, indfile);
}

// ---- Reading groups ----------------------------------------------------------------------------------

HRESULT FileManager::TakeMember(BSTR grpfile, BSTR infile, BSTR destdir, bool remove) {
  return Guarded([&] {
    const std::string group = ToAnsi(grpfile);
    const std::string member = ToAnsi(infile);
    const std::string destFolder = CompleteFolder(ToAnsi(destdir), kPathSeparator);
    std::unique_ptr<GroupContainer> container = CreateContainer(group);
    if (container == nullptr) return E_FAIL;
    if (container->ExtractMember(member, destFolder) == 0) return E_FAIL;
    if (remove && container->DeleteMembers(StringList{member}) == 0) return E_FAIL;
    return S_OK;
  });
}

HRESULT FileManager::GetFile(BSTR grpfile, BSTR infile, BSTR destdir) {
  return TakeMember(grpfile, infile, destdir, false);
}

HRESULT FileManager::ExtractFile(BSTR grpfile, BSTR infile, BSTR destdir) {
  return TakeMember(grpfile, infile, destdir, true);
}

HRESULT FileManager::ExpandGrpFile(BSTR grpfile, BSTR destdir) {
  return Guarded([&] {
    const std::string destFolder = CompleteFolder(ToAnsi(destdir), kPathSeparator);
    std::unique_ptr<GroupContainer> container = CreateContainer(ToAnsi(grpfile));
    if (container == nullptr) return E_FAIL;
    return container->ExtractAllMembers(destFolder) != 0 ? S_OK : E_FAIL;
  });
}

HRESULT FileManager::ReadContents(BSTR grpfile, BSTR* indfiles) {
  if (indfiles == nullptr) return E_POINTER;
  return Guarded([&] {
    std::unique_ptr<GroupContainer> container = CreateContainer(ToAnsi(grpfile));
    if (container == nullptr) return E_FAIL;
    StringList names;
    if (container->ListMembers(names) == 0) return E_FAIL;
    std::string text;
    for (const std::string& name : names) {
      text += name;
      text += ',';
    }
    if (!text.empty()) text.pop_back();
    BSTR result = ToBstr(text);
    if (result == nullptr && !text.empty()) return E_OUTOFMEMORY;
    *indfiles = result;
    return S_OK;
  });
}

HRESULT FileManager::ReadContentsXml(BSTR grpfile, LONG bIncludeMetaInfo,
                                     BSTR sIncludeSubGrpsPatt, BSTR* pxmlDir) {
  if (pxmlDir == nullptr) return E_POINTER;
  return Guarded([&] {
    std::unique_ptr<GroupContainer> container = CreateContainer(ToAnsi(grpfile));
    if (container == nullptr) return E_FAIL;
    std::string xml;
    if (container->WriteContentsXml(xml, bIncludeMetaInfo, ToAnsi(sIncludeSubGrpsPatt)) == 0)
      return E_FAIL;
    BSTR result = ToBstr(xml);
    if (result == nullptr && !xml.empty()) return E_OUTOFMEMORY;
    *pxmlDir = result;
    return S_OK;
  });
}

HRESULT FileManager::ExpandFlashFile(BSTR flashfile, BSTR destdir, BSTR* outfiles) {
  return Guarded([&] {
    const std::string destFolder = CompleteFolder(ToAnsi(destdir), kPathSeparator);
    fs::File flash = fs::File::OpenRead(ToAnsi(flashfile));
    if (!flash.IsOpen()) return QX_E_OPEN_FAILED;  // outfiles stays as it was
    std::string written;
    const HRESULT status = ExpandFlashRecords(flash, destFolder, written);
    flash.Close();
    // The list replaces (and releases) what the caller passed in, whatever the status: files
    // already written are reported even when the walk stopped early.
    if (outfiles != nullptr) {
      BSTR list = ToBstr(written);
      if (list == nullptr) return E_OUTOFMEMORY;
      SysFreeString(*outfiles);
      *outfiles = list;
    }
    return status;
  });
}

// ---- Options -----------------------------------------------------------------------------------------

HRESULT FileManager::UseQXAscii(LONG bUse) {
  useQXAscii_ = bUse;  // kept, but nothing depends on it
  return E_NOTIMPL;
}

HRESULT FileManager::put_ShowUI(HWND hWnd) {
  owner_ = hWnd;
  return S_OK;
}

// ---- Paths inside groups -----------------------------------------------------------------------------

HRESULT FileManager::SplitPath(BSTR* psGrpPath, BSTR* psInGrpPath) {
  if (psGrpPath == nullptr || psInGrpPath == nullptr) return E_POINTER;
  return Guarded([&] {
    const GroupPathParts parts = SplitGroupPath(ToAnsi(*psGrpPath));
    BSTR group = ToBstr(parts.group);
    BSTR inGroup = ToBstr(parts.inGroup);
    SysFreeString(*psGrpPath);
    *psGrpPath = group;
    SysFreeString(*psInGrpPath);
    *psInGrpPath = inGroup;
    return S_OK;
  });
}

HRESULT FileManager::get_IsGroup(BSTR grpfile, LONG* pVal) {
  if (pVal == nullptr) return E_POINTER;
  *pVal = 0;
  return Guarded([&] {
    const std::string path = ToAnsi(grpfile);
    if (fs::Exists(path)) {
      *pVal = CreateContainer(path) != nullptr ? 1 : 0;
      return S_OK;
    }
    // A path through a group: copy the member into the temporary folder and ask about the copy,
    // all through the object's own interface, as an outside caller would.
    IGroupManager2* self = this;
    Bstr group = Bstr::Attach(ToBstr(path));
    Bstr inGroup;
    self->SplitPath(group.address(), inGroup.address());
    // The call's own work folder: no other call shares the probe path, and leaving the scope
    // removes the probe whatever happens.
    const fs::TempWorkFolder work;
    if (!work.IsOpen()) return S_OK;
    const Bstr dest = Bstr::Attach(ToBstr(work.Path()));
    if (FAILED(self->GetFile(group.get(), inGroup.get(), dest.get()))) return S_OK;
    const std::string probe = work.Path() + LastComponent(ToAnsi(inGroup.get()), kMemberSeparator);
    if (probe == work.Path()) return S_OK;
    const Bstr probeText = Bstr::Attach(ToBstr(probe));
    return self->get_IsGroup(probeText.get(), pVal);
  });
}

HRESULT FileManager::get_DoesPathExist(BSTR sGrpPathWithInPath, LONG* pVal) {
  if (pVal == nullptr) return E_POINTER;
  *pVal = 0;
  return Guarded([&] {
    IGroupManager2* self = this;
    Bstr group = Bstr::Attach(ToBstr(ToAnsi(sGrpPathWithInPath)));
    Bstr inGroup;
    self->SplitPath(group.address(), inGroup.address());
    const std::string groupPath = ToAnsi(group.get());
    const std::string inGroupPath = ToAnsi(inGroup.get());
    // A member inside a folder or a nested group: copy it out and look at the copy.
    if (inGroupPath.find(kMemberSeparator) != std::string::npos) {
      const fs::TempWorkFolder work;  // removed with the probe when the scope ends
      if (!work.IsOpen()) return S_OK;
      const Bstr dest = Bstr::Attach(ToBstr(work.Path()));
      if (FAILED(self->GetFile(group.get(), inGroup.get(), dest.get()))) return S_OK;
      const std::string probe = work.Path() + LastComponent(inGroupPath, kMemberSeparator);
      *pVal = probe != work.Path() && fs::Exists(probe) ? 1 : 0;
      return S_OK;
    }
    std::unique_ptr<GroupContainer> container = CreateContainer(groupPath);
    if (container == nullptr) return S_FALSE;
    *pVal = container->ContainsMember(inGroupPath);
    return S_OK;
  });
}

}  // namespace qx
