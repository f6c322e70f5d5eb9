// The friendly subcommands: each one FileManager method, with its failures put into words.
#include "qxgroup/Commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <utility>

#include "formats/DeviceFamily.h"
#include "platform/CommaList.h"
#include "platform/ReuseScope.h"
#include "platform/codepage.h"
#include "platform/fs.h"
#include "qxgroup/Automation.h"
#include "qxgroup/Checks.h"
#include "qxgroup/Json.h"
#include "qxgroup/JsonOutput.h"
#include "resources/Resources.h"

namespace qx::cli {

namespace {

std::string Ansi(const std::string& utf8) { return codepage::Utf8ToAnsi(utf8); }

// Inputs that must exist; checked before anything is written. Folders go into zip-based
// groups as trees.
void RequireFiles(const std::vector<std::string>& files) {
  for (const std::string& f : files) {
    CheckListItem(f, "file name");
    const uint32_t attrs = fs::GetAttributes(Ansi(f));
    if (attrs == fs::kInvalidAttributes) throw Failure{"no such file: " + f, "no-such-file"};
  }
}

void RequireFolder(const std::string& dir) {
  if (dir.empty()) return;
  CheckRepresentable(dir, "folder name");
  const uint32_t attrs = fs::GetAttributes(Ansi(dir));
  if (attrs == fs::kInvalidAttributes) throw Failure{"no such folder: " + dir, "no-such-folder"};
  if (!(attrs & fs::kAttrDirectory)) throw Failure{"not a folder: " + dir, "not-a-folder"};
}

// "main.NOPE.map: no such member in g.mag", or "a, b: no such members in g.mag".
std::string NoSuchMembers(const std::vector<std::string>& names, const std::string& group) {
  std::string text;
  for (const std::string& n : names) text += (text.empty() ? "" : ", ") + n;
  return text + (names.size() == 1 ? ": no such member in " : ": no such members in ") + group;
}

void PrintList(const std::string& utf8List) {
  for (const std::string& item : SplitCommaList(utf8List)) std::printf("%s\n", item.c_str());
}

// The members the names stand for; names are checked before anything is asked of the group.
MemberSelection Choose(const std::string& group, const std::vector<std::string>& names,
                       std::vector<std::string>* all = nullptr) {
  CheckRepresentable(group, "group file name");
  for (const std::string& m : names) CheckListItem(m, "member name");
  std::vector<std::string> members = ListMembers(group);
  MemberSelection chosen = SelectMembers(
      members, names, ReachesNested(names) ? NestedMembers(group) : std::vector<NestedMember>{});
  FindNested(group, chosen);
  if (all != nullptr) *all = std::move(members);
  return chosen;
}

void RefuseEmptying(const std::string& group, const std::vector<std::string>& all,
                    const std::vector<std::string>& chosen, const char* doing, const char* done) {
  const std::string emptied = EmptiedGroup(group, all, chosen);
  if (emptied.empty()) return;
  throw Failure{(emptied == group ? group : group + ": " + emptied) + ": " + doing +
                    " every member would leave the group empty; nothing " + done,
                "keeps-one"};
}

}  // namespace

Conventions& Settings() {
  static Conventions settings;
  return settings;
}

int CmdCreate(const std::string& group, const std::vector<std::string>& files, bool force) {
  CheckRepresentable(group, "group file name");
  const size_t slash = group.find_last_of('/');
  if (slash != std::string::npos && slash > 0) RequireFolder(group.substr(0, slash));
  RequireFiles(files);
  const std::string list = JoinList(files, "file name");
  CheckCreate(group, files, force);
  const HRESULT hr = Session()->CreateGrpFile(ToBstr(group).get(), ToBstr(list).get());
  if (FAILED(hr)) FailWithReason("cannot create group " + group);
  if (Settings().verbose)
    for (const std::string& f : files) std::fprintf(stderr, "qxgroup: added %s\n", f.c_str());
  return kExitOk;
}

namespace {

// Folders inside a group exist only in zip-based groups; an old-style group would ignore --to.
void RequireFolders(const std::string& group) {
  const std::string sig = DetectFileSignature(Ansi(group));
  if (FindFamilyBySignature(sig) != nullptr || sig == kSigFlash)
    throw Failure{group + ": an old-style group has no folders; --to works on zip-based groups "
                  "(.qxg, .qxp)"};
}

// The owner window an add runs with: none for "replace" (the component then replaces
// duplicates without asking), else one whose host answers or asks.
std::shared_ptr<ui::Host> DuplicateHost(const std::string& onDuplicate) {
  if (onDuplicate == "replace") return nullptr;
  if (onDuplicate == "skip") return std::make_shared<ui::FixedAnswerHost>(IDC_SKIP);
  if (onDuplicate == "cancel") return std::make_shared<ui::FixedAnswerHost>(IDC_CANCEL);
  if (onDuplicate == "ask") {
    const int tty = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (tty < 0)
      throw UsageError{"--on-duplicate=ask needs a terminal to ask on, and there is none; "
                       "use replace, skip or cancel"};
    ::close(tty);
    return std::make_shared<ui::TerminalHost>();
  }
  throw UsageError{"--on-duplicate takes replace, ask, skip or cancel, not \"" + onDuplicate +
                   "\""};
}

}  // namespace

int CmdAdd(const std::string& group, const std::vector<std::string>& files,
           const std::string& folder, const std::string& onDuplicate) {
  CheckRepresentable(group, "group file name");
  CheckRepresentable(folder, "folder name");
  RequireFiles(files);
  const std::string list = JoinList(files, "file name");
  if (!folder.empty()) RequireFolders(group);
  OwnerWindow owner(Session().get(), DuplicateHost(onDuplicate));

  const HRESULT hr = Session()->AddFiles(ToBstr(group).get(), ToBstr(list).get(),
                                         ToBstr(folder).get());
  if (FAILED(hr)) FailWithReason("cannot add to " + group);
  if (hr == kAddedWithFilesLeftOut) {
    std::string names;
    for (const std::string& f : TakeFilesLeftOut()) names += (names.empty() ? "" : ", ") + f;
    if (!Settings().quiet)
      std::fprintf(stderr, "qxgroup: warning: not added to %s (already there): %s\n",
                   group.c_str(), names.empty() ? "some files" : names.c_str());
    return kExitPartial;
  }
  if (Settings().verbose)
    for (const std::string& f : files) std::fprintf(stderr, "qxgroup: added %s\n", f.c_str());
  return kExitOk;
}

int CmdDelete(const std::string& group, const std::vector<std::string>& members) {
  CheckRepresentable(group, "group file name");
  for (const std::string& m : members) CheckListItem(m, "member name");
  std::vector<std::string> all;
  const MemberSelection chosen = Choose(group, members, &all);
  if (!chosen.missing.empty()) throw Failure{NoSuchMembers(chosen.missing, group), "no-member"};
  RefuseEmptying(group, all, chosen.found, "deleting", "deleted");
  const std::string list = JoinList(chosen.found, "member name");
  const HRESULT hr = Session()->DeleteFiles(ToBstr(group).get(), ToBstr(list).get());
  if (FAILED(hr)) FailWithReason("cannot delete from " + group);
  if (Settings().verbose)
    for (const std::string& m : chosen.found)
      std::fprintf(stderr, "qxgroup: deleted %s\n", m.c_str());
  return kExitOk;
}

int CmdList(const std::string& group) {
  CheckRepresentable(group, "group file name");
  Bstr names;
  const HRESULT hr = Session()->ReadContents(ToBstr(group).get(), names.receive());
  if (FAILED(hr)) FailWithReason("cannot list " + group);
  if (Settings().json) {
    JsonObject doc;
    doc.AddString("group", group);
    doc.AddRaw("members", JsonArray(SplitCommaList(FromBstr(names.get()))));
    PrintJson(doc.Str());
    return kExitOk;
  }
  PrintList(FromBstr(names.get()));
  return kExitOk;
}

int CmdXml(const std::string& group, bool meta, const std::string& pattern) {
  CheckRepresentable(group, "group file name");
  CheckRepresentable(pattern, "pattern");
  Bstr xml;
  const HRESULT hr = Session()->ReadContentsXml(ToBstr(group).get(), meta ? 1 : 0,
                                                ToBstr(pattern).get(), xml.receive());
  if (FAILED(hr)) FailWithReason("cannot list " + group + " as XML");
  const std::string text = FromBstr(xml.get());
  std::fputs(text.c_str(), stdout);
  if (text.empty() || text.back() != '\n') std::fputs("\n", stdout);
  return kExitOk;
}

namespace {

std::string Target(const std::string& dest, const std::string& name) {
  if (dest.empty()) return name;
  return dest.back() == '/' ? dest + name : dest + "/" + name;
}

// Copies one member into the staging folder, which is empty before.
void StageMember(const std::string& group, const std::string& member, const Staging& staging) {
  const HRESULT hr = Session()->GetFile(ToBstr(group).get(), ToBstr(member).get(),
                                        ToBstr(staging.Path()).get());
  if (FAILED(hr)) FailWithReason("cannot get " + member + " from " + group);
}

// A staged file, or every file of a staged folder in name order, on standard output.
void CopyToStdout(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    for (const std::string& name : FolderEntries(path)) CopyToStdout(path + "/" + name);
    return;
  }
  std::FILE* in = std::fopen(path.c_str(), "rb");
  if (in == nullptr) throw Failure{"cannot read " + path};
  char buf[1 << 16];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, in)) > 0)
    if (std::fwrite(buf, 1, n, stdout) != n) {
      std::fclose(in);
      throw Failure{"cannot write to standard output"};
    }
  std::fclose(in);
}

