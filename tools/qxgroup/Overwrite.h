// Files the component writes out (get, extract, expand, flash) are made in a staging folder
// and then moved into place one at a time, so that an existing file is never written over
// unasked and the file being read is never written over at all.
#pragma once

#include <string>
#include <vector>

namespace qx::cli {

// What to do with a file that is already where a written file would go.
enum class Overwrite {
  Keep,    // keep it and report it (no -o/-n and no terminal to ask on)
  Always,  // -o/--overwrite
  Never,   // -n/--never-overwrite: keep it without a word
  Ask,     // ask on the terminal
};

// -o and -n win; else ask when standard input and the controlling terminal are a terminal.
Overwrite ChooseOverwrite(bool overwrite, bool never);

// A fresh folder ".qxgroup-XXXXXX", removed with what is left in it. It is made in the private
// temporary folder when that is on the file system of `dest` ("" = the current folder), so a
// killed command leaves nothing in sight; else in `dest` itself, where such folders older than
// an hour (left by a killed command) are removed first. With `placed` false the files are not
// moved anywhere and the temporary folder serves whatever its file system.
// Throws Failure when the folder cannot be made (naming `dest` and why).
class Staging {
 public:
  explicit Staging(const std::string& dest, bool placed = true);
  ~Staging();
  Staging(const Staging&) = delete;
  Staging& operator=(const Staging&) = delete;

  // UTF-8 path of the folder, ending in "/".
  const std::string& Path() const { return path_; }
  // Names of the files in it, sorted.
  std::vector<std::string> Files() const;
  // Removes what it holds.
  void Clear() const;

 private:
  std::string path_;
  std::string hidden_;  // the private temporary folder, when the staging folder is in it
};

// Names in a folder but "." and "..", sorted.
std::vector<std::string> FolderEntries(const std::string& folder);

// Moves staged files into their destination under one overwrite rule.
class Placer {
 public:
  // `inputs`: the files being read; they are never written over, whatever the rule.
  Placer(Overwrite rule, std::vector<std::string> inputs, bool verbose);

  // Moves `staged` to `target` (both UTF-8). True when it is now there. A staged folder whose
  // target is a folder already is merged into it.
  bool Place(const std::string& staged, const std::string& target);

  // Existing files kept that the user was not told about yet, and the status for them:
  // kExitPartial when any was kept without -n or an answer, else kExitOk.
  int Report(bool quiet) const;

 private:
  bool IsInput(const std::string& target) const;
  // Asks about `target`; updates rule_ for the answers that stand for the rest.
  bool AskOverwrite(const std::string& target);

  Overwrite rule_;
  std::vector<std::string> inputs_;
  bool verbose_;
  std::vector<std::string> kept_;
  std::vector<std::string> inputsKept_;
};

}  // namespace qx::cli
