// --json: the answer of list, info, package and the path questions as one JSON document on stdout.
#pragma once

#include <string>
#include <vector>

namespace qx::cli {

// ["a","b"] from UTF-8 items.
std::string JsonArray(const std::vector<std::string>& utf8Items);
// true / false.
inline const char* JsonBool(bool value) { return value ? "true" : "false"; }
// Prints the document and a newline on stdout.
void PrintJson(const std::string& document);

}  // namespace qx::cli
