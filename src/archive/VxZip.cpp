#include "archive/VxZip.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "archive/VxXml.h"
#include "archive/ZipFormat.h"
#include "platform/TempFile.h"
#include "platform/codepage.h"
#include "platform/fs.h"
#include "platform/path.h"

namespace qx {

using zip::ArchiveState;
using zip::Record;

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

// Fills in the sizes and CRC an appended record will be written with.
bool PrepareAppended(Record& r) {
  const std::vector<unsigned char>& in = *r.data;
  r.uncompressedSize = static_cast<uint32_t>(in.size());
  r.crc = static_cast<uint32_t>(crc32(0, in.data(), static_cast<uInt>(in.size())));
  if (r.method == zip::kMethodStored) {
    r.compressedSize = r.uncompressedSize;
    return true;
  }
  if (!EnsureDeflated(r)) return false;
  r.compressedSize = static_cast<uint32_t>(r.deflated.size());
  return true;
}

using Sink = std::function<bool(const unsigned char*, size_t)>;

// Streams a record's compressed bytes (as they stand in the archive file) to the sink.
bool CopyStoredBytes(ArchiveState& s, const Record& r, const Sink& sink) {
  if (!s.file.IsOpen() || !s.file.Seek(r.dataOffset)) return false;
  // No larger than the member: zeroing a whole chunk per small member dominated rewrites.
  std::vector<unsigned char> buf(static_cast<size_t>(std::min<uint64_t>(zip::kChunk, r.compressedSize)));
  uint64_t left = r.compressedSize;
  while (left > 0) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(left, buf.size()));
    if (s.file.Read(buf.data(), n) != n || !sink(buf.data(), n)) return false;
    left -= n;
  }
  return true;
}

// Streams a record's uncompressed bytes to the sink, never more than its stated size, and
// checks them against its CRC.
bool Decompress(ArchiveState& s, const Record& r, const Sink& sink) {
  if (!r.fromArchive) {
    const std::vector<unsigned char>& d = *r.data;
    return sink(d.data(), d.size());
  }
  if (r.flags & zip::kFlagEncrypted) {
    s.Log("Encrypted members are not supported");
    return false;
  }
  uLong crc = crc32(0, nullptr, 0);
  uint64_t produced = 0;
  const auto checked = [&](const unsigned char* p, size_t n) {
    produced += n;
    if (produced > r.uncompressedSize) {
      s.Log("Member inflates past its stated size");
      return false;
    }
    crc = crc32(crc, p, static_cast<uInt>(n));
    return sink(p, n);
  };
  if (r.method == zip::kMethodStored) {
    if (r.compressedSize != r.uncompressedSize) {
      s.Log("Stored member has differing sizes");
      return false;
    }
    if (!CopyStoredBytes(s, r, checked)) return false;
  } else if (r.method == zip::kMethodDeflate) {
    z_stream z{};
    if (inflateInit2(&z, -MAX_WBITS) != Z_OK) return false;
    std::vector<unsigned char> out(zip::kChunk);
    bool ended = false, failed = false;
    const auto feed = [&](const unsigned char* p, size_t n) {
      z.next_in = const_cast<unsigned char*>(p);
      z.avail_in = static_cast<uInt>(n);
      while (!ended && (z.avail_in > 0 || z.avail_out == 0)) {
        z.next_out = out.data();
        z.avail_out = static_cast<uInt>(out.size());
        const int rc = inflate(&z, Z_NO_FLUSH);
        if (rc != Z_OK && rc != Z_STREAM_END && rc != Z_BUF_ERROR) {
          failed = true;
          return false;
        }
        const size_t got = out.size() - z.avail_out;
        if (got > 0 && !checked(out.data(), got)) {
          failed = true;
          return false;
        }
        if (rc == Z_STREAM_END) ended = true;
        if (rc == Z_BUF_ERROR && got == 0) break;  // needs more input
      }
      return true;
    };
    const bool copied = CopyStoredBytes(s, r, feed);
    inflateEnd(&z);
    if (!copied || failed || !ended) {
      if (!failed) s.Log("Member data is damaged");
      return false;
    }
  } else {
    s.Log("Unsupported compression method");
    return false;
  }
  if (produced != r.uncompressedSize || static_cast<uint32_t>(crc) != r.crc) {
    s.Log("Member data does not match its CRC or size");
    return false;
  }
  return true;
}

