// What the two old-style group containers share: reading the group once per operation, the
// member lookups built on a listing, creating a group, and the adding loop with its prompt
// state and the checks made before a file goes in.
//
// A change (add, delete, create) holds the group's write lock for the whole call, reads the
// group's header and table once into the class's model (the members' bytes stay in the file),
// applies every file or name of the call there and writes the result once, copying the members
// across in chunks to a temporary file beside the group that is renamed over it. A call that
// fails before anything changed leaves the group as it was; files added before a refused one
// stay added, as they would after one write per file.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "containers/GroupContainer.h"
#include "formats/LayoutKC.h"
#include "formats/LayoutMA.h"
#include "platform/codepage.h"
#include "platform/fs.h"

namespace qx {

// Member names compare without regard to case in the 1252 code page.
using codepage::EqualsNoCase1252;
using codepage::ToLower1252;

class OldGroupContainer : public GroupContainer {
 public:
  // `family`: the file's signature when the caller has read it already (else it is read here).
  OldGroupContainer(std::string path, ContainerFactory* factory, std::string family = {});

  int32_t SetPath(const std::string& path) override;
  int32_t AddMembers(const StringList& files, const std::string& destFolder,
                     int32_t* promptState, AddPromptFn prompt, void* context) override;
  int32_t DeleteMembers(const StringList& names) override;
  int32_t ExtractMember(const std::string& name, const std::string& destFolder) override;
  int32_t CreateWithMembers(const StringList& files, const std::string& destFolder) override;
  int32_t ExtractAllMembers(const std::string& destFolder) override;
  int32_t ContainsMember(const std::string& name) override;
  // The index-th member, counting from 0.
  int32_t GetMemberName(int32_t index, std::string& name) override;
  int32_t GetMemberCount() override;
  int32_t ListMembers(StringList& names) override;
  int32_t WriteContentsXml(std::string& xml, int32_t includeMetaInfo,
                           std::string subGroupPattern) override;

  // The family signature the container works with.
  const std::string& Family() const { return family_; }

 protected:
  // The members as the cursor meets them: what one walk of the group's table gives, kept so
  // that every member of a call is reached by its place without walking again.
  struct Listing {
    uint64_t fileSize = 0;            // the group file's size when it was read
    // The group file the listing was read from, kept open: members are read from it at their
    // offsets (File::ReadAt), by every call the listing serves.
    std::shared_ptr<const fs::File> file;
    size_t count = 0;                 // members the cursor reaches
    StringList names;                 // names of the first members, in order
    std::vector<uint32_t> sizes;      // their sizes, as the contents listing reports them
    bool namesComplete = true;        // false when a name could not be read (names stop there)
    LayoutResult damage;              // why no member was reached, when the table is damaged
    std::vector<MAMemberView> ma;     // where each member stands, for the layout that read it
    std::vector<KCEntryView> kc;
    // Lower-case name -> index of the first member of that name.
    std::unordered_map<std::string, size_t> index;
  };

  // Reads and lists the group, or serves the listing of the same unchanged file again while a
  // ReuseScope lives. Null when the file cannot be read.
  std::shared_ptr<const Listing> ReadListing();
  // Reads what the listing needs and lists it; false when the file cannot be read.
  virtual bool LoadListing(Listing& out) = 0;
  // Writes the index-th member as a single-variable file, reading its bytes from the listing's
  // file; false with a diagnostic when they cannot be read, and then no file is left at
  // `outPath`.
  virtual bool WriteMember(const Listing& listing, size_t index, const std::string& outPath) = 0;
  // The bytes of a new empty group of the family, with the comment given.
  virtual std::vector<unsigned char> NewGroupBytes(const std::string& comment) const = 0;

  // ---- Changing the group in memory ----------------------------------------------------------
  // Parses the group file into the model; false when it cannot be read or is refused.
  virtual bool BeginEdit() = 0;
  // The bytes BeginEdit parses: the group file, or the new group a create starts from.
  bool ReadForEdit(std::vector<unsigned char>& file);
  virtual int32_t EditMemberCount() const = 0;
  virtual bool EditContains(const std::string& name) const = 0;
  // Deletes in the model with the rules of DeleteMembers; false (model unchanged) on refusal.
  virtual bool EditDelete(const StringList& names) = 0;
  // Deletes the member `name` that an added file replaces; EditDelete({name}) by default.
  virtual bool EditReplace(const std::string& name) { return EditDelete({name}); }
  // Runs the checks for one file of family `fileFamily` and inserts what it holds; the
  // per-file result. `opened` is the file, open at its start (not open when it cannot be read).
  virtual int32_t EditAddFile(const std::string& file, const std::string& fileFamily,
                              fs::File& opened, const std::string& destFolder, int32_t& state,
                              AddPromptFn prompt, void* context) = 0;
  // The model's bytes; false when they would not fit the layout's fields.
  virtual bool SerializeEdit(std::vector<unsigned char>& out) const = 0;
  // Writes the model in place of the group (SerializeEdit, then CommitBytes); false with a
  // diagnostic, the group unchanged.
  virtual bool CommitEdit();

  enum class AddCheck { Insert, Skip, Refuse };
  // The checks shared by both layouts for a variable of family `fileFamily` named `memberName`:
  // a refused family prompts and refuses; a duplicate asks (or replaces without a prompt) and
  // deletes the old member from the model when it is to be replaced.
  AddCheck CheckBeforeAdding(const std::string& filePath, std::string_view fileFamily,
                             const std::string& memberName, int32_t& state, AddPromptFn prompt,
                             void* context);
  // Writes bytes in place of the group through a temporary file beside it.
  bool CommitBytes(const std::vector<unsigned char>& bytes);
  // Records why a file of `fileFamily` cannot go into this group ("flash-file", "other-family",
  // "not-a-variable").
  void RecordRefusal(const std::string& file, std::string_view fileFamily) const;
  // The index of the member named `name` (without regard to case); false, with the diagnostic
  // "no-member", when there is none.
  bool FindMember(const Listing& listing, const std::string& name, size_t& index) const;
  // The index-th member's bytes in the group could not be read back (the table points past the
  // end of the file, or the file shrank meanwhile); removes a part-written `outPath`.
  // Closes and removes a member file whose writing failed, keeping errno for the diagnostic.
  static void DiscardPartial(fs::File& out, const std::string& outPath);
  void RecordUnreadableMember(const Listing& listing, size_t index,
                              const std::string& outPath) const;
  // Writes the index-th listed member into `destFolder` under its name; false with a diagnostic.
  bool WriteMemberFile(const Listing& listing, size_t index, const std::string& destFolder);

  std::string family_;
  bool editChanged_ = false;  // the model differs from the file
  // What the prompt's answers kept out of the current AddMembers: file paths as given, or the
  // names of members of a group file being merged in (see RecordFilesLeftOut).
  StringList leftOut_;
  // The adding loop, with the group's write lock held; writes even an unchanged model when
  // `writeAlways` (a create).
  int32_t AddLocked(const StringList& files, const std::string& destFolder, int32_t& state,
                    AddPromptFn prompt, void* context, bool writeAlways);

  std::optional<std::vector<unsigned char>> seed_;  // a create's new group, read instead of the file
};

}  // namespace qx
