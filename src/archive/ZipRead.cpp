// Reading an archive's headers into the entry list: local headers back to back from the
// start (sizes from a data descriptor where the header defers them), then the central
// directory paired n-th with n-th, then the end record. Every size is checked against the
// file before it is used.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "archive/ZipFormat.h"
#include "platform/ByteOrder.h"

namespace qx::zip {

namespace {

// Serials are unique among every entry made in the process, so a handle never finds a record
// that took its entry's place.
std::atomic<uint64_t> g_nextSerial{1};

constexpr uint32_t kDescriptorSig = 0x08074b50;  // optional, before a data descriptor

bool ReadAt(fs::File& file, uint64_t offset, void* buffer, size_t size) {
  return file.Seek(offset) && file.Read(buffer, size) == size;
}

// Finds local and central header signatures going forward through the file. Reads in chunks
// that start small and double, so a short member costs a short read, and keeps the last
// chunk, so looking again just after a signature found in it reads nothing new.
class HeaderScanner {
 public:
  HeaderScanner(fs::File& file, uint64_t size) : file_(file), size_(size) {}

  // The offset of the next signature at or after `from`, or the file size when there is none.
  uint64_t Next(uint64_t from) {
    while (from + 4 <= size_) {
      if (from < start_ || from + 4 > start_ + buf_.size()) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(chunk_ + 3, size_ - from));
        chunk_ = std::min(chunk_ * 2, kChunk);
        buf_.resize(want);
        start_ = from;
        if (!ReadAt(file_, from, buf_.data(), want)) return size_;
      }
      for (size_t i = static_cast<size_t>(from - start_); i + 4 <= buf_.size(); ++i) {
        if (buf_[i] != 'P' || buf_[i + 1] != 'K') continue;
        const uint32_t sig = ReadLE32(&buf_[i]);
        if (sig == kLocalSig || sig == kCentralSig) return start_ + i;
      }
      from = start_ + buf_.size() - 3;  // a signature may straddle two chunks
    }
    return size_;
  }

  // Bytes before a signature Next found: from the kept chunk when it holds them.
  bool Read(uint64_t at, unsigned char* out, size_t n) {
    if (at >= start_ && at + n <= start_ + buf_.size()) {
      std::memcpy(out, &buf_[static_cast<size_t>(at - start_)], n);
      return true;
    }
    return ReadAt(file_, at, out, n);
  }

 private:
  fs::File& file_;
  uint64_t size_;
  std::vector<unsigned char> buf_;
  uint64_t start_ = 0;
  size_t chunk_ = 1024;
};

struct LocalEntry {
  LocalHeader header;
  uint64_t dataOffset = 0;
};

// Reads headers through a window of the file, so walking thousands of small headers costs a
// read per window instead of a seek and a read per field.
class WindowReader {
 public:
  explicit WindowReader(fs::File& file) : file_(file), size_(file.Size()) {}
  uint64_t Size() const { return size_; }
  bool Read(uint64_t offset, void* out, size_t n) {
    if (offset > size_ || n > size_ - offset) return false;
    if (offset < start_ || offset + n > start_ + window_.size()) {
      const size_t want = static_cast<size_t>(std::min<uint64_t>(std::max<size_t>(n, kWindow), size_ - offset));
      window_.resize(want);
      if (!ReadAt(file_, offset, window_.data(), want)) {
        window_.clear();
        return false;
      }
      start_ = offset;
    }
    if (n > 0) std::memcpy(out, window_.data() + (offset - start_), n);
    return true;
  }

 private:
  static constexpr size_t kWindow = 1 << 16;
  fs::File& file_;
  uint64_t size_;
  uint64_t start_ = 0;
  std::vector<unsigned char> window_;
};

