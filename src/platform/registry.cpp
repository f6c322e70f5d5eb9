#include "platform/registry.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <iterator>
#include <new>
#include <utility>

#include "platform/ProcessState.h"
#include "platform/TempFile.h"
#include "platform/codepage.h"

namespace qx::registry {

namespace {

constexpr std::string_view kHeader = "Windows Registry Editor Version 5.00";
constexpr std::string_view kHeader4 = "REGEDIT4";
constexpr std::string_view kRootName = "HKEY_CLASSES_ROOT";


// Cuts "a\b\c" into its names. False for "", an empty name ("\a", "a\\b", "a\") or a control
// character, which the file could not hold on one line.
bool SplitPath(std::string_view path, std::vector<std::string_view>& names) {
  names.clear();
  if (path.empty()) return false;
  size_t start = 0;
  for (;;) {
    const size_t end = path.find('\\', start);
    const std::string_view name = path.substr(start, end == std::string_view::npos ? end : end - start);
    if (name.empty()) return false;
    for (unsigned char c : name)
      if (c < 0x20 || c == 0x7F) return false;
    names.push_back(name);
    if (end == std::string_view::npos) return true;
    start = end + 1;
  }
}

std::unique_ptr<Key> CloneKey(const Key& key) {
  auto copy = std::make_unique<Key>();
  copy->name = key.name;
  copy->values = key.values;
  for (const auto& [name, sub] : key.subkeys) copy->subkeys.emplace(name, CloneKey(*sub));
  return copy;
}

// ---- .reg text --------------------------------------------------------------------------------------

void AppendQuoted(std::string& out, std::string_view ansi) {
  out += '"';
  for (char c : codepage::AnsiToUtf8(ansi)) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '"': out += "\\\""; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      default: out += c;
    }
  }
  out += '"';
}

void AppendKey(std::string& out, const Key& key, std::string& path) {
  for (const auto& [name, sub] : key.subkeys) {
    const size_t mark = path.size();
    path += '\\';
    path += sub->name;
    out += '[';
    out += codepage::AnsiToUtf8(path);
    out += "]\n";
    for (const auto& [valueName, data] : sub->values) {
      if (valueName.empty()) out += '@';
      else AppendQuoted(out, valueName);
      out += '=';
      AppendQuoted(out, data);
      out += '\n';
    }
    out += '\n';
    AppendKey(out, *sub, path);
    path.resize(mark);
  }
}

// Reads a quoted string at `pos` (which is at the opening quote) into `ansi`; `pos` ends past
// the closing quote. False when the string does not end on the line or holds an unknown escape.
bool ReadQuoted(std::string_view line, size_t& pos, std::string& ansi) {
  std::string utf8;
  for (size_t i = pos + 1; i < line.size(); ++i) {
    const char c = line[i];
    if (c == '"') {
      ansi = codepage::Utf8ToAnsi(utf8);
      pos = i + 1;
      return true;
    }
    if (c != '\\') {
      utf8 += c;
      continue;
    }
    if (++i == line.size()) return false;
    switch (line[i]) {
      case '\\': utf8 += '\\'; break;
      case '"': utf8 += '"'; break;
      case 'n': utf8 += '\n'; break;
      case 'r': utf8 += '\r'; break;
      default: return false;
    }
  }
  return false;
}

std::string_view TrimRight(std::string_view s) {
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

std::string_view TrimLeft(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  return s;
}

// ---- The file and what this process last read of it ------------------------------------------------

// Identifies one version of the file: every write replaces it by rename, so a new inode, and
// size and time catch the rest.
struct FileStamp {
  bool exists = false;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  struct timespec mtime = {};

  static FileStamp Of(const struct stat& st) {
    return {true, st.st_dev, st.st_ino, st.st_size, st.st_mtim};
  }
  bool operator==(const FileStamp& o) const {
    return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
           mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec;
  }
};

struct Cache {
  std::mutex mutex;  // guards the cache, and serialises this process's writers
  bool valid = false;
  std::string path;
  FileStamp stamp;
  LONG status = kErrorSuccess;
  Tree tree;
};

ProcessState<Cache> gCache;

Cache& TheCache() { return gCache.Get(); }

bool ReadAll(int fd, std::string& text) {
  text.clear();
  char buffer[16384];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) return true;
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    text.append(buffer, static_cast<size_t>(n));
  }
}

