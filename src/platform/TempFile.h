// The one way a file is replaced: a new file written in the target's folder and then either put
// in the target's place in one rename or thrown away, so a reader of the target sees the old
// bytes or the new ones, never a mix.
//
//   fs::TempFile tmp("dir/group.grp");   // refused here when dir/group.grp may not be written
//   tmp.file().Write(...);
//   if (!tmp.Keep()) ...                 // fsync, name it, rename over dir/group.grp
//
// The new file has no name while it is written (O_TMPFILE), so a process killed at any moment
// leaves nothing behind; it is linked under a hidden name ".group.grp.qxtmp~XXXXXX" only just
// before the rename (or from the start where the file system cannot make unnamed files).
// Hidden files of that pattern older than an hour are leftovers of a crash in that window and
// are removed by the next write to the same target.
//
// A target reached through a symlink is replaced where the link points; the link stays a link.
// A replaced file keeps its mode, and its owner and group where the process may set them.
// Leaving the scope without Keep() throws the new file away. Failures are recorded with
// diag::Record ("read-only", "write-failed").
#pragma once

#include <string>

#include "platform/fs.h"

namespace qx::fs {

// False, with a "read-only" or "write-failed" diagnostic, when the file at `path` (1252)
// exists and this process may not replace it: not a regular file, no write permission for
// this user, or a read-only file system. A missing file is replaceable here; whether its
// folder takes a new file shows when the file is created.
bool CheckReplaceable(const std::string& path);

class TempFile {
 public:
  // Creates the new file for `target` (1252 path). IsOpen() tells whether it worked.
  explicit TempFile(const std::string& target);
  // The same for a target given as the system's own (UTF-8) path.
  static TempFile ForNativePath(const std::string& nativeTarget);
  ~TempFile();
  TempFile(TempFile&& other) noexcept;
  TempFile& operator=(TempFile&& other) noexcept;
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  bool IsOpen() const { return file_.IsOpen(); }
  // The open file, for writing and reading back.
  File& file() { return file_; }
  // The target as given.
  const std::string& target() const { return target_; }

  // Puts the written bytes on the disk and renames the file over the target. False (and the
  // new file is gone) when any step fails; the target is then untouched.
  bool Keep();
  bool Commit() { return Keep(); }
  // Closes and removes the new file. Safe to call more than once.
  void Discard();

 private:
  struct Native {};
  TempFile(Native, const std::string& nativeTarget, std::string target);

  File file_;
  std::string target_;        // as given, for diagnostics
  std::string nativeFinal_;   // the target with its links followed
  std::string namedPath_;     // the hidden name, once the file has one
};

}  // namespace qx::fs
