// File-system stand-in. Every path given to these functions is Windows-1252 text, as everywhere
// inside the component; it is converted to UTF-8 just before the system call, and names read
// back from the system are converted from UTF-8 to 1252 ('?' for what 1252 cannot hold).
// Paths use '/' as the separator.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qx::fs {

class TempFile;

// 1252 path -> the UTF-8 bytes handed to the system.
std::string ToNative(std::string_view ansiPath);
// UTF-8 name from the system -> 1252.
std::string FromNative(std::string_view nativeName);

// Attribute bits, with the platform's values.
enum : uint32_t {
  kAttrReadOnly = 0x01,
  kAttrDirectory = 0x10,
  kAttrNormal = 0x80,
  kInvalidAttributes = 0xFFFFFFFFu,
};

// The file's attributes, or kInvalidAttributes when nothing exists at the path.
uint32_t GetAttributes(const std::string& path);
// True when a file or folder exists at the path.
bool Exists(const std::string& path);

// One version of a file's contents: every rewrite of a group replaces the file by rename (a new
// inode), and size and times catch the rest. Equal stamps: the same bytes, as far as can be told
// without reading them.
struct FileStamp {
  uint64_t device = 0;
  uint64_t inode = 0;
  int64_t size = 0;
  timespec modified{};
  timespec changed{};
  bool operator==(const FileStamp& o) const;
};
// The stamp of the file at `path` (links followed); false when there is none.
bool StampOf(const std::string& path, FileStamp& out);

// A file opened for binary reading or writing; closed by the destructor.
class File {
 public:
  File() = default;
  ~File();
  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Opens an existing regular file for reading. A folder does not open.
  static File OpenRead(const std::string& path);
  // Creates (or truncates) a file for writing.
  static File CreateWrite(const std::string& path);

  bool IsOpen() const { return fp_ != nullptr; }
  // Bytes read; fewer at the end of the file or on an error.
  size_t Read(void* buffer, size_t size);
  // Reads `size` bytes at `offset` without moving the stream (so callers on several threads may
  // share one open file); false when fewer are there.
  bool ReadAt(uint64_t offset, void* buffer, size_t size) const;
  // True when all bytes were written.
  bool Write(const void* data, size_t size);
  bool Seek(uint64_t offset);
  uint64_t Tell() const;
  // Size of the open file in bytes.
  uint64_t Size() const;
  bool AtEnd() const;
  // Flushes buffered bytes and asks the system to put them on the disk.
  bool Sync();
  bool Close();

 private:
  friend class TempFile;
  explicit File(std::FILE* fp) : fp_(fp) {}
  // Gives the stream a buffer of our own: left to itself, the C library asks the system for the
  // file's block size to size one, a system call per file opened.
  void OwnBuffer();
  std::FILE* fp_ = nullptr;
  int64_t pos_ = 0;  // where the stream stands, as far as our own calls moved it; -1: unknown
  std::unique_ptr<char[]> buffer_;  // the stream's buffer, freed after the stream is closed
};

// Reads a whole regular file. False when it cannot be opened or read, or is larger than maxSize.
bool ReadWholeFile(const std::string& path, std::vector<unsigned char>& out,
                   uint64_t maxSize = UINT64_MAX);
// The same for a file already open, read from its start.
bool ReadWholeFile(File& f, std::vector<unsigned char>& out, uint64_t maxSize = UINT64_MAX);

}  // namespace qx::fs

namespace qx::fs {

// ---- Folders and files ----------------------------------------------------------------------

// Creates one folder; true when it exists afterwards.
bool CreateFolder(const std::string& path);
// Creates a folder and its missing parents ("a/b/c"); true when it exists afterwards.
bool CreateFolders(const std::string& path);
// Sets the platform attributes a file can carry here: read-only clears every write
// permission, anything else gives the owner write permission back.
bool SetAttributes(const std::string& path, uint32_t attributes);
// Removes an empty folder.
bool RemoveFolder(const std::string& path);
bool DeleteFile(const std::string& path);
// Copies a file's bytes (replacing any file at `to`).
bool CopyFile(const std::string& from, const std::string& to);
// Renames within one file system, replacing any file at `to`.
bool MoveFile(const std::string& from, const std::string& to);
// The system's temporary folder ($TMPDIR, else /tmp), ending in '/'.
std::string TempFolder();
// Sets a file's access and modification times. False when there is no such file.
bool SetFileTimes(const std::string& path, const struct timespec& accessed,
                  const struct timespec& modified);

// ---- Find-first / find-next ------------------------------------------------------------------

struct FindData {
  std::string name;  // the entry's name (1252), without its folder
  uint32_t attributes = 0;
  uint64_t size = 0;
};

// Lists the entries of a folder whose names match the last component of a pattern, with `*`
// (any run of characters) and `?` (one character); the folder part is taken literally.
//   "dir/*.kdp" => every .kdp file in dir;  "dir/a?c" => abc, a.c ...;  "dir/name" => name only
// "dir/*" also lists "." and "..", as the platform's search does.
class Finder {
 public:
  Finder() = default;
  ~Finder();
  Finder(const Finder&) = delete;
  Finder& operator=(const Finder&) = delete;

  // False when nothing matches (or the folder cannot be read).
  bool First(const std::string& pattern, FindData& found);
  bool Next(FindData& found);
  void Close();

 private:
  void* dir_ = nullptr;  // DIR*
  std::string folder_;
  std::string mask_;
  bool literal_ = false;
};

// True when `name` matches `mask` with the platform's `*` and `?` wildcards. A mask ending in
// ".*" also matches names without a dot ("*.*" matches everything). Case-sensitive, as the
// file system underneath is.
bool MatchesWildcard(std::string_view name, std::string_view mask);

}  // namespace qx::fs
