#include "qxgroup/Overwrite.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

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

Staging::Staging(const std::string& dest) {
  std::string folder = dest.empty() ? std::string(".") : dest;
  if (folder.back() != '/') folder.push_back('/');
  std::string pattern = folder + ".qxgroup-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr)
    throw Failure{folder == "./" ? std::string("cannot write into the current folder: ") +
                                       std::strerror(errno)
                                 : "cannot write into " + dest + ": " + std::strerror(errno)};
  path_ = pattern + "/";
}

Staging::~Staging() {
  for (const std::string& name : Files()) ::unlink((path_ + name).c_str());
  ::rmdir(path_.c_str());
}

std::vector<std::string> Staging::Files() const {
  std::vector<std::string> names;
  DIR* dir = ::opendir(path_.c_str());
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
  struct stat st;
  if (::stat(target.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
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
