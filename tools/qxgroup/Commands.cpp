// The friendly subcommands: each one FileManager method, with its failures put into words.
#include "qxgroup/Commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unordered_set>

#include "platform/codepage.h"
#include "platform/fs.h"
#include "qxgroup/Automation.h"
#include "resources/Resources.h"
#include "containers/GroupContainer.h"

namespace qx::cli {

namespace {

std::string Ansi(const std::string& utf8) { return codepage::Utf8ToAnsi(utf8); }

// Inputs that must exist; checked before anything is written. Folders go into zip-based
// groups as trees.
void RequireFiles(const std::vector<std::string>& files) {
  for (const std::string& f : files) {
    CheckListItem(f, "file name");
    const uint32_t attrs = fs::GetAttributes(Ansi(f));
    if (attrs == fs::kInvalidAttributes) throw Failure{"no such file: " + f};
  }
}

void RequireFolder(const std::string& dir) {
  if (dir.empty()) return;
  CheckRepresentable(dir, "folder name");
  const uint32_t attrs = fs::GetAttributes(Ansi(dir));
  if (attrs == fs::kInvalidAttributes) throw Failure{"no such folder: " + dir};
  if (!(attrs & fs::kAttrDirectory)) throw Failure{"not a folder: " + dir};
}

// A group operation failed: say why in words, naming the group.
void GroupFailureIfNotAGroup(const std::string& group) {
  const std::string why = WhyNotAGroup(group);
  if (!why.empty()) throw Failure{"not a group file: " + group + " (" + why + ")"};
}

[[noreturn]] void GroupFailure(const std::string& group, const std::string& otherwise) {
  GroupFailureIfNotAGroup(group);
  throw Failure{otherwise};
}

// Adding failed: name the file the group would not take and why, else say why the group
// could not be used.
[[noreturn]] void AddFailure(const std::string& group, const std::vector<std::string>& files,
                             const std::string& otherwise) {
  for (const std::string& f : files) {
    const std::string why = WhyNotAddable(group, f);
    if (!why.empty()) throw Failure{"cannot add " + f + " to " + group + ": " + why};
  }
  GroupFailure(group, otherwise);
}

FileManagerSession& Session() {
  static FileManagerSession session;
  if (session.get() == nullptr) throw Failure{session.Error()};
  return session;
}

// The items of a comma-separated list as the component returns them.
std::vector<std::string> ListItems(const std::string& list) {
  std::vector<std::string> items;
  for (size_t start = 0; start < list.size();) {
    size_t comma = list.find(',', start);
    if (comma == std::string::npos) comma = list.size();
    items.push_back(list.substr(start, comma - start));
    start = comma + 1;
  }
  return items;
}

void PrintList(const std::string& utf8List) {
  for (const std::string& item : ListItems(utf8List)) std::printf("%s\n", item.c_str());
}

// The folder a file is in, "" for the current one.
std::string FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash == 0 ? 1 : slash);
}

std::string Lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

// The given members that the group does not list (names compare without regard to case, as
// the containers find them). Empty when the group cannot be listed.
std::vector<std::string> Missing(const std::string& group, const std::vector<std::string>& wanted) {
  Bstr names;
  if (Session()->ReadContents(ToBstr(group).get(), names.receive()) != S_OK) return {};
  std::unordered_set<std::string> listed;
  for (const std::string& name : ListItems(FromBstr(names.get()))) listed.insert(Lower(name));
  std::vector<std::string> missing;
  for (const std::string& w : wanted) {
    std::string name = w;
    std::replace(name.begin(), name.end(), '/', '\\');
    if (!listed.contains(Lower(name))) missing.push_back(w);
  }
  return missing;
}

// A member operation failed: name the members that are not there, else the folder that
// cannot be written, else fall back on `otherwise`.
[[noreturn]] void MemberFailure(const std::string& group, const std::vector<std::string>& members,
                                const std::string& dest, const std::string& otherwise) {
  GroupFailureIfNotAGroup(group);
  const std::vector<std::string> missing = Missing(group, members);
  if (!missing.empty()) {
    std::string names;
    for (const std::string& m : missing) names += (names.empty() ? "" : ", ") + m;
    throw Failure{"no such member in " + group + ": " + names};
  }
  const std::string folder = dest.empty() ? "." : dest;
  if (::access(Ansi(folder).c_str(), W_OK) != 0)
    throw Failure{"cannot write into " + folder + ": " + std::strerror(errno)};
  throw Failure{otherwise};
}


}  // namespace

