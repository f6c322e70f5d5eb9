// Copying a run of bytes from one open file to another through a fixed-size buffer, so that
// memory stays the same whatever the length.
//
//   fs::File in = fs::File::OpenRead(group), out = fs::File::CreateWrite(target);
//   if (fs::CopyRange(in, offset, length, out) != fs::CopyEnd::kDone) ...   // say why, clean up
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/fs.h"

namespace qx::fs {

// The largest buffer a copy uses.
inline constexpr size_t kCopyChunkSize = size_t{1} << 20;

enum class CopyEnd {
  kDone,
  kShortRead,    // the source ended before `length` bytes (it may have shrunk meanwhile)
  kWriteFailed,  // the destination did not take every byte
};

// Copies `length` bytes of `in` from `offset` to the current position of `out`.
CopyEnd CopyRange(File& in, uint64_t offset, uint64_t length, File& out);
// The same through File::ReadAt: `in`'s stream does not move, and may be shared.
CopyEnd CopyRangeAt(const File& in, uint64_t offset, uint64_t length, File& out);

}  // namespace qx::fs
