#include "platform/TempFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/Diagnostic.h"
#include "platform/path.h"

namespace qx::fs {

namespace {

constexpr std::string_view kMarker = ".qxtmp~";
constexpr size_t kRandomChars = 6;
// Leftovers younger than this may still belong to a writer at work.
constexpr time_t kStaleSeconds = 3600;

// The process's umask, read without changing it (umask(2) would race with other threads).
mode_t CurrentUmask() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("Umask:", 0) == 0) return static_cast<mode_t>(std::strtoul(line.c_str() + 6, nullptr, 8));
  return 022;
}

// The folder part, ending in '/'.
std::string FolderOf(const std::string& nativePath) {
  const std::string_view folder = path::ParentFolder(nativePath);
  return folder.empty() ? std::string("./") : std::string(folder);
}

// The path with every symlink of its last component followed, so the file, not the link, is
// replaced. The result need not exist (a link to a file still to be created).
std::string FollowLinks(std::string nativePath) {
  for (int hops = 0; hops < 40; ++hops) {
    struct stat st {};
    if (::lstat(nativePath.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return nativePath;
    std::string link(PATH_MAX, '\0');
    const ssize_t n = ::readlink(nativePath.c_str(), link.data(), link.size());
    if (n <= 0 || static_cast<size_t>(n) >= link.size()) return nativePath;
    link.resize(static_cast<size_t>(n));
    nativePath = link.front() == '/' ? link : std::string(path::ParentFolder(nativePath)) + link;
  }
  return nativePath;
}

// The start of every hidden name used for `fileName`, cut so the whole name fits NAME_MAX.
std::string HiddenPrefix(std::string_view fileName) {
  const size_t room = NAME_MAX - 1 - kMarker.size() - kRandomChars;
  return "." + std::string(fileName.substr(0, room)) + std::string(kMarker);
}

std::string RandomChars() {
  static constexpr char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  unsigned char raw[kRandomChars] = {};
  if (::getrandom(raw, sizeof raw, 0) != static_cast<ssize_t>(sizeof raw)) {
    const auto seed = static_cast<unsigned>(::clock()) ^ static_cast<unsigned>(::getpid());
    for (size_t i = 0; i < kRandomChars; ++i) raw[i] = static_cast<unsigned char>(seed >> (i * 5));
  }
  std::string out;
  for (unsigned char c : raw) out += kChars[c % (sizeof kChars - 1)];
  return out;
}

bool IsOurLeftoverName(std::string_view name, std::string_view prefix) {
  if (name.size() != prefix.size() + kRandomChars || name.substr(0, prefix.size()) != prefix)
    return false;
  for (char c : name.substr(prefix.size()))
    if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))) return false;
  return true;
}

// Removes hidden files a killed writer of this target left in the moment between naming its
// new file and renaming it; only old ones, and only this user's (any, for root).
void RemoveStaleLeftovers(const std::string& folder, std::string_view fileName) {
  const std::string prefix = HiddenPrefix(fileName);
  // Closed on every way out, a failed allocation in the loop included.
  const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir(folder.c_str()), &::closedir);
  DIR* dir = open.get();
  if (dir == nullptr) return;
  const time_t now = ::time(nullptr);
  const uid_t me = ::geteuid();
  while (const dirent* e = ::readdir(dir)) {
    if (!IsOurLeftoverName(e->d_name, prefix)) continue;
    struct stat st {};
    if (::fstatat(::dirfd(dir), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISREG(st.st_mode) && (me == 0 || st.st_uid == me) && st.st_mtime + kStaleSeconds < now)
      (void)::unlinkat(::dirfd(dir), e->d_name, 0);
  }
}

// A replaced file keeps who owns it and what they may do with it; a new one gets what an
// ordinary create would give it.
void GiveOwnerAndMode(int fd, const struct stat* old) {
  if (old == nullptr) {
    (void)::fchmod(fd, 0666 & ~CurrentUmask());
    return;
  }
  if (old->st_uid != ::geteuid() || old->st_gid != ::getegid()) {
    // Only root may give a file away; anyone may pass it to one of their own groups.
    if (::fchown(fd, old->st_uid, old->st_gid) != 0) (void)::fchown(fd, static_cast<uid_t>(-1), old->st_gid);
  }
  (void)::fchmod(fd, old->st_mode & 07777);  // after chown, which clears set-id bits
}

// Makes a rename durable: the folder entry itself must reach the disk.
void SyncFolder(const std::string& nativeFolder) {
  const int fd = ::open(nativeFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  (void)::fsync(fd);
  ::close(fd);
}

void RecordErrno(std::string_view subject, const std::string& what, int error) {
  const bool readOnly = error == EACCES || error == EPERM || error == EROFS;
  diag::Record(readOnly ? "read-only" : "write-failed", subject, what + ": " + std::strerror(error));
}

// Creates a new file under a fresh hidden name in `folder`; -1 on failure (errno set).
int CreateNamed(const std::string& folder, std::string_view fileName, std::string& named) {
  const std::string prefix = folder + HiddenPrefix(fileName);
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string candidate = prefix + RandomChars();
    const int fd = ::open(candidate.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd >= 0) {
      named = std::move(candidate);
      return fd;
    }
    if (errno != EEXIST) return -1;
  }
  return -1;
}

