#include "platform/TempFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/Diagnostic.h"
#include "platform/fs.h"

namespace qx::fs {

namespace {

constexpr int kMakeAttempts = 4;  // another process may remove an empty private folder meanwhile

// Removes everything below the open folder `dir` (closed here); entries are unlinked by name
// relative to it, so a link is removed, never followed.
void RemoveContents(int dir) {
  DIR* d = ::fdopendir(dir);
  if (d == nullptr) {
    ::close(dir);
    return;
  }
  while (const dirent* e = ::readdir(d)) {
    if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
    if (::unlinkat(dir, e->d_name, 0) == 0) continue;
    const int sub = ::openat(dir, e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (sub < 0) continue;
    RemoveContents(sub);
    ::unlinkat(dir, e->d_name, AT_REMOVEDIR);
  }
  ::closedir(d);
}

// True when the private folder at `native` is fit to use; else records why. With `dirFd` the
// folder stays open (the checked folder itself, not whatever the path names later).
bool CheckPrivate(const std::string& native, const std::string& shown, int* dirFd = nullptr) {
  struct stat st {};
  if (::lstat(native.c_str(), &st) != 0) {
    diag::Record("temp-folder", shown, std::string("the temporary folder cannot be examined: ") +
                                           std::strerror(errno));
    return false;
  }
  if (S_ISLNK(st.st_mode)) {
    diag::Record("temp-folder", shown,
                 "the temporary folder is a symbolic link; refusing to follow it");
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    diag::Record("temp-folder", shown, "something that is not a folder stands where the "
                                       "temporary folder should be");
    return false;
  }
  if (st.st_uid != ::geteuid()) {
    diag::Record("temp-folder", shown, "the temporary folder belongs to another user");
    return false;
  }
  if ((st.st_mode & 077) != 0) {
    diag::Record("temp-folder", shown,
                 "the temporary folder gives group or other users access (it must be 0700)");
    return false;
  }
  if (dirFd == nullptr) return true;
  // Opened without following a link and checked again on the descriptor, so a folder swapped
  // in after the lstat is not the one used.
  *dirFd = ::open(native.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  struct stat opened {};
  if (*dirFd < 0 || ::fstat(*dirFd, &opened) != 0 || opened.st_ino != st.st_ino ||
      opened.st_dev != st.st_dev) {
    if (*dirFd >= 0) ::close(*dirFd);
    *dirFd = -1;
    diag::Record("temp-folder", shown, "the temporary folder changed while it was checked");
    return false;
  }
  return true;
}

// A fresh "call-XXXXXX" folder (mode 0700) inside the open folder; its name, or empty.
std::string MakeCallFolder(int dirFd) {
  static const char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  for (int attempt = 0; attempt < 64; ++attempt) {
    unsigned char random[6];
    if (::getentropy(random, sizeof random) != 0) return {};
    std::string name = "call-";
    for (unsigned char r : random) name += kChars[r % (sizeof kChars - 1)];
    if (::mkdirat(dirFd, name.c_str(), 0700) == 0) return name;
    if (errno != EEXIST) return {};
  }
  return {};
}

}  // namespace

namespace {

// Makes the private folder when missing and checks it; see PrivateTempFolder.
std::string OpenPrivate(int* dirFd) {
  const std::string folder = TempFolder() + "QXGrpMgr-" + std::to_string(::geteuid()) + "/";
  const std::string native = ToNative(folder.substr(0, folder.size() - 1));
  if (::mkdir(native.c_str(), 0700) != 0 && errno != EEXIST) {
    diag::Record("temp-folder", folder, std::string("the temporary folder cannot be created: ") +
                                            std::strerror(errno));
    return {};
  }
  return CheckPrivate(native, folder, dirFd) ? folder : std::string();
}

}  // namespace

std::string PrivateTempFolder() { return OpenPrivate(nullptr); }

TempWorkFolder::TempWorkFolder() {
  for (int attempt = 0; attempt < kMakeAttempts; ++attempt) {
    int dirFd = -1;
    const std::string root = OpenPrivate(&dirFd);
    if (root.empty()) return;
    const std::string name = MakeCallFolder(dirFd);
    const int error = errno;
    ::close(dirFd);
    if (!name.empty()) {
      path_ = root + name + "/";
      return;
    }
    // Another call may have removed the empty private folder meanwhile: make it again.
    if (error != ENOENT) {
      diag::Record("temp-folder", root, std::string("no work folder can be made in it: ") +
                                            std::strerror(error));
      return;
    }
  }
  diag::Record("temp-folder", TempFolder(), "the temporary folder keeps disappearing");
}

TempWorkFolder::~TempWorkFolder() {
  if (path_.empty()) return;
  const std::string native = ToNative(path_.substr(0, path_.size() - 1));
  const int dir = ::open(native.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dir >= 0) RemoveContents(dir);
  ::rmdir(native.c_str());
  // The private folder goes too once no other call uses it (fails quietly while it does).
  ::rmdir(native.substr(0, native.rfind('/')).c_str());
}

int TempWorkFolder::CreateFile(const std::string& name) const {
  if (path_.empty() || name.empty() || name == "." || name == ".." ||
      name.find('/') != std::string::npos) {
    diag::Record("temp-folder", name, "not a plain file name for the work folder");
    return -1;
  }
  const int fd = ::open(ToNative(path_ + name).c_str(),
                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0)
    diag::Record("temp-folder", path_ + name,
                 std::string("cannot create a work file: ") + std::strerror(errno));
  return fd;
}

}  // namespace qx::fs
