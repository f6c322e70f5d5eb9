// FileManager: the automation object behind IFileManager and IGroupManager2. Every call converts
// its strings to 1252, gets a container for the group file, drives it and reports a status code;
// nothing is kept open between calls.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "containers/ContainerFactory.h"
#include "containers/GroupContainer.h"
#include "frame/DispatchObject.h"
#include "platform/com.h"
#include "qxgroupmgr/QXGroupMgr.h"

namespace qx {

// ---- Helpers of the calls (pure string work unless said otherwise) -------------------------------

// Cuts a comma-separated list and sorts it bytewise (unsigned), duplicates kept in text order:
//   "c,a,b" => a b c;  "b,a,a" => a a b;  "a,b," => a b;  "a,,b" => "" a b;  "" => (empty)
StringList SplitList(std::string_view text);

// Appends `separator` to a folder that is not empty and does not already end in it:
//   ("out", '/') => "out/";  ("out/", '/') => "out/";  ("", '/') => ""
std::string CompleteFolder(std::string folder, char separator);

// A destination folder inside a group: "/" becomes "\" and the folder ends in "\" unless empty:
//   "sub" => "sub\";  "a/b" => "a\b\";  "" => ""
std::string MemberFolder(std::string folder);

// True when something exists at `path` or `path` is a folder one can list (so "" stands for
// the root). Touches the file system.
bool PathPrefixExists(const std::string& path);

struct GroupPathParts {
  std::string group;    // the longest leading part, cut at "/", that exists
  std::string inGroup;  // the rest without leading separators, as a member path ("\")
};
// Cuts a path that runs through a group file. With /data/g.qxg an existing file:
//   "/data/g.qxg/f/x.kdp" => ("/data/g.qxg", "f\x.kdp");  "/data/g.qxg/" => ("/data/g.qxg", "")
GroupPathParts SplitGroupPath(const std::string& path);

// The component's private temporary folder, "QXGrpMgr-<uid>/" under the system's, created
// when missing and checked (empty when unfit). Calls work in their own subfolders of it.
std::string GetTempGroupFolder();

// ---- The object -----------------------------------------------------------------------------------

// IUnknown (with aggregation), IDispatch over the type library and ISupportErrorInfo come from
// DispatchObject; the class itself holds only the methods and their state.
// Every call publishes its outcome as the thread's error information (platform/ErrorInfo.h):
// S_OK clears it; a failure, AddFiles' 2 and the other partial results leave the diagnostic the
// call recorded, with the source "QXGroupMgr.FileManager". A member called through the object's
// own interface from inside another call leaves the publishing to the outer call.
class FileManager : public DispatchObject<IGroupManager2>, public ContainerFactory {
 public:
  // Creation function of the class object (aggregation supported: see module::CreateInstanceFn).
  static HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** ppv);

  // Reference count 0; the creator takes the first reference through QueryInterface.
  explicit FileManager(IUnknown* outer = nullptr);

  // IFileManager
  HRESULT CreateGrpFile(BSTR grpfile, BSTR newfiles) override;
  HRESULT ExpandGrpFile(BSTR grpfile, BSTR destdir) override;
  HRESULT ExtractFile(BSTR grpfile, BSTR infile, BSTR destdir) override;
  HRESULT AddFiles(BSTR grpfile, BSTR indfiles, BSTR bdestFolder) override;
  HRESULT ReadContents(BSTR grpfile, BSTR* indfiles) override;
  HRESULT DeleteFile(BSTR grpfile, BSTR indfile) override;
  HRESULT ExpandFlashFile(BSTR flashfile, BSTR destdir, BSTR* outfiles) override;
  HRESULT UseQXAscii(LONG bUse) override;
  HRESULT DeleteFiles(BSTR grpfile, BSTR indfiles) override;

  // IGroupManager2
  HRESULT GetFile(BSTR grpfile, BSTR infile, BSTR destdir) override;
  HRESULT ReadContentsXml(BSTR grpfile, LONG bIncludeMetaInfo, BSTR sIncludeSubGrpsPatt,
                          BSTR* pxmlDir) override;
  HRESULT get_IsGroup(BSTR grpfile, LONG* pVal) override;
  HRESULT SplitPath(BSTR* psGrpPath, BSTR* psInGrpPath) override;
  HRESULT put_ShowUI(HWND hWnd) override;
  HRESULT get_DoesPathExist(BSTR sGrpPathWithInPath, LONG* pVal) override;

  LONG UseQXAsciiFlag() const { return useQXAscii_; }
  LONG FilesSkipped() const { return filesSkipped_; }
  HWND OwnerWindow() const { return owner_; }

 protected:
  HRESULT RunCall(const std::function<HRESULT()>& body) override;
  ~FileManager() override;

  // The container CreateGrpFile writes with: constructed directly, IsValid not asked.
  virtual std::unique_ptr<GroupContainer> ConstructForCreate(ContainerKind kind,
                                                             const std::string& path);
  // The add prompt's answer for one file (context of AddFiles' prompt callback).
  virtual PromptResult OnAddPrompt(const std::string& filePath, PromptReason reason);

 private:
  static PromptResult AddPrompt(const std::string& filePath, PromptReason reason,
                                GroupContainer* container, void* context);
  // GetFile and ExtractFile: copy one member out, then remove it when `remove` is set.
  HRESULT TakeMember(BSTR grpfile, BSTR infile, BSTR destdir, bool remove);

  LONG useQXAscii_ = 0;
  LONG filesSkipped_ = 0;
  HWND owner_ = nullptr;
};

}  // namespace qx
