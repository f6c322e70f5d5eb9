#include "qxgroup/Checks.h"

#include <fnmatch.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "formats/DeviceFamily.h"
#include "formats/GroupKind.h"
#include "formats/LayoutKC.h"
#include "formats/LayoutMA.h"
#include "formats/MemberNames.h"
#include "platform/CommaList.h"
#include "platform/Diagnostic.h"
#include "platform/TempFolder.h"
#include "platform/codepage.h"
#include "platform/fs.h"
#include "qxgroup/Automation.h"

namespace qx::cli {

std::vector<std::string> ListMembers(const std::string& group) {
  Bstr names;
  if (FAILED(Session()->ReadContents(ToBstr(group).get(), names.receive())))
    FailWithReason("cannot list " + group);
  return SplitCommaList(FromBstr(names.get()));
}

namespace {

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string MemberPath(std::string name) {
  std::replace(name.begin(), name.end(), '/', '\\');
  return name;
}

bool IsWild(const std::string& name) { return name.find_first_of("*?[") != std::string::npos; }

std::vector<std::string> Parts(const std::string& path) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t cut; (cut = path.find('\\', start)) != std::string::npos; start = cut + 1)
    parts.push_back(path.substr(start, cut - start));
  parts.push_back(path.substr(start));
  return parts;
}

bool Match(const std::string& pattern, const std::string& name) {
  return ::fnmatch(pattern.c_str(), name.c_str(), FNM_NOESCAPE | FNM_CASEFOLD) == 0;
}

// The pattern's first parts match the nested group's path part for part, the rest its member.
bool MatchNested(const std::vector<std::string>& pattern, const NestedMember& m) {
  const std::vector<std::string> group = Parts(m.group);
  if (pattern.size() <= group.size()) return false;
  for (size_t i = 0; i < group.size(); ++i)
    if (!Match(pattern[i], group[i])) return false;
  std::string rest;
  for (size_t i = group.size(); i < pattern.size(); ++i)
    rest += (rest.empty() ? "" : "\\") + pattern[i];
  return Match(rest, m.inner);
}

}  // namespace

bool ReachesNested(const std::vector<std::string>& patterns) {
  for (const std::string& p : patterns)
    if (IsWild(p) && MemberPath(p).find('\\') != std::string::npos) return true;
  return false;
}

MemberSelection SelectMembers(const std::vector<std::string>& members,
                              const std::vector<std::string>& patterns,
                              const std::vector<NestedMember>& nested) {
  // Plain names are looked up, not compared with every member: a get of k names from n members
  // costs O(n + k), not O(n * k). Only wildcards are matched member by member.
  std::unordered_map<std::string, std::vector<size_t>> byName;
  std::unordered_set<std::string> folderPrefixes;  // "unit1\", "unit1\sub\": lower case
  byName.reserve(members.size());
  for (size_t i = 0; i < members.size(); ++i) {
    std::string lower = Lower(members[i]);
    for (size_t cut = lower.find('\\'); cut != std::string::npos; cut = lower.find('\\', cut + 1))
      folderPrefixes.insert(lower.substr(0, cut + 1));
    byName[std::move(lower)].push_back(i);
  }
  std::vector<bool> chosen(members.size(), false), nestedChosen(nested.size(), false);
  std::vector<std::string> folders;
  MemberSelection s;
  for (const std::string& p : patterns) {
    const std::string want = MemberPath(p);
    const bool wild = IsWild(want);
    bool any = false;
    // A folder's own entry ("unit1\"), named as listed or hit by a wildcard, stands for the
    // folder and all below it: the component's copy and delete of it take the whole tree.
    const auto take = [&](size_t i) {
      if (members[i].ends_with('\\'))
        folders.push_back(members[i].substr(0, members[i].size() - 1));
      else
        chosen[i] = true;
      any = true;
    };
    if (wild) {
      for (size_t i = 0; i < members.size(); ++i)
        if (Match(want, members[i])) take(i);
    } else if (const auto it = byName.find(Lower(want)); it != byName.end()) {
      for (const size_t i : it->second) take(i);
    }
    if (wild && want.find('\\') != std::string::npos) {
      const std::vector<std::string> parts = Parts(want);
      for (size_t i = 0; i < nested.size(); ++i)
        if (MatchNested(parts, nested[i])) nestedChosen[i] = any = true;
    }
    // A folder is named as itself; the component takes it out or deletes it as a tree.
    const std::string folder = Lower(want.back() == '\\' ? want : want + "\\");
    if (!any && !wild && folderPrefixes.count(folder) != 0) {
      folders.push_back(folder.size() > 1 ? want.substr(0, folder.size() - 1) : want);
      any = true;
    }
    if (!any) s.missing.push_back(p);
  }
  for (size_t i = 0; i < members.size(); ++i)
    if (chosen[i]) s.found.push_back(members[i]);
  for (size_t i = 0; i < nested.size(); ++i)
    if (nestedChosen[i]) s.found.push_back(nested[i].group + "\\" + nested[i].inner);
  // What lies in a chosen folder goes with it; a folder named twice goes once.
  std::set<std::string> outer;
  for (const std::string& f : folders)
    if (outer.insert(Lower(f) + "\\").second) s.found.push_back(f);
  std::vector<std::string> kept;
  for (const std::string& f : s.found) {
    const std::string name = Lower(f) + "\\";
    bool inside = false;
    for (size_t cut = name.find('\\'); !inside && cut + 1 < name.size();
         cut = name.find('\\', cut + 1))
      inside = outer.count(name.substr(0, cut + 1)) != 0;
    if (!inside) kept.push_back(f);
  }
  s.found = std::move(kept);
  return s;
}

