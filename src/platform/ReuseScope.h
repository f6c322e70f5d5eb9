// A caller's promise that a run of calls reads files nobody means to change meanwhile: while a
// ReuseScope lives (on any thread), a reader may keep what it read from a file for the next call
// on the same unchanged file (same device, inode, size, modification and change times). Old-style
// groups keep their listing, so taking many members out one call at a time walks the table once.
//
//   { qx::ReuseScope reuse;  for (name : names) GetFile(group, name, dest); }
#pragma once

#include <cstdint>

namespace qx {

class ReuseScope {
 public:
  ReuseScope();
  ~ReuseScope();
  ReuseScope(const ReuseScope&) = delete;
  ReuseScope& operator=(const ReuseScope&) = delete;

  // Nonzero while a scope lives: the same number for one unbroken run of scopes, so what was
  // kept under an earlier run is never served in a later one.
  static uint64_t Current();
};

}  // namespace qx
