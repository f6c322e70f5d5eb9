#include "platform/TempFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <utility>

#include "platform/path.h"

namespace qx::fs {

namespace {

// The process's umask, read without changing it (umask(2) would race with other threads).
mode_t CurrentUmask() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("Umask:", 0) == 0) return static_cast<mode_t>(std::strtoul(line.c_str() + 6, nullptr, 8));
  return 022;
}

// mkstemp creates files private to the owner; a replaced file keeps the target's permissions,
// a new one gets those an ordinary create would give it.
void GiveUsualPermissions(int fd, const std::string& nativeTarget) {
  struct stat st {};
  const mode_t mode = ::stat(nativeTarget.c_str(), &st) == 0 && S_ISREG(st.st_mode)
                          ? (st.st_mode & 07777)
                          : (0666 & ~CurrentUmask());
  (void)::fchmod(fd, mode);
}

// Makes a rename durable: the folder entry itself must reach the disk.
void SyncFolder(const std::string& nativeFolder) {
  const int fd = ::open(nativeFolder.empty() ? "." : nativeFolder.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  (void)::fsync(fd);
  ::close(fd);
}

}  // namespace

TempFile::TempFile(const std::string& target) : target_(target) {
  if (target.empty() || path::FileName(target).empty()) return;
  const std::string nativeTarget = ToNative(target);
  std::string tmpl = std::string(path::ParentFolder(nativeTarget)) + "." +
                     std::string(path::FileName(nativeTarget)) + ".XXXXXX";
  const int fd = ::mkostemp(tmpl.data(), O_CLOEXEC);
  if (fd < 0) return;
  GiveUsualPermissions(fd, nativeTarget);
  std::FILE* fp = ::fdopen(fd, "w+b");
  if (fp == nullptr) {
    ::close(fd);
    ::unlink(tmpl.c_str());
    return;
  }
  file_ = File(fp);
  nativePath_ = std::move(tmpl);
  path_ = FromNative(nativePath_);
}

TempFile::~TempFile() { Discard(); }

TempFile::TempFile(TempFile&& other) noexcept
    : file_(std::move(other.file_)),
      target_(std::move(other.target_)),
      path_(std::exchange(other.path_, {})),
      nativePath_(std::exchange(other.nativePath_, {})) {}

TempFile& TempFile::operator=(TempFile&& other) noexcept {
  if (this != &other) {
    Discard();
    file_ = std::move(other.file_);
    target_ = std::move(other.target_);
    path_ = std::exchange(other.path_, {});
    nativePath_ = std::exchange(other.nativePath_, {});
  }
  return *this;
}

bool TempFile::Keep() {
  if (nativePath_.empty() || !file_.IsOpen()) return false;
  const bool synced = file_.Sync();
  const bool written = file_.Close() && synced;
  const std::string nativeTarget = ToNative(target_);
  if (!written || ::rename(nativePath_.c_str(), nativeTarget.c_str()) != 0) {
    Discard();
    return false;
  }
  nativePath_.clear();
  path_.clear();
  SyncFolder(std::string(path::ParentFolder(nativeTarget)));
  return true;
}

void TempFile::Discard() {
  file_.Close();
  if (!nativePath_.empty()) ::unlink(nativePath_.c_str());
  nativePath_.clear();
  path_.clear();
}

}  // namespace qx::fs
