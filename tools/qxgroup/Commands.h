// The friendly subcommands. Each returns the exit status; bad arguments throw UsageError and
// failures Failure (Automation.h), which main turns into one line on stderr.
#pragma once

#include <string>
#include <vector>

namespace qx::cli {

int CmdCreate(const std::string& group, const std::vector<std::string>& files);
// `onDuplicate`: replace, ask, skip or cancel.
int CmdAdd(const std::string& group, const std::vector<std::string>& files,
           const std::string& folder, const std::string& onDuplicate);
int CmdDelete(const std::string& group, const std::vector<std::string>& members);
int CmdList(const std::string& group);
// The contents as an indented tree with folders and nested groups opened; `longForm` adds
// sizes and dates.
int CmdTree(const std::string& group, bool longForm);
int CmdXml(const std::string& group, bool meta, const std::string& pattern);
// `move`: extract (copy, then delete) rather than get (copy).
int CmdGet(const std::string& group, const std::vector<std::string>& members,
           const std::string& dest, bool move);
int CmdExpand(const std::string& group, const std::string& dest);
int CmdFlash(const std::string& file, const std::string& dest);
int CmdSplitPath(const std::string& path);
int CmdIsGroup(const std::string& path);
int CmdExists(const std::string& path);
int CmdInfo(const std::vector<std::string>& files);

}  // namespace qx::cli