// Brings the cache up to date with the file at `path`. Caller holds the cache mutex.
void Refresh(Cache& cache, const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    const bool missing = errno == ENOENT || errno == ENOTDIR;
    cache.valid = true;
    cache.path = path;
    cache.stamp = FileStamp{};
    cache.tree = Tree();
    cache.status = missing ? kErrorSuccess : kErrorCantRead;
    return;
  }
  struct stat st = {};
  const bool statted = ::fstat(fd, &st) == 0;
  if (statted && cache.valid && cache.path == path && cache.stamp == FileStamp::Of(st)) {
    ::close(fd);
    return;
  }
  std::string text;
  const bool read = statted && ReadAll(fd, text);
  ::close(fd);
  cache.valid = read;  // an unreadable file is tried again next time
  cache.path = path;
  cache.stamp = statted ? FileStamp::Of(st) : FileStamp{};
  cache.status = read ? cache.tree.Parse(text) : kErrorCantRead;
  if (!read) cache.tree = Tree();
}

// Creates the folders leading to `path`.
bool MakeParentFolders(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string folder = path.substr(0, slash);
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// Writes `text` to a new file beside `path` and renames it over `path`.
bool ReplaceFile(const std::string& path, std::string_view text) {
  fs::TempFile temp = fs::TempFile::ForNativePath(path);
  return temp.IsOpen() && temp.file().Write(text.data(), text.size()) && temp.Keep();
}

// An exclusive flock on "<path>.lock", held for the object's life. The lock is on a file of its
// own because the store itself is replaced by every write.
class FileLock {
 public:
  explicit FileLock(const std::string& path) {
    fd_ = ::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) return;
    while (::flock(fd_, LOCK_EX) != 0) {
      if (errno != EINTR) {
        ::close(fd_);
        fd_ = -1;
        return;
      }
    }
  }
  ~FileLock() {
    if (fd_ >= 0) ::close(fd_);  // closing drops the lock
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  bool Held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

LONG Read(const std::function<LONG(const Tree&)>& visit) {
  Cache& cache = TheCache();
  try {
    std::lock_guard<std::mutex> guard(cache.mutex);
    Refresh(cache, StorePath());
    if (cache.status != kErrorSuccess) return cache.status;
    return visit(cache.tree);
  } catch (const std::bad_alloc&) {
    return kErrorOutOfMemory;
  }
}

}  // namespace

void ReleaseProcessState() { gCache.Release(); }

bool NoCaseLess::operator()(std::string_view a, std::string_view b) const {
  return codepage::LessNoCase1252(a, b);
}

// ---- Tree -----------------------------------------------------------------------------------------------

Tree::Tree() : root_(std::make_unique<Key>()) {}
Tree::Tree(const Tree& other) : root_(CloneKey(*other.root_)) {}
Tree& Tree::operator=(const Tree& other) {
  if (this != &other) root_ = CloneKey(*other.root_);
  return *this;
}

const Key* Tree::Find(std::string_view path) const {
  if (path.empty()) return root_.get();
  std::vector<std::string_view> names;
  if (!SplitPath(path, names)) return nullptr;
  const Key* key = root_.get();
  for (std::string_view name : names) {
    const auto it = key->subkeys.find(name);
    if (it == key->subkeys.end()) return nullptr;
    key = it->second.get();
  }
  return key;
}

Key* Tree::FindMutable(std::string_view path) { return const_cast<Key*>(Find(path)); }

LONG Tree::CreateKey(std::string_view path) {
  std::vector<std::string_view> names;
  if (!SplitPath(path, names)) return kErrorInvalidParameter;
  Key* key = root_.get();
  for (std::string_view name : names) {
    auto it = key->subkeys.find(name);
    if (it == key->subkeys.end()) {
      auto sub = std::make_unique<Key>();
      sub->name = std::string(name);
      it = key->subkeys.emplace(std::string(name), std::move(sub)).first;
    }
    key = it->second.get();
  }
  return kErrorSuccess;
}

LONG Tree::SetValue(std::string_view path, std::string_view name, std::string_view data) {
  if (const LONG status = CreateKey(path); status != kErrorSuccess) return status;
  Key* key = FindMutable(path);
  auto it = key->values.find(name);
  if (it == key->values.end()) key->values.emplace(std::string(name), std::string(data));
  else it->second = std::string(data);
  return kErrorSuccess;
}

LONG Tree::GetValue(std::string_view path, std::string_view name, std::string& data) const {
  const Key* key = path.empty() ? nullptr : Find(path);
  if (key == nullptr) return kErrorFileNotFound;
  const auto it = key->values.find(name);
  if (it == key->values.end()) return kErrorFileNotFound;
  data = it->second;
  return kErrorSuccess;
}

LONG Tree::DeleteValue(std::string_view path, std::string_view name) {
  Key* key = path.empty() ? nullptr : FindMutable(path);
  if (key == nullptr) return kErrorFileNotFound;
  const auto it = key->values.find(name);
  if (it == key->values.end()) return kErrorFileNotFound;
  key->values.erase(it);
  return kErrorSuccess;
}

LONG Tree::DeleteTree(std::string_view path) {
  std::vector<std::string_view> names;
  if (!SplitPath(path, names)) return kErrorInvalidParameter;
  const size_t cut = path.rfind('\\');
  Key* parent = cut == std::string_view::npos ? root_.get() : FindMutable(path.substr(0, cut));
  if (parent == nullptr) return kErrorFileNotFound;
  const auto it = parent->subkeys.find(names.back());
  if (it == parent->subkeys.end()) return kErrorFileNotFound;
  parent->subkeys.erase(it);
  return kErrorSuccess;
}

LONG Tree::SubKeys(std::string_view path, std::vector<std::string>& names) const {
  names.clear();
  const Key* key = Find(path);
  if (key == nullptr) return kErrorFileNotFound;
  names.reserve(key->subkeys.size());
  for (const auto& [name, sub] : key->subkeys) names.push_back(sub->name);
  return kErrorSuccess;
}

std::string Tree::Serialize() const {
  std::string out(kHeader);
  out += "\n\n";
  std::string path(kRootName);
  AppendKey(out, *root_, path);
  return out;
}

LONG Tree::Parse(std::string_view text, std::string* error) {
  root_ = std::make_unique<Key>();
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  const auto fail = [&](size_t lineNo, const char* why) {
    root_ = std::make_unique<Key>();
    if (error != nullptr) *error = "line " + std::to_string(lineNo) + ": " + why;
    return kErrorBadDb;
  };

  bool headerSeen = false;
  std::string keyPath;  // 1252; empty while no key line was read
  size_t lineNo = 0;
  while (!text.empty()) {
    const size_t eol = text.find('\n');
    const std::string_view line = TrimRight(text.substr(0, eol));
    text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
    ++lineNo;
    if (line.empty() || line.front() == ';') continue;
    if (!headerSeen) {
      if (line != kHeader && line != kHeader4) return fail(lineNo, "not a registry file");
      headerSeen = true;
      continue;
    }
    if (line.front() == '[') {
      if (line.back() != ']') return fail(lineNo, "key line without ']'");
      const std::string path = codepage::Utf8ToAnsi(line.substr(1, line.size() - 2));
      if (path.size() <= kRootName.size() || !codepage::EqualsNoCase1252(path.substr(0, kRootName.size()), kRootName) ||
          path[kRootName.size()] != '\\')
        return fail(lineNo, "key outside HKEY_CLASSES_ROOT");
      keyPath = path.substr(kRootName.size() + 1);
      if (CreateKey(keyPath) != kErrorSuccess) return fail(lineNo, "malformed key path");
      continue;
    }
    if (keyPath.empty()) return fail(lineNo, "value outside a key");
    size_t pos = 0;
    std::string name;
    if (line.front() == '@') pos = 1;
    else if (line.front() != '"' || !ReadQuoted(line, pos, name))
      return fail(lineNo, "malformed value name");
    const std::string_view rest = TrimLeft(line.substr(pos));
    if (rest.empty() || rest.front() != '=') return fail(lineNo, "'=' expected");
    const std::string_view value = TrimLeft(rest.substr(1));
    std::string data;
    pos = 0;
    if (value.empty() || value.front() != '"' || !ReadQuoted(value, pos, data))
      return fail(lineNo, "only string values are kept");
    if (!TrimLeft(value.substr(pos)).empty()) return fail(lineNo, "text after the value");
    SetValue(keyPath, name, data);
  }
  return kErrorSuccess;  // blank lines and comments alone are an empty store
}

// ---- The store --------------------------------------------------------------------------------------

std::string StorePath() {
  if (const char* file = std::getenv("QXGROUPMGR_REGISTRY"); file != nullptr && *file != '\0')
    return file;
  std::string base;
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config != nullptr && *config == '/') {
    base = config;
  } else {
    const char* home = std::getenv("HOME");
    base = std::string(home != nullptr ? home : "") + "/.config";
  }
  return base + "/qxgroupmgr/registry.reg";
}