std::string LowerAscii(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// The folders of a group, from its list ("unit1\quiz.kdp" gives "unit1"), in lower case.
std::set<std::string> FoldersOf(const std::vector<std::string>& members) {
  std::set<std::string> folders;
  for (const std::string& m : members)
    for (size_t cut = m.find('\\'); cut != std::string::npos; cut = m.find('\\', cut + 1))
      folders.insert(LowerAscii(m.substr(0, cut)));
  return folders;
}

// Where a member goes under `dest`: into its folders inside the group, made as needed, as unzip
// does ("unit1\quiz.kdp" => DEST/unit1/). A nested group's members go where the nested group
// would go ("unit1\data.kdg\A.kdn" => DEST/unit1/), so no folder takes a group file's name.
std::string MemberFolder(const std::string& dest, const std::string& member,
                         const std::set<std::string>& folders) {
  std::string path = dest.empty() ? std::string() : (dest.back() == '/' ? dest : dest + "/");
  size_t start = 0;
  for (size_t cut = member.find('\\'); cut != std::string::npos;
       start = cut + 1, cut = member.find('\\', start)) {
    if (folders.count(LowerAscii(member.substr(0, cut))) == 0) break;
    const std::string part = member.substr(start, cut - start);
    if (part.empty() || part == "." || part == "..")
      throw Failure{member + ": a folder of this name cannot be made", "unsafe-name"};
    path += part;
    struct stat st;
    if (::mkdir(path.c_str(), 0777) != 0 &&
        (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)))
      throw Failure{"cannot make the folder " + path + " for " + member, "cannot-create"};
    path += "/";
  }
  return path.empty() ? dest : path;
}

