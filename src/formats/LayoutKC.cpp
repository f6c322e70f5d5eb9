#include "formats/LayoutKC.h"

#include <algorithm>
#include <cstring>

#include "platform/ByteOrder.h"
#include "platform/StreamCopy.h"
#include "formats/DeviceFamily.h"
#include "formats/GroupKind.h"

namespace qx {

namespace {

// Offsets inside an entry.
constexpr size_t kEntryType = 4;  // after h and the 2 uninterpreted header bytes
constexpr size_t kEntryName = 5;
constexpr size_t kEntryDataLength = 13;  // right after the name field
constexpr size_t kKDXExtraHeader = 2;

// The fixed fields of the entry whose header `e` points at, `pos` bytes into the data section.
KCEntryView DecodeEntry(const uint8_t* e, uint64_t pos, size_t dAt) {
  KCEntryView v;
  v.offset = static_cast<size_t>(kKCDataOffset + pos);
  v.headerLength = ReadLE16(e);
  v.type = KCReducedType(e[kEntryType]);
  v.name = ReadNameField(e + kEntryName);
  v.dataLength = ReadLE16(e + dAt);
  return v;
}

// Walks entries in `bytes`, which start at file offset 55 and end where reads must stop.
KCWalk WalkEntries(std::span<const unsigned char> bytes, uint32_t dataLength, bool kdx) {
  KCWalk walk;
  walk.dataLength = dataLength;
  if (dataLength == 0) return walk;
  const size_t dAt = kEntryDataLength + (kdx ? kKDXExtraHeader : 0);
  size_t pos = 0;
  for (;;) {
    if (pos + dAt + 2 > bytes.size()) {
      walk.truncated = true;
      break;
    }
    const unsigned char* e = &bytes[pos];
    const KCEntryView& v = walk.entries.emplace_back(DecodeEntry(e, pos, dAt));

    // The step uses h to find d, so headers of other lengths are still walked.
    const size_t stepAt = pos + 2 + v.headerLength;
    if (stepAt + 2 > bytes.size()) {
      walk.truncated = true;
      break;
    }
    pos = stepAt + 2 + ReadLE16(&bytes[stepAt]);
    if (pos >= dataLength) break;
  }
  return walk;
}

bool IsKDX(std::string_view familySignature) { return familySignature == kSigKDX; }

uint16_t StoredDataLength(size_t length) {
  return length >= 65536 ? 0 : static_cast<uint16_t>(length);
}

void Append(std::vector<unsigned char>& out, std::span<const unsigned char> bytes) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}

void Append16(std::vector<unsigned char>& out, uint16_t v) {
  unsigned char b[2];
  WriteLE16(b, v);
  Append(out, b);
}

}  // namespace

uint16_t KCChecksum(std::span<const unsigned char> bytes) {
  uint32_t sum = 0;
  for (unsigned char c : bytes) sum += c;
  return static_cast<uint16_t>(sum);
}

uint8_t KCReducedType(uint8_t typeByte) { return typeByte == 0x24 ? 0x24 : typeByte & 0x1F; }

uint32_t KCDataLength(std::span<const unsigned char> file) {
  if (file.size() < kKCDataOffset) return 0;
  return KCEffectiveDataLength(ReadLE16(&file[kKCDataLengthOffset]), file.size());
}

bool KCSectionHoldsMoreThanFirstEntry(std::span<const unsigned char> file) {
  return KCSectionHoldsMoreThanFirstEntry(file, file.size());
}

bool KCSectionHoldsMoreThanFirstEntry(std::span<const unsigned char> head, uint64_t fileSize) {
  if (fileSize < kKCDataOffset + 4 || head.size() < kKCDataOffset + 4) return false;
  const uint32_t h = ReadLE16(&head[kKCDataOffset]), x = ReadLE16(&head[kKCDataOffset + 2]);
  return KCEffectiveDataLength(ReadLE16(&head[kKCDataLengthOffset]), fileSize) > h + x + 4;
}

// ---- Reading ---------------------------------------------------------------------------------

KCWalk WalkKCGroup(std::span<const unsigned char> file, std::string_view familySignature) {
  if (file.size() < kKCDataOffset) {
    KCWalk walk;
    walk.truncated = true;
    return walk;
  }
  return WalkEntries(file.subspan(kKCDataOffset), KCDataLength(file), IsKDX(familySignature));
}

