#include "platform/fs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "platform/codepage.h"

namespace qx::fs {

std::string ToNative(std::string_view ansiPath) { return codepage::AnsiToUtf8(ansiPath); }
std::string FromNative(std::string_view nativeName) { return codepage::Utf8ToAnsi(nativeName); }

namespace {

uint32_t AttributesOf(const struct stat& st) {
  uint32_t a = 0;
  if (S_ISDIR(st.st_mode)) a |= kAttrDirectory;
  if ((st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0) a |= kAttrReadOnly;
  return a == 0 ? kAttrNormal : a;
}

}  // namespace

uint32_t GetAttributes(const std::string& path) {
  struct stat st {};
  if (path.empty() || ::stat(ToNative(path).c_str(), &st) != 0) return kInvalidAttributes;
  return AttributesOf(st);
}

bool Exists(const std::string& path) { return GetAttributes(path) != kInvalidAttributes; }

// ---- File ----------------------------------------------------------------------------------------

File::~File() { Close(); }

File::File(File&& other) noexcept
    : fp_(std::exchange(other.fp_, nullptr)),
      pos_(std::exchange(other.pos_, 0)),
      buffer_(std::move(other.buffer_)) {}

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    Close();
    fp_ = std::exchange(other.fp_, nullptr);
    pos_ = std::exchange(other.pos_, 0);
    buffer_ = std::move(other.buffer_);
  }
  return *this;
}

