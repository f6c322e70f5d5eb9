#include "qxgroup/Checks.h"

#include <fnmatch.h>

#include <algorithm>
#include <cctype>
#include <unordered_map>
#include <unordered_set>

#include "formats/DeviceFamily.h"
#include "formats/GroupKind.h"
#include "platform/CommaList.h"
#include "platform/codepage.h"
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

}  // namespace

MemberSelection SelectMembers(const std::vector<std::string>& members,
                              const std::vector<std::string>& patterns) {
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
  std::vector<bool> chosen(members.size(), false);
  std::vector<std::string> folders;
  MemberSelection s;
  for (const std::string& p : patterns) {
    const std::string want = MemberPath(p);
    const bool wild = want.find_first_of("*?[") != std::string::npos;
    bool any = false;
    if (wild) {
      for (size_t i = 0; i < members.size(); ++i)
        if (::fnmatch(want.c_str(), members[i].c_str(), FNM_NOESCAPE | FNM_CASEFOLD) == 0)
          chosen[i] = any = true;
    } else if (const auto it = byName.find(Lower(want)); it != byName.end()) {
      for (const size_t i : it->second) chosen[i] = true;
      any = true;
    }
    // A folder is named as itself; the component takes it out or deletes it as a tree.
    if (!any && !wild && folderPrefixes.count(Lower(want.back() == '\\' ? want : want + "\\")) != 0) {
      folders.push_back(want);
      any = true;
    }
    if (!any) s.missing.push_back(p);
  }
  for (size_t i = 0; i < members.size(); ++i)
    if (chosen[i]) s.found.push_back(members[i]);
  s.found.insert(s.found.end(), folders.begin(), folders.end());
  return s;
}

void FindNested(const std::string& group, MemberSelection& selection) {
  std::vector<std::string> still;
  for (const std::string& name : selection.missing) {
    const std::string path = MemberPath(name);
    LONG exists = 0;
    if (path.find('\\') != std::string::npos && path.find_first_of("*?[") == std::string::npos)
      Session()->get_DoesPathExist(ToBstr(group + "/" + path).get(), &exists);
    TakeErrorDescription();  // the answer is the result
    if (exists != 0) selection.found.push_back(path);
    else still.push_back(name);
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

}  // namespace

void CheckCreate(const std::string& group, const std::vector<std::string>& files, bool force) {
  const std::string ext = Extension(group);
  const std::string first = DetectFileSignature(codepage::Utf8ToAnsi(files.front()));
  const FamilyInfo* family = FindFamilyBySignature(first);
  // The component makes a zip-based group for .qxg/.qxp and for files no old-style group holds.
  if (ext == ".qxg" || ext == ".qxp" || family == nullptr) {
    if (!force && ext != ".qxg" && ext != ".qxp")
      throw Failure{files.front() + ": " + Kind(first) +
                    ", which only a zip-based group holds: name the group .qxg (or give --force "
                    "to keep " + group + ")"};
    return;
  }
  if (!family->hasGroups)
    throw Failure{files.front() + ": " + std::string(family->name) +
                  "-family files cannot be put in a group"};
  for (const std::string& f : files) {
    const std::string sig = DetectFileSignature(codepage::Utf8ToAnsi(f));
    const std::string why =
        sig == kSigFlash   ? "old-style groups cannot hold flash applications"
        : sig == kSigZip   ? "a zip-based group cannot go into an old-style group"
        : sig == kSigUnknown ? "not a calculator file"
        : sig != first && !AreFamiliesCompatible(sig, first)
            ? Article(FindFamilyBySignature(sig)->name) +
                  "-family file; the group holds " + std::string(family->name) +
                  "-family files (from " + files.front() + ")"
            : std::string();
    if (!why.empty()) throw Failure{f + ": cannot go into " + group + ": " + why};
  }
  if (force || family->extensionCode.empty()) return;
  const std::string fits = "." + std::string(family->extensionCode) + "g";
  if (ext != fits)
    throw Failure{group + ": a group of " + std::string(family->name) +
                  "-family files is named " + fits + " (or give --force to keep this name)"};
}

}  // namespace qx::cli
