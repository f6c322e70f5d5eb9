#pragma once

#include <string>
#include <vector>

namespace qx::cli {

// The members of a class of the type library with their parameters and help strings, for --help.
std::string DescribeMembers(const std::string& className = "FileManager");

// Makes an instance of the class named in the type library, invokes `member` through its
// IDispatch and prints {"hr":"0x........","out":{...}}. uiMode: none, tty, replace, all, skip or
// cancel (any but none needs a class with an owner-window property). `sets` ("Name=value") are
// property puts made first, in order; a failing one is printed as {"hr":...,"set":"Name"}
// instead of the call. With `progId` the class is the one the registry store names for it and
// the instance comes from the module registered for that class. Returns the exit status.
int RunCall(const std::string& className, const std::string& uiMode, const std::string& member,
            const std::vector<std::string>& args, const std::vector<std::string>& sets = {},
            const std::string& progId = "");

}  // namespace qx::cli