KCWalk WalkKCSection(std::span<const unsigned char> section, std::string_view familySignature) {
  return WalkEntries(section, static_cast<uint32_t>(section.size()), IsKDX(familySignature));
}

std::optional<std::span<const unsigned char>> KCEntryBytes(std::span<const unsigned char> file,
                                                           const KCEntryView& entry) {
  if (entry.offset > file.size() || entry.Size() > file.size() - entry.offset) return std::nullopt;
  return file.subspan(entry.offset, entry.Size());
}

std::optional<std::span<const unsigned char>> KCFileEntries(std::span<const unsigned char> file) {
  if (file.size() < kKCDataOffset) return std::nullopt;
  const size_t length = ReadLE16(&file[kKCDataLengthOffset]);
  if (length > file.size() - kKCDataOffset) return std::nullopt;
  return file.subspan(kKCDataOffset, length);
}

std::vector<unsigned char> BuildKCSingleFile(std::string_view signature,
                                             std::span<const unsigned char> entry) {
  std::vector<unsigned char> out;
  out.reserve(kKCEmptyFileSize + entry.size());
  Append(out, PaddedField<kKCSignatureSize>(signature));
  out.resize(kKCDataLengthOffset, 0);  // empty comment
  Append16(out, StoredDataLength(entry.size()));
  Append(out, entry);
  Append16(out, KCChecksum(entry));
  return out;
}

// ---- Groups for adding and deleting ----------------------------------------------------------

KCGroup KCGroup::NewEmpty(std::string_view signature, std::string_view comment) {
  KCGroup g;
  g.signature_ = PaddedField<kKCSignatureSize>(signature);
  g.comment_ = PaddedField<kKCCommentSize>(comment);
  return g;
}

LayoutResult KCGroup::Parse(std::span<const unsigned char> file, KCGroup& out) {
  using R = LayoutResult;
  if (file.size() < kKCDataOffset) return R::Fail(R::kTruncated, file.size(), "shorter than a group header");
  const size_t length = KCDataLength(file);
  if (length > file.size() - kKCDataOffset)
    return R::Fail(R::kTruncated, kKCDataLengthOffset, "data section runs past the end of the file");
  KCGroup g;
  std::memcpy(g.signature_.data(), file.data(), kKCSignatureSize);
  std::memcpy(g.comment_.data(), &file[kKCCommentOffset], kKCCommentSize);
  const auto section = file.subspan(kKCDataOffset, length);
  g.section_.assign(section.begin(), section.end());
  const size_t afterChecksum = kKCDataOffset + length + 2;
  if (afterChecksum < file.size()) g.after_.assign(file.begin() + static_cast<ptrdiff_t>(afterChecksum), file.end());
  out = std::move(g);
  return R::Ok();
}

LayoutResult KCGroup::ParseHead(std::span<const unsigned char> head, uint64_t fileSize,
                               KCGroup& out) {
  using R = LayoutResult;
  if (fileSize < kKCDataOffset || head.size() < kKCDataOffset)
    return R::Fail(R::kTruncated, fileSize, "shorter than a group header");
  const uint64_t length = KCEffectiveDataLength(ReadLE16(&head[kKCDataLengthOffset]), fileSize);
  if (length > fileSize - kKCDataOffset)
    return R::Fail(R::kTruncated, kKCDataLengthOffset, "data section runs past the end of the file");
  KCGroup g;
  std::memcpy(g.signature_.data(), head.data(), kKCSignatureSize);
  std::memcpy(g.comment_.data(), &head[kKCCommentOffset], kKCCommentSize);
  g.sourceLength_ = length;
  const uint64_t afterChecksum = kKCDataOffset + length + 2;
  if (afterChecksum < fileSize) g.afterSpan_ = {afterChecksum, fileSize - afterChecksum};
  out = std::move(g);
  return R::Ok();
}

