// The component's private temporary folder and the per-call work folders inside it.
//
// A shared, world-writable folder would let another local user plant a link or a file where
// we extract, so the folder is per user and checked before every use:
//
//   ${TMPDIR:-/tmp}/QXGrpMgr-<uid>/           mode 0700, ours, a real folder (lstat, never followed)
//   ${TMPDIR:-/tmp}/QXGrpMgr-<uid>/call-XXXXXX/   one per call, made through a descriptor of
//                                              the checked folder; removed by its owner
//
//   fs::TempWorkFolder work;            // checks the folder, makes a fresh subfolder
//   if (!work.IsOpen()) return 0;       // why is recorded as a diagnostic
//   extract into work.Path() ...        // "…/call-Ab12Cd/"
//   // leaving the scope removes the subfolder with whatever it holds, and the private
//   // folder itself when nothing else is in it
#pragma once

#include <string>

namespace qx::fs {

// The private folder (1252 path ending in '/'), created when missing. Empty, with a diagnostic
// recorded, when something at that path is not a folder, is a link, belongs to someone else or
// gives group or other users any access.
std::string PrivateTempFolder();

// A fresh folder of one call inside the private folder, removed with its contents (links are
// removed, never followed) when the object goes.
class TempWorkFolder {
 public:
  TempWorkFolder();
  ~TempWorkFolder();
  TempWorkFolder(const TempWorkFolder&) = delete;
  TempWorkFolder& operator=(const TempWorkFolder&) = delete;

  bool IsOpen() const { return !path_.empty(); }
  // 1252 path ending in '/'; empty when the folder could not be made.
  const std::string& Path() const { return path_; }
  // Creates a new file here with O_CREAT|O_EXCL|O_NOFOLLOW (mode 0600) and returns its
  // descriptor, or -1 (diagnostic recorded). `name` is one path component.
  int CreateFile(const std::string& name) const;

 private:
  std::string path_;
};

}  // namespace qx::fs
