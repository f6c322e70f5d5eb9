#include "containers/OldGroupContainerMA.h"

#include <optional>
#include <unordered_map>

#include "formats/DeviceFamily.h"
#include "formats/MemberNames.h"
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

OldGroupContainerMA::OldGroupContainerMA(std::string path, ContainerFactory* factory)
    : OldGroupContainer(std::move(path), factory), translator_(DeviceNameTranslator::Create()) {}

OldGroupContainerMA::~OldGroupContainerMA() = default;

int32_t OldGroupContainerMA::IsValid() {
  if (!TakesMAGroups(family_)) return 0;
  std::vector<unsigned char> file;
  if (!fs::ReadWholeFile(path_, file)) return 0;
  return MAIsGroup(file).value_or(false) ? 1 : 0;
}

bool OldGroupContainerMA::MemberName(const NameField& folder, const MAEntryFields& fields,
                                     std::string_view family, std::string& out) const {
  std::string translated;
  if (translator_ == nullptr || !translator_->Translate(FieldBytes(fields.name), translated))
    return false;
  out = MemberFileNameMA(NameFieldText(folder), translated, fields.type, family);
  return true;
}

void OldGroupContainerMA::ListBytes(Listing& out) const {
  const MAWalk walk = WalkMAGroup(out.file);
  out.count = walk.members.size();
  for (const MAMemberView& m : walk.members) {
    std::string name;
    if (!MemberName(m.folder, m.fields, family_, name)) {
      out.namesComplete = false;
      return;
    }
    out.names.push_back(std::move(name));
    out.sizes.push_back(m.BlockLength());
  }
}

bool OldGroupContainerMA::WriteMember(const Listing& listing, size_t index,
                                      const std::string& outPath) {
  const MAWalk walk = WalkMAGroup(listing.file);
  if (index >= walk.members.size()) return false;
  const MAMemberView& m = walk.members[index];
  const auto block = MABlock(listing.file, m);
  if (!block) return false;
  const std::vector<unsigned char> bytes = BuildMASingleFile(family_, m.folder, m.fields, *block);
  fs::File out = fs::File::CreateWrite(outPath);
  return out.IsOpen() && out.Write(bytes.data(), bytes.size()) && out.Close();
}

std::vector<unsigned char> OldGroupContainerMA::NewGroupBytes(const std::string& comment) const {
  std::vector<unsigned char> out;
  MAGroup::NewEmpty(family_, comment).Serialize(out);
  return out;
}

// ---- Changing --------------------------------------------------------------------------------

bool OldGroupContainerMA::BeginEdit() {
  std::vector<unsigned char> file;
  if (!ReadForEdit(file)) return false;
  edit_ = MAGroup{};
  if (!MAGroup::Parse(file, edit_)) return false;
  IndexModel();
  return true;
}

void OldGroupContainerMA::IndexModel() {
  names_.clear();
  namesIndexed_ = true;
  typesHaveExtensions_ = ModelTypesHaveExtensions();
  for (const MAFolder& f : edit_.folders())
    for (const MAVariable& v : f.members) IndexMember(f.name, v.fields);
}

void OldGroupContainerMA::IndexMember(const NameField& folder, const MAEntryFields& fields) {
  std::string name;
  if (!namesIndexed_ || !MemberName(folder, fields, family_, name)) {
    namesIndexed_ = false;
    return;
  }
  ++names_[ToLower1252(name)];
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
      if (!HasExtension(v.fields.type)) return false;
  return true;
}

