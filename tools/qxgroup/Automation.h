// What every qxgroup subcommand shares: a FileManager object made through its class object,
// text conversion between the command line (UTF-8) and automation strings, and the checks
// made on arguments before anything is touched.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/com.h"
#include "platform/ui.h"
#include "qxgroupmgr/ErrorCode.h"
#include "qxgroupmgr/QXGroupMgr.h"

namespace qx::cli {

// Exit statuses of the program.
enum Exit : int {
  kExitOk = 0,
  kExitFailed = 1,    // the operation failed
  kExitUsage = 2,     // the command line was wrong
  kExitPartial = 3,   // done, with files left out: not added, or existing files kept
  kExitMissing = 11,  // get: some named members were not found (the others were written)
};

// One FileManager for the life of the command, released at the end.
class FileManagerSession {
 public:
  FileManagerSession();
  ~FileManagerSession();
  FileManagerSession(const FileManagerSession&) = delete;
  FileManagerSession& operator=(const FileManagerSession&) = delete;

  // Null when the object could not be made; Error() then says why.
  IGroupManager2* get() const { return fm_; }
  IGroupManager2* operator->() const { return fm_; }
  const std::string& Error() const { return error_; }

 private:
  IGroupManager2* fm_ = nullptr;
  std::string error_;
};

// AddFiles' success status when it left files out.
inline constexpr HRESULT kAddedWithFilesLeftOut = 2;

// Gives the FileManager an owner window bound to `host` for as long as this lives; with a
// null host it gives none, and the component asks nothing.
class OwnerWindow {
 public:
  OwnerWindow(IGroupManager2* fm, std::shared_ptr<ui::Host> host);
  ~OwnerWindow();
  OwnerWindow(const OwnerWindow&) = delete;
  OwnerWindow& operator=(const OwnerWindow&) = delete;

 private:
  IGroupManager2* fm_;
  HWND window_ = nullptr;
};

// Command-line text (UTF-8) <-> automation strings.
Bstr ToBstr(std::string_view utf8);
std::string FromBstr(BSTR text);

// Thrown by argument checks and turned into one line on stderr by main.
struct UsageError {
  std::string message;
};
// `code` is the component's diagnostic code when the reason is the component's ("no-member",
// "truncated", ...), else one of this program's in the same style; --json prints it.
struct Failure {
  Failure(std::string text, std::string why = "failed")
      : message(std::move(text)), code(std::move(why)) {}
  std::string message;
  std::string code;
};

// The command's one FileManager, made on first use; throws Failure when it cannot be made.
FileManagerSession& Session();

// A file name travels inside the component as Windows-1252 text and inside lists separated by
// commas: refuse what cannot make that trip before anything is touched.
void CheckRepresentable(const std::string& utf8Path, std::string_view what);
void CheckListItem(const std::string& utf8Item, std::string_view what);
// Joins list items with ",", after checking each of them.
std::string JoinList(const std::vector<std::string>& items, std::string_view what);

// "0x80004005"
std::string HexStatus(HRESULT hr);

// The error information the component left on this thread (UTF-8): the description
// "subject: why", e.g. "notes.txt: not a group file (unknown signature)", and the diagnostic
// code, e.g. "not-a-group". Both empty when there is none. Taking it empties the slot.
struct ComponentError {
  std::string description;
  std::string code;
};
ComponentError TakeError();
inline std::string TakeErrorDescription() { return TakeError().description; }

// Throws Failure with the component's description and code of why the last call failed, or
// with `otherwise` (code "failed") when it left none.
[[noreturn]] void FailWithReason(const std::string& otherwise);

// The files an AddFiles that returned 2 left out, from its error information: the description
// "GROUP: files left out:" followed by one line per file path (or merged member name).
std::vector<std::string> TakeFilesLeftOut();

// Prints the shell change notifications of this process on stderr while it lives (--verbose).
class NotificationEcho {
 public:
  explicit NotificationEcho(bool enabled);
  ~NotificationEcho();
  NotificationEcho(const NotificationEcho&) = delete;
  NotificationEcho& operator=(const NotificationEcho&) = delete;

 private:
  uint64_t token_ = 0;
};

}  // namespace qx::cli
