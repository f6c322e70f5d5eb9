// The friendly subcommands: each one FileManager method, with its failures put into words.
#include "qxgroup/Commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "platform/CommaList.h"
#include "platform/ReuseScope.h"
#include "platform/codepage.h"
#include "platform/fs.h"
#include "qxgroup/Automation.h"
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

void PrintList(const std::string& utf8List) {
  for (const std::string& item : SplitCommaList(utf8List)) std::printf("%s\n", item.c_str());
}

}  // namespace

int CmdCreate(const std::string& group, const std::vector<std::string>& files) {
  CheckRepresentable(group, "group file name");
  RequireFiles(files);
  const std::string list = JoinList(files, "file name");
  const HRESULT hr = Session()->CreateGrpFile(ToBstr(group).get(), ToBstr(list).get());
  if (FAILED(hr)) FailWithReason("cannot create group " + group);
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

}  // namespace

int CmdAdd(const std::string& group, const std::vector<std::string>& files,
           const std::string& folder, const std::string& onDuplicate) {
  CheckRepresentable(group, "group file name");
  CheckRepresentable(folder, "folder name");
  RequireFiles(files);
  const std::string list = JoinList(files, "file name");
  OwnerWindow owner(Session().get(), DuplicateHost(onDuplicate));

  const HRESULT hr = Session()->AddFiles(ToBstr(group).get(), ToBstr(list).get(),
                                         ToBstr(folder).get());
  if (FAILED(hr)) FailWithReason("cannot add to " + group);
  if (hr == kAddedWithFilesLeftOut) {
    std::string names;
    for (const std::string& f : TakeFilesLeftOut()) names += (names.empty() ? "" : ", ") + f;
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
  if (FAILED(hr)) FailWithReason("cannot delete from " + group);
  return kExitOk;
}

int CmdList(const std::string& group) {
  CheckRepresentable(group, "group file name");
  Bstr names;
  const HRESULT hr = Session()->ReadContents(ToBstr(group).get(), names.receive());
  if (FAILED(hr)) FailWithReason("cannot list " + group);
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

int CmdGet(const std::string& group, const std::vector<std::string>& members,
           const std::string& dest, bool move) {
  CheckRepresentable(group, "group file name");
  RequireFolder(dest);
  for (const std::string& m : members) CheckRepresentable(m, "member name");
  // One walk of an old-style group's table serves every member while the group is unchanged.
  const ReuseScope reuse;
  for (const std::string& m : members) {
    const Bstr g = ToBstr(group), name = ToBstr(m), d = ToBstr(dest);
    const HRESULT hr = move ? Session()->ExtractFile(g.get(), name.get(), d.get())
                            : Session()->GetFile(g.get(), name.get(), d.get());
    if (FAILED(hr))
      FailWithReason("cannot " + std::string(move ? "extract " : "get ") + m + " from " + group);
  }
  return kExitOk;
}

int CmdExpand(const std::string& group, const std::string& dest) {
  CheckRepresentable(group, "group file name");
  RequireFolder(dest);
  const HRESULT hr = Session()->ExpandGrpFile(ToBstr(group).get(), ToBstr(dest).get());
  if (FAILED(hr)) FailWithReason("cannot expand " + group);
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
  if (FAILED(hr)) FailWithReason("cannot split " + file);
  if (hr == S_FALSE) {
    const std::string why = TakeErrorDescription();
    if (written.empty()) throw Failure{why.empty() ? "not a flash file: " + file : why};
    std::fprintf(stderr, "qxgroup: warning: %s\n",
                 why.empty() ? (file + " ends with bytes that are not a flash record").c_str()
                             : why.c_str());
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
  if (FAILED(hr)) FailWithReason("cannot tell whether " + path + " is a group");
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
