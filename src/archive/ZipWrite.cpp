#include "archive/ZipWrite.h"

#include <zlib.h>

#include <string>
#include <utility>
#include <vector>

#include "archive/ZipRead.h"
#include "platform/TempFile.h"
#include "platform/fs.h"
#include "platform/path.h"

namespace qx::zip {

namespace {

// The deflated form of an appended record's data, made once per method change.
bool EnsureDeflated(Record& r) {
  if (r.deflatedValid) return true;
  const std::vector<unsigned char>& in = *r.data;
  z_stream z{};
  if (deflateInit2(&z, r.level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK) return false;
  std::vector<unsigned char> out(deflateBound(&z, static_cast<uLong>(in.size())));
  z.next_in = const_cast<unsigned char*>(in.data());
  z.avail_in = static_cast<uInt>(in.size());
  z.next_out = out.data();
  z.avail_out = static_cast<uInt>(out.size());
  const int rc = deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  if (rc != Z_STREAM_END) return false;
  r.deflated = std::move(out);
  r.deflatedValid = true;
  return true;
}

// The path may not hold what the platform forbids in file names; each has its message.
const char* ForbiddenInPath(const std::string& path) {
  static constexpr struct {
    char c;
    const char* message;
  } kRefused[] = {
      {'<', "Filename cannot contain a '<'"},
      {'>', "Filename cannot contain a '>'"},
      {'"', "Filename cannot contain a double-quote character"},
      {'?', "Filename cannot contain a question-mark character"},
      {'*', "Filename cannot contain a * character"},
      {'|', "Filename cannot contain a | character"},
  };
  for (const auto& r : kRefused)
    if (path.find(r.c) != std::string::npos) return r.message;
  return nullptr;
}

ZipWriteResult Untouched(ArchiveState& s, const std::string& message, const std::string& where = {}) {
  s.Fail("zip-write", message, where);
  ZipWriteResult result;
  result.message = message;
  return result;
}

// "2 entries left out: a.kdp (cannot be compressed), b.kdp (...)"
std::string LeftOutMessage(const std::vector<ZipWriteResult::LeftOut>& leftOut) {
  std::string text = std::to_string(leftOut.size()) +
                     (leftOut.size() == 1 ? " entry left out: " : " entries left out: ");
  for (size_t i = 0; i < leftOut.size(); ++i)
    text += (i > 0 ? ", " : "") + leftOut[i].name + " (" + leftOut[i].reason + ")";
  return text;
}

// After the rename: the list becomes what reading the new file would give (the records just
// written, in order, each as read from the file), without reading 10,000 headers back.
bool AdoptWritten(ArchiveState& s, const std::vector<std::pair<Record*, uint32_t>>& written) {
  s.file = fs::File::OpenRead(s.path);
  if (!s.file.IsOpen()) {
    s.Drop();
    s.Fail("zip-open", "Failed to open Zip file");
    return false;
  }
  auto next = written.begin();
  for (auto it = s.records.begin(); it != s.records.end();) {
    Record& r = *it++;
    if (next == written.end() || &r != next->first) {
      s.Remove(r.serial);  // left out of the file
      continue;
    }
    r.method = WrittenMethod(r);
    r.fromArchive = true;
    r.dataOffset = uint64_t{next->second} + kLocalSize + r.name.size();
    r.data.reset();
    r.deflated = {};
    r.deflatedValid = false;
    ++next;
  }
  s.CompactSlots();
  s.nameWalks = 0;
  ++s.generation;
  return true;
}

}  // namespace

bool PrepareAppended(Record& r) {
  const std::vector<unsigned char>& in = *r.data;
  r.uncompressedSize = static_cast<uint32_t>(in.size());
  r.crc = static_cast<uint32_t>(crc32(0, in.data(), static_cast<uInt>(in.size())));
  if (r.method == kMethodStored) {
    r.compressedSize = r.uncompressedSize;
    return true;
  }
  if (!EnsureDeflated(r)) return false;
  r.compressedSize = static_cast<uint32_t>(r.deflated.size());
  return true;
}

ZipWriteResult WriteArchive(ArchiveState& s) {
  if (const char* refused = ForbiddenInPath(s.path)) return Untouched(s, refused);
  if (!s.hasList) return Untouched(s, "No zip file has been opened.");
  const std::string folder(path::ParentFolder(s.path));
  if (!folder.empty() && !fs::CreateFolders(folder)) s.Log("Unable to create Zip file");

  // The new archive goes beside the old one and replaces it in one rename, so the old one
  // stays whole until the new one is complete.
  fs::TempFile tmp(s.path);
  if (!tmp.IsOpen()) return Untouched(s, "Cannot open temporary file");
  fs::File& out = tmp.file();
  uint64_t offset = 0;
  bool ioFailed = false;
  const auto put = [&](const void* p, size_t n) {
    if (offset + n > kSizeLimit) return false;
    if (!out.Write(p, n)) {
      ioFailed = true;
      return false;
    }
    offset += n;
    return true;
  };
  ZipWriteResult result;
  std::vector<std::pair<Record*, uint32_t>> written;
  written.reserve(s.records.size());
  std::vector<unsigned char> header, copyBuffer;
  const Sink copyOut = [&](const unsigned char* p, size_t n) { return put(p, n); };
  size_t index = 0;
  for (Record& r : s.records) {
    const uint64_t start = offset;
    const char* reason = nullptr;
    if (!r.fromArchive && !PrepareAppended(r)) reason = "cannot be compressed";
    if (reason == nullptr) {
      header.clear();
      AppendLocalHeader(r, header);
      // A record that would pass the format's 4 GB offsets is left out before any of it is
      // written, so no partial record stays behind in the file.
      if (offset + header.size() + r.compressedSize > kSizeLimit)
        reason = "the archive would pass the format's 4 GB limit";
      else if (r.fromArchive && r.compressedSize <= kChunk)  // header and data in one write
        reason = !AppendStoredBytes(s, r, header)       ? "its data cannot be read from the archive"
                 : !put(header.data(), header.size()) ? "cannot be written"
                                                      : nullptr;
      else if (!put(header.data(), header.size()))
        reason = "cannot be written";
      else if (r.fromArchive
                   ? !CopyStoredBytes(s, r, copyOut, copyBuffer)
                   : !put(r.method == kMethodStored ? r.data->data() : r.deflated.data(),
                          r.method == kMethodStored ? r.data->size() : r.deflated.size()))
        reason = r.fromArchive && !ioFailed ? "its data cannot be read from the archive"
                                            : "cannot be written";
    }
    if (reason == nullptr) {
      written.emplace_back(&r, static_cast<uint32_t>(start));
    } else {
      // Left out of the directory; the next record takes its place in the file.
      offset = start;
      if (!out.Seek(start)) ioFailed = true;
      const std::string name = DisplayName(r);
      s.Fail("zip-write", "Failed to write a Zip entry",
             "entry " + std::to_string(index) + " (" + name + ") at offset " +
                 std::to_string(start) + ": " + reason);
      result.leftOut.push_back({name, reason});
    }
    if (ioFailed) break;
    ++index;
  }
  // The directory goes out in one piece.
  const uint64_t directoryOffset = offset;
  header.clear();
  for (const auto& [r, at] : written) AppendCentralHeader(*r, at, header);
  const bool directoryFits = header.size() <= kSizeLimit - offset;
  if (directoryFits) put(header.data(), header.size());
  const std::vector<unsigned char> end = EndRecordBytes(
      static_cast<uint32_t>(written.size()), static_cast<uint32_t>(offset - directoryOffset),
      static_cast<uint32_t>(directoryOffset), s.comment);
  if (ioFailed || !directoryFits || written.size() > 0xFFFF || !put(end.data(), end.size())) {
    // The temporary file goes; the list and the old archive stay.
    return Untouched(s,
                     written.size() > 0xFFFF || !ioFailed ? "Zip file would exceed the format's limits"
                                                          : "Cannot write temporary file",
                     "at offset " + std::to_string(offset));
  }
  s.file.Close();
  if (!tmp.Keep()) {
    s.Drop();
    ZipWriteResult moved = Untouched(s, "Failed to move Zip file");
    moved.message += "; the entry list is gone and the archive must be opened again";
    return moved;
  }
  result.outcome = result.leftOut.empty() ? ZipWriteResult::Outcome::Written
                                          : ZipWriteResult::Outcome::WrittenLeavingOut;
  if (!result.leftOut.empty()) result.message = LeftOutMessage(result.leftOut);
  result.reopened = AdoptWritten(s, written);
  if (!result.reopened) {
    const std::string why = s.log.empty() ? std::string() : s.log.back();
    result.message += std::string(result.message.empty() ? "" : "; ") +
                      "written, but it cannot be read back: " + why;
  }
  return result;
}

}  // namespace qx::zip