int CmdCreate(const std::string& group, const std::vector<std::string>& files) {
  CheckRepresentable(group, "group file name");
  RequireFiles(files);
  const std::string list = JoinList(files, "file name");
  const HRESULT hr = Session()->CreateGrpFile(ToBstr(group).get(), ToBstr(list).get());
  if (FAILED(hr)) AddFailure(group, files, "cannot create group " + group + ": it cannot be written");
  return kExitOk;
}

namespace {

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

// What the answers left out, in the order the component met the files (sorted, as it sorts
// them): a skipped file, or a cancelled one and every file after it.
std::vector<std::string> LeftOut(std::vector<std::string> files,
                                 const std::vector<RecordingHost::Answer>& answers) {
  std::sort(files.begin(), files.end(),
            [](const std::string& a, const std::string& b) { return Ansi(a) < Ansi(b); });
  // The question is the file name followed by the rest of the message.
  const std::string rest = FormatStringResource(IDS_FILE_EXISTS, "");
  std::vector<std::string> out;
  size_t next = 0;
  for (const RecordingHost::Answer& a : answers) {
    const size_t end = a.text.size() >= rest.size() ? a.text.size() - rest.size() : 0;
    const std::string name = codepage::AnsiToUtf8(a.text.substr(0, end));
    size_t at = next;
    while (at < files.size() && files[at].substr(files[at].rfind('/') + 1) != name) ++at;
    if (a.result != PromptSkip && a.result != PromptCancel) {
      if (at < files.size()) next = at;
      continue;
    }
    // A member of a group being merged in is named by itself; it is not one of the files.
    out.push_back(at < files.size() ? files[at] : name);
    if (at < files.size()) next = at + 1;
    if (a.result == PromptCancel) {
      out.insert(out.end(), files.begin() + static_cast<std::ptrdiff_t>(next), files.end());
      break;
    }
  }
  return out;
}

}  // namespace

int CmdAdd(const std::string& group, const std::vector<std::string>& files,
           const std::string& folder, const std::string& onDuplicate) {
  CheckRepresentable(group, "group file name");
  CheckRepresentable(folder, "folder name");
  RequireFiles(files);
  const std::string list = JoinList(files, "file name");
  std::shared_ptr<RecordingHost> host;
  if (std::shared_ptr<ui::Host> inner = DuplicateHost(onDuplicate))
    host = std::make_shared<RecordingHost>(std::move(inner));
  OwnerWindow owner(Session().get(), host);

  const HRESULT hr = Session()->AddFiles(ToBstr(group).get(), ToBstr(list).get(),
                                         ToBstr(folder).get());
  if (FAILED(hr)) AddFailure(group, files, "cannot add to " + group + ": it cannot be rewritten");
  if (hr == kAddedWithFilesLeftOut) {
    std::string names;
    const std::vector<RecordingHost::Answer> none;
    for (const std::string& f : LeftOut(files, host ? host->Answers() : none))
      names += (names.empty() ? "" : ", ") + f;
    std::fprintf(stderr, "qxgroup: warning: not added to %s (already there): %s\n", group.c_str(),
                 names.empty() ? "some files" : names.c_str());
    return kExitPartial;
  }
  return kExitOk;
}

int CmdDelete(const std::string& group, const std::vector<std::string>& members) {
  CheckRepresentable(group, "group file name");
  const std::string list = JoinList(members, "member name");
  const HRESULT hr = Session()->DeleteFiles(ToBstr(group).get(), ToBstr(list).get());
  if (FAILED(hr))
    MemberFailure(group, members, FolderOf(group),
                  "cannot delete from " + group +
                      ": it cannot be rewritten, or every member was named (a group keeps one)");
  return kExitOk;
}

int CmdList(const std::string& group) {
  CheckRepresentable(group, "group file name");
  Bstr names;
  const HRESULT hr = Session()->ReadContents(ToBstr(group).get(), names.receive());
  if (FAILED(hr)) GroupFailure(group, "cannot list " + group);
  PrintList(FromBstr(names.get()));
  return kExitOk;
}

