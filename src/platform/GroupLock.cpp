#include "platform/GroupLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

#include "platform/Diagnostic.h"
#include "platform/TempFile.h"
#include "platform/fs.h"
#include "platform/path.h"

namespace qx::fs {

namespace {

// Opens what stands for the file in the lock: the file, or its folder while it does not exist.
int OpenLockTarget(const std::string& native, bool& isFolder) {
  isFolder = false;
  // Non-blocking, so a named pipe in the group's place does not hang the writer.
  int fd = ::open(native.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd >= 0 || errno != ENOENT) return fd;
  const std::string_view parent = path::ParentFolder(native);
  isFolder = true;
  return ::open(parent.empty() ? "." : std::string(parent).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

// True when the path still names what `fd` has open (a folder: while the file is still missing).
bool StillNames(int fd, const std::string& native, bool isFolder) {
  struct stat now {};
  if (::stat(native.c_str(), &now) != 0) return isFolder && errno == ENOENT;
  if (isFolder) return false;
  struct stat locked {};
  return ::fstat(fd, &locked) == 0 && locked.st_dev == now.st_dev && locked.st_ino == now.st_ino;
}

}  // namespace

GroupLock::GroupLock(const std::string& path, std::chrono::milliseconds wait) {
  const std::string native = ToNative(path);
  const auto deadline = std::chrono::steady_clock::now() + wait;
  auto pause = std::chrono::milliseconds(1);
  for (;;) {
    bool isFolder = false;
    const int fd = OpenLockTarget(native, isFolder);
    if (fd < 0) {
      diag::Record(errno == EACCES ? "read-only" : "write-failed", path,
                   std::string("cannot be opened to lock it: ") + std::strerror(errno));
      return;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
      if (StillNames(fd, native, isFolder)) {
        fd_ = fd;
        break;
      }
      ::close(fd);  // another writer put a new file in place meanwhile: lock that one
      continue;
    }
    const int error = errno;
    ::close(fd);
    if (error != EWOULDBLOCK && error != EINTR) {
      diag::Record("write-failed", path, std::string("cannot be locked: ") + std::strerror(error));
      return;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      diag::Record("locked", path,
                   "another process is writing it and still held it after " +
                       std::to_string(wait.count() / 1000) + "." +
                       std::to_string(wait.count() % 1000 / 100) + " s; nothing was changed");
      return;
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, std::chrono::milliseconds(32));
  }
  if (!CheckReplaceable(path)) Release();
}

GroupLock::~GroupLock() { Release(); }

GroupLock::GroupLock(GroupLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

GroupLock& GroupLock::operator=(GroupLock&& other) noexcept {
  if (this != &other) {
    Release();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

void GroupLock::Release() {
  if (fd_ >= 0) ::close(fd_);  // closing drops the lock
  fd_ = -1;
}

}  // namespace qx::fs