// Moves what the staging folder holds into `dest`; true when every file got there.
bool PlaceStaged(const Staging& staging, const std::string& dest, Placer& placer) {
  bool all = true;
  for (const std::string& f : staging.Files())
    if (!placer.Place(staging.Path() + f, Target(dest, f))) all = false;
  staging.Clear();  // what was kept back, so the next member finds the folder empty
  return all;
}

}  // namespace

int CmdGet(const std::string& group, const std::vector<std::string>& members,
           const std::string& dest, bool toStdout) {
  RequireFolder(dest);
  std::vector<std::string> all;
  const MemberSelection chosen = Choose(group, members, &all);
  const std::set<std::string> folders = FoldersOf(all);
  int status = kExitOk;
  if (!chosen.found.empty()) {
    // One walk of an old-style group's table serves every member while the group is unchanged.
    const ReuseScope reuse;
    Staging staging(dest, !toStdout);
    Placer placer(Settings().overwrite, {group}, Settings().verbose);
    for (const std::string& m : chosen.found) {
      StageMember(group, m, staging);
      if (!toStdout) {
        // A plain member's own file is moved without listing the folder; anything else the
        // step wrote is swept up after the last member.
        struct stat st;
        const bool plain = m.find_first_of("\\/") == std::string::npos;
        if (plain && ::lstat((staging.Path() + m).c_str(), &st) == 0) {
          if (!placer.Place(staging.Path() + m, Target(dest, m)))
            std::remove((staging.Path() + m).c_str());
        } else {
          PlaceStaged(staging, MemberFolder(dest, m, folders), placer);
        }
        continue;
      }
      for (const std::string& f : staging.Files()) CopyToStdout(staging.Path() + f);
      staging.Clear();
    }
    if (!toStdout) PlaceStaged(staging, dest, placer);
    std::fflush(stdout);
    status = placer.Report(Settings().quiet);
  }
  if (chosen.missing.empty()) return status;
  std::fprintf(stderr, "qxgroup: %s\n", NoSuchMembers(chosen.missing, group).c_str());
  return kExitMissing;
}

