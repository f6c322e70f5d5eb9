// Why the current call failed, recorded where the failure is seen and carried up to the caller.
//
// Each thread has one current diagnostic. Code that sees a failure records it with the file or
// member concerned; the first one recorded in a call is kept (the place nearest the fault knows
// most), later ones are ignored until the frame clears it at the start of the next call. Probes
// whose failure is an answer, not an error (is this member a group?), run under a
// DiagnosticScope, which throws away whatever they record.
//
//   diag::Record("truncated", "school.mag", "table entry 3 lies past the end of the file (offset 212)");
//   if (const diag::Diagnostic* d = diag::Current()) ...   // => {"truncated", "school.mag", ...}
#pragma once

#include <string>
#include <string_view>

namespace qx::diag {

// Codes in use: the group file: "not-a-group", "no-members", "unreadable-name", "cannot-read",
// "cannot-write", "cannot-create", "no-container", "cannot-list", "cannot-delete", "keeps-one",
// "too-large", "files-left-out"; its layout (LayoutResult): "truncated", "bad-table",
// "bad-offset", "too-large", "not-a-group"; a member: "no-member", "bad-member-name"; a file
// to add: "flash-file", "other-family", "not-a-variable", "damaged", "cannot-add",
// "comma-in-name"; a flash file: "cannot-open", "not-a-flash-file", "not-a-flash-record";
// an argument: "not-1252", "null-pointer", "no-such-name", "bad-dispatch"; otherwise
// "not-implemented", "out-of-memory", "internal", "failed".
struct Diagnostic {
  std::string code;     // short and stable, for scripts: "not-a-group", "truncated", "no-member"
  std::string subject;  // the file or member at fault (1252 text), may be empty
  std::string text;     // one sentence for people, without the subject repeated at its start
};

// Keeps the first diagnostic of the call; later records are ignored until Clear.
void Record(std::string_view code, std::string_view subject, std::string_view text);
// Forgets the current diagnostic (the frame does this at the start of every call).
void Clear();
// The current diagnostic, or null when none was recorded.
const Diagnostic* Current();
// "subject: text" (or the text alone without a subject), empty when none was recorded.
std::string Describe();

// Runs a probe without leaving a diagnostic behind: restores on destruction what was current
// when the scope began.
class DiagnosticScope {
 public:
  DiagnosticScope();
  ~DiagnosticScope();
  DiagnosticScope(const DiagnosticScope&) = delete;
  DiagnosticScope& operator=(const DiagnosticScope&) = delete;

 private:
  bool had_;
  Diagnostic saved_;
};

}  // namespace qx::diag
