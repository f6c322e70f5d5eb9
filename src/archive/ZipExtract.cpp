#include "archive/ZipExtract.h"

#include <zlib.h>

#include <algorithm>
#include <optional>
#include <unordered_set>
#include <vector>

#include "archive/ZipRead.h"
#include "platform/Diagnostic.h"
#include "platform/fs.h"
#include "platform/path.h"
#include "platform/time.h"

namespace qx::zip {

namespace {

// "entry 3 (sub\b.kdp)", or "entry sub\b.kdp" where its position is not at hand.
std::string EntryText(const Record& r, std::optional<size_t> index) {
  return index ? "entry " + std::to_string(*index) + " (" + DisplayName(r) + ")"
               : "entry " + DisplayName(r);
}

std::string DataAt(const Record& r, std::optional<size_t> index) {
  return EntryText(r, index) + ", data at offset " + std::to_string(r.dataOffset);
}

// Streams a record's uncompressed bytes to the sink, never more than its stated size, and
// checks them against its CRC.
bool Decompress(ArchiveState& s, const Record& r, std::optional<size_t> index, const Sink& sink) {
  if (!r.fromArchive) {
    const std::vector<unsigned char>& d = *r.data;
    return sink(d.data(), d.size());
  }
  if (r.flags & kFlagEncrypted) {
    s.Fail("zip-unsupported", "Encrypted members are not supported", EntryText(r, index));
    return false;
  }
  uLong crc = crc32(0, nullptr, 0);
  uint64_t produced = 0;
  const auto checked = [&](const unsigned char* p, size_t n) {
    produced += n;
    if (produced > r.uncompressedSize) {
      s.Fail("zip-damaged", "Member inflates past its stated size", DataAt(r, index));
      return false;
    }
    crc = crc32(crc, p, static_cast<uInt>(n));
    return sink(p, n);
  };
  if (r.method == kMethodStored) {
    if (r.compressedSize != r.uncompressedSize) {
      s.Fail("zip-damaged", "Stored member has differing sizes", DataAt(r, index));
      return false;
    }
    if (!CopyStoredBytes(s, r, checked)) {
      diag::Record("zip-damaged", s.path, "Member data cannot be read (" + DataAt(r, index) + ")");
      return false;
    }
  } else if (r.method == kMethodDeflate) {
    z_stream z{};
    if (inflateInit2(&z, -MAX_WBITS) != Z_OK) return false;
    std::vector<unsigned char> out(kChunk);
    bool ended = false, reported = false;  // reported: the size check or the sink has said why
    const auto feed = [&](const unsigned char* p, size_t n) {
      z.next_in = const_cast<unsigned char*>(p);
      z.avail_in = static_cast<uInt>(n);
      while (!ended && (z.avail_in > 0 || z.avail_out == 0)) {
        z.next_out = out.data();
        z.avail_out = static_cast<uInt>(out.size());
        const int rc = inflate(&z, Z_NO_FLUSH);
        if (rc != Z_OK && rc != Z_STREAM_END && rc != Z_BUF_ERROR) return false;  // logged below
        const size_t got = out.size() - z.avail_out;
        if (got > 0 && !checked(out.data(), got)) {
          reported = true;
          return false;
        }
        if (rc == Z_STREAM_END) ended = true;
        if (rc == Z_BUF_ERROR && got == 0) break;  // needs more input
      }
      return true;
    };
    const bool copied = CopyStoredBytes(s, r, feed);
    inflateEnd(&z);
    if (!copied || reported || !ended) {
      if (!reported) s.Log("Member data is damaged");
      diag::Record("zip-damaged", s.path, "Member data is damaged (" + DataAt(r, index) + ")");
      return false;
    }
  } else {
    s.Fail("zip-unsupported", "Unsupported compression method",
           EntryText(r, index) + ": method " + std::to_string(r.method));
    return false;
  }
  if (produced != r.uncompressedSize || static_cast<uint32_t>(crc) != r.crc) {
    s.Fail("zip-damaged", "Member data does not match its CRC or size", DataAt(r, index));
    return false;
  }
  return true;
}

// The entry's path below an extraction folder ("" for the folder itself), or nothing when it
// would leave that folder: absolute names, ".." parts and NUL bytes.
std::optional<std::string> SafeRelativePath(const Record& r) {
  if (r.name.find('\0') != std::string::npos) return std::nullopt;
  std::string name = DisplayName(r);
  if (name.find('\0') != std::string::npos) return std::nullopt;
  std::replace(name.begin(), name.end(), '\\', '/');
  if (name.empty() || name.front() == '/') return std::nullopt;
  std::string out;
  size_t start = 0;
  while (start <= name.size()) {
    size_t slash = name.find('/', start);
    if (slash == std::string::npos) slash = name.size();
    const std::string part = name.substr(start, slash - start);
    if (part == "..") return std::nullopt;
    if (!part.empty() && part != ".") out += (out.empty() ? "" : "/") + part;
    start = slash + 1;
  }
  return out;
}

// Times and attributes of an entry read from the archive; failures are only logged.
void ApplyStoredAttributes(ArchiveState& s, const Record& r, const std::string& path,
                           bool folder) {
  if (!r.fromArchive) return;
  const std::time_t t = timeutil::FromLocal(timeutil::FromDosDateTime(r.dosDate, r.dosTime));
  if (t == -1 || !timeutil::SetFileTime(path, t)) s.Log("Failed to set file time");
  if (folder) return;
  const uint32_t attributes = r.externalAttributes & 0xFF;
  if (attributes != 0x20 && !fs::SetAttributes(path, attributes))
    s.Log("Failed to set file attributes");
}

// Writes the record's file at `path`; a file that cannot be completed is removed.
bool WriteRecordFile(ArchiveState& s, const Record& r, std::optional<size_t> index,
                     const std::string& path) {
  fs::File out = fs::File::CreateWrite(path);
  if (!out.IsOpen()) {
    s.Fail("zip-extract", "Failed to create file", EntryText(r, index) + " into " + path);
    return false;
  }
  const bool ok =
      Decompress(s, r, index, [&](const unsigned char* p, size_t n) { return out.Write(p, n); });
  if (!out.Close() || !ok) {
    fs::DeleteFile(path);
    if (ok) s.Fail("zip-extract", "Failed to create file", EntryText(r, index) + " into " + path);
    return false;
  }
  ApplyStoredAttributes(s, r, path, false);
  return true;
}

// Makes the extraction folder with its parents and gives the prefix its members' paths take
// ("" for the current folder); false, logged, when the folder cannot be made.
bool PrepareDestination(ArchiveState& s, const std::string& folder, std::string& prefix) {
  prefix.clear();
  if (folder.empty() || folder == ".") return true;
  prefix = folder.back() == '/' ? folder : folder + "/";
  if (fs::CreateFolders(prefix)) return true;
  s.Fail("zip-extract", "Cannot set current directory", "cannot make the folder " + folder);
  return false;
}

}  // namespace

bool ExtractAll(ArchiveState& s, const std::string& folder) {
  std::string prefix;
  if (!PrepareDestination(s, folder, prefix)) return false;
  // Folders made (or found) during this call, so that thousands of members in a few folders
  // do not ask the file system for every part of every path again.
  std::unordered_set<std::string> made;
  const auto ensureFolder = [&made](const std::string& path) {
    if (made.contains(path)) return true;
    if (!fs::CreateFolders(path)) return false;
    made.insert(path);
    return true;
  };
  bool all = true;
  size_t index = 0;
  for (const Record& r : s.records) {
    const size_t at = index++;
    const std::optional<std::string> rel = SafeRelativePath(r);
    if (!rel) {
      s.Fail("zip-extract", "Entry name leaves the destination folder", EntryText(r, at));
      all = false;
      continue;
    }
    const bool isFolder = IsFolderRecord(r) || r.name.empty() || r.name.back() == '/';
    if (rel->empty()) {
      // Only a folder entry may name the destination itself; it has nothing to do.
      if (isFolder) continue;
      s.Fail("zip-extract", "Failed to create file", EntryText(r, at) + " names the folder itself");
      all = false;
      continue;
    }
    const std::string path = prefix + *rel;
    if (isFolder) {
      if (!ensureFolder(path)) {
        s.Fail("zip-extract", "Failed to create file", EntryText(r, at) + " into " + path);
        all = false;
      } else {
        ApplyStoredAttributes(s, r, path, true);
      }
      continue;
    }
    const std::string parent(path::ParentFolder(path));
    if (!parent.empty()) ensureFolder(parent);
    if (!WriteRecordFile(s, r, at, path)) all = false;
  }
  if (!all) s.Log("Not all files extracted successfully.");
  return all;
}

bool ExtractOne(ArchiveState& s, const Record& r, const std::string& folder) {
  std::string prefix;
  if (!PrepareDestination(s, folder, prefix)) return false;
  if (IsFolderRecord(r)) return true;
  std::string name = DisplayName(r);
  std::replace(name.begin(), name.end(), '\\', '/');
  const std::string last = name.substr(name.rfind('/') + 1);
  if (last.empty() || last == "." || last == ".." || last.find('\0') != std::string::npos ||
      r.name.find('\0') != std::string::npos) {
    s.Fail("zip-extract", "Entry name leaves the destination folder", EntryText(r, std::nullopt));
    return false;
  }
  return WriteRecordFile(s, r, std::nullopt, prefix + last);
}

}  // namespace qx::zip