// Gives the unnamed file open on `fd` a fresh hidden name in `folder`.
bool LinkUnnamed(int fd, const std::string& folder, std::string_view fileName, std::string& named) {
  const std::string prefix = folder + HiddenPrefix(fileName);
  const std::string self = "/proc/self/fd/" + std::to_string(fd);
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string candidate = prefix + RandomChars();
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, candidate.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      named = std::move(candidate);
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

}  // namespace

namespace {

bool CheckReplaceableNative(const std::string& native, std::string_view path) {
  struct stat st {};
  if (::stat(native.c_str(), &st) != 0) return true;
  if (!S_ISREG(st.st_mode)) {
    diag::Record("write-failed", path, "is not a regular file, so it is not replaced");
    return false;
  }
  if (::access(native.c_str(), W_OK) != 0) {
    diag::Record("read-only", path,
                 errno == EROFS ? "is on a read-only file system"
                                : "may not be written by this user; it is left as it is");
    return false;
  }
  return true;
}

}  // namespace

bool CheckReplaceable(const std::string& path) { return CheckReplaceableNative(ToNative(path), path); }

TempFile::TempFile(const std::string& target) : TempFile(Native{}, ToNative(target), target) {}

TempFile TempFile::ForNativePath(const std::string& nativeTarget) {
  return TempFile(Native{}, nativeTarget, FromNative(nativeTarget));
}

TempFile::TempFile(Native, const std::string& nativeTarget, std::string target)
    : target_(std::move(target)) {
  if (nativeTarget.empty() || path::FileName(nativeTarget).empty()) {
    diag::Record("write-failed", target_, "names no file to write");
    return;
  }
  if (!CheckReplaceableNative(nativeTarget, target_)) return;
  std::string finalPath = FollowLinks(nativeTarget);
  struct stat old {};
  const bool exists = ::stat(finalPath.c_str(), &old) == 0;
  const std::string folder = FolderOf(finalPath);
  const std::string fileName(path::FileName(finalPath));
  RemoveStaleLeftovers(folder, fileName);

  std::string named;
  int fd = -1;
  // Unnamed only where it can be named again at the end (linking it needs /proc).
  if (::access("/proc/self/fd", X_OK) == 0)
    fd = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd < 0) fd = CreateNamed(folder, fileName, named);
  if (fd < 0) {
    RecordErrno(target_, "no new file can be made beside it", errno);
    return;
  }
  GiveOwnerAndMode(fd, exists ? &old : nullptr);
  std::FILE* fp = ::fdopen(fd, "w+b");
  if (fp == nullptr) {
    RecordErrno(target_, "no new file can be made beside it", errno);
    ::close(fd);
    if (!named.empty()) ::unlink(named.c_str());
    return;
  }
  file_ = File(fp);
  nativeFinal_ = std::move(finalPath);
  namedPath_ = std::move(named);
}

TempFile::~TempFile() { Discard(); }

TempFile::TempFile(TempFile&& other) noexcept
    : file_(std::move(other.file_)),
      target_(std::move(other.target_)),
      nativeFinal_(std::exchange(other.nativeFinal_, {})),
      namedPath_(std::exchange(other.namedPath_, {})) {}

TempFile& TempFile::operator=(TempFile&& other) noexcept {
  if (this != &other) {
    Discard();
    file_ = std::move(other.file_);
    target_ = std::move(other.target_);
    nativeFinal_ = std::exchange(other.nativeFinal_, {});
    namedPath_ = std::exchange(other.namedPath_, {});
  }
  return *this;
}

bool TempFile::Keep() {
  if (!file_.IsOpen()) return false;
  const std::string folder = FolderOf(nativeFinal_);
  if (!file_.Sync()) {
    RecordErrno(target_, "the new bytes could not be put on the disk", errno);
    Discard();
    return false;
  }
  if (namedPath_.empty() &&
      !LinkUnnamed(::fileno(file_.fp_), folder, path::FileName(nativeFinal_), namedPath_)) {
    RecordErrno(target_, "the new file could not be named", errno);
    Discard();
    return false;
  }
  if (!file_.Close()) {
    RecordErrno(target_, "the new file could not be written", errno);
    Discard();
    return false;
  }
  if (::rename(namedPath_.c_str(), nativeFinal_.c_str()) != 0) {
    RecordErrno(target_, "the new file could not replace it", errno);
    Discard();
    return false;
  }
  namedPath_.clear();
  nativeFinal_.clear();
  SyncFolder(folder);
  return true;
}

void TempFile::Discard() {
  file_.Close();
  if (!namedPath_.empty()) ::unlink(namedPath_.c_str());
  namedPath_.clear();
  nativeFinal_.clear();
}

}  // namespace qx::fs
