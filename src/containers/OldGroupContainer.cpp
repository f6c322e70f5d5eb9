#include "containers/OldGroupContainer.h"

#include "containers/ContentsXml.h"
#include "formats/DeviceFamily.h"
#include "formats/GroupComment.h"
#include "platform/Diagnostic.h"
#include "platform/GroupLock.h"
#include "platform/TempFile.h"
#include "platform/fs.h"

namespace qx {

namespace {

unsigned char Lower1252(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return static_cast<unsigned char>(c + 0x20);
  if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return static_cast<unsigned char>(c + 0x20);
  switch (c) {
    case 0x8A: return 0x9A;  // S caron
    case 0x8C: return 0x9C;  // OE
    case 0x8E: return 0x9E;  // Z caron
    case 0x9F: return 0xFF;  // Y diaeresis
    default: return c;
  }
}

// A member name becomes a file name inside the destination folder; one that would name a folder
// or step out of it is not written.
bool IsPlainFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

}  // namespace

bool EqualsNoCase1252(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (Lower1252(static_cast<unsigned char>(a[i])) != Lower1252(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

std::string ToLower1252(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(Lower1252(static_cast<unsigned char>(c)));
  return out;
}

OldGroupContainer::OldGroupContainer(std::string path, ContainerFactory* factory)
    : GroupContainer(std::move(path), factory), family_(DetectFileSignature(path_)) {}

int32_t OldGroupContainer::SetPath(const std::string& path) {
  path_ = path;
  family_ = DetectFileSignature(path_);
  return 1;
}

bool OldGroupContainer::ReadListing(Listing& out) {
  out = Listing{};
  if (!fs::ReadWholeFile(path_, out.file)) return false;
  ListBytes(out);
  return true;
}

// ---- Finding and listing -------------------------------------------------------------------------

int32_t OldGroupContainer::ContainsMember(const std::string& name) {
  Listing listing;
  if (!ReadListing(listing)) return 0;
  for (const std::string& member : listing.names)
    if (EqualsNoCase1252(member, name)) return 1;
  return 0;
}

int32_t OldGroupContainer::GetMemberName(int32_t index, std::string& name) {
  name.clear();
  Listing listing;
  if (index < 0 || !ReadListing(listing)) return 0;
  if (static_cast<size_t>(index) >= listing.names.size()) return 0;
  name = listing.names[static_cast<size_t>(index)];
  return 1;
}

int32_t OldGroupContainer::GetMemberCount() {
  Listing listing;
  if (!ReadListing(listing) || listing.count == 0) return -1;
  return static_cast<int32_t>(listing.count);
}

int32_t OldGroupContainer::ListMembers(StringList& names) {
  Listing listing;
  if (!ReadListing(listing) || listing.count == 0) return -1;
  names.insert(names.end(), listing.names.begin(), listing.names.end());
  return listing.namesComplete ? 1 : 0;
}

int32_t OldGroupContainer::WriteContentsXml(std::string& xml, int32_t, std::string) {
  Listing listing;
  ReadListing(listing);
  std::vector<ListedMember> members;
  members.reserve(listing.names.size());
  for (size_t i = 0; i < listing.names.size(); ++i)
    members.push_back({listing.names[i], listing.sizes[i]});
  if (!WriteOldStyleListing(GetGroupFileName(), members, xml)) return 0;
  return listing.namesComplete ? 1 : 0;
}

// ---- Extracting ----------------------------------------------------------------------------------

int32_t OldGroupContainer::ExtractMember(const std::string& name, const std::string& destFolder) {
  Listing listing;
  if (!ReadListing(listing)) return 0;
  for (size_t i = 0; i < listing.names.size(); ++i)
    if (EqualsNoCase1252(listing.names[i], name))
      return IsPlainFileName(listing.names[i]) &&
                     WriteMember(listing, i, destFolder + listing.names[i])
                 ? 1
                 : 0;
  return 0;
}

int32_t OldGroupContainer::ExtractAllMembers(const std::string& destFolder) {
  Listing listing;
  if (!ReadListing(listing) || listing.count == 0) return 0;
  for (size_t i = 0; i < listing.names.size(); ++i)
    if (!IsPlainFileName(listing.names[i]) ||
        !WriteMember(listing, i, destFolder + listing.names[i]))
      return 0;
  return listing.namesComplete ? 1 : 0;
}

// ---- Creating and adding -------------------------------------------------------------------------

bool OldGroupContainer::ReadForEdit(std::vector<unsigned char>& file) {
  if (seed_) {
    file = std::move(*seed_);
    seed_.reset();
    return true;
  }
  return fs::ReadWholeFile(path_, file);
}

bool OldGroupContainer::CommitBytes(const std::vector<unsigned char>& bytes) {
  fs::TempFile tmp(path_);
  if (!tmp.IsOpen()) return false;
  if (!tmp.file().Write(bytes.data(), bytes.size())) {
    diag::Record("write-failed", path_, "the new group could not be written in full");
    return false;
  }
  return tmp.Keep();
}

int32_t OldGroupContainer::CreateWithMembers(const StringList& files,
                                             const std::string& destFolder) {
  if (files.empty()) {
    if (family_.empty() || family_ == kSigUnknown) return 0;
  } else {
    family_ = DetectFileSignature(files.front());
  }
  fs::GroupLock lock(path_);
  if (!lock.Held()) return 0;
  std::vector<unsigned char> fresh = NewGroupBytes(LocalGroupCommentText());
  if (files.empty()) return CommitBytes(fresh) ? 1 : 0;
  // The new group and what goes into it are one write: a second lock on the replaced file
  // would not exclude the writers waiting for the first.
  seed_ = std::move(fresh);
  int32_t state = 0;
  return AddLocked(files, destFolder, state, nullptr, nullptr, true);
}

int32_t OldGroupContainer::AddMembers(const StringList& files, const std::string& destFolder,
                                      int32_t* promptState, AddPromptFn prompt, void* context) {
  if (files.empty()) return 1;
  int32_t localState = 0;
  int32_t& state = promptState != nullptr ? *promptState : localState;
  // Held from the read to the rename, so a concurrent writer's change is read, not overwritten.
  fs::GroupLock lock(path_);
  if (!lock.Held()) return 0;
  return AddLocked(files, destFolder, state, prompt, context, false);
}

int32_t OldGroupContainer::AddLocked(const StringList& files, const std::string& destFolder,
                                     int32_t& state, AddPromptFn prompt, void* context,
                                     bool writeAlways) {
  const bool begun = BeginEdit();
  seed_.reset();
  if (!begun) return 0;
  editChanged_ = false;
  int32_t result = 1;
  for (const std::string& file : files) {
    if (state == PromptCancel) break;
    if (state != PromptReplaceAll) state = 0;
    // A calculator file of a family the group cannot hold (a flash application included) is
    // refused with the question before its table is read: read with this group's layout its
    // header may name no variable, and the refusal must not depend on bytes that mean
    // something else there.
    const std::string fileFamily = DetectFileSignature(file);
    if (fileFamily != kSigUnknown && fileFamily != family_ &&
        !AreFamiliesCompatible(fileFamily, family_)) {
      if (prompt != nullptr) prompt(file, PromptRefused, this, context);
      result = 0;
      break;
    }
    result = EditAddFile(file, destFolder, state, prompt, context);
    if (result == 0) break;
  }
  // What was added before a failure stays added: one write for the whole call.
  if (editChanged_ || writeAlways) {
    std::vector<unsigned char> bytes;
    if (!SerializeEdit(bytes) || !CommitBytes(bytes)) return 0;
  }
  return result;
}

OldGroupContainer::AddCheck OldGroupContainer::CheckBeforeAdding(
    const std::string& filePath, std::string_view fileFamily, const std::string& memberName,
    int32_t& state, AddPromptFn prompt, void* context) {
  if (fileFamily != family_) {
    if (prompt != nullptr) prompt(filePath, PromptRefused, this, context);
    return AddCheck::Refuse;
  }
  if (!EditContains(memberName)) return AddCheck::Insert;
  if (state != PromptReplaceAll)
    state = prompt != nullptr ? prompt(filePath, PromptDuplicate, this, context) : PromptReplace;
  switch (state) {
    case PromptReplace:
    case PromptReplaceAll:
      // A refused delete (the group's only member) leaves both, as the step-by-step add does.
      if (EditDelete({memberName})) editChanged_ = true;
      return AddCheck::Insert;
    case PromptSkip:
    case PromptCancel:
      return AddCheck::Skip;
    default:
      return AddCheck::Insert;
  }
}

int32_t OldGroupContainer::DeleteMembers(const StringList& names) {
  fs::GroupLock lock(path_);
  if (!lock.Held() || !BeginEdit()) return 0;
  if (!EditDelete(names)) return 0;
  std::vector<unsigned char> bytes;
  if (!SerializeEdit(bytes)) return 0;
  return CommitBytes(bytes) ? 1 : 0;
}

}  // namespace qx