bool OldGroupContainerMA::EditDelete(const StringList& names) {
  // Unsigned, so a group without a first member does not fail here but below.
  if (names.size() >= static_cast<uint32_t>(EditMemberCount())) return false;
  if (edit_.EntryCount() < 2 || !typesHaveExtensions_) return false;
  std::unordered_map<std::string, size_t> wanted;
  for (const std::string& n : names) ++wanted[ToLower1252(n)];
  // Decide first, so that a refusal leaves the model as it was.
  std::vector<bool> drop;
  drop.reserve(edit_.MemberCount());
  size_t dropped = 0;
  for (const MAFolder& f : edit_.folders())
    for (const MAVariable& v : f.members) {
      std::string member;
      if (!MemberName(f.name, v.fields, family_, member)) return false;
      const auto it = wanted.find(ToLower1252(member));
      const bool match = it != wanted.end() && it->second > 0;
      if (match) {
        --it->second;
        ++dropped;
      }
      drop.push_back(match);
    }
  // Every name must strike exactly one member: unknown or repeated names refuse the delete.
  if (dropped != names.size()) return false;
  size_t i = 0;
  edit_.RemoveMembersIf([&](const MAFolder&, const MAVariable&) { return drop[i++]; });
  IndexModel();
  return true;
}

int32_t OldGroupContainerMA::EditAddFile(const std::string& file, const std::string& destFolder,
                                         int32_t& state, AddPromptFn prompt, void* context) {
  std::vector<unsigned char> bytes;
  if (!fs::ReadWholeFile(file, bytes)) return 0;
  const std::string fileFamily = DetectFileSignature(file);
  const MAWalk walk = WalkMAGroup(bytes);
  if (walk.members.empty()) return 0;

  // A single-variable file gives one variable; a group file gives each of its members, each
  // to its own folder with its own duplicate check.
  // The data is looked for only once the checks let the variable in, so a file that is not
  // a variable at all (a flash file) is still refused with a prompt.
  struct Candidate {
    const MAMemberView* member;
    std::optional<MAVariable> variable;
  };
  std::vector<Candidate> candidates;
  if (MAIsGroup(bytes).value_or(false)) {
    for (const MAMemberView& m : walk.members) {
      const auto block = MABlock(bytes, m);
      candidates.push_back({&m, std::nullopt});
      if (block) candidates.back().variable = MAVariable{m.fields, {block->begin(), block->end()}};
    }
  } else {
    MASingleFile single;
    candidates.push_back({&walk.members.front(), std::nullopt});
    if (ParseMASingleFile(bytes, single))
      candidates.back().variable = MAVariable{single.fields, {single.data.begin(), single.data.end()}};
  }

  for (size_t c = 0; c < candidates.size(); ++c) {
    Candidate& cand = candidates[c];
    if (c > 0) {
      if (state == PromptCancel) break;
      if (state != PromptReplaceAll) state = 0;
    }
    std::string name;
    if (!MemberName(cand.member->folder, cand.member->fields, fileFamily, name)) return 0;
    std::string_view family = fileFamily;
    if (fileFamily != family_ && AreFamiliesCompatible(fileFamily, family_)) {
      family = family_;
      name = RenameForGroupFamily(name, family_);
    }
    switch (CheckBeforeAdding(file, family, name, state, prompt, context)) {
      case AddCheck::Refuse: return 0;
      case AddCheck::Skip: continue;
      case AddCheck::Insert: break;
    }
    if (!cand.variable) return 0;
    if (!typesHaveExtensions_) return 0;
    std::string target = destFolder.empty() ? std::string("main") : destFolder;
    if (cand.member->folder[0] != 0) target = NameFieldText(cand.member->folder);
    target = ToLower1252(target);
    const MAEntryFields fields = cand.variable->fields;
    auto& folders = edit_.folders();
    size_t at = 0;
    while (at < folders.size() && ToLower1252(NameFieldText(folders[at].name)) != target) ++at;
    const NameField folderName = at < folders.size() ? folders[at].name : MakeNameField(target);
    const bool inserted = at < folders.size()
                              ? edit_.InsertFirst(at, std::move(*cand.variable))
                              : edit_.AppendFolder(folderName, std::move(*cand.variable));
    if (!inserted) return 0;
    editChanged_ = true;
    IndexMember(folderName, fields);
    typesHaveExtensions_ = typesHaveExtensions_ && HasExtension(fields.type);
  }
  return 1;
}

bool OldGroupContainerMA::SerializeEdit(std::vector<unsigned char>& out) const {
  return edit_.Serialize(out);
}

}  // namespace qx
