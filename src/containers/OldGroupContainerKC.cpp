#include "containers/OldGroupContainerKC.h"

#include <algorithm>
#include <optional>

#include "formats/DeviceFamily.h"
#include "formats/GroupKind.h"
#include "formats/MemberNames.h"
#include "platform/Diagnostic.h"
#include "platform/TempFile.h"
#include "platform/fs.h"

namespace qx {

namespace {

bool TakesKCGroups(std::string_view family) {
  return family == kSigKA || family == kSigKB || family == kSigKC || family == kSigKDX ||
         family == kSigKF || family == kSigHWL;
}

}  // namespace

OldGroupContainerKC::OldGroupContainerKC(std::string path, ContainerFactory* factory,
                                         std::string family)
    : OldGroupContainer(std::move(path), factory, std::move(family)) {}

int32_t OldGroupContainerKC::IsValid() {
  if (!TakesKCGroups(family_)) return 0;
  // The group test looks at the header and the first entry's length fields only.
  fs::File f = fs::File::OpenRead(path_);
  if (!f.IsOpen()) return 0;
  unsigned char head[kKCDataOffset + 4] = {};
  const size_t n = f.Read(head, sizeof head);
  if (KCSectionHoldsMoreThanFirstEntry(std::span<const unsigned char>(head, n), f.Size())) return 1;
  return HasKCGroupExtension(path_) ? 1 : 0;
}

bool OldGroupContainerKC::LoadListing(Listing& out) {
  // The data section is the table: its entries' fixed fields are read where they stand, their
  // data is not.
  fs::File f = fs::File::OpenRead(path_);
  if (!f.IsOpen()) return false;
  out.fileSize = f.Size();
  std::optional<KCWalk> read = WalkKCFile(f, out.fileSize, family_);
  if (!read) return false;
  KCWalk& walk = *read;
  out.count = walk.entries.size();
  if (out.count == 0 && walk.truncated)
    out.damage = LayoutResult::Fail(LayoutResult::kTruncated, out.fileSize,
                                    "data section beyond the end of the file");
  for (const KCEntryView& e : walk.entries) {
    out.names.push_back(MemberFileNameKC(e.name, e.type, family_));
    out.sizes.push_back(static_cast<uint16_t>(e.Size()));
  }
  out.kc = std::move(walk.entries);
  out.file = std::make_shared<const fs::File>(std::move(f));
  return true;
}

bool OldGroupContainerKC::WriteMember(const Listing& listing, size_t index,
                                      const std::string& outPath) {
  if (index >= listing.kc.size()) return false;
  // One entry is at most two 16-bit lengths long: read whole, before the file is made.
  const KCEntryView& e = listing.kc[index];
  std::vector<unsigned char> entry(e.Size());
  if (e.offset > listing.fileSize || e.Size() > listing.fileSize - e.offset || !listing.file ||
      !listing.file->ReadAt(e.offset, entry.data(), entry.size())) {
    RecordUnreadableMember(listing, index, std::string());
    return false;
  }
  const std::vector<unsigned char> bytes = BuildKCSingleFile(family_, entry);
  fs::File out = fs::File::CreateWrite(outPath);
  if (!out.IsOpen()) return false;
  if (out.Write(bytes.data(), bytes.size()) && out.Close()) return true;
  DiscardPartial(out, outPath);
  return false;
}

std::vector<unsigned char> OldGroupContainerKC::NewGroupBytes(const std::string& comment) const {
  return KCGroup::NewEmpty(family_, comment).Serialize();
}

// ---- Changing --------------------------------------------------------------------------------

bool OldGroupContainerKC::BeginEdit() {
  edit_ = KCGroup{};
  source_ = fs::File();
  LayoutResult parsed;
  std::optional<KCWalk> walk;
  if (seed_) {
    std::vector<unsigned char> file;
    ReadForEdit(file);
    parsed = KCGroup::Parse(file, edit_);
    if (parsed) walk = edit_.Walk(family_);
  } else {
    // The header only: the section stays in the file, walked where it stands and copied across
    // by the rewrite.
    source_ = fs::File::OpenRead(path_);
    const uint64_t size = source_.Size();
    unsigned char head[kKCDataOffset];
    const size_t want = static_cast<size_t>(std::min<uint64_t>(size, sizeof head));
    if (!source_.IsOpen() || source_.Read(head, want) != want) {
      diag::Record("cannot-read", path_, "cannot be read");
      return false;
    }
    parsed = KCGroup::ParseHead(std::span<const unsigned char>(head, want), size, edit_);
    if (parsed) walk = edit_.WalkSource(source_, family_);
  }
  if (!parsed) {
    RecordLayoutFailure(parsed, path_);
    return false;
  }
  if (!walk || !IndexModel(*walk)) {
    diag::Record("cannot-read", path_, "cannot be read");
    return false;
  }
  return true;
}

bool OldGroupContainerKC::CommitEdit() {
  fs::TempFile tmp(path_);
  if (!tmp.IsOpen()) return false;  // the temporary file said why
  switch (edit_.WriteTo(tmp.file(), source_.IsOpen() ? &source_ : nullptr)) {
    case KCGroup::WriteEnd::kDone: return tmp.Keep();
    case KCGroup::WriteEnd::kShortRead:
      diag::Record("damaged", path_,
                   "the group file shrank while it was rewritten (the old file stays as it was)");
      return false;
    case KCGroup::WriteEnd::kWriteFailed: break;
  }
  diag::Record("cannot-write", path_, "cannot be written (the old file stays as it was)");
  return false;
}

namespace {

// True when the walk's entries fill the `length` bytes walked exactly, the last ending at the end.
bool FillsExactly(const KCWalk& walk, size_t length) {
  if (walk.entries.empty()) return length == 0;
  const KCEntryView& last = walk.entries.back();
  return !walk.truncated && last.offset - kKCDataOffset + last.Size() == length;
}

}  // namespace

bool OldGroupContainerKC::IndexModel(const KCWalk& walk) {
  names_.clear();
  where_.clear();
  whole_ = FillsExactly(walk, edit_.DataLength());
  // Changes to a section that its entries do not fill walk it as a whole, in memory.
  if (!whole_ && !edit_.Materialize(source_)) return false;
  live_ = walk.entries.size();
  for (const KCEntryView& e : walk.entries) {
    std::string key = ToLower1252(MemberFileNameKC(e.name, e.type, family_));
    ++names_[key];
    if (whole_) where_[std::move(key)].emplace_back(e.offset - kKCDataOffset, e.Size());
  }
  return true;
}

int32_t OldGroupContainerKC::EditMemberCount() const {
  const size_t n = whole_ ? live_ : edit_.Entries(family_).size();
  return n == 0 ? -1 : static_cast<int32_t>(n);
}

bool OldGroupContainerKC::EditReplace(const std::string& name) {
  // Every entry of the name goes, as deleting the name drops them all; the group keeps one.
  const auto at = whole_ ? where_.find(ToLower1252(name)) : where_.end();
  if (at == where_.end() || at->second.empty() || live_ < 2) return EditDelete({name});
  MarkName(at);
  return true;
}

void OldGroupContainerKC::MarkName(
    std::unordered_map<std::string, std::vector<std::pair<size_t, size_t>>>::iterator at) {
  for (const auto& [offset, size] : at->second) edit_.MarkRemoved(family_, offset, size);
  live_ -= at->second.size();
  names_[at->first] = 0;
  where_.erase(at);
}

bool OldGroupContainerKC::EditContains(const std::string& name) const {
  const auto it = names_.find(ToLower1252(name));
  return it != names_.end() && it->second > 0;
}

bool OldGroupContainerKC::EditDelete(const StringList& names) {
  // A group is never emptied by deleting; names that match nothing are ignored.
  if (static_cast<int64_t>(names.size()) >= EditMemberCount()) {
    diag::Record("keeps-one", path_, "cannot delete every member: a group keeps at least one");
    return false;
  }
  if (whole_) {
    // The entries of each name are marked; the header is rewritten even when none matched.
    edit_.RewriteHeader(family_);
    for (const std::string& n : names)
      if (const auto at = where_.find(ToLower1252(n)); at != where_.end()) MarkName(at);
    return true;
  }
  edit_.DropMarked();  // walked below without them
  const auto dropped = edit_.RemoveEntriesIf(family_, [&](const KCEntryView& e) {
    const std::string member = MemberFileNameKC(e.name, e.type, family_);
    for (const std::string& n : names)
      if (EqualsNoCase1252(member, n)) return true;
    return false;
  });
  if (!dropped) {
    std::string list;
    for (const std::string& n : names) list += (list.empty() ? "" : ", ") + n;
    diag::Record("no-member", list, "no such member in " + path_);
    return false;
  }
  return IndexModel(edit_.Walk(family_));
}

int32_t OldGroupContainerKC::EditAddFile(const std::string& file, const std::string& fileFamily,
                                         fs::File& opened, const std::string&, int32_t& state,
                                         AddPromptFn prompt, void* context) {
  std::vector<unsigned char> bytes;
  const bool readable = fs::ReadWholeFile(opened, bytes);
  // The first member's name; empty for a file without one, and the checks go on.
  std::string name;
  if (readable) {
    const KCWalk walk = WalkKCGroup(bytes, fileFamily);
    if (!walk.entries.empty())
      name = MemberFileNameKC(walk.entries.front().name, walk.entries.front().type, fileFamily);
  }
  switch (CheckBeforeAdding(file, fileFamily, name, state, prompt, context)) {
    case AddCheck::Refuse: return 0;
    case AddCheck::Skip:
      leftOut_.push_back(file);
      return 1;
    case AddCheck::Insert: break;
  }
  if (!readable) {
    diag::Record("cannot-read", file, "cannot be read");
    return 0;
  }
  const auto entries = KCFileEntries(bytes);
  if (!entries) {
    diag::Record("not-a-variable", file, "holds no variable entries that can be read");
    return 0;
  }
  const size_t base = edit_.DataLength();
  edit_.AppendEntries(*entries);
  editChanged_ = true;
  // The appended entries, as the group will read them.
  const KCWalk added = WalkKCGroup(bytes, family_);
  for (const KCEntryView& e : added.entries)
    if (e.offset - kKCDataOffset + e.Size() <= entries->size())
      ++names_[ToLower1252(MemberFileNameKC(e.name, e.type, family_))];
  // Entries that fill what was appended continue the walk of a whole section where they stand.
  const KCWalk own = WalkKCSection(*entries, family_);
  whole_ = whole_ && FillsExactly(own, entries->size());
  if (!whole_) {
    // The section is walked as a whole from now on.
    if (!edit_.Materialize(source_)) {
      diag::Record("damaged", path_, "the group file shrank while it was changed");
      return 0;
    }
    edit_.DropMarked();
  } else {
    live_ += own.entries.size();
    for (const KCEntryView& e : own.entries)
      where_[ToLower1252(MemberFileNameKC(e.name, e.type, family_))].emplace_back(
          base + e.offset - kKCDataOffset, e.Size());
  }
  return 1;
}

bool OldGroupContainerKC::SerializeEdit(std::vector<unsigned char>& out) const {
  out = edit_.Serialize();
  return true;
}

}  // namespace qx