int CmdExtract(const std::string& group, const std::vector<std::string>& members,
               const std::string& dest) {
  RequireFolder(dest);
  std::vector<std::string> all;
  const MemberSelection chosen = Choose(group, members, &all);
  if (!chosen.missing.empty())
    throw Failure{NoSuchMembers(chosen.missing, group) + "; nothing extracted", "no-member"};
  RefuseEmptying(group, all, chosen.found, "extracting", "extracted (`expand` copies them all out)");
  const std::set<std::string> folders = FoldersOf(all);
  Staging staging(dest);
  Placer placer(Settings().overwrite, {group}, Settings().verbose);
  std::vector<std::string> placed;
  const ReuseScope reuse;  // the group is unchanged until the one delete at the end
  for (const std::string& m : chosen.found) {
    StageMember(group, m, staging);
    if (PlaceStaged(staging, MemberFolder(dest, m, folders), placer)) placed.push_back(m);
  }
  // Only members whose file is in place leave the group, in one write.
  if (!placed.empty()) {
    const HRESULT hr = Session()->DeleteFiles(ToBstr(group).get(),
                                              ToBstr(JoinList(placed, "member name")).get());
    if (FAILED(hr)) FailWithReason("the files were written but the members stay in " + group);
    if (Settings().verbose)
      for (const std::string& m : placed)
        std::fprintf(stderr, "qxgroup: deleted %s from %s\n", m.c_str(), group.c_str());
  }
  return placer.Report(Settings().quiet);
}

int CmdExpand(const std::string& group, const std::string& dest) {
  CheckRepresentable(group, "group file name");
  RequireFolder(dest);
  Staging staging(dest);
  const HRESULT hr = Session()->ExpandGrpFile(ToBstr(group).get(), ToBstr(staging.Path()).get());
  if (FAILED(hr)) FailWithReason("cannot expand " + group);
  Placer placer(Settings().overwrite, {group}, Settings().verbose);
  PlaceStaged(staging, dest, placer);
  return placer.Report(Settings().quiet);
}

