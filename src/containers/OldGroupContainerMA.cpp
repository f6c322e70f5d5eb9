#include "containers/OldGroupContainerMA.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <unordered_map>

#include "formats/DeviceFamily.h"
#include "formats/MemberNames.h"
#include "platform/ByteOrder.h"
#include "platform/Diagnostic.h"
#include "platform/StreamCopy.h"
#include "platform/TempFile.h"
#include "platform/fs.h"

namespace qx {

namespace {

bool TakesMAGroups(std::string_view family) {
  return family == kSigRa || family == kSigNA || family == kSigNBX || family == kSigMA;
}

std::string_view FieldBytes(const NameField& field) {
  return {reinterpret_cast<const char*>(field.data()), field.size()};
}

}  // namespace

OldGroupContainerMA::OldGroupContainerMA(std::string path, ContainerFactory* factory,
                                         std::string family)
    : OldGroupContainer(std::move(path), factory, std::move(family)) {}

OldGroupContainerMA::~OldGroupContainerMA() = default;

int32_t OldGroupContainerMA::IsValid() {
  if (!TakesMAGroups(family_)) return 0;
  // The group test looks at the header only.
  fs::File f = fs::File::OpenRead(path_);
  if (!f.IsOpen()) return 0;
  unsigned char head[kMAFolderOffset + 1] = {};
  const size_t n = f.Read(head, sizeof head);
  return MAIsGroup(std::span<const unsigned char>(head, n)).value_or(false) ? 1 : 0;
}

bool OldGroupContainerMA::MemberName(const NameField& folder, const MAEntryFields& fields,
                                     std::string_view family, std::string& out) const {
  std::string translated;
  // Made when a name is first read: a call served by a kept listing reads none.
  if (!translatorMade_) {
    translator_ = DeviceNameTranslator::Create();
    translatorMade_ = true;
  }
  if (translator_ == nullptr || !translator_->Translate(FieldBytes(fields.name), translated))
    return false;
  out = MemberFileNameMA(NameFieldText(folder), translated, fields.type, family);
  return true;
}

bool OldGroupContainerMA::LoadListing(Listing& out) {
  // The header and the table, not the data: members are read when they are taken out.
  fs::File f = fs::File::OpenRead(path_);
  if (!f.IsOpen()) return false;
  out.fileSize = f.Size();
  std::vector<unsigned char> head(static_cast<size_t>(std::min<uint64_t>(out.fileSize, kMATableOffset + 4)));
  if (f.Read(head.data(), head.size()) != head.size()) return false;
  const uint64_t extent = MAWalkExtent(head, out.fileSize);
  if (extent > SIZE_MAX) return false;
  head.resize(static_cast<size_t>(std::max<uint64_t>(extent, head.size())));
  const size_t rest = head.size() - std::min<size_t>(head.size(), kMATableOffset + 4);
  if (rest > 0 && f.Read(head.data() + kMATableOffset + 4, rest) != rest) return false;
  MAWalk walk = WalkMAGroup(head, out.fileSize);
  out.count = walk.members.size();
  // Nothing listed: say so when the header or table is damaged, as a change would be refused.
  const bool headWhole = head.size() >= kMATableOffset + 4;
  if (out.count == 0 && (walk.end != MAWalk::kTableEnd ||
                         (headWhole && kMATableOffset + kMAEntrySize * uint64_t{ReadLE16(&head[kMACountOffset])} +
                                               6 > out.fileSize)))
    out.damage = LayoutResult::Fail(LayoutResult::kTruncated, out.fileSize,
                                    "entry table beyond the end of the file");
  else if (out.count == 0 && headWhole && ReadLE32(&head[kMATableOffset]) > out.fileSize)
    out.damage = LayoutResult::Fail(LayoutResult::kBadOffset, kMATableOffset,
                                    "first data offset beyond the end of the file");
  for (const MAMemberView& m : walk.members) {
    std::string name;
    if (!MemberName(m.folder, m.fields, family_, name)) {
      out.namesComplete = false;
      break;
    }
    out.names.push_back(std::move(name));
    out.sizes.push_back(m.BlockLength());
  }
  out.ma = std::move(walk.members);
  out.file = std::make_shared<const fs::File>(std::move(f));
  return true;
}

bool OldGroupContainerMA::WriteMember(const Listing& listing, size_t index,
                                      const std::string& outPath) {
  if (index >= listing.ma.size()) return false;
  const MAMemberView& m = listing.ma[index];
  // Checked before the file is made, so a table pointing past the end leaves nothing behind.
  if (m.blockEnd < m.dataOffset || m.blockEnd > listing.fileSize) {
    RecordUnreadableMember(listing, index, std::string());
    return false;
  }
  if (!listing.file || !listing.file->IsOpen()) {
    diag::Record("cannot-read", path_, "cannot be read");
    return false;
  }
  const std::vector<unsigned char> header =
      BuildMASingleFileHeader(family_, m.folder, m.fields, m.BlockLength());
  fs::File out = fs::File::CreateWrite(outPath);
  if (!out.IsOpen()) return false;
  const fs::CopyEnd end = out.Write(header.data(), header.size())
                              ? fs::CopyRangeAt(*listing.file, m.dataOffset, m.BlockLength(), out)
                              : fs::CopyEnd::kWriteFailed;
  if (end == fs::CopyEnd::kDone && out.Close()) return true;
  DiscardPartial(out, outPath);
  if (end == fs::CopyEnd::kShortRead) RecordUnreadableMember(listing, index, outPath);
  return false;
}

std::vector<unsigned char> OldGroupContainerMA::NewGroupBytes(const std::string& comment) const {
  std::vector<unsigned char> out;
  MAGroup::NewEmpty(family_, comment).Serialize(out);
  return out;
}

// ---- Changing --------------------------------------------------------------------------------

bool OldGroupContainerMA::BeginEdit() {
  edit_ = MAGroup{};
  source_ = fs::File();
  LayoutResult parsed;
  if (seed_) {
    std::vector<unsigned char> file;
    ReadForEdit(file);
    parsed = MAGroup::Parse(file, edit_);
  } else {
    // The header and table only: the members' data stay in the file until the rewrite copies
    // them across.
    source_ = fs::File::OpenRead(path_);
    const uint64_t size = source_.Size();
    std::vector<unsigned char> head(static_cast<size_t>(std::min<uint64_t>(size, kMATableOffset)));
    bool read = source_.IsOpen() && source_.Read(head.data(), head.size()) == head.size();
    if (read) {
      head.resize(static_cast<size_t>(MAGroup::TableExtent(head, size)));
      const size_t rest = head.size() - std::min<size_t>(head.size(), kMATableOffset);
      read = rest == 0 || source_.Read(head.data() + kMATableOffset, rest) == rest;
    }
    if (!read) {
      diag::Record("cannot-read", path_, "cannot be read");
      return false;
    }
    parsed = MAGroup::ParseTable(head, size, edit_);
  }
  if (!parsed) {
    RecordLayoutFailure(parsed, path_);
    return false;
  }
  IndexModel();
  return true;
}

bool OldGroupContainerMA::CommitEdit() {
  fs::TempFile tmp(path_);
  if (!tmp.IsOpen()) return false;  // the temporary file said why
  switch (edit_.WriteTo(tmp.file(), source_.IsOpen() ? &source_ : nullptr)) {
    case MAGroup::WriteEnd::kDone: return tmp.Keep();
    case MAGroup::WriteEnd::kTooLarge:
      diag::Record("too-large", path_, "the members would not fit the group's layout");
      return false;
    case MAGroup::WriteEnd::kShortRead:
      diag::Record("damaged", path_,
                   "the group file shrank while it was rewritten (the old file stays as it was)");
      return false;
    case MAGroup::WriteEnd::kWriteFailed: break;
  }
  diag::Record("cannot-write", path_, "cannot be written (the old file stays as it was)");
  return false;
}

void OldGroupContainerMA::IndexModel() {
  names_.clear();
  where_.clear();
  folderAt_.clear();
  liveMembers_ = edit_.MemberCount();
  namesIndexed_ = true;
  typesHaveExtensions_ = ModelTypesHaveExtensions();
  auto& folders = edit_.folders();
  for (size_t f = 0; f < folders.size(); ++f) {
    folderAt_.emplace(ToLower1252(NameFieldText(folders[f].name)), f);
    for (MAVariable& v : folders[f].members)
      if (!v.removed) IndexMember(f, v);
  }
}

void OldGroupContainerMA::IndexMember(size_t folder, MAVariable& member) {
  std::string name;
  if (!namesIndexed_ || !MemberName(edit_.folders()[folder].name, member.fields, family_, name)) {
    namesIndexed_ = false;
    return;
  }
  std::string key = ToLower1252(name);
  ++names_[key];
  where_[std::move(key)] = {folder, &member};
}

size_t OldGroupContainerMA::FindFolder(const std::string& lowerName) const {
  const auto& folders = edit_.folders();
  const auto it = folderAt_.find(lowerName);
  if (it == folderAt_.end()) return folders.size();
  if (!folders[it->second].Gone()) return it->second;
  // A folder emptied by a replacement is gone; a later one of the same name may stand.
  for (size_t at = it->second + 1; at < folders.size(); ++at)
    if (!folders[at].Gone() && ToLower1252(NameFieldText(folders[at].name)) == lowerName) return at;
  return folders.size();
}

int32_t OldGroupContainerMA::EditMemberCount() const {
  const size_t n = edit_.MemberCount();
  return n == 0 ? -1 : static_cast<int32_t>(n);
}

bool OldGroupContainerMA::EditContains(const std::string& name) const {
  if (namesIndexed_) {
    const auto it = names_.find(ToLower1252(name));
    return it != names_.end() && it->second > 0;
  }
  for (const MAFolder& f : edit_.folders())
    for (const MAVariable& v : f.members) {
      if (v.removed) continue;
      std::string member;
      if (!MemberName(f.name, v.fields, family_, member)) return false;
      if (EqualsNoCase1252(member, name)) return true;
    }
  return false;
}

bool OldGroupContainerMA::HasExtension(uint8_t type) const {
  return family_ == kSigHWL || TypeExtensionMA(type, family_).has_value();
}

bool OldGroupContainerMA::ModelTypesHaveExtensions() const {
  for (const MAFolder& f : edit_.folders())
    for (const MAVariable& v : f.members)
      if (!v.removed && !HasExtension(v.fields.type)) return false;
  return true;
}

bool OldGroupContainerMA::EditReplace(const std::string& name) {
  // The common case, a name held by one member of a group that may lose it, only marks that
  // member; anything else takes the delete's own path with its checks and diagnostics.
  const std::string key = ToLower1252(name);
  const auto count = names_.find(key);
  const auto at = where_.find(key);
  if (!namesIndexed_ || !typesHaveExtensions_ || count == names_.end() || count->second != 1 ||
      at == where_.end() || liveMembers_ < 2)
    return EditDelete({name});
  edit_.MarkRemoved(at->second.first, *at->second.second);
  --liveMembers_;
  count->second = 0;
  where_.erase(at);
  return true;
}

bool OldGroupContainerMA::EditDelete(const StringList& names) {
  if (edit_.DropRemoved()) IndexModel();
  std::unordered_map<std::string, size_t> wanted;
  for (const std::string& n : names) ++wanted[ToLower1252(n)];
  // Decide first, so that a refusal leaves the model as it was.
  std::vector<bool> drop;
  drop.reserve(edit_.MemberCount());
  size_t dropped = 0;
  for (const MAFolder& f : edit_.folders())
    for (const MAVariable& v : f.members) {
      std::string member;
      if (!MemberName(f.name, v.fields, family_, member)) {
        diag::Record("unreadable-name", path_, "a member has no readable name");
        return false;
      }
      const auto it = wanted.find(ToLower1252(member));
      const bool match = it != wanted.end() && it->second > 0;
      if (match) {
        --it->second;
        ++dropped;
      }
      drop.push_back(match);
    }
  // Every name must strike exactly one member: unknown or repeated names refuse the delete.
  if (dropped != names.size()) {
    std::string list;
    for (const std::string& n : names) {
      const auto it = wanted.find(ToLower1252(n));
      if (it == wanted.end() || it->second == 0) continue;
      --it->second;  // each unmatched name once, in the order given
      list += (list.empty() ? "" : ", ") + n;
    }
    diag::Record("no-member", list, "no such member in " + path_);
    return false;
  }
  // Checked after the names so that an unknown name is what the caller hears about; the
  // outcome is the same refusal. Unsigned, so a group without a first member fails here too.
  if (names.size() >= static_cast<uint32_t>(EditMemberCount())) {
    diag::Record("keeps-one", path_, "cannot delete every member: a group keeps at least one");
    return false;
  }
  if (edit_.EntryCount() < 2 || !typesHaveExtensions_) {
    diag::Record("cannot-delete", path_,
                 "members can only be deleted from a group of two or more entries whose "
                 "variable types all have file extensions");
    return false;
  }
  size_t i = 0;
  edit_.RemoveMembersIf([&](const MAFolder&, const MAVariable&) { return drop[i++]; });
  IndexModel();
  return true;
}

int32_t OldGroupContainerMA::EditAddFile(const std::string& file, const std::string& fileFamily,
                                         fs::File& opened, const std::string& destFolder,
                                         int32_t& state, AddPromptFn prompt, void* context) {
  std::vector<unsigned char> bytes;
  if (!fs::ReadWholeFile(opened, bytes)) {
    diag::Record("cannot-read", file, "cannot be read");
    return 0;
  }
  const MAWalk walk = WalkMAGroup(bytes);
  if (walk.members.empty()) {
    if (fileFamily == kSigUnknown) RecordRefusal(file, fileFamily);
    else diag::Record("not-a-variable", file, "holds no variable that can be read");
    return 0;
  }

  // A single-variable file gives one variable; a group file gives each of its members, each
  // to its own folder with its own duplicate check.
  // The data is looked for only once the checks let the variable in, so a file that is not
  // a variable at all (a flash file) is still refused with a prompt.
  struct Candidate {
    const MAMemberView* member;
    std::optional<MAVariable> variable;
  };
  std::vector<Candidate> candidates;
  LayoutResult parsed;  // why a single-variable file's data could not be read
  if (MAIsGroup(bytes).value_or(false)) {
    for (const MAMemberView& m : walk.members) {
      const auto block = MABlock(bytes, m);
      candidates.push_back({&m, std::nullopt});
      if (block) candidates.back().variable = MAVariable{m.fields, {block->begin(), block->end()}};
    }
  } else {
    MASingleFile single;
    candidates.push_back({&walk.members.front(), std::nullopt});
    parsed = ParseMASingleFile(bytes, single);
    if (parsed)
      candidates.back().variable = MAVariable{single.fields, {single.data.begin(), single.data.end()}};
  }

  // A skipped variable of a group file being merged in is named by its member name.
  const bool merging = candidates.size() > 1;
  for (size_t c = 0; c < candidates.size(); ++c) {
    Candidate& cand = candidates[c];
    std::string name;
    if (c > 0) {
      if (state == PromptCancel) {
        if (MemberName(cand.member->folder, cand.member->fields, fileFamily, name))
          leftOut_.push_back(name);
        continue;
      }
      if (state != PromptReplaceAll) state = 0;
    }
    if (!MemberName(cand.member->folder, cand.member->fields, fileFamily, name)) {
      diag::Record("unreadable-name", file,
                   "variable " + std::to_string(c + 1) + " has no readable name");
      return 0;
    }
    std::string_view family = fileFamily;
    if (fileFamily != family_ && AreFamiliesCompatible(fileFamily, family_)) {
      family = family_;
      name = RenameForGroupFamily(name, family_);
    }
    switch (CheckBeforeAdding(file, family, name, state, prompt, context)) {
      case AddCheck::Refuse: return 0;
      case AddCheck::Skip:
        leftOut_.push_back(merging ? name : file);
        continue;
      case AddCheck::Insert: break;
    }
    if (!cand.variable) {
      RecordLayoutFailure(parsed, file);
      diag::Record("damaged", file, "the data of variable " + std::to_string(c + 1) + " cannot be read");
      return 0;
    }
    if (!typesHaveExtensions_) {
      diag::Record("cannot-add", path_, "a member's variable type has no file extension, so the group cannot be changed");
      return 0;
    }
    std::string target = destFolder.empty() ? std::string("main") : destFolder;
    if (cand.member->folder[0] != 0) target = NameFieldText(cand.member->folder);
    target = ToLower1252(target);
    const MAEntryFields fields = cand.variable->fields;
    auto& folders = edit_.folders();
    const size_t at = FindFolder(target);
    const bool appended = at == folders.size();
    const NameField folderName = at < folders.size() ? folders[at].name : MakeNameField(target);
    const bool inserted = at < folders.size()
                              ? edit_.InsertFirst(at, std::move(*cand.variable))
                              : edit_.AppendFolder(folderName, std::move(*cand.variable));
    if (!inserted) {
      diag::Record("too-large", path_, "the group cannot take another variable");
      return 0;
    }
    editChanged_ = true;
    ++liveMembers_;
    if (appended) {
      auto [it, fresh] = folderAt_.emplace(ToLower1252(NameFieldText(folderName)), at);
      if (!fresh && folders[it->second].Gone()) it->second = at;
    }
    IndexMember(at, appended ? folders[at].members.back() : folders[at].members.front());
    typesHaveExtensions_ = typesHaveExtensions_ && HasExtension(fields.type);
  }
  return 1;
}

bool OldGroupContainerMA::SerializeEdit(std::vector<unsigned char>& out) const {
  return edit_.Serialize(out);
}

}  // namespace qx