namespace {

// WalkEntries over a file: the entries from offset 55 while below `length`, reads ending at
// `available` bytes after 55.
std::optional<KCWalk> WalkOpenFile(fs::File& source, uint64_t length, uint64_t available,
                                   bool kdx) {
  KCWalk walk;
  walk.dataLength = static_cast<uint32_t>(length);
  if (length == 0) return walk;
  const size_t dAt = kEntryDataLength + (kdx ? kKDXExtraHeader : 0);
  unsigned char e[kEntryDataLength + kKDXExtraHeader + 2];
  const auto read = [&](uint64_t at, unsigned char* into, size_t n) {
    return source.Seek(kKCDataOffset + at) && source.Read(into, n) == n;
  };
  uint64_t pos = 0;
  for (;;) {
    if (pos + dAt + 2 > available) {
      walk.truncated = true;
      break;
    }
    if (!read(pos, e, dAt + 2)) return std::nullopt;
    const KCEntryView& v = walk.entries.emplace_back(DecodeEntry(e, pos, dAt));
    const uint64_t stepAt = pos + 2 + v.headerLength;
    if (stepAt + 2 > available) {
      walk.truncated = true;
      break;
    }
    unsigned char step[2];
    if (stepAt + 2 <= pos + dAt + 2) std::memcpy(step, e + (stepAt - pos), 2);  // read already
    else if (!read(stepAt, step, 2)) return std::nullopt;
    pos = stepAt + 2 + ReadLE16(step);
    if (pos >= length) break;
  }
  return walk;
}

}  // namespace

std::optional<KCWalk> WalkKCFile(fs::File& file, uint64_t fileSize, std::string_view familySignature) {
  unsigned char head[kKCDataOffset];
  if (fileSize < kKCDataOffset) {
    KCWalk walk;
    walk.truncated = true;
    return walk;
  }
  if (!file.Seek(0) || file.Read(head, sizeof head) != sizeof head) return std::nullopt;
  const uint64_t length = KCEffectiveDataLength(ReadLE16(&head[kKCDataLengthOffset]), fileSize);
  return WalkOpenFile(file, length, fileSize - kKCDataOffset, IsKDX(familySignature));
}

std::optional<KCWalk> KCGroup::WalkSource(fs::File& source, std::string_view familySignature) const {
  return WalkOpenFile(source, sourceLength_, sourceLength_, IsKDX(familySignature));
}

bool KCGroup::Materialize(fs::File& source) {
  if (sourceLength_ == 0) return true;
  if (sourceLength_ > SIZE_MAX) return false;
  std::vector<unsigned char> section(static_cast<size_t>(sourceLength_));
  if (!source.Seek(kKCDataOffset) || source.Read(section.data(), section.size()) != section.size())
    return false;
  section.insert(section.end(), section_.begin(), section_.end());
  section_ = std::move(section);
  sourceLength_ = 0;
  return true;
}

std::vector<KCEntryView> KCGroup::Entries(std::string_view familySignature) const {
  return Walk(familySignature).entries;
}

KCWalk KCGroup::Walk(std::string_view familySignature) const {
  return WalkEntries(section_, DataLength(), IsKDX(familySignature));
}

void KCGroup::AppendEntries(std::span<const unsigned char> entries) {
  Append(section_, entries);
  appended_ += entries.size();
}

void KCGroup::Rewrite(std::string_view familySignature, std::vector<unsigned char> section) {
  marked_.clear();
  markedBytes_ = 0;
  RewriteHeader(familySignature);
  section_ = std::move(section);
}

void KCGroup::RewriteHeader(std::string_view familySignature) {
  signature_ = PaddedField<kKCSignatureSize>(familySignature);
  after_.clear();
  afterSpan_ = {};
  appended_ = 0;
}

void KCGroup::MarkRemoved(std::string_view familySignature, size_t at, size_t size) {
  if (marked_.empty()) RewriteHeader(familySignature);  // what Rewrite does
  marked_.emplace_back(at, size);
  markedBytes_ += size;
}

std::vector<unsigned char> KCGroup::KeptSection() const {
  std::vector<std::pair<size_t, size_t>> marks = marked_;
  std::sort(marks.begin(), marks.end());
  std::vector<unsigned char> kept;
  kept.reserve(section_.size() - markedBytes_);
  size_t from = 0;
  for (const auto& [at, size] : marks) {
    kept.insert(kept.end(), section_.begin() + static_cast<ptrdiff_t>(from),
                section_.begin() + static_cast<ptrdiff_t>(at));
    from = at + size;
  }
  kept.insert(kept.end(), section_.begin() + static_cast<ptrdiff_t>(from), section_.end());
  return kept;
}

