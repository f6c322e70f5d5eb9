// VxZip's public face: each call checks its arguments and the state, then hands the work to the
// role that does it: ZipRead (opening), ZipWrite (WriteZip), ZipExtract (Extract, ExtractInto)
// and ZipEntryList (the entries and their look-ups).
#include "archive/VxZip.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "archive/VxXml.h"
#include "archive/ZipEntryList.h"
#include "archive/ZipExtract.h"
#include "archive/ZipRead.h"
#include "archive/ZipWrite.h"
#include "platform/codepage.h"
#include "platform/fs.h"

namespace qx {

using zip::ArchiveState;
using zip::Record;

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

bool VxZip::WriteZip() { return WriteZipGraded().Complete(); }

ZipWriteResult VxZip::WriteZipGraded() { return zip::WriteArchive(*state_); }

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
  return zip::ExtractAll(s, destFolder);
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
  return std::make_unique<VxZipEntry>(state_, state_->records.front().serial, state_->generation);
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
  return std::make_unique<VxZipEntry>(state_, r->serial, state_->generation);
}

std::unique_ptr<VxZipEntry> VxZip::GetEntryByName(const char* name) {
  if (name == nullptr) {
    state_->Log("null parameter");
    return nullptr;
  }
  std::string given(name, strnlen(name, 259));
  std::replace(given.begin(), given.end(), '\\', '/');
  if (const Record* r = state_->FindByName(given))
    return std::make_unique<VxZipEntry>(state_, r->serial, state_->generation);
  state_->Log("File not found in zip archive");
  return nullptr;
}

void VxZip::VisitNamesFromLast(const std::function<bool(std::string_view name)>& visit) {
  std::string name;
  for (auto it = state_->records.rbegin(); it != state_->records.rend(); ++it) {
    zip::DisplayNameInto(*it, name);
    if (visit(name)) return;
  }
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
  return std::make_unique<VxZipEntry>(state_, serial, state_->generation);
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
    const size_t folderParts = zip::IsFolderRecord(r) ? parts.size() : parts.size() - 1;
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
Record* Resolve(const std::weak_ptr<ArchiveState>& weak, uint64_t serial, uint64_t generation,
                std::shared_ptr<ArchiveState>& state, bool action) {
  state = weak.lock();
  Record* r = state != nullptr && state->generation == generation ? state->Find(serial) : nullptr;
  if (r == nullptr && action && state != nullptr) state->Log("Object not initialized");
  return r;
}

}  // namespace

std::unique_ptr<VxZipEntry> VxZipEntry::NextEntry() {
  std::shared_ptr<ArchiveState> s;
  if (Resolve(state_, serial_, generation_, s, true) == nullptr) return nullptr;
  auto it = std::next(s->bySerial.at(serial_));
  if (it == s->records.end()) return nullptr;
  return std::make_unique<VxZipEntry>(s, it->serial, s->generation);
}

bool VxZipEntry::ExtractInto(const char* destFolder) {
  std::shared_ptr<ArchiveState> s;
  Record* r = Resolve(state_, serial_, generation_, s, true);
  if (r == nullptr) return false;
  if (destFolder == nullptr) {
    s->Log("null parameter");
    return false;
  }
  return zip::ExtractOne(*s, *r, destFolder);
}

bool VxZipEntry::GetFileName(VxString& name) {
  std::shared_ptr<ArchiveState> s;
  const Record* r = Resolve(state_, serial_, generation_, s, false);
  name.Assign(r != nullptr ? zip::DisplayName(*r) : std::string());
  return r != nullptr;
}

uint32_t VxZipEntry::GetUncompressedSize() {
  std::shared_ptr<ArchiveState> s;
  const Record* r = Resolve(state_, serial_, generation_, s, false);
  return r != nullptr ? r->uncompressedSize : 0;
}

uint32_t VxZipEntry::GetCompressedSize() {
  std::shared_ptr<ArchiveState> s;
  Record* r = Resolve(state_, serial_, generation_, s, false);
  if (r == nullptr) return 0;
  if (!r->fromArchive && !zip::PrepareAppended(*r)) return 0;
  return r->compressedSize;
}

void VxZipEntry::SetCompressionMethod(int method) {
  std::shared_ptr<ArchiveState> s;
  Record* r = Resolve(state_, serial_, generation_, s, true);
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
  const Record* r = Resolve(state_, serial_, generation_, s, false);
  time = r != nullptr ? timeutil::FromDosDateTime(r->dosDate, r->dosTime) : timeutil::LocalNow();
}

bool VxZipEntry::IsDirectory() {
  std::shared_ptr<ArchiveState> s;
  const Record* r = Resolve(state_, serial_, generation_, s, false);
  return r != nullptr && zip::IsFolderRecord(*r);
}

}  // namespace qx