File File::OpenRead(const std::string& path) {
  if (path.empty()) return File();
  // Non-blocking open, so a named pipe does not hang the caller before it is refused below.
  const int fd = ::open(ToNative(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return File();
  struct stat st {};
  std::FILE* fp = nullptr;
  // Of the status flags only O_NONBLOCK is set: clearing them all clears it.
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && ::fcntl(fd, F_SETFL, 0) == 0)
    fp = ::fdopen(fd, "rb");
  if (fp == nullptr) ::close(fd);
  File f(fp);
  f.OwnBuffer();
  return f;
}

File File::CreateWrite(const std::string& path) {
  if (path.empty()) return File();
  File f(std::fopen(ToNative(path).c_str(), "wb"));
  f.OwnBuffer();
  return f;
}

void File::OwnBuffer() {
  constexpr size_t kBufferSize = 8192;
  if (fp_ == nullptr) return;
  buffer_.reset(new char[kBufferSize]);
  if (std::setvbuf(fp_, buffer_.get(), _IOFBF, kBufferSize) != 0) buffer_.reset();
}

size_t File::Read(void* buffer, size_t size) {
  if (fp_ == nullptr || size == 0) return 0;
  const size_t n = std::fread(buffer, 1, size, fp_);
  pos_ = n == size && pos_ >= 0 ? pos_ + static_cast<int64_t>(n) : -1;
  return n;
}

bool File::ReadAt(uint64_t offset, void* buffer, size_t size) const {
  if (fp_ == nullptr || offset > static_cast<uint64_t>(INT64_MAX)) return false;
  auto* at = static_cast<unsigned char*>(buffer);
  while (size > 0) {
    const ssize_t n = ::pread(::fileno(fp_), at, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    at += n;
    offset += static_cast<uint64_t>(n);
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool File::Write(const void* data, size_t size) {
  if (fp_ == nullptr) return false;
  if (size == 0) return true;
  const bool ok = std::fwrite(data, 1, size, fp_) == size;
  pos_ = ok && pos_ >= 0 ? pos_ + static_cast<int64_t>(size) : -1;
  return ok;
}

bool File::Seek(uint64_t offset) {
  if (fp_ == nullptr || offset > static_cast<uint64_t>(INT64_MAX)) return false;
  // Readers walking a file front to back skip a few header bytes between one member's data and
  // the next: reading past them costs nothing from the stream's buffer, a seek drops it and
  // costs a system call per member.
  const int64_t to = static_cast<int64_t>(offset);
  constexpr int64_t kSkipByReading = 512;
  if (pos_ >= 0 && to >= pos_ && to - pos_ <= kSkipByReading) {
    unsigned char skipped[kSkipByReading];
    const size_t gap = static_cast<size_t>(to - pos_);
    if (gap == 0 || Read(skipped, gap) == gap) return true;
  }
  const bool ok = ::fseeko(fp_, static_cast<off_t>(offset), SEEK_SET) == 0;
  pos_ = ok ? to : -1;
  return ok;
}

uint64_t File::Tell() const {
  if (fp_ == nullptr) return 0;
  if (pos_ >= 0) return static_cast<uint64_t>(pos_);
  const off_t pos = ::ftello(fp_);
  return pos < 0 ? 0 : static_cast<uint64_t>(pos);
}

uint64_t File::Size() const {
  struct stat st {};
  if (fp_ == nullptr || ::fstat(::fileno(fp_), &st) != 0) return 0;
  return static_cast<uint64_t>(st.st_size);
}

bool File::AtEnd() const { return fp_ == nullptr || Tell() >= Size(); }

bool File::Sync() {
  return fp_ != nullptr && std::fflush(fp_) == 0 && ::fsync(::fileno(fp_)) == 0;
}

bool File::Close() {
  if (fp_ == nullptr) return true;
  const bool ok = std::fclose(fp_) == 0;
  fp_ = nullptr;
  buffer_.reset();
  return ok;
}

bool ReadWholeFile(const std::string& path, std::vector<unsigned char>& out, uint64_t maxSize) {
  File f = File::OpenRead(path);
  return ReadWholeFile(f, out, maxSize);
}

bool ReadWholeFile(File& f, std::vector<unsigned char>& out, uint64_t maxSize) {
  out.clear();
  if (!f.IsOpen() || !f.Seek(0)) return false;
  const uint64_t size = f.Size();
  if (size > maxSize || size > SIZE_MAX) return false;
  out.resize(static_cast<size_t>(size));
  if (f.Read(out.data(), out.size()) != out.size()) {
    out.clear();
    return false;
  }
  return true;
}

// ---- Folders and files ----------------------------------------------------------------------

bool CreateFolder(const std::string& path) {
  if (path.empty()) return false;
  if (::mkdir(ToNative(path).c_str(), 0777) == 0) return true;
  const uint32_t attrs = GetAttributes(path);
  return attrs != kInvalidAttributes && (attrs & kAttrDirectory) != 0;
}

bool CreateFolders(const std::string& path) {
  if (path.empty()) return false;
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (path[slash - 1] != '/') CreateFolder(path.substr(0, slash));
  }
  return CreateFolder(path);
}

bool SetAttributes(const std::string& path, uint32_t attributes) {
  struct stat st {};
  const std::string native = ToNative(path);
  if (::stat(native.c_str(), &st) != 0) return false;
  const mode_t before = st.st_mode & 07777;
  const mode_t mode = (attributes & kAttrReadOnly)
                          ? before & static_cast<mode_t>(~(S_IWUSR | S_IWGRP | S_IWOTH))
                          : before | S_IWUSR;
  return mode == before || ::chmod(native.c_str(), mode) == 0;
}

bool RemoveFolder(const std::string& path) {
  return !path.empty() && ::rmdir(ToNative(path).c_str()) == 0;
}

bool DeleteFile(const std::string& path) {
  return !path.empty() && ::unlink(ToNative(path).c_str()) == 0;
}

bool CopyFile(const std::string& from, const std::string& to) {
  File in = File::OpenRead(from);
  if (!in.IsOpen()) return false;
  File out = File::CreateWrite(to);
  if (!out.IsOpen()) return false;
  std::vector<unsigned char> buf(1 << 16);
  for (;;) {
    const size_t n = in.Read(buf.data(), buf.size());
    if (n == 0) break;
    if (!out.Write(buf.data(), n)) return false;
  }
  return out.Close();
}

bool MoveFile(const std::string& from, const std::string& to) {
  return !from.empty() && !to.empty() &&
         ::rename(ToNative(from).c_str(), ToNative(to).c_str()) == 0;
}

bool SetFileTimes(const std::string& path, const struct timespec& accessed,
                  const struct timespec& modified) {
  const struct timespec times[2] = {accessed, modified};
  return !path.empty() && ::utimensat(AT_FDCWD, ToNative(path).c_str(), times, 0) == 0;
}

std::string TempFolder() {
  const char* env = std::getenv("TMPDIR");
  std::string dir = (env != nullptr && *env != '\0') ? FromNative(env) : std::string("/tmp");
  if (dir.back() != '/') dir.push_back('/');
  return dir;
}

// ---- Find-first / find-next ------------------------------------------------------------------

bool MatchesWildcard(std::string_view name, std::string_view mask) {
  // As the platform's search does, a mask ending in ".*" also takes names without any dot:
  // "*.*" lists every entry and "name.*" finds "name".
  if (mask.size() >= 2 && mask.substr(mask.size() - 2) == ".*" &&
      name.find('.') == std::string_view::npos)
    mask.remove_suffix(2);
  // Greedy match with one backtrack point: linear in practice, never exponential.
  size_t n = 0, m = 0, starM = std::string_view::npos, starN = 0;
  while (n < name.size()) {
    // A star is always a wildcard, even where the name holds a '*' itself.
    if (m < mask.size() && mask[m] == '*') {
      starM = m++;
      starN = n;
    } else if (m < mask.size() && (mask[m] == '?' || mask[m] == name[n])) {
      ++n;
      ++m;
    } else if (starM != std::string_view::npos) {
      m = starM + 1;
      n = ++starN;
    } else {
      return false;
    }
  }
  while (m < mask.size() && mask[m] == '*') ++m;
  return m == mask.size();
}

Finder::~Finder() { Close(); }

void Finder::Close() {
  if (dir_ != nullptr) ::closedir(static_cast<DIR*>(dir_));
  dir_ = nullptr;
}

bool Finder::First(const std::string& pattern, FindData& found) {
  Close();
  const size_t slash = pattern.find_last_of('/');
  folder_ = slash == std::string::npos ? std::string() : pattern.substr(0, slash + 1);
  mask_ = slash == std::string::npos ? pattern : pattern.substr(slash + 1);
  literal_ = mask_.find_first_of("*?") == std::string::npos;
  if (mask_.empty()) return false;
  if (literal_) {
    // A plain name: that entry alone, if it exists.
    const uint32_t attrs = GetAttributes(pattern);
    if (attrs == kInvalidAttributes) return false;
    found.name = mask_;
    found.attributes = attrs;
    struct stat st {};
    found.size = ::stat(ToNative(pattern).c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
    return true;
  }
  DIR* dir = ::opendir(folder_.empty() ? "." : ToNative(folder_).c_str());
  if (dir == nullptr) return false;
  dir_ = dir;
  return Next(found);
}

bool Finder::Next(FindData& found) {
  if (dir_ == nullptr) return false;
  while (struct dirent* e = ::readdir(static_cast<DIR*>(dir_))) {
    const std::string name = FromNative(e->d_name);
    if (!MatchesWildcard(name, mask_)) continue;
    struct stat st {};
    const std::string full = ToNative(folder_) + e->d_name;
    found.name = name;
    found.attributes = ::stat(full.c_str(), &st) == 0 ? AttributesOf(st) : kAttrNormal;
    found.size = S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
    return true;
  }
  Close();
  return false;
}

bool FileStamp::operator==(const FileStamp& o) const {
  return device == o.device && inode == o.inode && size == o.size &&
         modified.tv_sec == o.modified.tv_sec && modified.tv_nsec == o.modified.tv_nsec &&
         changed.tv_sec == o.changed.tv_sec && changed.tv_nsec == o.changed.tv_nsec;
}

bool StampOf(const std::string& path, FileStamp& out) {
  struct stat st {};
  if (::stat(ToNative(path).c_str(), &st) != 0) return false;
  out = {st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim};
  return true;
}

}  // namespace qx::fs