bool LeavesEmpty(const std::vector<std::string>& members, const std::vector<std::string>& chosen) {
  std::vector<std::string> gone;
  for (const std::string& c : chosen) gone.push_back(Lower(c));
  std::sort(gone.begin(), gone.end());
  for (const std::string& m : members) {
    // Named itself, or inside a named folder: "unit1" or "unit1\" takes "unit1\quiz.kdp".
    std::string path = Lower(m);
    bool taken = std::binary_search(gone.begin(), gone.end(), path);
    for (size_t cut = path.find('\\'); !taken && cut != std::string::npos;
         cut = path.find('\\', cut + 1))
      taken = std::binary_search(gone.begin(), gone.end(), path.substr(0, cut)) ||
              std::binary_search(gone.begin(), gone.end(), path.substr(0, cut + 1));
    if (!taken) return false;
  }
  return true;
}

std::string EmptiedGroup(const std::string& group, const std::vector<std::string>& members,
                         const std::vector<std::string>& chosen) {
  if (LeavesEmpty(members, chosen)) return group;
  // Names of nested members are paths through a member of the group's own list.
  std::vector<std::string> listed;
  for (const std::string& m : members) listed.push_back(Lower(m));
  std::sort(listed.begin(), listed.end());
  bool reachesIn = false;
  for (const std::string& c : chosen) {
    const std::string name = Lower(c);
    for (size_t cut = name.find('\\'); !reachesIn && cut != std::string::npos;
         cut = name.find('\\', cut + 1))
      reachesIn = std::binary_search(listed.begin(), listed.end(), name.substr(0, cut));
  }
  if (!reachesIn) return {};
  // Each nested group some name reaches into, with its own members.
  std::map<std::string, std::vector<std::string>> nested;
  for (const NestedMember& m : NestedMembers(group)) nested[m.group].push_back(m.inner);
  for (const auto& [inner, innerMembers] : nested) {
    if (LeavesEmpty({inner}, chosen)) continue;  // the nested group goes as a whole
    const std::string prefix = Lower(inner) + "\\";
    std::vector<std::string> taken;
    for (const std::string& c : chosen)
      if (Lower(c).starts_with(prefix)) taken.push_back(c.substr(prefix.size()));
    if (!taken.empty() && LeavesEmpty(innerMembers, taken)) return inner;
  }
  return {};
}

void FindNested(const std::string& group, MemberSelection& selection) {
  std::vector<std::string> still;
  bool nestedMissing = false;
  for (const std::string& name : selection.missing) {
    const std::string path = MemberPath(name);
    LONG exists = 0;
    const bool nested =
        path.find('\\') != std::string::npos && path.find_first_of("*?[") == std::string::npos;
    if (nested) Session()->get_DoesPathExist(ToBstr(group + "/" + path).get(), &exists);
    nestedMissing = nestedMissing || (nested && exists == 0);
    TakeErrorDescription();  // the answer is the result
    if (exists != 0) selection.found.push_back(path);
    else still.push_back(name);
  }
  // Nested members are looked for in copies in the private temporary folder: when that folder
  // is refused (a link, another user's), say so instead of calling the members missing.
  if (nestedMissing) {
    diag::DiagnosticScope probe;
    const fs::TempWorkFolder work;
    if (!work.IsOpen()) throw Failure{diag::Describe()};
  }
  selection.missing = std::move(still);
}