int CmdXml(const std::string& group, bool meta, const std::string& pattern) {
  CheckRepresentable(group, "group file name");
  CheckRepresentable(pattern, "pattern");
  Bstr xml;
  const HRESULT hr = Session()->ReadContentsXml(ToBstr(group).get(), meta ? 1 : 0,
                                                ToBstr(pattern).get(), xml.receive());
  if (FAILED(hr)) GroupFailure(group, "cannot list " + group + " as XML");
  const std::string text = FromBstr(xml.get());
  std::fputs(text.c_str(), stdout);
  if (text.empty() || text.back() != '\n') std::fputs("\n", stdout);
  return kExitOk;
}

int CmdGet(const std::string& group, const std::vector<std::string>& members,
           const std::string& dest, bool move) {
  CheckRepresentable(group, "group file name");
  RequireFolder(dest);
  for (const std::string& m : members) CheckRepresentable(m, "member name");
  for (const std::string& m : members) {
    const Bstr g = ToBstr(group), name = ToBstr(m), d = ToBstr(dest);
    const HRESULT hr = move ? Session()->ExtractFile(g.get(), name.get(), d.get())
                            : Session()->GetFile(g.get(), name.get(), d.get());
    if (FAILED(hr))
      MemberFailure(group, {m}, dest,
                    "cannot " + std::string(move ? "extract " : "get ") + m + " from " + group);
  }
  return kExitOk;
}

int CmdExpand(const std::string& group, const std::string& dest) {
  CheckRepresentable(group, "group file name");
  RequireFolder(dest);
  const HRESULT hr = Session()->ExpandGrpFile(ToBstr(group).get(), ToBstr(dest).get());
  if (FAILED(hr))
    MemberFailure(group, {}, dest, "cannot expand " + group + ": a member could not be written");
  return kExitOk;
}

int CmdFlash(const std::string& file, const std::string& dest) {
  CheckRepresentable(file, "file name");
  RequireFolder(dest);
  Bstr outfiles;
  const HRESULT hr =
      Session()->ExpandFlashFile(ToBstr(file).get(), ToBstr(dest).get(), outfiles.address());
  const std::string written = FromBstr(outfiles.get());
  PrintList(written);
  if (hr == E_NOTIMPL) throw Failure{"splitting flash files is not part of this build"};
  if (FAILED(hr)) {
    if (written.empty() && !fs::Exists(Ansi(file))) throw Failure{"no such file: " + file};
    if (written.empty() && fs::File::OpenRead(Ansi(file)).IsOpen() == false)
      throw Failure{"cannot read " + file};
    throw Failure{"cannot create an output file for " + file +
                  (dest.empty() ? std::string() : " in " + dest)};
  }
  if (hr == S_FALSE) {
    if (written.empty()) throw Failure{"not a flash file: " + file};
    std::fprintf(stderr, "qxgroup: warning: %s ends with bytes that are not a flash record\n",
                 file.c_str());
    return kExitPartial;
  }
  return kExitOk;
}

int CmdSplitPath(const std::string& path) {
  CheckRepresentable(path, "path");
  Bstr group = ToBstr(path), inGroup;
  Session()->SplitPath(group.address(), inGroup.address());
  std::printf("%s\n%s\n", FromBstr(group.get()).c_str(), FromBstr(inGroup.get()).c_str());
  return kExitOk;
}

int CmdIsGroup(const std::string& path) {
  CheckRepresentable(path, "path");
  LONG value = 0;
  const HRESULT hr = Session()->get_IsGroup(ToBstr(path).get(), &value);
  if (FAILED(hr)) throw Failure{"cannot tell whether " + path + " is a group"};
  std::printf("%s\n", value ? "yes" : "no");
  return value ? kExitOk : kExitFailed;
}

int CmdExists(const std::string& path) {
  CheckRepresentable(path, "path");
  LONG value = 0;
  Session()->get_DoesPathExist(ToBstr(path).get(), &value);
  std::printf("%s\n", value ? "yes" : "no");
  return value ? kExitOk : kExitFailed;
}

}  // namespace qx::cli