// Reads headers, directory and end record into the state's list. The file must be open.
bool ParseArchive(ArchiveState& s) {
  WindowReader f(s.file);
  const uint64_t size = f.Size();
  const auto sigAt = [&](uint64_t pos, uint32_t& sig) {
    unsigned char b[4];
    if (pos + 4 > size || !f.Read(pos, b, 4)) return false;
    sig = ReadLE32(b);
    return true;
  };
  const auto isHeader = [](uint32_t sig) {
    return sig == kLocalSig || sig == kCentralSig || sig == kEndSig;
  };

  uint64_t pos = 0;
  unsigned char lead[4];
  if (size >= 4 && f.Read(0, lead, 4) && std::memcmp(lead, "(DWF", 4) == 0) pos = 12;
  uint32_t sig = 0;
  if (!sigAt(pos, sig) || !isHeader(sig)) {
    // Four bytes of something else may stand before the first header.
    if (sigAt(pos + 4, sig) && isHeader(sig)) {
      pos += 4;
    } else {
      s.Log("Zip signature is not valid (1)");
      s.Log("Not a Zip archive");
      return false;
    }
  }

  std::vector<LocalEntry> locals;
  unsigned char fixed[kCentralSize];
  while (sigAt(pos, sig) && sig == kLocalSig) {
    LocalEntry e;
    if (pos + kLocalSize > size || !f.Read(pos, fixed, kLocalSize)) {
      s.Log("Zip file is truncated in a local header");
      return false;
    }
    ParseLocal(fixed, e.header);
    e.dataOffset = pos + kLocalSize + e.header.nameLength + e.header.extraLength;
    if (e.dataOffset > size) {
      s.Log("Zip file is truncated in a local header");
      return false;
    }
    if (e.header.compressedSize == kSizeLimit || e.header.uncompressedSize == kSizeLimit) {
      s.Log("Zip64 archives are not supported");
      return false;
    }
    if (e.header.flags & kFlagDescriptor) {
      // The sizes follow the data: the data ends where the next header begins, and the
      // twelve bytes before that header are its CRC and sizes. The member's own bytes may
      // hold a header signature too (a stored zip inside a streamed one), so a signature
      // counts only where the compressed size before it puts the descriptor right in front.
      uint64_t next = size;
      unsigned char d[16];
      HeaderScanner scanner(s.file, size);
      for (uint64_t from = e.dataOffset; next == size;) {
        const uint64_t at = scanner.Next(from);
        if (at == size) break;
        from = at + 1;
        if (at < e.dataOffset + 12) continue;
        const size_t have = at >= e.dataOffset + 16 ? 16 : 12;
        if (!scanner.Read(at - have, d + 16 - have, have)) break;
        const uint64_t dataEnd = e.dataOffset + ReadLE32(d + 8);
        if (dataEnd == at - 12 || (have == 16 && ReadLE32(d) == kDescriptorSig && dataEnd == at - 16))
          next = at;
      }
      if (next == size) {
        s.Log("Zip file is truncated in a member's data");
        return false;
      }
      e.header.crc = ReadLE32(d + 4);
      e.header.compressedSize = ReadLE32(d + 8);
      e.header.uncompressedSize = ReadLE32(d + 12);
      if (e.header.compressedSize == kSizeLimit || e.header.uncompressedSize == kSizeLimit) {
        s.Log("Zip64 archives are not supported");
        return false;
      }
      pos = next;
    } else {
      if (e.dataOffset + e.header.compressedSize > size) {
        s.Log("Zip file is truncated in a member's data");
        return false;
      }
      pos = e.dataOffset + e.header.compressedSize;
    }
    locals.push_back(e);
  }

  size_t paired = 0;
  std::string text;
  while (sigAt(pos, sig) && sig == kCentralSig) {
    CentralHeader c;
    if (pos + kCentralSize > size || !f.Read(pos, fixed, kCentralSize)) {
      s.Log("Zip file is truncated in the central directory");
      return false;
    }
    ParseCentral(fixed, c);
    if (c.compressedSize == kSizeLimit || c.uncompressedSize == kSizeLimit ||
        c.localOffset == kSizeLimit) {
      s.Log("Zip64 archives are not supported");
      return false;
    }
    const uint64_t end = pos + kCentralSize + c.nameLength + c.extraLength + c.commentLength;
    if (end > size) {
      s.Log("Zip file is truncated in the central directory");
      return false;
    }
    if (paired == locals.size()) {
      s.Log("Central directory does not match the local headers");
      return false;
    }
    const LocalEntry& l = locals[paired++];
    if (c.compressedSize != l.header.compressedSize) {
      s.Log("Central directory does not match the local headers");
      return false;
    }
    Record r;
    r.name.resize(c.nameLength);
    r.comment.resize(c.commentLength);
    if ((c.nameLength && !f.Read(pos + kCentralSize, r.name.data(), c.nameLength)) ||
        (c.commentLength && !f.Read(end - c.commentLength, r.comment.data(), c.commentLength))) {
      s.Log("Zip file is truncated in the central directory");
      return false;
    }
    r.method = c.method;
    r.dosDate = c.date;
    r.dosTime = c.time;
    r.flags = c.flags & static_cast<uint16_t>(~kFlagDescriptor);
    r.madeBy = c.madeBy;
    r.internalAttributes = c.internalAttributes;
    r.externalAttributes = c.externalAttributes;
    r.crc = c.crc;
    r.compressedSize = c.compressedSize;
    r.uncompressedSize = c.uncompressedSize;
    r.fromArchive = true;
    r.dataOffset = l.dataOffset;
    r.serial = NewSerial();
    s.Add(std::move(r));
    pos = end;
  }
  if (paired != locals.size()) {
    s.Log("Central directory does not match the local headers");
    return false;
  }
  unsigned char endRecord[kEndSize];
  if (!sigAt(pos, sig) || sig != kEndSig || pos + kEndSize > size ||
      !f.Read(pos, endRecord, kEndSize)) {
    s.Log("End of Dir signature is wrong.");
    return false;
  }
  // A comment longer than what is left of the file keeps what is there.
  const uint64_t commentLength =
      std::min<uint64_t>(ReadLE16(endRecord + 20), size - pos - kEndSize);
  s.comment.resize(static_cast<size_t>(commentLength));
  if (commentLength && !f.Read(pos + kEndSize, s.comment.data(), s.comment.size()))
    s.comment.clear();
  return true;
}

}  // namespace

uint64_t NewSerial() { return g_nextSerial.fetch_add(1, std::memory_order_relaxed); }

// Opens the path and reads it; on failure the state is left without an entry list.
bool OpenArchive(ArchiveState& s) {
  s.file = fs::File::OpenRead(s.path);
  if (!s.file.IsOpen()) {
    s.Log("Failed to open Zip file");
    return false;
  }
  s.hasList = true;
  bool ok = false;
  try {
    ok = ParseArchive(s);
  } catch (const std::exception&) {
    s.Log("Unexpected exception opening and parsing Zip file.");
  }
  if (!ok) s.Drop();
  return ok;
}

}  // namespace qx::zip
