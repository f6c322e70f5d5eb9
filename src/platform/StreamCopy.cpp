#include "platform/StreamCopy.h"

#include <algorithm>
#include <memory>

namespace qx::fs {

CopyEnd CopyRange(File& in, uint64_t offset, uint64_t length, File& out) {
  if (length == 0) return CopyEnd::kDone;
  if (!in.Seek(offset)) return CopyEnd::kShortRead;
  // Small runs (most members) take a small buffer; large ones never more than a chunk.
  const size_t size = static_cast<size_t>(std::min<uint64_t>(length, kCopyChunkSize));
  const std::unique_ptr<unsigned char[]> buffer(new unsigned char[size]);
  while (length > 0) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(length, size));
    if (in.Read(buffer.get(), want) != want) return CopyEnd::kShortRead;
    if (!out.Write(buffer.get(), want)) return CopyEnd::kWriteFailed;
    length -= want;
  }
  return CopyEnd::kDone;
}

CopyEnd CopyRangeAt(const File& in, uint64_t offset, uint64_t length, File& out) {
  if (length == 0) return CopyEnd::kDone;
  const size_t size = static_cast<size_t>(std::min<uint64_t>(length, kCopyChunkSize));
  const std::unique_ptr<unsigned char[]> buffer(new unsigned char[size]);
  while (length > 0) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(length, size));
    if (!in.ReadAt(offset, buffer.get(), want)) return CopyEnd::kShortRead;
    if (!out.Write(buffer.get(), want)) return CopyEnd::kWriteFailed;
    offset += want;
    length -= want;
  }
  return CopyEnd::kDone;
}

}  // namespace qx::fs
