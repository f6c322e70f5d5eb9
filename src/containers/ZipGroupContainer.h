// The container for zip-based groups (.qxg), packages (.qxp) and plain .zip archives. Members
// are archive entries named by relative paths with "\" separators ("unit1\quiz.kdp"); a member
// that is itself a group is a nested group, and a path that runs on past it
// ("unit1\data.kdg\L1") names a member of that group, to any depth.
//
//   ZipGroupContainer g("lesson.qxg", &factory);
//   if (!g.IsValid()) ...
//   g.AddMembers({"/home/t/prog.kdp"}, "unit1\\data.kdg\\", &state, prompt, ctx);
//
// Each changing call rewrites the archive once, at its end: duplicates replaced on the way are
// removed in memory, and a nested group changed by several names or files of the call is
// copied out once and stored back once. Nested groups are worked on in a private work folder
// (platform/TempFolder.h) that the call removes before it returns.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "archive/VxZip.h"
#include "containers/GroupContainer.h"
#include "platform/fs.h"

namespace qx {

namespace nested {
class MemberCopy;
}

class ZipGroupContainer : public GroupContainer {
 public:
  ZipGroupContainer(std::string path, ContainerFactory* factory);
  ~ZipGroupContainer() override;

  int32_t SetPath(const std::string& path) override;
  int32_t AddMembers(const StringList& files, const std::string& destFolder,
                     int32_t* promptState, AddPromptFn prompt, void* context) override;
  int32_t DeleteMembers(const StringList& names) override;
  int32_t ExtractMember(const std::string& name, const std::string& destFolder) override;
  int32_t CreateWithMembers(const StringList& files, const std::string& destFolder) override;
  int32_t ExtractAllMembers(const std::string& destFolder) override;
  int32_t ContainsMember(const std::string& name) override;
  int32_t GetMemberName(int32_t index, std::string& name) override;
  int32_t GetMemberCount() override;
  int32_t ListMembers(StringList& names) override;
  int32_t WriteContentsXml(std::string& xml, int32_t includeMetaInfo,
                           std::string subGroupPattern) override;
  int32_t IsValid() override;

  // The entry of that member name: an exact match first, then one differing only in the
  // letter case of a..z. Null for a folder without an entry of its own. (Packages use this to
  // reach their manifest: FindMember("imsmanifest.xml")->ExtractInto(work.Path()).)
  std::unique_ptr<VxZipEntry> FindMember(const std::string& name);
  // 1 when the name is the leading part of some entry's name (a folder), else 0.
  int32_t IsFolderName(const std::string& name);
  // The longest leading part of `path`, cut at "\", that is a member or a folder, and the rest:
  //   with member physics.kdg:  "physics.kdg\VELOCITY" => ("physics.kdg", "VELOCITY")
  //                             "physics.kdg\"         => ("physics.kdg", "")
  //   with no folder newdir:    "newdir\"              => ("", "newdir\")
  void SplitMemberPath(const std::string& path, std::string& groupPart, std::string& innerPath);

  // The open archive, for readers that need more than the member operations.
  VxZip& Archive() { return zip_; }

 private:
  struct IndexValue {
    std::string stored;  // the name in its stored letter case (at most 259 bytes)
    bool folder = false;
    bool removed = false;  // its entry is gone (kept until it is last in its slot)
  };
  // Every entry's contribution to a key, sorted by entry serial (archive order): the last live
  // one holds, as if the index were rebuilt in archive order. A removal only marks its
  // contribution and drops the marked ones once they are last, so emptying a folder of n
  // members costs O(n), not O(n^2).
  struct IndexSlot {
    std::vector<std::pair<uint64_t, IndexValue>> entries;  // the last one is live
    size_t live = 0;
  };
  // The last look-up's answer, kept while the entry list is unchanged: a name is often looked
  // up as a member and then as a folder.
  struct LookUpMemo {
    bool valid = false;
    std::string key;
    bool found = false;
    IndexValue value;
  };

  bool Open();
  // Opens the archive again once the write lock is held; false, with a diagnostic, when what
  // is there now no longer opens.
  bool ReopenLocked();
  // The adding loop of AddMembers and CreateWithMembers, with the write lock held.
  int32_t AddLocked(const StringList& files, const std::string& destFolder, int32_t* promptState,
                    AddPromptFn prompt, void* context);
  void RebuildMemberIndex();
  void IndexEntry(uint64_t serial, const std::string& name, bool add);
  const IndexValue* LookUp(const std::string& name);
  // LookUp's answer for an upper-case key from a walk over the entries, without the index.
  const IndexValue* WalkFor(const std::string& key);
  std::unique_ptr<VxZipEntry> Append(const std::string& name, const VxByteData& data);
  bool Delete(VxZipEntry* entry);
  // Removes a member or a folder in memory by the delete rules; false when an entry could not
  // be removed.
  bool DeleteOne(const std::string& name, bool& handled);
  int32_t AddOneFile(const std::string& source, const std::string& destFolder,
                     int32_t* promptState, AddPromptFn prompt, void* context);
  int32_t AddDirectory(const std::string& source, const std::string& member,
                       int32_t* promptState, AddPromptFn prompt, void* context);
  // The copy of the nested group `groupPart` kept for this call's changes, made on first use.
  nested::MemberCopy* ChangingCopy(const std::string& groupPart);
  // Stores every changed nested copy back under its name, in the order they were last changed.
  bool StoreBackCopies();
  bool Write();

  VxZip zip_;
  std::unordered_map<std::string, IndexSlot> memberIndex_;
  bool indexStale_ = true;
  int lookUpWalks_ = 0;  // look-ups answered by walking the entries since the archive was read
  IndexValue walked_;    // the last walk's answer
  LookUpMemo memo_;
  fs::FileStamp opened_;  // the file Open read, while no change has been made since
  std::vector<std::unique_ptr<nested::MemberCopy>> copies_;  // changed nested groups of the call
  uint64_t touches_ = 0;
};

// An entry counts as a folder entry when the archive marks it so (attribute 0x10) or when its
// name ends in "\" and it holds no data, as bsdtar writes folders and every archive tool reads
// them.
bool IsDirectoryEntry(VxZipEntry& entry);
// The same, for a caller that already holds the entry's name.
bool IsDirectoryEntry(VxZipEntry& entry, const std::string& name);
// The entry's name with "\" separators; empty for an empty handle.
std::string EntryName(VxZipEntry& entry);

}  // namespace qx
