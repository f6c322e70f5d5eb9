#include "containers/OldGroupContainerKC.h"

#include "formats/DeviceFamily.h"
#include "formats/GroupKind.h"
#include "formats/MemberNames.h"
#include "platform/Diagnostic.h"
#include "platform/fs.h"

namespace qx {

namespace {

bool TakesKCGroups(std::string_view family) {
  return family == kSigKA || family == kSigKB || family == kSigKC || family == kSigKDX ||
         family == kSigKF || family == kSigHWL;
}

}  // namespace

OldGroupContainerKC::OldGroupContainerKC(std::string path, ContainerFactory* factory)
    : OldGroupContainer(std::move(path), factory) {}

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
  // The data section is the table: its entries are walked in place.
  if (!fs::ReadWholeFile(path_, out.file)) return false;
  out.fileSize = out.file.size();
  KCWalk walk = WalkKCGroup(out.file, family_);
  out.count = walk.entries.size();
  if (out.count == 0 && walk.truncated)
    out.damage = LayoutResult::Fail(LayoutResult::kTruncated, out.fileSize,
                                    "data section beyond the end of the file");
  for (const KCEntryView& e : walk.entries) {
    out.names.push_back(MemberFileNameKC(e.name, e.type, family_));
    out.sizes.push_back(static_cast<uint16_t>(e.Size()));
  }
  out.kc = std::move(walk.entries);
  return true;
}

bool OldGroupContainerKC::WriteMember(const Listing& listing, size_t index,
                                      const std::string& outPath) {
  if (index >= listing.kc.size()) return false;
  const auto entry = KCEntryBytes(listing.file, listing.kc[index]);
  if (!entry) {
    RecordUnreadableMember(listing, index, std::string());
    return false;
  }
  const std::vector<unsigned char> bytes = BuildKCSingleFile(family_, *entry);
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
  std::vector<unsigned char> file;
  if (!ReadForEdit(file)) {
    diag::Record("cannot-read", path_, "cannot be read");
    return false;
  }
  edit_ = KCGroup{};
  const LayoutResult parsed = KCGroup::Parse(file, edit_);
  if (!parsed) {
    RecordLayoutFailure(parsed, path_);
    return false;
  }
  IndexModel();
  return true;
}

void OldGroupContainerKC::IndexModel() {
  names_.clear();
  for (const KCEntryView& e : edit_.Entries(family_))
    ++names_[ToLower1252(MemberFileNameKC(e.name, e.type, family_))];
}

int32_t OldGroupContainerKC::EditMemberCount() const {
  const size_t n = edit_.Entries(family_).size();
  return n == 0 ? -1 : static_cast<int32_t>(n);
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
  IndexModel();
  return true;
}

int32_t OldGroupContainerKC::EditAddFile(const std::string& file, const std::string&,
                                         int32_t& state, AddPromptFn prompt, void* context) {
  const std::string fileFamily = DetectFileSignature(file);
  std::vector<unsigned char> bytes;
  const bool readable = fs::ReadWholeFile(file, bytes);
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
  edit_.AppendEntries(*entries);
  editChanged_ = true;
  // The appended entries, as the group will read them.
  const KCWalk added = WalkKCGroup(bytes, family_);
  for (const KCEntryView& e : added.entries)
    if (e.offset - kKCDataOffset + e.Size() <= entries->size())
      ++names_[ToLower1252(MemberFileNameKC(e.name, e.type, family_))];
  return 1;
}

bool OldGroupContainerKC::SerializeEdit(std::vector<unsigned char>& out) const {
  out = edit_.Serialize();
  return true;
}

}  // namespace qx
