// Working on a group stored inside a zip-based group: the member is copied into a private work
// folder, opened there with the factory, worked on, and (for changes) stored back by the
// caller. Nesting is bounded so that an archive holding itself, or a long chain of archives,
// ends cleanly: at most kMaxDepth groups deep, and at most kByteBudget bytes copied out per
// outermost call.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "archive/VxZip.h"
#include "platform/TempFolder.h"

namespace qx {

class ContainerFactory;
class GroupContainer;

namespace nested {

inline constexpr int kMaxDepth = 16;
inline constexpr uint64_t kByteBudget = uint64_t{512} << 20;

// Marks one container operation on this thread; the outermost one starts a fresh byte budget.
class CallScope {
 public:
  CallScope();
  ~CallScope();
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;
};

// How many nested groups are open on this thread right now.
int Depth();
// True when a nested group was refused in this outermost call for lying past the depth limit
// or the byte budget. A change that reached one fails, though inner failures otherwise do not
// stop the outer operation.
bool BoundReached();

// One member copied out of its archive into a fresh work folder, removed with it.
class MemberCopy {
 public:
  // Copies the entry's data to <work folder>/<last part of memberName>. Fails (ok() false,
  // diagnostic recorded) past the depth limit or the byte budget, or when the copy fails.
  MemberCopy(std::unique_ptr<VxZipEntry> entry, std::string memberName);
  ~MemberCopy();
  MemberCopy(const MemberCopy&) = delete;
  MemberCopy& operator=(const MemberCopy&) = delete;

  bool ok() const { return ok_; }
  const std::string& File() const { return file_; }
  const std::string& Member() const { return member_; }
  VxZipEntry* Entry() { return entry_.get(); }

  // Opens the copy with the factory and runs `op` on it one level deeper. -1 when the copy is
  // not a group file (the factory makes no container for it), else what `op` returns.
  int32_t Run(ContainerFactory& factory, const std::function<int32_t(GroupContainer&)>& op);

  bool changed = false;    // an operation ran on the nested group
  uint64_t lastTouch = 0;  // when, counted in the owner's changes

 private:
  std::unique_ptr<VxZipEntry> entry_;
  std::string member_;
  fs::TempWorkFolder work_;
  std::string file_;
  bool ok_ = false;
};

}  // namespace nested
}  // namespace qx