namespace {

std::string Extension(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  return Lower(path.substr(dot));
}

// "an MA", "a KDX": as the letters are spoken.
std::string Article(std::string_view family) {
  const bool vowelSound = std::string_view("AEFHILMNORSX").find(family.front()) !=
                          std::string_view::npos;
  return (vowelSound ? "an " : "a ") + std::string(family);
}

std::string Kind(const std::string& signature) {
  if (signature == kSigFlash) return "a flash file";
  if (signature == kSigZip) return "a zip-based group";
  return "not a calculator file";
}

// Up to `size` bytes from the start of the file (fewer when it is shorter).
std::vector<unsigned char> Head(fs::File& in, uint64_t size) {
  std::vector<unsigned char> bytes(static_cast<size_t>(std::min(size, in.Size())));
  bytes.resize(in.Seek(0) ? in.Read(bytes.data(), bytes.size()) : 0);
  return bytes;
}

// Why the variables of `file` (a file of a family the group takes) cannot go into an old-style
// group of `group` family, with its diagnostic code; empty when they can. Only the table is
// read, never the variables' data.
std::pair<std::string, std::string> VariablesRefused(const std::string& file,
                                                     const FamilyInfo& group) {
  fs::File in = fs::File::OpenRead(codepage::Utf8ToAnsi(file));
  if (!in.IsOpen()) return {"cannot be read", "cannot-read"};
  if (group.layout == Layout::KCStyle) {
    // A KC-style file gives its one data section, at most 64 KiB.
    if (!KCFileEntries(Head(in, kKCDataOffset + 0xFFFF)))
      return {"holds no variable entries that can be read", "not-a-variable"};
    return {};
  }
  const std::vector<unsigned char> first = Head(in, 64);
  const MAWalk walk = WalkMAGroup(Head(in, MAWalkExtent(first, in.Size())), in.Size());
  if (walk.members.empty()) return {"holds no variable that can be read", "not-a-variable"};
  // A member whose type has no file extension leaves an MA-style group that can no longer be
  // added to or deleted from.
  for (const MAMemberView& m : walk.members)
    if (!TypeExtensionMA(m.fields.type, group.signature)) {
      char type[8];
      std::snprintf(type, sizeof type, "0x%02X", m.fields.type);
      return {std::string("holds a variable of type ") + type + ", which " + Article(group.name) +
                  "-family group cannot hold",
              "bad-type"};
    }
  return {};
}

}  // namespace

void CheckCreate(const std::string& group, const std::vector<std::string>& files, bool force) {
  const std::string ext = Extension(group);
  const std::string first = DetectFileSignature(codepage::Utf8ToAnsi(files.front()));
  const FamilyInfo* family = FindFamilyBySignature(first);
  // The component makes a zip-based group for .qxg/.qxp and for files no old-style group holds.
  if (ext == ".qxg" || ext == ".qxp" || family == nullptr) {
    if (!force && ext != ".qxg" && ext != ".qxp")
      throw Failure{files.front() + ": " + Kind(first) +
                        ", which only a zip-based group holds: name the group .qxg (or give "
                        "--force to keep " + group + ")",
                    "wrong-extension"};
    return;
  }
  if (!family->hasGroups)
    throw Failure{files.front() + ": " + std::string(family->name) +
                      "-family files cannot be put in a group",
                  "other-family"};
  for (const std::string& f : files) {
    const std::string sig = DetectFileSignature(codepage::Utf8ToAnsi(f));
    const FamilyInfo* fileFamily = FindFamilyBySignature(sig);
    const auto [why, code] =
        sig == kSigFlash ? std::pair<std::string, std::string>(
                               "old-style groups cannot hold flash applications", "flash-file")
        : sig == kSigZip ? std::pair<std::string, std::string>(
                               "a zip-based group cannot go into an old-style group",
                               "not-a-variable")
        : fileFamily == nullptr
            ? std::pair<std::string, std::string>("not a calculator file", "not-a-variable")
        : sig != first && !AreFamiliesCompatible(sig, first)
            ? std::pair(Article(fileFamily->name) + "-family file; the group holds " +
                            std::string(family->name) + "-family files (from " + files.front() +
                            ")",
                        std::string("other-family"))
            : VariablesRefused(f, *family);
    if (!why.empty()) throw Failure{f + ": cannot go into " + group + ": " + why, code};
  }
  if (force) return;
  if (family->signature == kSigHWL)
    throw Failure{group + ": an HWL-family group can be made but never opened again, so nothing "
                      "could list or change it (give --force to make it anyway)",
                  "not-a-group"};
  if (family->extensionCode.empty()) return;
  const std::string fits = "." + std::string(family->extensionCode) + "g";
  if (ext != fits)
    throw Failure{group + ": a group of " + std::string(family->name) +
                      "-family files is named " + fits +
                      " (.qxg makes a zip-based group; --force keeps this name)",
                  "wrong-extension"};
}

}  // namespace qx::cli