// The entry's path below an extraction folder ("" for the folder itself), or nothing when it
// would leave that folder: absolute names, ".." parts and NUL bytes.
std::optional<std::string> SafeRelativePath(const Record& r) {
  if (r.name.find('\0') != std::string::npos) return std::nullopt;
  std::string name = zip::DisplayName(r);
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

bool IsFolderRecord(const Record& r) {
  return r.fromArchive && (r.externalAttributes & zip::kAttrFolder) != 0;
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
bool WriteRecordFile(ArchiveState& s, const Record& r, const std::string& path) {
  fs::File out = fs::File::CreateWrite(path);
  if (!out.IsOpen()) {
    s.Log("Failed to create file");
    return false;
  }
  const bool ok = Decompress(s, r, [&](const unsigned char* p, size_t n) { return out.Write(p, n); });
  if (!out.Close() || !ok) {
    fs::DeleteFile(path);
    if (ok) s.Log("Failed to create file");
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
  s.Log("Cannot set current directory");
  return false;
}

bool HasAny(const std::string& text, char c) { return text.find(c) != std::string::npos; }

}  // namespace

// ---- VxByteData ---------------------------------------------------------------------------------

bool VxByteData::LoadFile(const char* path) {
  bytes_.clear();
  if (path == nullptr) return false;
  if (!fs::ReadWholeFile(path, bytes_)) {
    bytes_.clear();
    return false;
  }
  return true;
}

void VxByteData::Assign(const void* data, size_t size) {
  const auto* p = static_cast<const unsigned char*>(data);
  bytes_.assign(p, p + (p != nullptr ? size : 0));
}

// ---- VxZip --------------------------------------------------------------------------------------

VxZip::VxZip() : state_(std::make_shared<ArchiveState>()) {}
VxZip::~VxZip() = default;

const std::vector<std::string>& VxZip::Log() const { return state_->log; }

bool VxZip::OpenZip(const char* path) {
  if (path == nullptr) {
    state_->Log("null parameter");
    return false;
  }
  state_->Drop();
  state_->path = path;
  return zip::OpenArchive(*state_);
}

bool VxZip::NewZip(const char* path) {
  if (path == nullptr) {
    state_->Log("null parameter");
    return false;
  }
  state_->Drop();
  state_->path = path;
  state_->hasList = true;
  return true;
}

bool VxZip::WriteZip() {
  ArchiveState& s = *state_;
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
  for (const auto& r : kRefused) {
    if (HasAny(s.path, r.c)) {
      s.Log(r.message);
      return false;
    }
  }
  if (!s.hasList) {
    s.Log("No zip file has been opened.");
    return false;
  }
  const std::string folder(path::ParentFolder(s.path));
  if (!folder.empty() && !fs::CreateFolders(folder)) s.Log("Unable to create Zip file");

  // The new archive goes beside the old one and replaces it in one rename, so the old one
  // stays whole until the new one is complete.
  fs::TempFile tmp(s.path);
  if (!tmp.IsOpen()) {
    s.Log("Cannot open temporary file");
    return false;
  }
  fs::File& out = tmp.file();
  uint64_t offset = 0;
  bool ioFailed = false, allWritten = true;
  const auto put = [&](const void* p, size_t n) {
    if (offset + n > zip::kSizeLimit) return false;
    if (!out.Write(p, n)) {
      ioFailed = true;
      return false;
    }
    offset += n;
    return true;
  };
  std::vector<std::pair<const Record*, uint32_t>> written;
  written.reserve(s.records.size());
  for (Record& r : s.records) {
    const uint64_t start = offset;
    bool ok = r.fromArchive || PrepareAppended(r);
    if (ok) {
      const std::vector<unsigned char> header = zip::LocalHeaderBytes(r);
      // A record that would pass the format's 4 GB offsets is left out before any of it is
      // written, so no partial record stays behind in the file.
      ok = offset + header.size() + r.compressedSize <= zip::kSizeLimit &&
           put(header.data(), header.size());
      if (ok && r.fromArchive) {
        ok = CopyStoredBytes(s, r, [&](const unsigned char* p, size_t n) { return put(p, n); });
      } else if (ok) {
        const std::vector<unsigned char>& d = r.method == zip::kMethodStored ? *r.data : r.deflated;
        ok = put(d.data(), d.size());
      }
    }
    if (ok) {
      written.emplace_back(&r, static_cast<uint32_t>(start));
    } else {
      // Left out of the directory; the next record takes its place in the file.
      allWritten = false;
      offset = start;
      if (!out.Seek(start)) ioFailed = true;
      s.Log("Failed to write a Zip entry");
    }
    if (ioFailed) break;
  }
  const uint64_t directoryOffset = offset;
  for (const auto& [r, at] : written) {
    const std::vector<unsigned char> header = zip::CentralHeaderBytes(*r, at);
    if (!put(header.data(), header.size())) break;
  }
  const std::vector<unsigned char> end = zip::EndRecordBytes(
      static_cast<uint32_t>(written.size()), static_cast<uint32_t>(offset - directoryOffset),
      static_cast<uint32_t>(directoryOffset), s.comment);
  if (ioFailed || written.size() > 0xFFFF || !put(end.data(), end.size())) {
    s.Log(written.size() > 0xFFFF || !ioFailed ? "Zip file would exceed the format's limits"
                                                : "Cannot write temporary file");
    return false;  // the temporary file goes; the list and the old archive stay
  }
  s.Drop();
  if (!tmp.Keep()) {
    s.Log("Failed to move Zip file");
    return false;
  }
  return zip::OpenArchive(s) && allWritten;
}

bool VxZip::Extract(const char* destFolder) {
  ArchiveState& s = *state_;
  if (destFolder == nullptr) {
    s.Log("null parameter");
    return false;
  }
  if (!s.hasList) {
    s.Log("Cannot extract before opening a Zip archive");
    return false;
  }
  std::string prefix;
  if (!PrepareDestination(s, destFolder, prefix)) return false;
  // Folders made (or found) during this call, so that thousands of members in a few folders
  // do not ask the file system for every part of every path again.
  std::unordered_set<std::string> made;
  const auto ensureFolder = [&made](const std::string& folder) {
    if (made.contains(folder)) return true;
    if (!fs::CreateFolders(folder)) return false;
    made.insert(folder);
    return true;
  };
  bool all = true;
  for (const Record& r : s.records) {
    const std::optional<std::string> rel = SafeRelativePath(r);
    if (!rel) {
      s.Log("Entry name leaves the destination folder");
      all = false;
      continue;
    }
    const bool folder = IsFolderRecord(r) || r.name.empty() || r.name.back() == '/';
    if (rel->empty()) {
      // Only a folder entry may name the destination itself; it has nothing to do.
      if (folder) continue;
      s.Log("Failed to create file");
      all = false;
      continue;
    }
    const std::string path = prefix + *rel;
    if (folder) {
      if (!ensureFolder(path)) {
        s.Log("Failed to create file");
        all = false;
      } else {
        ApplyStoredAttributes(s, r, path, true);
      }
      continue;
    }
    const std::string parent(path::ParentFolder(path));
    if (!parent.empty()) ensureFolder(parent);
    if (!WriteRecordFile(s, r, path)) all = false;
  }
  if (!all) s.Log("Not all files extracted successfully.");
  return all;
}

std::unique_ptr<VxZipEntry> VxZip::FirstEntry() {
  if (!state_->hasList) {
    state_->Log("No zip file has been opened.");
    return nullptr;
  }
  if (state_->records.empty()) {
    state_->Log("This Zip contains no entries");
    return nullptr;
  }
  return std::make_unique<VxZipEntry>(state_, state_->records.front().serial);
}

std::unique_ptr<VxZipEntry> VxZip::GetEntryByIndex(int index) {
  if (!state_->hasList) {
    state_->Log("No zip file has been opened.");
    return nullptr;
  }
  const Record* r = index < 0 ? nullptr : state_->AtIndex(static_cast<size_t>(index));
  if (r == nullptr) {
    state_->Log("No zip entry found at the given index");
    return nullptr;
  }
  return std::make_unique<VxZipEntry>(state_, r->serial);
}

std::unique_ptr<VxZipEntry> VxZip::GetEntryByName(const char* name) {
  if (name == nullptr) {
    state_->Log("null parameter");
    return nullptr;
  }
  state_->IndexNames();
  std::string given(name, strnlen(name, 259));
  std::replace(given.begin(), given.end(), '\\', '/');
  for (const auto* index : {&state_->byNormalName, &state_->byStoredName}) {
    const std::string key = index == &state_->byNormalName ? zip::NormalNameOfGiven(given) : given;
    const auto found = index->find(key);
    if (found != index->end()) return std::make_unique<VxZipEntry>(state_, found->second.front());
  }
  state_->Log("File not found in zip archive");
  return nullptr;
}

std::unique_ptr<VxZipEntry> VxZip::AppendData(const char* name, const VxByteData& data) {
  ArchiveState& s = *state_;
  if (name == nullptr) {
    s.Log("null parameter");
    return nullptr;
  }
  if (data.GetSize() == 0) {
    s.Log("Data length must be > 0");
    return nullptr;
  }
  if (*name == '\0') {
    s.Log("No filename was provided");
    return nullptr;
  }
  if (!s.hasList) {
    s.Log("No zip file has been opened.");
    return nullptr;
  }
  if (data.GetSize() >= zip::kSizeLimit || std::strlen(name) > 0xFFFF) {
    s.Log("Member is too large for a Zip archive");
    return nullptr;
  }
  Record r;
  r.name = name;
  std::replace(r.name.begin(), r.name.end(), '\\', '/');
  if (std::any_of(r.name.begin(), r.name.end(), [](char c) { return static_cast<unsigned char>(c) > 127; }))
    r.name = codepage::AnsiToCp850(r.name);
  r.method = zip::kMethodDeflate;
  r.level = 6;
  timeutil::ToDosDateTime(timeutil::LocalNow(), r.dosDate, r.dosTime);
  r.data = std::make_shared<const std::vector<unsigned char>>(data.GetData(),
                                                               data.GetData() + data.GetSize());
  r.uncompressedSize = static_cast<uint32_t>(data.GetSize());
  r.internalAttributes = zip::LooksLikeText(data.GetData(), data.GetSize()) ? 1 : 0;
  r.externalAttributes = zip::kAttrNormal;
  r.serial = zip::NewSerial();
  const uint64_t serial = r.serial;
  s.Add(std::move(r));
  return std::make_unique<VxZipEntry>(state_, serial);
}

bool VxZip::DeleteEntry(VxZipEntry* entry) {
  if (entry == nullptr) return false;
  state_->Remove(entry->Serial());
  return true;
}

bool VxZip::GetDirectoryAsXML(VxString& listing) {
  VxXml root;
  root.SetTag("zip_contents");
  // Folder elements by their path ("a/b"), so each entry finds its folders in one lookup.
  std::unordered_map<std::string, std::unique_ptr<VxXml>> folders;
  for (const Record& r : state_->records) {
    std::string name = r.name;
    std::replace(name.begin(), name.end(), '\\', '/');
    if (!name.empty() && name.back() == '/') name.pop_back();
    std::vector<std::string> parts;
    for (size_t start = 0;;) {
      const size_t slash = name.find('/', start);
      parts.push_back(name.substr(start, slash - start));
      if (slash == std::string::npos) break;
      start = slash + 1;
    }
    const size_t folderParts = IsFolderRecord(r) ? parts.size() : parts.size() - 1;
    VxXml* parent = &root;
    std::string key;
    for (size_t i = 0; i < folderParts; ++i) {
      key += parts[i];
      key += '/';
      auto& node = folders[key];
      if (node == nullptr) {
        node = parent->AddChild("dir", nullptr);
        if (node == nullptr) return false;
        node->AddAttribute("name", parts[i].c_str());
      }
      parent = node.get();
    }
    if (folderParts < parts.size() && parent->AddChild("file", parts.back().c_str()) == nullptr)
      return false;
  }
  return root.GetXml(listing);
}

int VxZip::EntryCount() { return static_cast<int>(state_->records.size()); }

// ---- VxZipEntry ---------------------------------------------------------------------------------

namespace {

// The record a handle stands for, or null (logging why when `action` names an action).
Record* Resolve(const std::weak_ptr<ArchiveState>& weak, uint64_t serial,
                std::shared_ptr<ArchiveState>& state, bool action) {
  state = weak.lock();
  Record* r = state != nullptr ? state->Find(serial) : nullptr;
  if (r == nullptr && action && state != nullptr) state->Log("Object not initialized");
  return r;
}

}  // namespace

std::unique_ptr<VxZipEntry> VxZipEntry::NextEntry() {
  std::shared_ptr<ArchiveState> s;
  if (Resolve(state_, serial_, s, true) == nullptr) return nullptr;
  auto it = std::next(s->bySerial.at(serial_));
  if (it == s->records.end()) return nullptr;
  return std::make_unique<VxZipEntry>(s, it->serial);
}

bool VxZipEntry::ExtractInto(const char* destFolder) {
  std::shared_ptr<ArchiveState> s;
  Record* r = Resolve(state_, serial_, s, true);
  if (r == nullptr) return false;
  if (destFolder == nullptr) {
    s->Log("null parameter");
    return false;
  }
  std::string prefix;
  if (!PrepareDestination(*s, destFolder, prefix)) return false;
  if (IsFolderRecord(*r)) return true;
  std::string name = zip::DisplayName(*r);
  std::replace(name.begin(), name.end(), '\\', '/');
  const std::string last = name.substr(name.rfind('/') + 1);
  if (last.empty() || last == "." || last == ".." || last.find('\0') != std::string::npos ||
      r->name.find('\0') != std::string::npos) {
    s->Log("Entry name leaves the destination folder");
    return false;
  }
  return WriteRecordFile(*s, *r, prefix + last);
}

bool VxZipEntry::GetFileName(VxString& name) {
  std::shared_ptr<ArchiveState> s;
  const Record* r = Resolve(state_, serial_, s, false);
  name.Assign(r != nullptr ? zip::DisplayName(*r) : std::string());
  return r != nullptr;
}

uint32_t VxZipEntry::GetUncompressedSize() {
  std::shared_ptr<ArchiveState> s;
  const Record* r = Resolve(state_, serial_, s, false);
  return r != nullptr ? r->uncompressedSize : 0;
}

uint32_t VxZipEntry::GetCompressedSize() {
  std::shared_ptr<ArchiveState> s;
  Record* r = Resolve(state_, serial_, s, false);
  if (r == nullptr) return 0;
  if (!r->fromArchive && !PrepareAppended(*r)) return 0;
  return r->compressedSize;
}

void VxZipEntry::SetCompressionMethod(int method) {
  std::shared_ptr<ArchiveState> s;
  Record* r = Resolve(state_, serial_, s, true);
  // A member taken over from the archive keeps its bytes as they are.
  if (r == nullptr || r->fromArchive) return;
  const uint16_t wanted = method == 0 ? zip::kMethodStored : zip::kMethodDeflate;
  if (r->method == wanted) return;
  r->method = wanted;
  r->deflatedValid = false;
  r->deflated.clear();
}

void VxZipEntry::GetFileTime(SYSTEMTIME& time) {
  std::shared_ptr<ArchiveState> s;
  const Record* r = Resolve(state_, serial_, s, false);
  time = r != nullptr ? timeutil::FromDosDateTime(r->dosDate, r->dosTime) : timeutil::LocalNow();
}

bool VxZipEntry::IsDirectory() {
  std::shared_ptr<ArchiveState> s;
  const Record* r = Resolve(state_, serial_, s, false);
  return r != nullptr && IsFolderRecord(*r);
}

}  // namespace qx