LONG Load(Tree& out) {
  return Read([&](const Tree& tree) {
    out = tree;
    return kErrorSuccess;
  });
}

LONG Update(const std::function<LONG(Tree&)>& change) {
  Cache& cache = TheCache();
  try {
    std::lock_guard<std::mutex> guard(cache.mutex);
    const std::string path = StorePath();
    if (!MakeParentFolders(path)) return kErrorCantWrite;
    FileLock lock(path);
    if (!lock.Held()) return kErrorCantWrite;
    Refresh(cache, path);
    if (cache.status != kErrorSuccess) return cache.status;
    Tree changed = cache.tree;
    if (const LONG status = change(changed); status != kErrorSuccess) return status;
    if (!ReplaceFile(path, changed.Serialize())) return kErrorCantWrite;
    // Still under the lock, so what is there now is exactly what was written.
    struct stat st = {};
    cache.valid = ::stat(path.c_str(), &st) == 0;
    cache.stamp = cache.valid ? FileStamp::Of(st) : FileStamp{};
    cache.tree = std::move(changed);
    return kErrorSuccess;
  } catch (const std::bad_alloc&) {
    return kErrorOutOfMemory;
  }
}

LONG RegCreateKey(std::string_view path) {
  return Update([&](Tree& tree) { return tree.CreateKey(path); });
}

