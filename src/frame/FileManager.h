// FileManager: the automation object behind IFileManager and IGroupManager2. Every call converts
// its strings to 1252, gets a container for the group file, drives it and reports a status code;
// nothing is kept open between calls.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "containers/ContainerFactory.h"
#include "containers/GroupContainer.h"
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

// The extension of the path's file name, dot included, ASCII upper-cased:
//   "/d/x.QxP" => ".QXP";  "/d.e/x" => "";  "x." => "."
std::string UpperExtension(std::string_view path);

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

class FileManager : public IGroupManager2, public ContainerFactory {
 public:
  // Creation function of the class object (aggregation supported: see module::CreateInstanceFn).
  static HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** ppv);

  // Reference count 0; the creator takes the first reference through QueryInterface.
  explicit FileManager(IUnknown* outer = nullptr);

  // IUnknown: delegates to the outer object when aggregated.
  HRESULT QueryInterface(REFIID riid, void** ppv) override;
  ULONG AddRef() override;
  ULONG Release() override;

  // IDispatch, driven by the type library description of IGroupManager2.
  HRESULT GetTypeInfoCount(UINT* pctinfo) override;
  HRESULT GetTypeInfo(UINT iTInfo, LCID lcid, ITypeInfo** ppTInfo) override;
  HRESULT GetIDsOfNames(REFIID riid, LPOLESTR* rgszNames, UINT cNames, LCID lcid,
                        DISPID* rgDispId) override;
  HRESULT Invoke(DISPID dispIdMember, REFIID riid, LCID lcid, WORD wFlags, DISPPARAMS* pDispParams,
                 VARIANT* pVarResult, EXCEPINFO* pExcepInfo, UINT* puArgErr) override;

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

  // The inner, non-delegating unknown: the object's own identity when it is aggregated.
  IUnknown* InnerUnknown() { return &inner_; }

  LONG UseQXAsciiFlag() const { return useQXAscii_; }
  LONG FilesSkipped() const { return filesSkipped_; }
  HWND OwnerWindow() const { return owner_; }

 protected:
  ~FileManager() override;

  // The container CreateGrpFile writes with: constructed directly, IsValid not asked.
  virtual std::unique_ptr<GroupContainer> ConstructForCreate(ContainerKind kind,
                                                             const std::string& path);
  // The add prompt's answer for one file (context of AddFiles' prompt callback).
  virtual PromptResult OnAddPrompt(const std::string& filePath, PromptReason reason);

 private:
  // The non-delegating unknown; its count is the object's.
  struct Inner final : IUnknown {
    explicit Inner(FileManager* owner) : self(owner) {}
    HRESULT QueryInterface(REFIID riid, void** ppv) override;
    ULONG AddRef() override;
    ULONG Release() override;
    FileManager* self;
  };

  static PromptResult AddPrompt(const std::string& filePath, PromptReason reason,
                                GroupContainer* container, void* context);
  // GetFile and ExtractFile: copy one member out, then remove it when `remove` is set.
  HRESULT TakeMember(BSTR grpfile, BSTR infile, BSTR destdir, bool remove);

  Inner inner_;
  IUnknown* controlling_;  // the outer object, or inner_
  ComRefCount refs_;
  LONG useQXAscii_ = 0;
  LONG filesSkipped_ = 0;
  HWND owner_ = nullptr;
};

}  // namespace qx
