#include "formats/LayoutMA.h"

#include <algorithm>
#include <cstring>

#include "platform/ByteOrder.h"
#include "platform/StreamCopy.h"

namespace qx {

namespace {

constexpr size_t kMaxEntries = 0xFFFF;

// Offsets of the fields inside a 16-byte entry.
constexpr size_t kEntryName = 4;
constexpr size_t kEntryType = 12;
constexpr size_t kEntryAttribute = 13;
constexpr size_t kEntryExtra = 14;

MAEntryFields ReadEntryFields(const unsigned char* entry) {
  MAEntryFields f;
  f.name = ReadNameField(entry + kEntryName);
  f.type = entry[kEntryType];
  f.attribute = entry[kEntryAttribute];
  f.extra = {entry[kEntryExtra], entry[kEntryExtra + 1]};
  return f;
}

void WriteEntry(unsigned char* entry, uint32_t dataOffset, const MAEntryFields& f) {
  WriteLE32(entry, dataOffset);
  std::memcpy(entry + kEntryName, f.name.data(), kNameFieldSize);
  entry[kEntryType] = f.type;
  entry[kEntryAttribute] = f.attribute;
  entry[kEntryExtra] = f.extra[0];
  entry[kEntryExtra + 1] = f.extra[1];
}

// A byte writer over a buffer sized in advance.
class Writer {
 public:
  explicit Writer(std::vector<unsigned char>& out) : out_(out) {}
  unsigned char* Take(size_t n) {
    unsigned char* p = out_.data() + pos_;
    pos_ += n;
    return p;
  }
  void Put(std::span<const unsigned char> bytes) {
    if (!bytes.empty()) std::memcpy(Take(bytes.size()), bytes.data(), bytes.size());
  }
  void Put16(uint16_t v) { WriteLE16(Take(2), v); }
  void Put32(uint32_t v) { WriteLE32(Take(4), v); }

