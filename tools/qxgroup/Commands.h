// The friendly subcommands. Each returns the exit status; bad arguments throw UsageError and
// failures Failure (Automation.h), which main turns into one line on stderr.
#pragma once

#include <string>
#include <vector>

#include "qxgroup/Overwrite.h"

namespace qx::cli {

// What the global flags set for every subcommand.
struct Conventions {
  bool quiet = false;    // -q: no warnings (the exit status still tells)
  bool verbose = false;  // -v: each file handled, on stderr
  bool json = false;     // --json: one JSON document on stdout, also for a failure
  Overwrite overwrite = Overwrite::Keep;
};
Conventions& Settings();

// `force`: keep a group name whose extension is not the group's own.
int CmdCreate(const std::string& group, const std::vector<std::string>& files, bool force);
// `onDuplicate`: replace, ask, skip or cancel.
int CmdAdd(const std::string& group, const std::vector<std::string>& files,
           const std::string& folder, const std::string& onDuplicate);
int CmdDelete(const std::string& group, const std::vector<std::string>& members);
int CmdList(const std::string& group);
// The contents as an indented tree with folders and nested groups opened; `longForm` adds
// sizes and dates.
int CmdTree(const std::string& group, bool longForm);
int CmdXml(const std::string& group, bool meta, const std::string& pattern);
// Copies members out; those that exist are written, the others named (kExitMissing).
// `toStdout`: the members' bytes go to standard output instead (-p).
int CmdGet(const std::string& group, const std::vector<std::string>& members,
           const std::string& dest, bool toStdout);
// Moves members out: every name is checked first; a member is deleted from the group only
// once its file is in place.
int CmdExtract(const std::string& group, const std::vector<std::string>& members,
               const std::string& dest);
int CmdExpand(const std::string& group, const std::string& dest);
int CmdFlash(const std::string& file, const std::string& dest);
int CmdSplitPath(const std::string& path);
int CmdIsGroup(const std::string& path);
int CmdExists(const std::string& path);
int CmdInfo(const std::vector<std::string>& files);

}  // namespace qx::cli
