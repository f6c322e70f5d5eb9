// The component's private temporary folder and one call's own fresh subfolder of it.
//
//   ${TMPDIR:-/tmp}/QXGrpMgr-<uid>/          mode 0700, ours, not a link (checked before each use)
//   ${TMPDIR:-/tmp}/QXGrpMgr-<uid>/XXXXXX/   made by mkdtemp for one call, removed with its
//                                            contents when the CallTempFolder goes
//
// A file left there by another process, or by another call, can never be taken for this call's.
#pragma once

#include <string>

namespace qx {

// The private folder (1252 path, ending in '/'), created when missing. Empty when it cannot be
// made or what is at its path is not a folder of ours that only we may enter; a diagnostic says
// why.
std::string PrivateTempFolder();

class CallTempFolder {
 public:
  // Makes a new subfolder; IsValid() is false (with a diagnostic) when that fails.
  CallTempFolder();
  // Removes the subfolder and everything in it.
  ~CallTempFolder();
  CallTempFolder(const CallTempFolder&) = delete;
  CallTempFolder& operator=(const CallTempFolder&) = delete;

  bool IsValid() const { return !path_.empty(); }
  // The subfolder (1252 path) ending in '/'.
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
  std::string native_;  // what the system was given, for the removal
};

}  // namespace qx
