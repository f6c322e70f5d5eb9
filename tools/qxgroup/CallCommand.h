#pragma once

#include <string>
#include <vector>

namespace qx::cli {

// The members of FileManager with their parameters and help strings, for --help.
std::string DescribeMembers();

// Invokes `member` through IDispatch and prints {"hr":"0x........","out":{...}}.
// uiMode: none, tty, replace, all, skip or cancel. Returns the exit status.
int RunCall(const std::string& uiMode, const std::string& member,
            const std::vector<std::string>& args);

}  // namespace qx::cli
