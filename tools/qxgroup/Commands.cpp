// The friendly subcommands: each one FileManager method, with its failures put into words.
#include "qxgroup/Commands.h"

#include <cstdio>

#include "platform/codepage.h"
#include "platform/fs.h"
#include "qxgroup/Automation.h"

namespace qx::cli {

namespace {

std::string Ansi(const std::string& utf8) { return codepage::Utf8ToAnsi(utf8); }

// Inputs that must be readable files; checked before anything is written.
void RequireFiles(const std::vector<std::string>& files) {
  for (const std::string& f : files) {
    CheckListItem(f, "file name");
    const uint32_t attrs = fs::GetAttributes(Ansi(f));
    if (attrs == fs::kInvalidAttributes) throw Failure{"no such file: " + f};
    if (attrs & fs::kAttrDirectory) throw Failure{"is a folder, not a file: " + f};
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
[[noreturn]] void GroupFailure(const std::string& group, const std::string& otherwise) {
  const std::string why = WhyNotAGroup(group);
  if (!why.empty()) throw Failure{"not a group file: " + group + " (" + why + ")"};
  throw Failure{otherwise};
}

FileManagerSession& Session() {
  static FileManagerSession session;
  if (session.get() == nullptr) throw Failure{session.Error()};
  return session;
}

void PrintList(const std::string& utf8List) {
  size_t start = 0;
  while (start < utf8List.size()) {
    size_t comma = utf8List.find(',', start);
    if (comma == std::string::npos) comma = utf8List.size();
    std::printf("%s\n", utf8List.substr(start, comma - start).c_str());
    start = comma + 1;
  }
}

}  // namespace

int CmdCreate(const std::string& group, const std::vector<std::string>& files) {
  CheckRepresentable(group, "group file name");
  RequireFiles(files);
  const std::string list = JoinList(files, "file name");
  const HRESULT hr = Session()->CreateGrpFile(ToBstr(group).get(), ToBstr(list).get());
  if (FAILED(hr)) throw Failure{"cannot create group " + group + ": the files could not be stored"};
  return kExitOk;
}

int CmdAdd(const std::string& group, const std::vector<std::string>& files,
           const std::string& folder) {
  CheckRepresentable(group, "group file name");
  CheckRepresentable(folder, "folder name");
  RequireFiles(files);
  const std::string list = JoinList(files, "file name");
  const HRESULT hr = Session()->AddFiles(ToBstr(group).get(), ToBstr(list).get(),
                                         ToBstr(folder).get());
  if (FAILED(hr)) GroupFailure(group, "cannot add to " + group + ": the files could not be stored");
  if (hr == 2) {
    std::fprintf(stderr, "qxgroup: warning: some files were not added to %s\n", group.c_str());
    return kExitPartial;
  }
  return kExitOk;
}

int CmdDelete(const std::string& group, const std::vector<std::string>& members) {
  CheckRepresentable(group, "group file name");
  const std::string list = JoinList(members, "member name");
  const HRESULT hr = Session()->DeleteFiles(ToBstr(group).get(), ToBstr(list).get());
  if (FAILED(hr))
    GroupFailure(group, "cannot delete from " + group +
                            ": a member is not in the group, or the group cannot be rewritten");
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
  std::fputs(FromBstr(xml.get()).c_str(), stdout);
  std::fputs("\n", stdout);
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
      GroupFailure(group, "cannot " + std::string(move ? "extract " : "get ") + m + " from " +
                              group + ": no such member, or it cannot be written");
  }
  return kExitOk;
}

int CmdExpand(const std::string& group, const std::string& dest) {
  CheckRepresentable(group, "group file name");
  RequireFolder(dest);
  const HRESULT hr = Session()->ExpandGrpFile(ToBstr(group).get(), ToBstr(dest).get());
  if (FAILED(hr))
    GroupFailure(group, "cannot expand " + group + ": a member could not be written");
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