LONG RegSetValue(std::string_view path, std::string_view name, std::string_view data) {
  return Update([&](Tree& tree) { return tree.SetValue(path, name, data); });
}

LONG RegQueryValue(std::string_view path, std::string_view name, std::string& data) {
  return Read([&](const Tree& tree) { return tree.GetValue(path, name, data); });
}

LONG RegDeleteValue(std::string_view path, std::string_view name) {
  return Update([&](Tree& tree) { return tree.DeleteValue(path, name); });
}

LONG RegDeleteTree(std::string_view path) {
  return Update([&](Tree& tree) { return tree.DeleteTree(path); });
}

LONG RegEnumKey(std::string_view path, DWORD index, std::string& name) {
  return Read([&](const Tree& tree) {
    const Key* key = tree.Find(path);
    if (key == nullptr) return kErrorFileNotFound;
    if (index >= key->subkeys.size()) return kErrorNoMoreItems;
    auto it = key->subkeys.begin();
    std::advance(it, index);
    name = it->second->name;
    return kErrorSuccess;
  });
}

LONG RegOpenKey(std::string_view path) {
  return Read([&](const Tree& tree) {
    return path.empty() || tree.Find(path) == nullptr ? kErrorFileNotFound : kErrorSuccess;
  });
}

}  // namespace qx::registry
