// The one interface behind which every kind of group file is worked on. A container is made for
// one call, owned by that call alone and destroyed before it returns.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qx {

// An ordered list of 8-bit (1252) file paths or member names.
using StringList = std::vector<std::string>;

class ContainerFactory;
class GroupContainer;

// Why a container asks before adding a file.
enum PromptReason : int32_t {
  PromptDuplicate = 0,  // a member of that name already exists
  PromptRefused = 1,    // the file may not be stored in this group
};

// What the caller answers.
enum PromptResult : int32_t {
  PromptReplace = 1,
  PromptReplaceAll = 2,
  PromptSkip = 3,
  PromptCancel = 4,
};

// (full path of the file being added, reason, the asking container, the context given to
// AddMembers) -> the answer.
using AddPromptFn = PromptResult (*)(const std::string& filePath, PromptReason reason,
                                     GroupContainer* container, void* context);

// Records the diagnostic of an add that succeeded with files left out by the prompt's answers:
// code "files-left-out", the group as subject, the text "files left out:" followed by one line
// ("\n" then the item) per file path as given, or per member name of a group file being
// merged in. Callers of AddFiles read the items back from the error description's lines.
void RecordFilesLeftOut(const std::string& groupPath, const StringList& items);

// Results are 32-bit integers, nonzero for success unless an operation says otherwise. Member
// names may hold folder parts separated by "\"; destination folders are empty or end in their
// separator ("/" on the file system, "\" inside a group). The order of the virtual operations
// is fixed.
class GroupContainer {
 public:
  // Concrete classes open their file while they are constructed; construction cannot fail,
  // IsValid says whether the file is usable.
  GroupContainer(std::string path, ContainerFactory* factory)
      : path_(std::move(path)), factory_(factory) {}
  virtual ~GroupContainer() = default;
  GroupContainer(const GroupContainer&) = delete;
  GroupContainer& operator=(const GroupContainer&) = delete;

  // Stores the new path; concrete classes also reopen the file.
  virtual int32_t SetPath(const std::string& path);
  // Adds files (full paths) under `destFolder`. `promptState` keeps the last prompt answer that
  // still applies; `prompt` and `context` may be null. A file skipped on the prompt's answer is
  // no failure.
  virtual int32_t AddMembers(const StringList& files, const std::string& destFolder,
                             int32_t* promptState, AddPromptFn prompt, void* context) = 0;
  virtual int32_t DeleteMembers(const StringList& names) = 0;
  // Writes one member into `destFolder` on the file system.
  virtual int32_t ExtractMember(const std::string& name, const std::string& destFolder) = 0;
  // Writes a new group in place of any file at the path, then adds the files without a prompt.
  virtual int32_t CreateWithMembers(const StringList& files, const std::string& destFolder) = 0;
  virtual int32_t ExtractAllMembers(const std::string& destFolder) = 0;
  // 1 when present, 0 when not.
  virtual int32_t ContainsMember(const std::string& name) = 0;
  virtual int32_t GetMemberName(int32_t index, std::string& name) = 0;
  // The number of members.
  virtual int32_t GetMemberCount() = 0;
  // Appends the member names in the order in which the group stores them.
  virtual int32_t ListMembers(StringList& names) = 0;
  virtual int32_t WriteContentsXml(std::string& xml, int32_t includeMetaInfo,
                                   std::string subGroupPattern) = 0;
  // Nonzero when the file really is a group of this class.
  virtual int32_t IsValid() = 0;
  // File name and extension of the container's own path: "/a/b/g.qxg" => "g.qxg".
  virtual std::string GetGroupFileName();

  const std::string& Path() const { return path_; }
  ContainerFactory* Factory() const { return factory_; }

 protected:
  std::string path_;
  ContainerFactory* factory_;  // not owned
};

}  // namespace qx
