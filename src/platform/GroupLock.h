// Serialises the processes that rewrite one file (a group, an archive): an exclusive flock held
// for a whole read-modify-write, so every writer reads what the one before it wrote.
//
//   fs::GroupLock lock(path);            // waits a bounded time; refuses a file it may not write
//   if (!lock.Held()) return 0;          // diagnostic recorded: "locked", "read-only", ...
//   read path, change, write through fs::TempFile ...   // released when `lock` goes
//
// The lock is taken on the file itself (readers need none: the file is only ever replaced by
// rename). Since each write puts a new file in its place, a waiter that gets the lock of the
// old one sees that the path now names another file and tries again on that. A file that does
// not exist yet is locked through its folder until it does. A process must not take a second
// lock on a file it already holds: flock locks of one process's two opens exclude each other.
#pragma once

#include <chrono>
#include <string>

namespace qx::fs {

class GroupLock {
 public:
  static constexpr std::chrono::milliseconds kDefaultWait{15000};

  // Locks the file at `path` (1252) for writing. Held() is false, with a diagnostic, when
  // another process kept it longer than `wait`, or when this process may not replace it
  // (fs::CheckReplaceable).
  explicit GroupLock(const std::string& path, std::chrono::milliseconds wait = kDefaultWait);
  ~GroupLock();
  GroupLock(GroupLock&& other) noexcept;
  GroupLock& operator=(GroupLock&& other) noexcept;
  GroupLock(const GroupLock&) = delete;
  GroupLock& operator=(const GroupLock&) = delete;

  bool Held() const { return fd_ >= 0; }
  // Lets the lock go before the object does.
  void Release();

 private:
  int fd_ = -1;
};

}  // namespace qx::fs