void KCGroup::DropMarked() {
  if (marked_.empty()) return;
  section_ = KeptSection();
  marked_.clear();
  markedBytes_ = 0;
}

std::vector<unsigned char> KCGroup::Serialize() const {
  const size_t keptAfter = after_.size() - std::min(appended_, after_.size());
  const std::vector<unsigned char> kept = marked_.empty() ? std::vector<unsigned char>() : KeptSection();
  const std::vector<unsigned char>& section = marked_.empty() ? section_ : kept;
  std::vector<unsigned char> out;
  out.reserve(kKCEmptyFileSize + section.size() + keptAfter);
  Append(out, signature_);
  Append(out, comment_);
  Append16(out, StoredDataLength(section.size()));
  Append(out, section);
  Append16(out, KCChecksum(section));
  Append(out, std::span(after_).last(keptAfter));
  return out;
}

KCGroup::WriteEnd KCGroup::WriteTo(fs::File& out, fs::File* source) const {
  const uint64_t afterLength = after_.size() + afterSpan_.second;
  const uint64_t keptAfter = afterLength - std::min<uint64_t>(appended_, afterLength);
  unsigned char head[kKCDataOffset];
  std::memcpy(head, signature_.data(), kKCSignatureSize);
  std::memcpy(head + kKCCommentOffset, comment_.data(), kKCCommentSize);
  WriteLE16(head + kKCDataLengthOffset, StoredDataLength(DataLength() - markedBytes_));
  if (!out.Write(head, sizeof head)) return WriteEnd::kWriteFailed;

  // The kept runs of the section, summed on the way for the checksum that follows them.
  uint32_t sum = 0;
  std::vector<unsigned char> buffer;
  const auto copy = [&](uint64_t at, uint64_t length, bool summed) {
    if (length == 0) return WriteEnd::kDone;
    if (source == nullptr || !source->Seek(at)) return WriteEnd::kShortRead;
    buffer.resize(static_cast<size_t>(std::min<uint64_t>(length, fs::kCopyChunkSize)));
    while (length > 0) {
      const size_t n = static_cast<size_t>(std::min<uint64_t>(length, buffer.size()));
      if (source->Read(buffer.data(), n) != n) return WriteEnd::kShortRead;
      if (summed)
        for (size_t i = 0; i < n; ++i) sum += buffer[i];
      if (!out.Write(buffer.data(), n)) return WriteEnd::kWriteFailed;
      length -= n;
    }
    return WriteEnd::kDone;
  };
  const auto put = [&](uint64_t from, uint64_t to) {  // section offsets
    if (from < sourceLength_) {
      const uint64_t end = std::min(to, sourceLength_);
      if (const WriteEnd e = copy(kKCDataOffset + from, end - from, true); e != WriteEnd::kDone) return e;
      from = end;
    }
    if (from >= to) return WriteEnd::kDone;
    const auto bytes = std::span(section_).subspan(static_cast<size_t>(from - sourceLength_),
                                                   static_cast<size_t>(to - from));
    for (unsigned char c : bytes) sum += c;
    return out.Write(bytes.data(), bytes.size()) ? WriteEnd::kDone : WriteEnd::kWriteFailed;
  };
  std::vector<std::pair<size_t, size_t>> marks = marked_;
  std::sort(marks.begin(), marks.end());
  uint64_t from = 0;
  for (const auto& [at, size] : marks) {
    if (const WriteEnd e = put(from, at); e != WriteEnd::kDone) return e;
    from = at + size;
  }
  if (const WriteEnd e = put(from, DataLength()); e != WriteEnd::kDone) return e;
  unsigned char checksum[2];
  WriteLE16(checksum, static_cast<uint16_t>(sum));
  if (!out.Write(checksum, sizeof checksum)) return WriteEnd::kWriteFailed;
  if (keptAfter == 0) return WriteEnd::kDone;
  if (afterSpan_.second > 0)
    return copy(afterSpan_.first + afterSpan_.second - keptAfter, keptAfter, false);
  const auto tail = std::span(after_).last(static_cast<size_t>(keptAfter));
  return out.Write(tail.data(), tail.size()) ? WriteEnd::kDone : WriteEnd::kWriteFailed;
}

}  // namespace qx
