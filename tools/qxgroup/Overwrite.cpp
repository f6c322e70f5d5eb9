#include "qxgroup/Overwrite.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/Diagnostic.h"
#include "platform/TempFolder.h"
#include "platform/codepage.h"
#include "platform/ui.h"
#include "qxgroup/Automation.h"

namespace qx::cli {

Overwrite ChooseOverwrite(bool overwrite, bool never) {
  if (overwrite) return Overwrite::Always;
  if (never) return Overwrite::Never;
  if (!::isatty(STDIN_FILENO)) return Overwrite::Keep;
  const int tty = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (tty < 0) return Overwrite::Keep;
  ::close(tty);
  return Overwrite::Ask;
}

namespace {

constexpr const char* kStagingPrefix = ".qxgroup-";
constexpr time_t kStaleAfter = 3600;  // a staging folder this old belongs to no running command

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
  ::remove(path);
  return 0;
}

// Removes a folder and what is below it; links are removed, never followed.
void RemoveTree(const std::string& path) {
  ::nftw(path.c_str(), &RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

// Staging folders left in `folder` by a command killed more than an hour ago.
void RemoveStale(const std::string& folder) {
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return;
  const time_t now = ::time(nullptr);
  std::vector<std::string> stale;
  while (const dirent* e = ::readdir(dir)) {
    const std::string name = e->d_name;
    struct stat st;
    if (name.size() == std::strlen(kStagingPrefix) + 6 && name.starts_with(kStagingPrefix) &&
        ::lstat((folder + name).c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
        st.st_uid == ::geteuid() && now - st.st_mtime > kStaleAfter)
      stale.push_back(folder + name);
  }
  ::closedir(dir);
  for (const std::string& path : stale) RemoveTree(path);
}

bool SameFileSystem(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev;
}

// The component's private temporary folder (UTF-8, ending in "/"); empty when it cannot be had.
std::string PrivateFolder() {
  const diag::DiagnosticScope probe;  // a refusal here only means staging elsewhere
  const std::string folder = fs::PrivateTempFolder();
  return folder.empty() ? folder : codepage::AnsiToUtf8(folder);
}

// A fresh staging folder in `folder`; empty when it cannot be made (errno says why).
std::string MakeIn(const std::string& folder) {
  std::string pattern = folder + kStagingPrefix + "XXXXXX";
  return ::mkdtemp(pattern.data()) == nullptr ? std::string() : pattern + "/";
}

}  // namespace

Staging::Staging(const std::string& dest, bool placed) {
  std::string folder = dest.empty() ? std::string(".") : dest;
  if (folder.back() != '/') folder.push_back('/');
  // Where a killed command leaves nothing in sight: the private temporary folder, when a
  // rename from it reaches the destination. (It may vanish meanwhile: another process removes
  // it once empty; then it is made again.)
  for (int attempt = 0; attempt < 3 && path_.empty(); ++attempt) {
    hidden_ = PrivateFolder();
    if (hidden_.empty()) break;
    if (placed && !SameFileSystem(hidden_, folder)) {
      ::rmdir(hidden_.c_str());  // made for nothing: leave no empty folder behind
      hidden_.clear();
      break;
    }
    RemoveStale(hidden_);
    path_ = MakeIn(hidden_);
  }
  if (!path_.empty()) return;
  hidden_.clear();
  if (!placed) {
    const char* tmp = std::getenv("TMPDIR");
    folder = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/";
  }
  RemoveStale(folder);
  path_ = MakeIn(folder);
  if (path_.empty())
    throw Failure{folder == "./" ? std::string("cannot write into the current folder: ") +
                                       std::strerror(errno)
                                 : "cannot write into " + dest + ": " + std::strerror(errno)};
}

Staging::~Staging() {
  RemoveTree(path_);
  // The private folder goes when nothing else is in it, as the component leaves it.
  if (!hidden_.empty()) ::rmdir(hidden_.c_str());
}

std::vector<std::string> Staging::Files() const { return FolderEntries(path_); }

void Staging::Clear() const {
  for (const std::string& name : Files()) RemoveTree(path_ + name);
}

std::vector<std::string> FolderEntries(const std::string& folder) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return names;
  while (const dirent* e = ::readdir(dir)) {
    const std::string name = e->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

Placer::Placer(Overwrite rule, std::vector<std::string> inputs, bool verbose)
    : rule_(rule), inputs_(std::move(inputs)), verbose_(verbose) {}

bool Placer::IsInput(const std::string& target) const {
  struct stat t;
  if (::stat(target.c_str(), &t) != 0) return false;
  for (const std::string& in : inputs_) {
    struct stat s;
    if (::stat(in.c_str(), &s) == 0 && s.st_dev == t.st_dev && s.st_ino == t.st_ino) return true;
  }
  return false;
}

namespace {

// A move that never replaces: fails with EEXIST when something is at `to`.
bool MoveNoReplace(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
    return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  // File systems without the flag: a hard link cannot replace either.
  if (::link(from.c_str(), to.c_str()) != 0) return false;
  ::unlink(from.c_str());
  return true;
}

constexpr int kTextId = 201, kOverwriteId = 3, kOverwriteAllId = 4, kSkipId = 5;

intptr_t EndOnCommand(ui::DialogHandle dlg, unsigned msg, uintptr_t wParam, intptr_t) {
  if (msg != ui::WM_COMMAND) return 0;
  ui::EndDialog(dlg, ui::LOWORD(wParam));
  return 1;
}

std::string BaseName(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

bool Placer::AskOverwrite(const std::string& target) {
  // The duplicate question's look, with Skip the default so a stray Enter loses nothing.
  ui::DialogTemplate tmpl;
  tmpl.caption = "File Exists";
  tmpl.items = {
      {kTextId, ui::DialogItem::Static,
       BaseName(target) + " already exists in this folder.  What would you like to do?"},
      {kOverwriteId, ui::DialogItem::PushButton, "&Overwrite"},
      {kOverwriteAllId, ui::DialogItem::PushButton, "Overwrite &All"},
      {kSkipId, ui::DialogItem::DefPushButton, "&Skip"},
      {ui::IDCANCEL, ui::DialogItem::PushButton, "Cancel"},
  };
  ui::DialogState state(tmpl, &EndOnCommand, 0);
  ui::TerminalHost host;
  switch (host.RunModal(tmpl, state)) {
    case kOverwriteAllId: rule_ = Overwrite::Always; return true;
    case kOverwriteId: return true;
    case kSkipId: return false;
    case ui::IDCANCEL: rule_ = Overwrite::Never; return false;  // skip this one and the rest
    default:  // the terminal went away: keep, and say so
      rule_ = Overwrite::Keep;
      kept_.push_back(target);
      return false;
  }
}

bool Placer::Place(const std::string& staged, const std::string& target) {
  if (MoveNoReplace(staged, target)) {
    if (verbose_) std::fprintf(stderr, "qxgroup: wrote %s\n", target.c_str());
    return true;
  }
  if (errno != EEXIST) throw Failure{"cannot write " + target + ": " + std::strerror(errno)};
  if (IsInput(target)) {
    inputsKept_.push_back(target);
    return false;
  }
  struct stat st, from;
  if (::stat(target.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    // A folder onto a folder: merged, as unzip does, each file under the same rule.
    if (::lstat(staged.c_str(), &from) == 0 && S_ISDIR(from.st_mode)) {
      bool all = true;
      for (const std::string& name : FolderEntries(staged))
        all = Place(staged + "/" + name, target + "/" + name) && all;
      return all;
    }
    kept_.push_back(target);
    return false;
  }
  bool replace = false;
  switch (rule_) {
    case Overwrite::Always: replace = true; break;
    case Overwrite::Never: break;
    case Overwrite::Keep: kept_.push_back(target); break;
    case Overwrite::Ask: replace = AskOverwrite(target); break;
  }
  if (!replace) {
    if (verbose_) std::fprintf(stderr, "qxgroup: kept %s\n", target.c_str());
    return false;
  }
  if (::rename(staged.c_str(), target.c_str()) != 0)
    throw Failure{"cannot write " + target + ": " + std::strerror(errno)};
  if (verbose_) std::fprintf(stderr, "qxgroup: replaced %s\n", target.c_str());
  return true;
}

int Placer::Report(bool quiet) const {
  if (!quiet) {
    for (const std::string& f : inputsKept_)
      std::fprintf(stderr, "qxgroup: warning: %s: is the file being read; not written over\n",
                   f.c_str());
    if (!kept_.empty()) {
      std::string names;
      for (const std::string& f : kept_) names += (names.empty() ? "" : ", ") + f;
      std::fprintf(stderr,
                   "qxgroup: warning: kept existing files (-o overwrites, -n skips quietly): %s\n",
                   names.c_str());
    }
  }
  return kept_.empty() && inputsKept_.empty() ? kExitOk : kExitPartial;
}

}  // namespace qx::cli
