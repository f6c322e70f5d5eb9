#include "frame/FileManager.h"

#include <algorithm>
#include <new>

#include "containers/DuplicateFileDialog.h"
#include "formats/DeviceFamily.h"
#include "formats/FlashFile.h"
#include "platform/CommaList.h"
#include "platform/Diagnostic.h"
#include "platform/ErrorInfo.h"
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
// platform's converter does for NUL-terminated input. A character 1252 cannot hold becomes "?",
// so the call works on another name than the caller gave; that is said first if it then fails.
std::string ToAnsi(BSTR text) {
  if (text == nullptr) return {};
  const std::u16string_view wide(text);
  std::string ansi = codepage::WideToAnsi(wide);
  if (std::count(ansi.begin(), ansi.end(), '?') != std::count(wide.begin(), wide.end(), u'?'))
    diag::Record("not-1252", ansi,
                 "holds characters that Windows-1252 cannot hold; they became \"?\"");
  return ansi;
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

// The source every error object of this class names: the version-independent ProgID.
constexpr std::string_view kErrorSource = "QXGroupMgr.FileManager";

// How deep this thread is in FileManager calls. A method calling another through the object's
// own interface is still one call for its caller: only the outermost one forgets the previous
// diagnostic and publishes the new one.
thread_local int callDepth = 0;

// What a failure without a recorded reason is said to be, from its status alone.
void RecordFromStatus(HRESULT hr) {
  switch (hr) {
    case E_OUTOFMEMORY: diag::Record("out-of-memory", "", "memory ran out"); break;
    case E_NOTIMPL: diag::Record("not-implemented", "", "this member does nothing here"); break;
    case E_POINTER: diag::Record("null-pointer", "", "an out-argument is a null pointer"); break;
    default: diag::Record("failed", "", "the call failed"); break;
  }
}

// Runs a method body as one call: exceptions from the standard library end it as a failure
// instead of crossing the interface, and its outcome is published as the thread's error
// information: a failure or a partial result leaves why, S_OK leaves nothing.
template <class Body>
HRESULT Guarded(Body&& body) {
  const bool outermost = callDepth++ == 0;
  if (outermost) diag::Clear();
  HRESULT hr = E_FAIL;
  try {
    hr = body();
  } catch (const std::bad_alloc&) {
    hr = E_OUTOFMEMORY;
  } catch (...) {
    diag::Record("internal", "", "an unexpected error ended the call");
    hr = E_FAIL;
  }
  --callDepth;
  if (outermost) {
    if (hr == S_OK) diag::Clear();
    else if (FAILED(hr)) RecordFromStatus(hr);  // first record wins: a specific reason stays
    PublishDiagnostic(kErrorSource);
  }
  return hr;
}

// A file name holding a comma cannot travel in a list of files: it arrives as pieces that name
// no file. Said before the call goes on, so the failure that follows is explained by its cause.
void NoteNamesCutAtCommas(std::string_view fileList) {
  if (fileList.find(',') == std::string_view::npos) return;
  const std::vector<std::string> pieces = SplitCommaList(fileList);
  constexpr size_t kMostCommasInAName = 4;
  for (size_t i = 0; i + 1 < pieces.size(); ++i) {
    if (pieces[i].empty() || fs::Exists(pieces[i])) continue;
    std::string joined = pieces[i];
    for (size_t j = i + 1; j < pieces.size() && j <= i + kMostCommasInAName; ++j) {
      joined += ',' + pieces[j];
      if (fs::Exists(joined)) {
        diag::Record("comma-in-name", joined,
                     "holds a comma, so the comma-separated list of files cut it into names "
                     "that do not exist");
        return;
      }
    }
  }
}

// E_POINTER for a null out-argument, with its name as the subject.
HRESULT NullArgument(std::string_view name) {
  diag::Record("null-pointer", name, "is a null pointer where the result should go");
  return E_POINTER;
}

std::string LastComponent(std::string_view path, char separator) {
  const size_t cut = path.find_last_of(separator);
  return std::string(cut == std::string_view::npos ? path : path.substr(cut + 1));
}

}  // namespace

// ---- Helpers ---------------------------------------------------------------------------------------

