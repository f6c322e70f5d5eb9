#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>

#include "platform/Diagnostic.h"
#include "platform/GroupLock.h"
#include "platform/TempFile.h"
#include "support/TempDir.h"

namespace qx::fs {
namespace {

std::string Contents(const std::string& path) {
  std::vector<unsigned char> bytes;
  return ReadWholeFile(path, bytes) ? std::string(bytes.begin(), bytes.end()) : "<none>";
}

size_t EntryCount(const std::string& dir) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir), {}));
}

std::string DiagCode() { return diag::Current() != nullptr ? diag::Current()->code : ""; }

bool Replace(const std::string& target, std::string_view bytes) {
  TempFile tmp(target);
  return tmp.IsOpen() && tmp.file().Write(bytes.data(), bytes.size()) && tmp.Keep();
}

// Runs `step` in a child process as user nobody; its result, or false when that cannot be done.
bool AsNobody(const std::function<bool()>& step) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    const bool dropped = ::setresgid(65534, 65534, 65534) == 0 && ::setresuid(65534, 65534, 65534) == 0;
    ::_exit(dropped && step() ? 0 : 1);
  }
  int status = 0;
  return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(TempFile, KeepReplacesTheTargetAndDiscardLeavesIt) {
  // keep: Keep(), else Discard(); explicitly: else the destructor decides.
  const struct { const char* name; bool keep, explicitly; const char* expected; } rows[] = {
      {"g.grp", true, true, "new"}, {"g.grp", false, true, "old"}, {"g.grp", false, false, "old"},
      {"caf\xE9.grp", true, true, "new"},  // 1252 name, UTF-8 on disk
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.name) + (r.keep ? " keep" : " discard"));
    test::TempDir dir;
    const std::string target = dir / r.name;
    dir.Write(r.name == std::string("g.grp") ? "g.grp" : "caf\xC3\xA9.grp", "old");
    {
      TempFile tmp(target);
      ASSERT_TRUE(tmp.IsOpen() && tmp.file().Write("new", 3));
      EXPECT_EQ(Contents(target), "old");  // nothing visible before Keep
      EXPECT_EQ(EntryCount(dir.path()), 1u) << "the new file has no name while it is written";
      if (r.explicitly && r.keep) { EXPECT_TRUE(tmp.Keep()); }
      if (r.explicitly && !r.keep) tmp.Discard();
    }
    EXPECT_EQ(Contents(target), r.expected);
    EXPECT_EQ(EntryCount(dir.path()), 1u);  // no temporary file left behind
  }
}

// What the replaced file keeps: where a link points, its mode, its owner.
TEST(TempFile, TheFileStaysTheOwnersFile) {
  const bool root = ::geteuid() == 0;
  test::TempDir dir;
  const std::string real = dir / "real.grp", link = dir / "link.grp";
  struct stat st {};

  ASSERT_TRUE(Replace(real, "1"));
  EXPECT_TRUE(::stat(real.c_str(), &st) == 0 && (st.st_mode & 0044) != 0) << "made as a create makes it";

  ASSERT_EQ(::symlink("real.grp", link.c_str()), 0);
  ::chmod(real.c_str(), 0640);
  if (root) { ASSERT_EQ(::chown(real.c_str(), 65534, 65534), 0); }
  ASSERT_TRUE(Replace(link, "2"));
  EXPECT_TRUE(::lstat(link.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) << "the link stays a link";
  EXPECT_EQ(Contents(real), "2");
  ASSERT_EQ(::stat(real.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  if (root) { EXPECT_EQ(std::pair(st.st_uid, st.st_gid), std::pair(65534u, 65534u)); }
  EXPECT_EQ(EntryCount(dir.path()), 2u);
}

TEST(TempFile, RefusedTargetsAreLeftAsTheyWere) {
  test::TempDir dir;
  ::chmod(dir.path().c_str(), 0777);  // so the unprivileged user below can reach it
  const std::string readOnly = dir.Write("ro.grp", "old");
  ::chmod(readOnly.c_str(), 0444);
  CreateFolder(dir / "sub");

  diag::Clear();
  EXPECT_FALSE(TempFile(dir / "sub").IsOpen());
  EXPECT_EQ(DiagCode(), "write-failed");
  diag::Clear();
  EXPECT_FALSE(TempFile(dir / "missing/g.grp").IsOpen());
  EXPECT_FALSE(TempFile(dir.path() + "/").IsOpen());
  EXPECT_FALSE(TempFile("").Keep());

  // As the file's permissions say for an ordinary user (root may write anything).
  const auto refused = [&] {
    diag::Clear();
    return !Replace(readOnly, "new") && DiagCode() == "read-only" && !GroupLock(readOnly).Held();
  };
  EXPECT_TRUE(::geteuid() == 0 ? AsNobody(refused) : refused());
  EXPECT_EQ(Contents(readOnly), "old");
  EXPECT_EQ(EntryCount(dir.path()), 2u);
}

TEST(TempFile, OldLeftoversOfAKilledWriterGo) {
  test::TempDir dir;
  const std::string target = dir.Write("g.grp", "old");
  const struct { const char* name; long ageSeconds; bool stays; } rows[] = {
      // Young: may be a writer at work; 5 letters: not our pattern; .h: another file's.
      {".g.grp.qxtmp~Ab12Cd", 7200, false}, {".g.grp.qxtmp~Ef34Gh", 60, true},
      {".g.grp.qxtmp~Ij56K", 7200, true}, {".g.grp.backup", 7200, true}, {".h.grp.qxtmp~Ab12Cd", 7200, true},
  };
  for (const auto& r : rows) {
    dir.Write(r.name, "x");
    const struct timespec when[2] = {{::time(nullptr) - r.ageSeconds, 0}, {::time(nullptr) - r.ageSeconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (dir / r.name).c_str(), when, 0), 0);
  }
  ASSERT_TRUE(Replace(target, "new"));
  for (const auto& r : rows) EXPECT_EQ(Exists(dir / r.name), r.stays) << r.name;
}

TEST(GroupLock, AWriterWaitsABoundedTimeForTheHolder) {
  test::TempDir dir;
  for (const bool exists : {true, false}) {
    SCOPED_TRACE(exists ? "existing file" : "file still to be created");
    const std::string group = dir / (exists ? "g.grp" : "new.grp");
    if (exists) dir.Write("g.grp", "old");
    std::optional<GroupLock> holder(std::in_place, group);
    ASSERT_TRUE(holder->Held());
    diag::Clear();
    EXPECT_FALSE(GroupLock(group, std::chrono::milliseconds(50)).Held());
    EXPECT_EQ(DiagCode(), "locked");
    holder.reset();
    EXPECT_TRUE(GroupLock(group, std::chrono::milliseconds(50)).Held());
  }
}

}  // namespace
}  // namespace qx::fs
