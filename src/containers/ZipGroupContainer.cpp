#include "containers/ZipGroupContainer.h"

#include <sys/stat.h>

#include <algorithm>

#include "containers/ContainerFactory.h"
#include "containers/NestedGroup.h"
#include "formats/DeviceFamily.h"
#include "platform/Diagnostic.h"
#include "platform/GroupLock.h"
#include "platform/fs.h"

namespace qx {

namespace {

constexpr char kSep = '\\';
constexpr uint32_t kStoreBelow = 65536;  // smaller files are stored, larger ones deflated
constexpr size_t kStoredNameMax = 259;
// A walk over the entries costs about a twentieth of building the member index: a call that
// looks up a few names (adding one file) walks, one that looks up many builds the index.
constexpr int kWalksBeforeIndex = 4;

// Upper case of a..z only, byte by byte, as the default locale's toupper does.
std::string Upper(std::string text) {
  for (char& c : text)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return text;
}

std::string LastPart(const std::string& path, char separator) {
  const size_t cut = path.find_last_of(separator);
  return cut == std::string::npos ? path : path.substr(cut + 1);
}

bool StartsWithFolder(const std::string& name, const std::string& folder) {
  return name.size() > folder.size() && name.compare(0, folder.size(), folder) == 0 &&
         name[folder.size()] == kSep;
}

// The name the file system stores for the file (its letter case), or the path's own last part.
std::string RealFileName(const std::string& path) {
  fs::FindData found;
  if (fs::Finder().First(path, found) && found.name != "." && found.name != "..")
    return found.name;
  return LastPart(path, '/');
}

// A folder part of a member name that may become folders on disk: no absolute start, no
// "..", no empty or NUL-holding parts. "a\b\" => "a/b/";  "..\x\" => refused.
bool SafeFolderPart(const std::string& folder, std::string& out) {
  out.clear();
  size_t start = 0;
  while (start < folder.size()) {
    const size_t end = folder.find(kSep, start);
    const std::string part = folder.substr(start, end - start);
    if (part.empty() || part == "." || part == ".." || part.find('\0') != std::string::npos ||
        part.find('/') != std::string::npos)
      return false;
    out += part + '/';
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return true;
}

bool IsSymlink(const std::string& path) {
  struct stat st {};
  return ::lstat(fs::ToNative(path).c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

std::string LastLog(VxZip& zip) { return zip.Log().empty() ? std::string() : zip.Log().back(); }

}  // namespace

std::string EntryName(VxZipEntry& entry) {
  VxString name;
  entry.GetFileName(name);
  return std::string(name.View());
}

bool IsDirectoryEntry(VxZipEntry& entry) {
  return entry.IsDirectory() || IsDirectoryEntry(entry, EntryName(entry));
}

bool IsDirectoryEntry(VxZipEntry& entry, const std::string& name) {
  if (entry.IsDirectory()) return true;
  return !name.empty() && name.back() == kSep && entry.GetUncompressedSize() == 0;
}

// ---- Life --------------------------------------------------------------------------------------

ZipGroupContainer::ZipGroupContainer(std::string path, ContainerFactory* factory)
    : GroupContainer(std::move(path), factory) {
  Open();
}

ZipGroupContainer::~ZipGroupContainer() = default;

bool ZipGroupContainer::Open() {
  indexStale_ = true;
  lookUpWalks_ = 0;
  memo_.valid = false;
  copies_.clear();
  if (!fs::StampOf(path_, opened_)) opened_ = {};
  return zip_.OpenZip(path_.c_str());  // IsValid decides whether the container is used at all
}

int32_t ZipGroupContainer::SetPath(const std::string& path) {
  path_ = path;
  Open();
  return 1;
}

int32_t ZipGroupContainer::IsValid() {
  const std::string ext = Upper(LastPart(path_, '/'));
  const size_t dot = ext.find_last_of('.');
  const std::string suffix = dot == std::string::npos ? std::string() : ext.substr(dot);
  if (suffix != ".QXP" && suffix != ".QXG" && suffix != ".ZIP") return 0;
  return DetectFileSignature(path_) == kSigZip ? 1 : 0;
}

// ---- The member index ------------------------------------------------------------------------------

void ZipGroupContainer::IndexEntry(uint64_t serial, const std::string& name, bool add) {
  std::string n = name;
  bool folder = false;
  for (;;) {
    const std::string key = Upper(n);
    const auto bySerial = [](const auto& c, uint64_t s) { return c.first < s; };
    if (add) {
      IndexSlot& slot = memberIndex_[key];
      std::vector<std::pair<uint64_t, IndexValue>>& entries = slot.entries;
      IndexValue value{n.substr(0, kStoredNameMax), folder};
      if (entries.empty() || entries.back().first < serial)
        entries.emplace_back(serial, std::move(value));
      else
        entries.emplace(std::lower_bound(entries.begin(), entries.end(), serial, bySerial), serial,
                        std::move(value));
      ++slot.live;
    } else if (auto it = memberIndex_.find(key); it != memberIndex_.end()) {
      IndexSlot& slot = it->second;
      const auto at = std::lower_bound(slot.entries.begin(), slot.entries.end(), serial, bySerial);
      if (at != slot.entries.end() && at->first == serial && !at->second.removed) {
        at->second.removed = true;
        --slot.live;
      }
      if (slot.live == 0)
        memberIndex_.erase(it);
      else
        while (slot.entries.back().second.removed) slot.entries.pop_back();
    }
    const size_t cut = n.find_last_of(kSep);
    if (cut == std::string::npos) break;
    n.resize(cut);
    folder = true;
  }
}

void ZipGroupContainer::RebuildMemberIndex() {
  memberIndex_.clear();
  memberIndex_.reserve(static_cast<size_t>(zip_.EntryCount()) * 2);
  for (std::unique_ptr<VxZipEntry> e = zip_.FirstEntry(); e != nullptr; e = e->NextEntry())
    IndexEntry(e->Serial(), EntryName(*e), true);
  indexStale_ = false;
}

const ZipGroupContainer::IndexValue* ZipGroupContainer::WalkFor(const std::string& key) {
  const IndexValue* found = nullptr;
  // The last entry whose name is the key or runs on past it after a "\" holds, as in the index.
  zip_.VisitNamesFromLast([&](std::string_view entry) {
    if (entry.size() < key.size() || (entry.size() > key.size() && entry[key.size()] != kSep))
      return false;
    for (size_t i = 0; i < key.size(); ++i) {
      const char c = entry[i];
      if ((c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c) != key[i]) return false;
    }
    walked_.stored.assign(entry.substr(0, std::min(key.size(), kStoredNameMax)));
    walked_.folder = entry.size() > key.size();
    found = &walked_;
    return true;
  });
  return found;
}

const ZipGroupContainer::IndexValue* ZipGroupContainer::LookUp(const std::string& name) {
  std::string key = Upper(name);
  if (memo_.valid && memo_.key == key) return memo_.found ? &memo_.value : nullptr;
  const IndexValue* found = nullptr;
  if (indexStale_ && lookUpWalks_ < kWalksBeforeIndex) {
    ++lookUpWalks_;
    found = WalkFor(key);
  } else {
    if (indexStale_) RebuildMemberIndex();
    const auto it = memberIndex_.find(key);
    if (it != memberIndex_.end()) found = &it->second.entries.back().second;
  }
  memo_.valid = true;
  memo_.key = std::move(key);
  memo_.found = found != nullptr;
  if (found != nullptr) memo_.value = *found;
  return found;
}

std::unique_ptr<VxZipEntry> ZipGroupContainer::Append(const std::string& name,
                                                      const VxByteData& data) {
  memo_.valid = false;
  std::unique_ptr<VxZipEntry> e = zip_.AppendData(name.c_str(), data);
  if (e != nullptr && !indexStale_) IndexEntry(e->Serial(), EntryName(*e), true);
  return e;
}

bool ZipGroupContainer::Delete(VxZipEntry* entry) {
  memo_.valid = false;
  if (entry != nullptr && !indexStale_) IndexEntry(entry->Serial(), EntryName(*entry), false);
  return zip_.DeleteEntry(entry);
}

std::unique_ptr<VxZipEntry> ZipGroupContainer::FindMember(const std::string& name) {
  diag::DiagnosticScope probe;  // not finding a name is an answer
  if (std::unique_ptr<VxZipEntry> exact = zip_.GetEntryByName(name.c_str())) return exact;
  const IndexValue* v = LookUp(name);
  return v == nullptr ? nullptr : zip_.GetEntryByName(v->stored.c_str());
}

int32_t ZipGroupContainer::IsFolderName(const std::string& name) {
  const IndexValue* v = LookUp(name);
  return v != nullptr && v->folder ? 1 : 0;
}

void ZipGroupContainer::SplitMemberPath(const std::string& path, std::string& groupPart,
                                        std::string& innerPath) {
  if (path.empty()) {  // the group's top level: nothing to look up
    groupPart.clear();
    innerPath.clear();
    return;
  }
  std::string p, q;
  size_t pos = std::string::npos;  // -1
  bool found = false;
  do {
    const size_t start = pos + 1;
    pos = path.find(kSep, start);
    if (pos == std::string::npos) pos = path.size();
    q = p;
    if (!p.empty() && p.back() != kSep) p += kSep;
    p.append(path, start, pos - start);
    found = FindMember(p) != nullptr;
    if (!found && IsFolderName(p) == 0) break;
  } while (pos < path.size());
  if (found) {
    groupPart = path;
    innerPath.clear();
    return;
  }
  groupPart = q;
  const size_t rest = path.find_first_not_of(kSep, q.size());
  innerPath = rest == std::string::npos ? std::string() : path.substr(rest);
}

// ---- Reading -----------------------------------------------------------------------------------------

int32_t ZipGroupContainer::ContainsMember(const std::string& name) {
  return FindMember(name) != nullptr ? 1 : 0;
}

int32_t ZipGroupContainer::GetMemberName(int32_t index, std::string& name) {
  std::unique_ptr<VxZipEntry> e = zip_.GetEntryByIndex(index);
  if (e == nullptr) return 0;
  name = EntryName(*e);
  return 1;
}

int32_t ZipGroupContainer::GetMemberCount() { return zip_.EntryCount(); }

int32_t ZipGroupContainer::ListMembers(StringList& names) {
  const int count = zip_.EntryCount();
  std::unique_ptr<VxZipEntry> e = zip_.FirstEntry();
  for (int i = 0; i < count && e != nullptr; ++i, e = e->NextEntry()) names.push_back(EntryName(*e));
  return 1;
}

int32_t ZipGroupContainer::ExtractAllMembers(const std::string& destFolder) {
  if (zip_.Extract(destFolder.c_str())) return 1;
  diag::Record("extract-failed", GetGroupFileName(),
               "not every member could be written" +
                   (zip_.Log().empty() ? std::string() : " (" + LastLog(zip_) + ")"));
  return 0;
}

int32_t ZipGroupContainer::ExtractMember(const std::string& name, const std::string& destFolder) {
  nested::CallScope call;
  if (name.empty()) {
    diag::Record("no-member", GetGroupFileName(), "no member name was given");
    return 0;
  }
  std::unique_ptr<VxZipEntry> e = FindMember(name);
  const bool folder = IsFolderName(name) != 0;
  if (e != nullptr && !folder) {
    if (IsDirectoryEntry(*e)) return 1;  // a folder entry writes nothing
    if (e->ExtractInto(destFolder.c_str())) return 1;
    diag::Record("extract-failed", name, "the member cannot be written into " +
                                             (destFolder.empty() ? std::string(".") : destFolder) +
                                             " (" + LastLog(zip_) + ")");
    return 0;
  }
  if (folder) {
    int32_t result = 1;
    for (std::unique_ptr<VxZipEntry> m = zip_.FirstEntry(); m != nullptr; m = m->NextEntry()) {
      const std::string stored = EntryName(*m);
      if (stored != name && !StartsWithFolder(stored, name)) continue;
      const size_t cut = stored.find_last_of(kSep);
      std::string sub;
      if (cut != std::string::npos && !SafeFolderPart(stored.substr(0, cut), sub)) {
        diag::Record("unsafe-name", stored, "the member's folder would lie outside the destination");
        result = 0;
        continue;
      }
      const std::string target = destFolder + sub;
      fs::CreateFolder(target);  // ExtractInto makes missing levels itself
      if (IsDirectoryEntry(*m)) {
        fs::CreateFolders(target.empty() ? "." : target);
        result = 1;
        continue;
      }
      result = m->ExtractInto(target.c_str()) ? 1 : 0;
      if (result == 0)
        diag::Record("extract-failed", stored, "the member cannot be written (" + LastLog(zip_) + ")");
    }
    return result;
  }
  if (factory_ == nullptr) {
    diag::Record("no-member", name, "no such member in " + GetGroupFileName());
    return 0;
  }
  std::string groupPart, innerPath;
  SplitMemberPath(name, groupPart, innerPath);
  std::unique_ptr<VxZipEntry> group = groupPart.empty() ? nullptr : FindMember(groupPart);
  if (group == nullptr || IsDirectoryEntry(*group)) {
    diag::Record("no-member", name, "no such member in " + GetGroupFileName());
    return 0;
  }
  nested::MemberCopy copy(std::move(group), groupPart);
  if (!copy.ok()) return 0;
  const int32_t r = copy.Run(*factory_, [&](GroupContainer& inner) {
    return inner.ExtractMember(innerPath, destFolder);
  });
  return r < 0 ? 1 : r;  // a member that is not a group: only the copy was made
}

// ---- Changing ------------------------------------------------------------------------------------

nested::MemberCopy* ZipGroupContainer::ChangingCopy(const std::string& groupPart) {
  std::unique_ptr<VxZipEntry> e = FindMember(groupPart);
  if (e == nullptr) return nullptr;
  const std::string member = EntryName(*e);
  for (const auto& c : copies_)
    if (c->Member() == member && c->Entry()->Serial() == e->Serial()) return c.get();
  auto copy = std::make_unique<nested::MemberCopy>(std::move(e), member);
  if (!copy->ok()) return nullptr;
  copies_.push_back(std::move(copy));
  return copies_.back().get();
}

bool ZipGroupContainer::StoreBackCopies() {
  std::vector<nested::MemberCopy*> changed;
  for (const auto& c : copies_)
    if (c->changed && !EntryName(*c->Entry()).empty()) changed.push_back(c.get());
  std::sort(changed.begin(), changed.end(),
            [](const auto* a, const auto* b) { return a->lastTouch < b->lastTouch; });
  bool ok = true;
  for (nested::MemberCopy* c : changed) {
    VxByteData data;
    if (!data.LoadFile(c->File().c_str()) || data.GetSize() == 0) {
      diag::Record("nested-write-failed", c->Member(), "the changed nested group cannot be read back");
      ok = false;
      break;
    }
    // The member keeps its name and takes the nested group's new bytes, at the archive's end.
    Delete(c->Entry());
    if (Append(c->Member(), data) == nullptr) {
      diag::Record("nested-write-failed", c->Member(), "the changed nested group cannot be stored");
      ok = false;
      break;
    }
  }
  copies_.clear();
  return ok;
}

bool ZipGroupContainer::Write() {
  if (!StoreBackCopies()) return false;
  memo_.valid = false;
  if (!zip_.WriteZip()) {
    diag::Record("write-failed", path_, "the group cannot be rewritten (" + LastLog(zip_) + ")");
    indexStale_ = true;
    return false;
  }
  indexStale_ = true;  // the archive was reopened: entries have new identities
  lookUpWalks_ = 0;
  return true;
}

bool ZipGroupContainer::DeleteOne(const std::string& name, bool& handled) {
  std::unique_ptr<VxZipEntry> e = FindMember(name);
  const bool folder = IsFolderName(name) != 0;
  handled = e != nullptr || folder;
  if (e != nullptr && !folder) return Delete(e.get());
  if (folder) {
    // One rebuild later costs less than taking each entry out of its folders' slots.
    indexStale_ = true;
    std::unique_ptr<VxZipEntry> m = zip_.FirstEntry();
    while (m != nullptr) {
      std::unique_ptr<VxZipEntry> next = m->NextEntry();
      const std::string stored = EntryName(*m);
      if ((stored == name || StartsWithFolder(stored, name)) && !Delete(m.get())) break;
      m = std::move(next);
    }
  }
  return true;
}

bool ZipGroupContainer::ReopenLocked() {
  // What was opened is what the lock now guards unless another writer replaced it meanwhile.
  // Only the first change after opening may take that shortcut: a change made in memory and
  // then not written must never be built on.
  fs::FileStamp now;
  const bool same = fs::StampOf(path_, now) && now == opened_;
  opened_ = {};
  if (same) return true;
  if (Open()) {
    opened_ = {};
    return true;
  }
  diag::Record("cannot-read", path_, "changed while waiting for the write lock and no longer opens ("
                                         + LastLog(zip_) + ")");
  return false;
}

int32_t ZipGroupContainer::DeleteMembers(const StringList& names) {
  // Held from the read to the rename, so a concurrent writer's change is read, not overwritten.
  fs::GroupLock lock(path_);
  if (!lock.Held() || !ReopenLocked()) return 0;
  nested::CallScope call;
  copies_.clear();
  for (const std::string& name : names) {
    bool handled = false;
    if (!DeleteOne(name, handled)) {
      diag::Record("delete-failed", name, "the member cannot be removed");
      copies_.clear();
      return 0;
    }
    if (handled) continue;
    // Not a member or folder here: perhaps a member of a nested group.
    std::string groupPart, innerPath;
    if (factory_ != nullptr) SplitMemberPath(name, groupPart, innerPath);
    std::unique_ptr<VxZipEntry> group = groupPart.empty() ? nullptr : FindMember(groupPart);
    if (group == nullptr) {
      diag::Record("no-member", name, "no such member in " + GetGroupFileName());
      copies_.clear();
      return 0;
    }
    nested::MemberCopy* copy = ChangingCopy(groupPart);
    if (copy == nullptr) {
      copies_.clear();
      return 0;
    }
    const int32_t r = copy->Run(*factory_, [&](GroupContainer& inner) {
      return inner.DeleteMembers(StringList{innerPath});
    });
    if (nested::BoundReached()) {
      copies_.clear();
      return 0;
    }
    if (r >= 0) {
      copy->changed = true;
      copy->lastTouch = ++touches_;
    }
  }
  return Write() ? 1 : 0;
}

int32_t ZipGroupContainer::CreateWithMembers(const StringList& files,
                                             const std::string& destFolder) {
  fs::GroupLock lock(path_);
  if (!lock.Held()) return 0;
  if (!zip_.NewZip(path_.c_str())) {
    diag::Record("create-failed", path_, "a new archive cannot be started (" + LastLog(zip_) + ")");
    return 0;
  }
  indexStale_ = true;
  memo_.valid = false;
  // The empty archive and the added files go to disk in one write, at the end of AddMembers.
  int32_t state = 0;
  return AddLocked(files, destFolder, &state, nullptr, nullptr);
}

int32_t ZipGroupContainer::AddMembers(const StringList& files, const std::string& destFolder,
                                      int32_t* promptState, AddPromptFn prompt, void* context) {
  fs::GroupLock lock(path_);
  if (!lock.Held() || !ReopenLocked()) return 0;
  return AddLocked(files, destFolder, promptState, prompt, context);
}

int32_t ZipGroupContainer::AddLocked(const StringList& files, const std::string& destFolder,
                                     int32_t* promptState, AddPromptFn prompt, void* context) {
  nested::CallScope call;
  copies_.clear();
  int32_t localState = 0;
  int32_t* state = promptState != nullptr ? promptState : &localState;
  int32_t result = 1;
  for (const std::string& file : files) {
    if (*state == PromptCancel) break;
    if (*state != PromptReplaceAll) *state = 0;
    result = AddOneFile(file, destFolder, state, prompt, context);
    if (result == 0) break;
  }
  // What was added before a failure or a cancel stays: one write for the whole call.
  if (!Write()) return 0;
  return result;
}

int32_t ZipGroupContainer::AddOneFile(const std::string& sourceIn, const std::string& destFolder,
                                      int32_t* state, AddPromptFn prompt, void* context) {
  std::string source = sourceIn;
  while (source.size() > 1 && source.back() == '/') source.pop_back();
  const size_t slash = source.find_last_of('/');
  source = (slash == std::string::npos ? std::string() : source.substr(0, slash + 1)) +
           RealFileName(source);

  std::string groupPart, innerPath;
  SplitMemberPath(destFolder, groupPart, innerPath);
  if (std::unique_ptr<VxZipEntry> g = groupPart.empty() ? nullptr : FindMember(groupPart);
      g != nullptr && !IsDirectoryEntry(*g)) {
    // The destination lies inside a nested group; the copy is stored back once, at the write.
    if (factory_ == nullptr) {
      diag::Record("no-member", destFolder, "nested groups cannot be opened here");
      return 0;
    }
    nested::MemberCopy* copy = ChangingCopy(groupPart);
    if (copy == nullptr) return 0;
    const int32_t r = copy->Run(*factory_, [&](GroupContainer& inner) {
      return inner.AddMembers(StringList{source}, innerPath, state, prompt, context);
    });
    if (r < 0) return 1;  // not a group file: nothing to add into
    if (nested::BoundReached()) return 0;
    copy->changed = true;
    copy->lastTouch = ++touches_;
    return r;
  }

  const std::string member = destFolder + LastPart(source, '/');
  if (FindMember(member) != nullptr || IsFolderName(member) != 0) {
    if (prompt == nullptr) {
      if (*state != PromptReplaceAll) *state = PromptReplace;
    } else if (*state != PromptReplaceAll) {
      *state = prompt(source, PromptDuplicate, this, context);
    }
    if (*state == PromptReplace || *state == PromptReplaceAll) {
      bool handled = false;
      DeleteOne(member, handled);  // in memory; written with the rest of the call
    } else if (*state == PromptSkip || *state == PromptCancel) {
      return 1;
    }
  }

  const uint32_t attrs = fs::GetAttributes(source);
  if (attrs != fs::kInvalidAttributes && (attrs & fs::kAttrDirectory) != 0)
    return AddDirectory(source + '/', member + kSep, state, prompt, context);

  VxByteData data;
  if (!data.LoadFile(source.c_str())) {
    diag::Record(attrs == fs::kInvalidAttributes ? "no-file" : "unreadable", source,
                 attrs == fs::kInvalidAttributes ? "no such file" : "the file cannot be read");
    return 0;
  }
  std::unique_ptr<VxZipEntry> e = Append(member, data);
  if (e == nullptr) {
    diag::Record(data.GetSize() == 0 ? "empty-file" : "add-failed", source,
                 data.GetSize() == 0 ? "a file of 0 bytes cannot be stored in a zip-based group"
                                     : "the file cannot be added (" + LastLog(zip_) + ")");
    return 0;
  }
  if (e->GetUncompressedSize() < kStoreBelow) e->SetCompressionMethod(0);
  return 1;
}

int32_t ZipGroupContainer::AddDirectory(const std::string& source, const std::string& member,
                                        int32_t* state, AddPromptFn prompt, void* context) {
  fs::Finder finder;
  fs::FindData found;
  if (!finder.First(source + "*.*", found)) {
    diag::Record("unreadable", source, "the folder cannot be read");
    return 0;
  }
  int32_t result = 1;
  do {
    if (found.name == "." || found.name == "..") continue;
    const std::string path = source + found.name;
    if (found.attributes & fs::kAttrDirectory) {
      // A linked folder may lead back up the tree; it is not followed.
      if (IsSymlink(path)) continue;
      result = AddOneFile(path, member, state, prompt, context);
    } else {
      VxByteData data;
      std::unique_ptr<VxZipEntry> e;
      if (data.LoadFile(path.c_str())) e = Append(member + found.name, data);
      if (e == nullptr) {
        diag::Record(data.GetSize() == 0 ? "empty-file" : "unreadable", path,
                     data.GetSize() == 0
                         ? "a file of 0 bytes cannot be stored in a zip-based group"
                         : "the file cannot be read");
        return 0;
      }
      if (e->GetUncompressedSize() < kStoreBelow) e->SetCompressionMethod(0);
    }
  } while (result != 0 && finder.Next(found));
  return result;
}

}  // namespace qx