 private:
  std::vector<unsigned char>& out_;
  size_t pos_ = 0;
};

}  // namespace

// ---- Reading ---------------------------------------------------------------------------------

MAWalk WalkMAGroup(std::span<const unsigned char> file) { return WalkMAGroup(file, file.size()); }

uint64_t MAWalkExtent(std::span<const unsigned char> first64, uint64_t fileSize) {
  if (fileSize < kMATableOffset + 4 || first64.size() < kMATableOffset + 4) return fileSize;
  const uint64_t firstDataOffset = ReadLE32(&first64[kMATableOffset]);
  // The last entry the walk reads starts before the first data offset (or is the first one),
  // and is read with the 4-byte offset field after it.
  return std::min(fileSize, std::max<uint64_t>(firstDataOffset, kMATableOffset + 4) + kMAEntrySize + 4);
}

MAWalk WalkMAGroup(std::span<const unsigned char> file, uint64_t fileSize) {
  MAWalk walk;
  // Checks are made against the file's size; reads stay inside the bytes held, which reach as
  // far as the walk goes (MAWalkExtent).
  const uint64_t size = fileSize;
  const auto held = [&](uint64_t end) { return end <= file.size(); };
  if (size < kMATableOffset + 4 || !held(kMATableOffset + 4)) {
    walk.end = MAWalk::kStepFailed;
    return walk;
  }
  NameField folder = ReadNameField(&file[kMAFolderOffset]);
  const uint32_t firstDataOffset = ReadLE32(&file[kMATableOffset]);
  if (firstDataOffset > size) return walk;
  // The table ends where the file size field and marker stand before the first data block.
  const int64_t tableEnd = static_cast<int64_t>(firstDataOffset) - 6;

  for (size_t pos = kMATableOffset;; pos += kMAEntrySize) {
    if (pos != kMATableOffset && static_cast<int64_t>(pos) >= tableEnd) break;
    if (pos + kEntryType + 1 > size || !held(pos + kEntryType + 1)) {
      walk.end = MAWalk::kStepFailed;
      break;
    }
    const unsigned char* entry = &file[pos];
    if (entry[kEntryType] == kMAFolderType) {
      folder = ReadNameField(entry + kEntryName);
      continue;
    }
    // A member is read with the offset field that follows it (its block end).
    if (pos + kMAEntrySize + 4 > size || !held(pos + kMAEntrySize + 4)) {
      walk.end = MAWalk::kMemberUnreadable;
      break;
    }
    MAMemberView m;
    m.entryOffset = pos;
    m.folder = folder;
    m.dataOffset = ReadLE32(entry);
    m.fields = ReadEntryFields(entry);
    m.blockEnd = ReadLE32(entry + kMAEntrySize);
    walk.members.push_back(m);
  }
  return walk;
}

std::optional<std::span<const unsigned char>> MABlock(std::span<const unsigned char> file,
                                                      const MAMemberView& member) {
  if (member.blockEnd < member.dataOffset || member.blockEnd > file.size()) return std::nullopt;
  return file.subspan(member.dataOffset, member.blockEnd - member.dataOffset);
}

std::optional<bool> MAIsGroup(std::span<const unsigned char> file) {
  if (file.size() <= kMAFolderOffset) return std::nullopt;
  return file[kMAFolderOffset] == 0;
}

bool MADefaultFolderCountsAsEmpty(const NameField& folder) {
  unsigned sum = 0;
  for (unsigned char c : folder) sum += c;
  return folder[0] == 0 || sum % 256 == 0;
}

// ---- Single-variable files -------------------------------------------------------------------

LayoutResult ParseMASingleFile(std::span<const unsigned char> file, MASingleFile& out) {
  constexpr size_t kEntry = kMATableOffset;
  constexpr size_t kSizeField = kMATableOffset + kMAEntrySize;
  if (file.size() < kMAOneEntryDataOffset)
    return LayoutResult::Fail(LayoutResult::kTruncated, file.size(), "shorter than a variable file header");
  const uint32_t fileSize = ReadLE32(&file[kSizeField]);
  if (fileSize < kMAOneEntryDataOffset)
    return LayoutResult::Fail(LayoutResult::kBadOffset, kSizeField, "file size field below the header size");
  if (fileSize > file.size())
    return LayoutResult::Fail(LayoutResult::kTruncated, kSizeField, "file size field beyond the end of the file");
  std::memcpy(out.signature.data(), file.data(), kMASignatureSize);
  out.folder = ReadNameField(&file[kMAFolderOffset]);
  out.fields = ReadEntryFields(&file[kEntry]);
  out.data = file.subspan(kMAOneEntryDataOffset, fileSize - kMAOneEntryDataOffset);
  return LayoutResult::Ok();
}

std::vector<unsigned char> BuildMASingleFileHeader(std::string_view signature,
                                                   const NameField& folder,
                                                   const MAEntryFields& fields,
                                                   uint32_t dataLength) {
  std::vector<unsigned char> out(kMAOneEntryDataOffset);
  Writer w(out);
  w.Put(PaddedField<kMASignatureSize>(signature));
  w.Put(folder);
  w.Take(kMACommentSize);  // zero bytes
  w.Put16(1);
  WriteEntry(w.Take(kMAEntrySize), kMAOneEntryDataOffset, fields);
  w.Put32(kMAOneEntryDataOffset + dataLength);
  w.Put(kMASingleFileMarker);
  return out;
}

std::vector<unsigned char> BuildMASingleFile(std::string_view signature, const NameField& folder,
                                             const MAEntryFields& fields,
                                             std::span<const unsigned char> data) {
  std::vector<unsigned char> out = BuildMASingleFileHeader(
      signature, folder, fields, static_cast<uint32_t>(data.size()));
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

// ---- Groups for adding and deleting ----------------------------------------------------------

MAGroup MAGroup::NewEmpty(std::string_view signature, std::string_view comment) {
  MAGroup g;
  g.signature_ = PaddedField<kMASignatureSize>(signature);
  g.comment_ = PaddedField<kMACommentSize>(comment);
  g.marker_ = kMANewGroupMarker;
  MAFolder main;
  main.name = MakeNameField("main");
  g.folders_.push_back(std::move(main));
  return g;
}

LayoutResult MAGroup::Parse(std::span<const unsigned char> file, MAGroup& out) {
  return ParseFrom(file, file.size(), true, out);
}

LayoutResult MAGroup::ParseTable(std::span<const unsigned char> head, uint64_t fileSize,
                                 MAGroup& out) {
  return ParseFrom(head, fileSize, false, out);
}

uint64_t MAGroup::TableExtent(std::span<const unsigned char> first60, uint64_t fileSize) {
  if (first60.size() < kMATableOffset) return std::min<uint64_t>(fileSize, kMATableOffset);
  const uint64_t dataStart = kMATableOffset + kMAEntrySize * ReadLE16(&first60[kMACountOffset]) + 6;
  return std::min(fileSize, dataStart);
}

// Reads the table from `file` (all of it, or with `read`, the first TableExtent bytes): checks
// are made against `fileSize`.
LayoutResult MAGroup::ParseFrom(std::span<const unsigned char> file, uint64_t fileSize,
                                bool whole, MAGroup& out) {
  using R = LayoutResult;
  const uint64_t size = fileSize;
  if (size < kMATableOffset) return R::Fail(R::kTruncated, size, "shorter than a group header");
  MAGroup g;
  std::memcpy(g.signature_.data(), file.data(), kMASignatureSize);
  g.defaultFolder_ = ReadNameField(&file[kMAFolderOffset]);
  if (!MADefaultFolderCountsAsEmpty(g.defaultFolder_))
    return R::Fail(R::kNotAGroup, kMAFolderOffset, "default folder set: a single-variable file");
  std::memcpy(g.comment_.data(), &file[kMACommentOffset], kMACommentSize);
  const size_t count = ReadLE16(&file[kMACountOffset]);
  const size_t tableEnd = kMATableOffset + kMAEntrySize * count;
  const size_t dataStart = tableEnd + 6;
  if (dataStart > size) return R::Fail(R::kTruncated, tableEnd, "entry table beyond the end of the file");
  const uint32_t fileSize32 = ReadLE32(&file[tableEnd]);
  if (fileSize32 > size) return R::Fail(R::kBadOffset, tableEnd, "file size field beyond the end of the file");
  // The listing ends the table at the first data offset: past the file, it lists nothing, and
  // what it cannot list cannot be changed either.
  if (count > 0 && ReadLE32(&file[kMATableOffset]) > size)
    return R::Fail(R::kBadOffset, kMATableOffset, "first data offset beyond the end of the file");
  g.marker_ = {file[tableEnd + 4], file[tableEnd + 5]};

  // Folders, each followed by its members; member data offsets in order within the data area.
  std::vector<uint32_t> offsets;  // of every member, in table order
  std::vector<size_t> entryAt;    // where each member's entry stands
  offsets.reserve(count);
  entryAt.reserve(count);
  for (size_t i = 0; i < count;) {
    const unsigned char* entry = &file[kMATableOffset + kMAEntrySize * i];
    if (entry[kEntryType] != kMAFolderType)
      return R::Fail(R::kBadTable, kMATableOffset + kMAEntrySize * i,
                     "variable entry where a folder entry is expected");
    MAFolder folder;
    folder.name = ReadNameField(entry + kEntryName);
    folder.attribute = entry[kEntryAttribute];
    const size_t members = ReadLE16(entry + kEntryExtra);
    if (members > count - i - 1)
      return R::Fail(R::kBadTable, kMATableOffset + kMAEntrySize * i, "folder member count overruns the table");
    for (size_t j = 1; j <= members; ++j) {
      const unsigned char* m = entry + kMAEntrySize * j;
      if (m[kEntryType] == kMAFolderType)
        return R::Fail(R::kBadTable, kMATableOffset + kMAEntrySize * (i + j), "folder entry counted as a member");
      offsets.push_back(ReadLE32(m));
      entryAt.push_back(kMATableOffset + kMAEntrySize * (i + j));
      folder.members.push_back(MAVariable{ReadEntryFields(m), {}});
    }
    g.folders_.push_back(std::move(folder));
    i += 1 + members;
  }

  uint32_t previous = static_cast<uint32_t>(dataStart);
  for (size_t k = 0; k <= offsets.size(); ++k) {
    const uint32_t at = k < offsets.size() ? offsets[k] : fileSize32;
    if (at < previous)
      return R::Fail(R::kBadOffset, k < offsets.size() ? entryAt[k] : tableEnd,
                     k < offsets.size() ? "member data offset out of order or inside the table"
                                        : "file size field before the last data block");
    previous = at;
  }

  if (dataStart > file.size()) return R::Fail(R::kTruncated, file.size(), "table not read");
  const auto bytes = [&](uint64_t from, uint64_t to) {
    return std::vector<unsigned char>(file.begin() + static_cast<ptrdiff_t>(from),
                                      file.begin() + static_cast<ptrdiff_t>(to));
  };
  const uint64_t leadEnd = offsets.empty() ? fileSize32 : offsets.front();
  if (whole) {
    g.lead_ = bytes(dataStart, leadEnd);
    g.tail_ = bytes(fileSize32, size);
  } else {
    g.leadSpan_ = {dataStart, leadEnd - dataStart};
    g.tailSpan_ = {fileSize32, size - fileSize32};
  }
  size_t k = 0;
  for (MAFolder& f : g.folders_)
    for (MAVariable& m : f.members) {
      const uint32_t end = k + 1 < offsets.size() ? offsets[k + 1] : fileSize32;
      if (whole) {
        m.data = bytes(offsets[k], end);
      } else {
        m.sourceAt = offsets[k];
        m.sourceLength = end - offsets[k];
      }
      ++k;
    }
  out = std::move(g);
  return R::Ok();
}

size_t MAGroup::MemberCount() const {
  size_t n = 0;
  for (const MAFolder& f : folders_) n += f.members.size();
  return n - removed_;
}

size_t MAGroup::EntryCount() const { return folders_.size() - gone_ + MemberCount(); }

bool MAGroup::InsertFirst(size_t folder, MAVariable variable) {
  if (folder >= folders_.size() || folders_[folder].Live() >= kMaxEntries ||
      EntryCount() + 1 > kMaxEntries)
    return false;
  folders_[folder].members.push_front(std::move(variable));
  return true;
}

bool MAGroup::AppendFolder(const NameField& name, MAVariable variable) {
  if (EntryCount() + 2 > kMaxEntries) return false;
  MAFolder folder;
  folder.name = name;
  folder.members.push_back(std::move(variable));
  folders_.push_back(std::move(folder));
  return true;
}

void MAGroup::MarkRemoved(size_t folder, MAVariable& member) {
  if (member.removed) return;
  member.removed = true;
  ++removed_;
  MAFolder& f = folders_[folder];
  ++f.removed;
  if (f.Gone()) ++gone_;
  // What the delete does with bytes after the old size: they join the last block left.
  if (tail_.empty() && tailSpan_.length == 0) return;
  MAVariable* last = nullptr;
  for (auto fi = folders_.rbegin(); fi != folders_.rend() && last == nullptr; ++fi)
    for (auto mi = fi->members.rbegin(); mi != fi->members.rend(); ++mi)
      if (!mi->removed) {
        last = &*mi;
        break;
      }
  if (last != nullptr) JoinTail(last->data, last->trail);
  else JoinTail(lead_, leadTrail_);
}

void MAGroup::JoinTail(std::vector<unsigned char>& data, MASpan& trail) {
  data.insert(data.end(), tail_.begin(), tail_.end());
  tail_.clear();
  if (tailSpan_.length != 0) trail = tailSpan_;  // a block is joined by the tail once at most
  tailSpan_ = {};
}

bool MAGroup::DropRemoved() {
  if (removed_ == 0) return false;
  removed_ = 0;
  gone_ = 0;
  RemoveMembersIf([](const MAFolder&, const MAVariable& m) { return m.removed; });
  for (MAFolder& f : folders_) f.removed = 0;
  return true;
}

void MAGroup::AfterRemoval(size_t dropped) {
  // A delete writes the real file length into the size field, so bytes that stood after the
  // old size become part of the last block.
  if (dropped == 0 || (tail_.empty() && tailSpan_.length == 0)) return;
  MAVariable* last = nullptr;
  for (MAFolder& f : folders_)
    if (!f.members.empty()) last = &f.members.back();
  if (last != nullptr) JoinTail(last->data, last->trail);
  else JoinTail(lead_, leadTrail_);
}

bool MAGroup::Head(std::vector<unsigned char>& out, uint64_t& fileSize) const {
  const size_t count = EntryCount();
  if (count > kMaxEntries) return false;
  const size_t dataStart = kMATableOffset + kMAEntrySize * count + 6;
  fileSize = dataStart + LeadSize();
  for (const MAFolder& f : folders_) {
    if (f.Live() > kMaxEntries) return false;
    for (const MAVariable& m : f.members)
      if (!m.removed) fileSize += m.Size();
  }
  if (fileSize > UINT32_MAX) return false;

  out.assign(dataStart, 0);
  Writer w(out);
  w.Put(signature_);
  w.Put(defaultFolder_);
  w.Put(comment_);
  w.Put16(static_cast<uint16_t>(count));
  // A folder entry points at the data that follows it: its first member's block, or for an
  // empty folder the next folder's data, or the file size when nothing follows.
  uint32_t at = static_cast<uint32_t>(dataStart + LeadSize());
  for (const MAFolder& f : folders_) {
    if (f.Gone()) continue;
    MAEntryFields entry;
    entry.name = f.name;
    entry.type = kMAFolderType;
    entry.attribute = f.attribute;
    WriteLE16(entry.extra.data(), static_cast<uint16_t>(f.Live()));
    WriteEntry(w.Take(kMAEntrySize), at, entry);
    for (const MAVariable& m : f.members) {
      if (m.removed) continue;
      WriteEntry(w.Take(kMAEntrySize), at, m.fields);
      at += static_cast<uint32_t>(m.Size());
    }
  }
  w.Put32(static_cast<uint32_t>(fileSize));
  w.Put(marker_);
  return true;
}

bool MAGroup::Serialize(std::vector<unsigned char>& out) const {
  uint64_t fileSize = 0;
  if (!Head(out, fileSize)) return false;
  out.reserve(static_cast<size_t>(fileSize) + tail_.size());
  out.insert(out.end(), lead_.begin(), lead_.end());
  for (const MAFolder& f : folders_)
    for (const MAVariable& m : f.members)
      if (!m.removed) out.insert(out.end(), m.data.begin(), m.data.end());
  out.insert(out.end(), tail_.begin(), tail_.end());
  return true;
}

MAGroup::WriteEnd MAGroup::WriteTo(fs::File& out, fs::File* source) const {
  std::vector<unsigned char> head;
  uint64_t fileSize = 0;
  if (!Head(head, fileSize)) return WriteEnd::kTooLarge;
  const auto put = [&](const std::vector<unsigned char>& bytes) {
    return out.Write(bytes.data(), bytes.size()) ? WriteEnd::kDone : WriteEnd::kWriteFailed;
  };
  const auto copy = [&](MASpan span) {
    if (span.length == 0) return WriteEnd::kDone;
    if (source == nullptr) return WriteEnd::kShortRead;
    switch (fs::CopyRange(*source, span.at, span.length, out)) {
      case fs::CopyEnd::kDone: return WriteEnd::kDone;
      case fs::CopyEnd::kShortRead: return WriteEnd::kShortRead;
      case fs::CopyEnd::kWriteFailed: break;
    }
    return WriteEnd::kWriteFailed;
  };
  // The pieces in the order they are written; the first that fails ends the write.
  WriteEnd end = put(head);
  const auto then = [&end](WriteEnd next) {
    if (end == WriteEnd::kDone) end = next;
    return end == WriteEnd::kDone;
  };
  if (!then(copy(leadSpan_)) || !then(put(lead_)) || !then(copy(leadTrail_))) return end;
  for (const MAFolder& f : folders_)
    for (const MAVariable& m : f.members) {
      if (m.removed) continue;
      if (!then(copy({m.sourceAt, m.sourceLength})) || !then(put(m.data)) || !then(copy(m.trail)))
        return end;
    }
  then(put(tail_));
  then(copy(tailSpan_));
  return end;
}

}  // namespace qx