int CmdFlash(const std::string& file, const std::string& dest) {
  CheckRepresentable(file, "file name");
  RequireFolder(dest);
  Staging staging(dest);
  Bstr outfiles;
  const HRESULT hr = Session()->ExpandFlashFile(ToBstr(file).get(), ToBstr(staging.Path()).get(),
                                                outfiles.address());
  if (hr == E_NOTIMPL) throw Failure{"splitting flash files is not part of this build"};
  if (FAILED(hr)) FailWithReason("cannot split " + file);
  const std::string why = hr == S_FALSE ? TakeErrorDescription() : std::string();
  Placer placer(Settings().overwrite, {file}, Settings().verbose);
  size_t written = 0;
  for (const std::string& out : SplitCommaList(FromBstr(outfiles.get()))) {
    const std::string name = out.substr(out.find_last_of("/\\") + 1);
    ++written;
    if (placer.Place(staging.Path() + name, Target(dest, name)))
      std::printf("%s\n", Target(dest, name).c_str());
  }
  std::fflush(stdout);
  int status = placer.Report(Settings().quiet);
  if (hr == S_FALSE) {
    if (written == 0) throw Failure{why.empty() ? "not a flash file: " + file : why};
    if (!Settings().quiet)
      std::fprintf(stderr, "qxgroup: warning: %s\n",
                   why.empty() ? (file + " ends with bytes that are not a flash record").c_str()
                               : why.c_str());
    status = kExitPartial;
  }
  return status;
}

namespace {

// SplitPath's two parts; Failure when no group file is on the path.
std::pair<std::string, std::string> GroupParts(const std::string& path) {
  CheckRepresentable(path, "path");
  Bstr group = ToBstr(path), inGroup;
  Session()->SplitPath(group.address(), inGroup.address());
  std::pair<std::string, std::string> parts{FromBstr(group.get()), FromBstr(inGroup.get())};
  if (parts.first.empty()) throw Failure{path + ": no group file on this path", "not-a-group"};
  return parts;
}

// "yes"/"no", or {"path":...,"exists":true} with --json.
void PrintAnswer(const std::string& path, const char* key, bool yes) {
  if (!Settings().json) {
    std::printf("%s\n", yes ? "yes" : "no");
    return;
  }
  JsonObject doc;
  doc.AddString("path", path);
  doc.AddRaw(key, JsonBool(yes));
  PrintJson(doc.Str());
}

}  // namespace

int CmdSplitPath(const std::string& path) {
  const auto [group, inGroup] = GroupParts(path);
  if (Settings().json) {
    JsonObject doc;
    doc.AddString("group", group);
    doc.AddString("inGroup", inGroup);
    PrintJson(doc.Str());
    return kExitOk;
  }
  std::printf("%s\n%s\n", group.c_str(), inGroup.c_str());
  return kExitOk;
}

int CmdIsGroup(const std::string& path) {
  CheckRepresentable(path, "path");
  LONG value = 0;
  const HRESULT hr = Session()->get_IsGroup(ToBstr(path).get(), &value);
  if (FAILED(hr)) FailWithReason("cannot tell whether " + path + " is a group");
  PrintAnswer(path, "isGroup", value != 0);
  return value ? kExitOk : kExitFailed;
}

int CmdExists(const std::string& path) {
  CheckRepresentable(path, "path");
  if (fs::GetAttributes(Ansi(path)) != fs::kInvalidAttributes)
    throw UsageError{path + " is a file; `exists` asks about a member (GROUP/MEMBER), "
                     "`is-group` about a file"};
  GroupParts(path);
  LONG value = 0;
  Session()->get_DoesPathExist(ToBstr(path).get(), &value);
  TakeErrorDescription();  // the answer is the result
  PrintAnswer(path, "exists", value != 0);
  return value ? kExitOk : kExitFailed;
}

}  // namespace qx::cli
