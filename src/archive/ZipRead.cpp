// Reading an archive's headers into the entry list, in four steps with a function each:
//   FindStart             where the first header stands (after a "(DWF" prefix or four stray bytes)
//   ReadLocalHeaders      the local headers back to back, each member's data skipped by the size
//                         its header gives, or by ScanDescriptor when the sizes follow the data
//   ReadCentralDirectory  the directory headers, paired n-th with n-th, into the list
//   ReadEndRecord         the end record and the archive comment
// Every size is checked against the file before it is used, and every refusal names the entry
// (its index, and its name once that has been read) and the byte offset at fault.
#include <algorithm>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "archive/ZipRead.h"
#include "platform/ByteOrder.h"

namespace qx::zip {

size_t g_testReadSize = 0;

namespace {

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
        const size_t read = g_testReadSize != 0 ? g_testReadSize : chunk_ + 3;
        const size_t want = static_cast<size_t>(std::min<uint64_t>(read, size_ - from));
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

// Reads headers through a window of the file, so walking thousands of small headers costs a
// read per window instead of a seek and a read per field.
class WindowReader {
 public:
  explicit WindowReader(fs::File& file) : file_(file), size_(file.Size()) {}
  uint64_t Size() const { return size_; }
  bool Read(uint64_t offset, void* out, size_t n) {
    if (offset > size_ || n > size_ - offset) return false;
    if (offset < start_ || offset + n > start_ + window_.size()) {
      const size_t want = static_cast<size_t>(std::min<uint64_t>(std::max<size_t>(n, g_testReadSize != 0 ? g_testReadSize : kWindow), size_ - offset));
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

struct LocalEntry {
  LocalHeader header;
  uint64_t offset = 0;      // of the local header
  uint64_t dataOffset = 0;  // of the member's data
};

// "entry 2 (sub/b.kdp) at offset 1234"; the name is left out where it is not known.
std::string Where(size_t index, const std::string& name, uint64_t offset) {
  return "entry " + std::to_string(index) + (name.empty() ? "" : " (" + name + ")") +
         " at offset " + std::to_string(offset);
}

std::string At(uint64_t offset) { return "offset " + std::to_string(offset); }

class ArchiveReader {
 public:
  explicit ArchiveReader(ArchiveState& s) : s_(s), f_(s.file), size_(f_.Size()) {}

  bool Read() {
    uint64_t pos = 0;
    std::vector<LocalEntry> locals;
    return FindStart(pos) && ReadLocalHeaders(pos, locals) && ReadCentralDirectory(pos, locals) &&
           ReadEndRecord(pos);
  }

 private:
  bool SigAt(uint64_t pos, uint32_t& sig) {
    unsigned char b[4];
    if (pos + 4 > size_ || !f_.Read(pos, b, 4)) return false;
    sig = ReadLE32(b);
    return true;
  }

  // The name of a local entry for a message, or "" when the file does not hold it whole.
  std::string LocalName(const LocalEntry& e) {
    Record r;
    r.flags = e.header.flags;
    r.name.resize(e.header.nameLength);
    if (!f_.Read(e.offset + kLocalSize, r.name.data(), r.name.size())) return {};
    return DisplayName(r);
  }

  std::string CentralName(uint64_t pos, const CentralHeader& c) {
    Record r;
    r.flags = c.flags;
    r.name.resize(c.nameLength);
    if (!f_.Read(pos + kCentralSize, r.name.data(), r.name.size())) return {};
    return DisplayName(r);
  }

  bool FindStart(uint64_t& pos) {
    const auto isHeader = [](uint32_t sig) {
      return sig == kLocalSig || sig == kCentralSig || sig == kEndSig;
    };
    unsigned char lead[4];
    if (size_ >= 4 && f_.Read(0, lead, 4) && std::memcmp(lead, "(DWF", 4) == 0) pos = 12;
    uint32_t sig = 0;
    if (SigAt(pos, sig) && isHeader(sig)) return true;
    // Four bytes of something else may stand before the first header.
    if (SigAt(pos + 4, sig) && isHeader(sig)) {
      pos += 4;
      return true;
    }
    s_.Log("Zip signature is not valid (1)");
    s_.Fail("zip-damaged", "Not a Zip archive",
            "no header signature at " + At(pos) + " or " + At(pos + 4));
    return false;
  }

  bool ReadLocalHeaders(uint64_t& pos, std::vector<LocalEntry>& locals) {
    uint32_t sig = 0;
    unsigned char fixed[kLocalSize];
    while (SigAt(pos, sig) && sig == kLocalSig) {
      const size_t index = locals.size();
      LocalEntry e;
      e.offset = pos;
      if (pos + kLocalSize > size_ || !f_.Read(pos, fixed, kLocalSize)) {
        s_.Fail("zip-damaged", "Zip file is truncated in a local header", Where(index, {}, pos));
        return false;
      }
      ParseLocal(fixed, e.header);
      e.dataOffset = pos + kLocalSize + e.header.nameLength + e.header.extraLength;
      if (e.dataOffset > size_) {
        s_.Fail("zip-damaged", "Zip file is truncated in a local header", Where(index, {}, pos));
        return false;
      }
      if (e.header.compressedSize == kSizeLimit || e.header.uncompressedSize == kSizeLimit) {
        s_.Fail("zip-unsupported", "Zip64 archives are not supported",
                Where(index, LocalName(e), pos));
        return false;
      }
      if (e.header.flags & kFlagDescriptor) {
        if (!ScanDescriptor(index, e, pos)) return false;
      } else {
        if (e.dataOffset + e.header.compressedSize > size_) {
          s_.Fail("zip-damaged", "Zip file is truncated in a member's data",
                  Where(index, LocalName(e), pos));
          return false;
        }
        pos = e.dataOffset + e.header.compressedSize;
      }
      locals.push_back(e);
    }
    return true;
  }

  // The sizes follow the data: the data ends where the next header begins, and the twelve bytes
  // before that header are its CRC and sizes. The member's own bytes may hold a header signature
  // too (a stored zip inside a streamed one), so a signature counts only where the compressed
  // size before it puts the descriptor right in front. Sets `next` to that header.
  bool ScanDescriptor(size_t index, LocalEntry& e, uint64_t& next) {
    next = size_;
    unsigned char d[16];
    HeaderScanner scanner(s_.file, size_);
    for (uint64_t from = e.dataOffset; next == size_;) {
      const uint64_t at = scanner.Next(from);
      if (at == size_) break;
      from = at + 1;
      if (at < e.dataOffset + 12) continue;
      const size_t have = at >= e.dataOffset + 16 ? 16 : 12;
      if (!scanner.Read(at - have, d + 16 - have, have)) break;
      const uint64_t dataEnd = e.dataOffset + ReadLE32(d + 8);
      if (dataEnd == at - 12 || (have == 16 && ReadLE32(d) == kDescriptorSig && dataEnd == at - 16))
        next = at;
    }
    if (next == size_) {
      s_.Fail("zip-damaged", "Zip file is truncated in a member's data",
              Where(index, LocalName(e), e.offset) + ": no data descriptor before the end");
      return false;
    }
    e.header.crc = ReadLE32(d + 4);
    e.header.compressedSize = ReadLE32(d + 8);
    e.header.uncompressedSize = ReadLE32(d + 12);
    if (e.header.compressedSize == kSizeLimit || e.header.uncompressedSize == kSizeLimit) {
      s_.Fail("zip-unsupported", "Zip64 archives are not supported",
              Where(index, LocalName(e), e.offset));
      return false;
    }
    return true;
  }

  bool ReadCentralDirectory(uint64_t& pos, const std::vector<LocalEntry>& locals) {
    size_t paired = 0;
    uint32_t sig = 0;
    unsigned char fixed[kCentralSize];
    const char* const kMismatch = "Central directory does not match the local headers";
    s_.Reserve(locals.size());
    while (SigAt(pos, sig) && sig == kCentralSig) {
      const size_t index = paired;
      CentralHeader c;
      if (pos + kCentralSize > size_ || !f_.Read(pos, fixed, kCentralSize)) {
        s_.Fail("zip-damaged", "Zip file is truncated in the central directory",
                Where(index, {}, pos));
        return false;
      }
      ParseCentral(fixed, c);
      if (c.compressedSize == kSizeLimit || c.uncompressedSize == kSizeLimit ||
          c.localOffset == kSizeLimit) {
        s_.Fail("zip-unsupported", "Zip64 archives are not supported",
                Where(index, CentralName(pos, c), pos));
        return false;
      }
      const uint64_t end = pos + kCentralSize + c.nameLength + c.extraLength + c.commentLength;
      if (end > size_) {
        s_.Fail("zip-damaged", "Zip file is truncated in the central directory",
                Where(index, {}, pos));
        return false;
      }
      if (paired == locals.size()) {
        s_.Fail("zip-damaged", kMismatch,
                Where(index, CentralName(pos, c), pos) + ": more directory headers than members");
        return false;
      }
      const LocalEntry& l = locals[paired++];
      if (c.compressedSize != l.header.compressedSize) {
        s_.Fail("zip-damaged", kMismatch,
                Where(index, CentralName(pos, c), pos) + ": compressed size " +
                    std::to_string(c.compressedSize) + ", local header " +
                    std::to_string(l.header.compressedSize));
        return false;
      }
      Record r;
      r.name.resize(c.nameLength);
      r.comment.resize(c.commentLength);
      if ((c.nameLength && !f_.Read(pos + kCentralSize, r.name.data(), c.nameLength)) ||
          (c.commentLength && !f_.Read(end - c.commentLength, r.comment.data(), c.commentLength))) {
        s_.Fail("zip-damaged", "Zip file is truncated in the central directory",
                Where(index, {}, pos));
        return false;
      }
      r.flags = c.flags & static_cast<uint16_t>(~kFlagDescriptor);
      r.method = c.method;
      r.dosDate = c.date;
      r.dosTime = c.time;
      r.madeBy = c.madeBy;
      r.internalAttributes = c.internalAttributes;
      r.externalAttributes = c.externalAttributes;
      r.crc = c.crc;
      r.compressedSize = c.compressedSize;
      r.uncompressedSize = c.uncompressedSize;
      r.fromArchive = true;
      r.dataOffset = l.dataOffset;
      r.serial = NewSerial();
      s_.Add(std::move(r));
      pos = end;
    }
    if (paired != locals.size()) {
      s_.Fail("zip-damaged", kMismatch,
              Where(paired, LocalName(locals[paired]), locals[paired].offset) +
                  ": no directory header for it");
      return false;
    }
    return true;
  }

  bool ReadEndRecord(uint64_t pos) {
    uint32_t sig = 0;
    unsigned char endRecord[kEndSize];
    if (!SigAt(pos, sig) || sig != kEndSig || pos + kEndSize > size_ ||
        !f_.Read(pos, endRecord, kEndSize)) {
      s_.Fail("zip-damaged", "End of Dir signature is wrong.", "no end record at " + At(pos));
      return false;
    }
    // A comment longer than what is left of the file keeps what is there.
    const uint64_t commentLength =
        std::min<uint64_t>(ReadLE16(endRecord + 20), size_ - pos - kEndSize);
    s_.comment.resize(static_cast<size_t>(commentLength));
    if (commentLength && !f_.Read(pos + kEndSize, s_.comment.data(), s_.comment.size()))
      s_.comment.clear();
    return true;
  }

  ArchiveState& s_;
  WindowReader f_;
  uint64_t size_;
};

}  // namespace

bool OpenArchive(ArchiveState& s) {
  s.file = fs::File::OpenRead(s.path);
  if (!s.file.IsOpen()) {
    s.Fail("zip-open", "Failed to open Zip file");
    return false;
  }
  s.hasList = true;
  bool ok = false;
  try {
    ok = ArchiveReader(s).Read();
  } catch (const std::exception&) {
    s.Fail("zip-damaged", "Unexpected exception opening and parsing Zip file.");
  }
  if (!ok) s.Drop();
  return ok;
}

bool CopyStoredBytes(ArchiveState& s, const Record& r, const Sink& sink) {
  std::vector<unsigned char> buffer;
  return CopyStoredBytes(s, r, sink, buffer);
}

bool AppendStoredBytes(ArchiveState& s, const Record& r, std::vector<unsigned char>& out) {
  if (!s.file.IsOpen() || !s.file.Seek(r.dataOffset)) return false;
  const size_t at = out.size();
  out.resize(at + r.compressedSize);
  if (s.file.Read(out.data() + at, r.compressedSize) == r.compressedSize) return true;
  out.resize(at);
  return false;
}

bool CopyStoredBytes(ArchiveState& s, const Record& r, const Sink& sink,
                     std::vector<unsigned char>& buffer) {
  if (!s.file.IsOpen() || !s.file.Seek(r.dataOffset)) return false;
  // No larger than the member: zeroing a whole chunk per small member dominated rewrites.
  const uint64_t chunk = g_testReadSize != 0 ? g_testReadSize : kChunk;
  const size_t piece = static_cast<size_t>(std::min<uint64_t>(chunk, r.compressedSize));
  if (buffer.size() < piece) buffer.resize(piece);
  uint64_t left = r.compressedSize;
  while (left > 0) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(left, piece));
    if (s.file.Read(buffer.data(), n) != n || !sink(buffer.data(), n)) return false;
    left -= n;
  }
  return true;
}

}  // namespace qx::zip
