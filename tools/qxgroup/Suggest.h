// "did you mean ...?" for words the command line does not know.
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace qx::cli {

// The candidate closest to `word` (a prefix of it, or a few letters off), or "" when none is.
std::string Closest(const std::string& word, const std::vector<std::string>& candidates);

// Looks at the command line before it is parsed and throws UsageError for an unknown
// subcommand or option, with the closest known one.
void CheckWords(CLI::App& app, int argc, char** argv);

}  // namespace qx::cli
