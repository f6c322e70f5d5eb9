#include "containers/OldGroupContainer.h"

#include <cerrno>
#include <cstring>
#include <mutex>


#include "containers/ContentsXml.h"
#include "formats/DeviceFamily.h"
#include "formats/GroupComment.h"
#include "platform/Diagnostic.h"
#include "platform/GroupLock.h"
#include "platform/ReuseScope.h"
#include "platform/TempFile.h"
#include "platform/fs.h"

namespace qx {

namespace {

// A member name becomes a file name inside the destination folder; one that would name a folder
// or step out of it is not written.
bool IsPlainFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

std::string FamilyName(std::string_view signature) {
  const FamilyInfo* family = FindFamilyBySignature(signature);
  return family != nullptr ? std::string(family->name) : std::string("an unknown");
}

}  // namespace

OldGroupContainer::OldGroupContainer(std::string path, ContainerFactory* factory,
                                     std::string family)
    : GroupContainer(std::move(path), factory),
      family_(family.empty() ? DetectFileSignature(path_) : std::move(family)) {}

int32_t OldGroupContainer::SetPath(const std::string& path) {
  path_ = path;
  family_ = DetectFileSignature(path_);
  return 1;
}

namespace {

// The listing kept for the current run of ReuseScopes.
struct ReusedListing {
  std::mutex lock;
  uint64_t run = 0;
  std::string path;
  std::string family;
  fs::FileStamp stamp;
  std::shared_ptr<const void> listing;
};

ReusedListing& Reused() {
  static ReusedListing reused;
  return reused;
}

}  // namespace

std::shared_ptr<const OldGroupContainer::Listing> OldGroupContainer::ReadListing() {
  ReusedListing& reused = Reused();
  fs::FileStamp stamp;
  bool reusable = false;
  std::shared_ptr<const Listing> listing;
  const uint64_t run = ReuseScope::Current();
  {
    std::lock_guard<std::mutex> guard(reused.lock);
    if (reused.run != run) reused.listing.reset();  // kept under an earlier run: let it go
    reusable = run != 0 && fs::StampOf(path_, stamp);
    if (reusable && reused.listing && reused.run == run && reused.path == path_ &&
        reused.family == family_ && reused.stamp == stamp)
      listing = std::static_pointer_cast<const Listing>(reused.listing);
  }
  if (!listing) {
    auto fresh = std::make_shared<Listing>();
    if (!LoadListing(*fresh)) {
      diag::Record("cannot-read", path_, "cannot be read");
      return nullptr;
    }
    for (size_t i = 0; i < fresh->names.size(); ++i)
      fresh->index.emplace(ToLower1252(fresh->names[i]), i);
    listing = fresh;
    // Kept only when the file was not changed while it was read.
    fs::FileStamp after;
    if (reusable && fs::StampOf(path_, after) && after == stamp) {
      std::lock_guard<std::mutex> guard(reused.lock);
      {
        reused.run = run;
        reused.path = path_;
        reused.family = family_;
        reused.stamp = stamp;
        reused.listing = listing;
      }
    }
  }
  if (listing->count == 0 && !listing->damage) RecordLayoutFailure(listing->damage, path_);
  else if (listing->count == 0) diag::Record("no-members", path_, "the group lists no member");
  else if (!listing->namesComplete)
    diag::Record("unreadable-name", path_,
                 "member " + std::to_string(listing->names.size() + 1) + " has no readable name");
  return listing;
}

void OldGroupContainer::RecordRefusal(const std::string& file, std::string_view fileFamily) const {
  if (fileFamily == kSigFlash) {
    diag::Record("flash-file", file,
                 "cannot go into " + path_ + ": old-style groups cannot hold flash applications");
  } else if (fileFamily == kSigUnknown) {
    diag::Record("not-a-variable", file, "cannot go into " + path_ + ": not a calculator file");
  } else {
    diag::Record("other-family", file,
                 "cannot go into " + path_ + ": a " + FamilyName(fileFamily) +
                     "-family file; the group holds " + FamilyName(family_) + "-family files");
  }
}

bool OldGroupContainer::FindMember(const Listing& listing, const std::string& name,
                                   size_t& index) const {
  const auto it = listing.index.find(ToLower1252(name));
  if (it != listing.index.end()) {
    index = it->second;
    return true;
  }
  diag::Record("no-member", name, "no such member in " + path_);
  return false;
}

void OldGroupContainer::DiscardPartial(fs::File& out, const std::string& outPath) {
  const int error = errno;
  out.Close();
  fs::DeleteFile(outPath);
  errno = error;
}

void OldGroupContainer::RecordUnreadableMember(const Listing& listing, size_t index,
                                               const std::string& outPath) const {
  fs::DeleteFile(outPath);
  diag::Record("damaged", path_,
               "the data of member " + std::to_string(index + 1) + " (" + listing.names[index] +
                   ") lies past the end of the file (" + std::to_string(listing.fileSize) +
                   " bytes when listed), or the file shrank while it was read");
}

bool OldGroupContainer::WriteMemberFile(const Listing& listing, size_t index,
                                        const std::string& destFolder) {
  const std::string& name = listing.names[index];
  if (!IsPlainFileName(name)) {
    diag::Record("bad-member-name", name, "cannot be written as a file name");
    return false;
  }
  errno = 0;
  if (WriteMember(listing, index, destFolder + name)) return true;
  // The system's reason, when the failure was the file's creation or writing.
  const int error = errno;
  diag::Record("cannot-write", destFolder + name,
               error != 0 ? std::string("cannot be written: ") + std::strerror(error)
                          : std::string("cannot be written"));
  return false;
}

// ---- Finding and listing -------------------------------------------------------------------------

int32_t OldGroupContainer::ContainsMember(const std::string& name) {
  const auto listing = ReadListing();
  if (!listing) return 0;
  return listing->index.count(ToLower1252(name)) != 0 ? 1 : 0;
}

int32_t OldGroupContainer::GetMemberName(int32_t index, std::string& name) {
  name.clear();
  if (index < 0) return 0;
  const auto listing = ReadListing();
  if (!listing || static_cast<size_t>(index) >= listing->names.size()) return 0;
  name = listing->names[static_cast<size_t>(index)];
  return 1;
}

int32_t OldGroupContainer::GetMemberCount() {
  const auto listing = ReadListing();
  if (!listing || listing->count == 0) return -1;
  return static_cast<int32_t>(listing->count);
}

int32_t OldGroupContainer::ListMembers(StringList& names) {
  const auto listing = ReadListing();
  if (!listing || listing->count == 0) return -1;
  names.insert(names.end(), listing->names.begin(), listing->names.end());
  return listing->namesComplete ? 1 : 0;
}

int32_t OldGroupContainer::WriteContentsXml(std::string& xml, int32_t, std::string) {
  static const Listing kNone;
  auto listing = ReadListing();
  const Listing& l = listing ? *listing : kNone;
  std::vector<ListedMember> members;
  members.reserve(l.names.size());
  for (size_t i = 0; i < l.names.size(); ++i) members.push_back({l.names[i], l.sizes[i]});
  if (!WriteOldStyleListing(GetGroupFileName(), members, xml)) {
    diag::Record("cannot-list", path_, "the contents listing could not be written");
    return 0;
  }
  return l.namesComplete ? 1 : 0;
}

// ---- Extracting ----------------------------------------------------------------------------------

int32_t OldGroupContainer::ExtractMember(const std::string& name, const std::string& destFolder) {
  const auto listing = ReadListing();
  if (!listing) return 0;
  size_t index = 0;
  if (!FindMember(*listing, name, index)) return 0;
  return WriteMemberFile(*listing, index, destFolder) ? 1 : 0;
}

int32_t OldGroupContainer::ExtractAllMembers(const std::string& destFolder) {
  const auto listing = ReadListing();
  if (!listing || listing->count == 0) return 0;
  for (size_t i = 0; i < listing->names.size(); ++i)
    if (!WriteMemberFile(*listing, i, destFolder)) return 0;
  return listing->namesComplete ? 1 : 0;
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
  if (!tmp.IsOpen()) return false;  // the temporary file said why
  if (!tmp.file().Write(bytes.data(), bytes.size())) {
    diag::Record("cannot-write", path_, "cannot be written (the old file stays as it was)");
    return false;
  }
  return tmp.Keep();
}

int32_t OldGroupContainer::CreateWithMembers(const StringList& files,
                                             const std::string& destFolder) {
  if (files.empty()) {
    if (family_.empty() || family_ == kSigUnknown) {
      diag::Record("no-files", path_, "an old-style group needs a first file to take its family from");
      return 0;
    }
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
  leftOut_.clear();
  int32_t result = 1;
  for (size_t f = 0; f < files.size(); ++f) {
    const std::string& file = files[f];
    if (state == PromptCancel) {
      leftOut_.insert(leftOut_.end(), files.begin() + static_cast<std::ptrdiff_t>(f), files.end());
      break;
    }
    if (state != PromptReplaceAll) state = 0;
    // A calculator file of a family the group cannot hold (a flash application included) is
    // refused with the question before its table is read: read with this group's layout its
    // header may name no variable, and the refusal must not depend on bytes that mean
    // something else there.
    fs::File opened;  // read once: its family first, then what it holds
    const std::string fileFamily = DetectFileSignature(file, opened);
    if (fileFamily != kSigUnknown && fileFamily != family_ &&
        !AreFamiliesCompatible(fileFamily, family_)) {
      RecordRefusal(file, fileFamily);
      if (prompt != nullptr) prompt(file, PromptRefused, this, context);
      result = 0;
      break;
    }
    result = EditAddFile(file, fileFamily, opened, destFolder, state, prompt, context);
    if (result == 0) break;
  }
  // What was added before a failure stays added: one write for the whole call.
  if ((editChanged_ || writeAlways) && !CommitEdit()) return 0;
  if (result != 0 && !leftOut_.empty()) RecordFilesLeftOut(path_, leftOut_);
  return result;
}

OldGroupContainer::AddCheck OldGroupContainer::CheckBeforeAdding(
    const std::string& filePath, std::string_view fileFamily, const std::string& memberName,
    int32_t& state, AddPromptFn prompt, void* context) {
  if (fileFamily != family_) {
    RecordRefusal(filePath, fileFamily);
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
      if (EditReplace(memberName)) editChanged_ = true;
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
  if (!EditDelete(names)) {
    diag::Record("cannot-delete", path_, "the members named cannot be deleted");
    return 0;
  }
  return CommitEdit() ? 1 : 0;
}

bool OldGroupContainer::CommitEdit() {
  std::vector<unsigned char> bytes;
  if (!SerializeEdit(bytes)) {
    diag::Record("too-large", path_, "the members would not fit the group's layout");
    return false;
  }
  return CommitBytes(bytes);
}

}  // namespace qx