StringList SplitList(std::string_view text) {
  StringList list = SplitCommaList(text);
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

FileManager::FileManager(IUnknown* outer) : DispatchObject(outer) {}

FileManager::~FileManager() = default;

HRESULT FileManager::CreateInstance(IUnknown* outer, REFIID riid, void** ppv) {
  return CreateAggregable<FileManager>(outer, riid, ppv);
}

// Calls through IDispatch (name look-ups included) publish their outcome like direct calls.
HRESULT FileManager::RunCall(const std::function<HRESULT()>& body) { return Guarded(body); }

// ---- Building groups ---------------------------------------------------------------------------------

std::unique_ptr<GroupContainer> FileManager::ConstructForCreate(ContainerKind kind,
                                                                const std::string& path) {
  return ConstructContainer(kind, path, this);
}

HRESULT FileManager::CreateGrpFile(BSTR grpfile, BSTR newfiles) {
  return Guarded([&] {
    const std::string group = ToAnsi(grpfile);
    const bool existed = fs::Exists(group);
    const std::string fileList = ToAnsi(newfiles);
    NoteNamesCutAtCommas(fileList);
    const StringList files = SplitList(fileList);
    const std::string signature = files.empty() ? std::string(kSigUnknown) : DetectFileSignature(files[0]);
    const ContainerKind kind = ContainerKindForCreate(group, signature);
    std::unique_ptr<GroupContainer> container = ConstructForCreate(kind, group);
    if (container == nullptr) {
      diag::Record("no-container", group,
                   kind == ContainerKind::Zip
                       ? "cannot be created: zip-based groups are not supported by this build"
                       : "cannot be created: old-style groups are not supported by this build");
      return E_FAIL;
    }
    if (container->CreateWithMembers(files, "") == 0) {
      diag::Record("cannot-create", group, "the group could not be written");
      return E_FAIL;
    }
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
    const std::string fileList = ToAnsi(indfiles);
    NoteNamesCutAtCommas(fileList);
    const StringList files = SplitList(fileList);
    filesSkipped_ = 0;
    int32_t promptState = 0;
    if (container->AddMembers(files, destFolder, &promptState, &FileManager::AddPrompt, this) == 0)
      return E_FAIL;
    if (filesSkipped_ != 0) {
      diag::Record("files-left-out", group, "files left out");  // a container names them first
      return kFilesLeftOut;
    }
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
  return Guarded([&] { return static_cast<IGroupManager2*>(this)->DeleteFiles(grpfile, indfile); });
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
  return Guarded([&] {
    if (indfiles == nullptr) return NullArgument("indfiles");
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
  return Guarded([&] {
    if (pxmlDir == nullptr) return NullArgument("pxmlDir");
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
    const std::string flashPath = ToAnsi(flashfile);
    fs::File flash = fs::File::OpenRead(flashPath);
    if (!flash.IsOpen()) {
      diag::Record("cannot-open", flashPath,
                   fs::Exists(flashPath) ? "cannot be opened for reading" : "no such file");
      return QX_E_OPEN_FAILED;  // outfiles stays as it was
    }
    std::string written;
    const HRESULT status = ExpandFlashRecords(flash, destFolder, written, flashPath);
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
  return Guarded([&] {
    useQXAscii_ = bUse;  // kept, but nothing depends on it
    diag::Record("not-implemented", "UseQXAscii", "the flag is kept but changes nothing");
    return E_NOTIMPL;
  });
}

HRESULT FileManager::put_ShowUI(HWND hWnd) {
  return Guarded([&] {
    owner_ = hWnd;
    return S_OK;
  });
}

// ---- Paths inside groups -----------------------------------------------------------------------------

HRESULT FileManager::SplitPath(BSTR* psGrpPath, BSTR* psInGrpPath) {
  return Guarded([&] {
    if (psGrpPath == nullptr) return NullArgument("psGrpPath");
    if (psInGrpPath == nullptr) return NullArgument("psInGrpPath");
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
  return Guarded([&] {
    if (pVal == nullptr) return NullArgument("pVal");
    *pVal = 0;
    // The answer is the result; why a file is no group is not an error of this call.
    diag::DiagnosticScope quiet;
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
  return Guarded([&] {
    if (pVal == nullptr) return NullArgument("pVal");
    *pVal = 0;
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
