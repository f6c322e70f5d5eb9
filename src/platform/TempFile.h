// A new file written beside a target and then either put in the target's place in one rename
// or thrown away, so a reader of the target sees the old bytes or the new ones, never a mix.
//
//   fs::TempFile tmp("dir/group.grp");   // creates dir/.group.grp.XXXXXX
//   tmp.file().Write(...);
//   if (!tmp.Keep()) ...                 // fsync, then rename over dir/group.grp
//
// Leaving the scope without Keep() removes the temporary file.
#pragma once

#include <string>

#include "platform/fs.h"

namespace qx::fs {

class TempFile {
 public:
  // Creates the file in the target's folder (1252 path). IsOpen() tells whether it worked.
  explicit TempFile(const std::string& target);
  ~TempFile();
  TempFile(TempFile&& other) noexcept;
  TempFile& operator=(TempFile&& other) noexcept;
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  bool IsOpen() const { return file_.IsOpen(); }
  // The open file, for writing and reading back.
  File& file() { return file_; }
  // The temporary file's path (1252); empty when it could not be created.
  const std::string& path() const { return path_; }
  const std::string& target() const { return target_; }

  // Puts the written bytes on the disk and renames the file over the target. False (and the
  // temporary file is gone) when any step fails; the target is then untouched.
  bool Keep();
  // Closes and removes the temporary file. Safe to call more than once.
  void Discard();

 private:
  File file_;
  std::string target_;
  std::string path_;
  std::string nativePath_;
};

}  // namespace qx::fs
