// The KC-style layout (families KA, KB, KC, KDX, KF): a 55-byte header, one data section of
// variable entries back to back, and a 16-bit checksum of the section.
//
//   0  signature (11)   11 comment (42)   53 data length (2; 0 when 65536 or more)
//   55 entries: h (2), header (h: 2 bytes, type, name (8), KDX: 2 more), d (2), data (d)
//   55 + data length   checksum (2): sum of the section's bytes mod 65536
//
// As for the MA-style layout, two views: WalkKCGroup for listing, finding and extracting, and
// KCGroup for adding and deleting, written once. A KCGroup read by its header leaves the section
// in the file; deletes mark entries, and WriteTo copies what stays across in chunks.
//
//   KCGroup g;
//   if (!KCGroup::ParseHead(first55, fileSize, g)) ...      // or Parse(groupBytes, g): in memory
//   auto walk = g.WalkSource(groupFile, familySignature);
//   if (auto entries = KCFileEntries(fileBytes)) g.AppendEntries(*entries);
//   g.MarkRemoved(familySignature, offsetInSection, size);
//   g.WriteTo(tempFile, &groupFile);
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "formats/LayoutResult.h"
#include "formats/NameField.h"
#include "platform/fs.h"

namespace qx {

inline constexpr size_t kKCSignatureSize = 11;
inline constexpr size_t kKCCommentOffset = 11;
inline constexpr size_t kKCCommentSize = 42;
inline constexpr size_t kKCDataLengthOffset = 53;
inline constexpr size_t kKCDataOffset = 55;
// Header and checksum: the size of a group with an empty data section.
inline constexpr size_t kKCEmptyFileSize = 57;

// Sum of the bytes mod 65536.
uint16_t KCChecksum(std::span<const unsigned char> bytes);

// The type byte as names are made from it: its low 5 bits, except 0x24, which stays.
//   0x45 => 0x05    0x24 => 0x24    0x3F => 0x1F
uint8_t KCReducedType(uint8_t typeByte);

// The effective data length: the stored length, or for a stored 0 in a file of 65536 bytes or
// more, the file length minus 57. 0 when the file is too short to hold the field.
uint32_t KCDataLength(std::span<const unsigned char> file);

// The group test of the KC-style layout, before any look at the extension: the data section
// holds more than its first entry (data length > h + x + 4, with h and x the 16-bit fields at 55
// and 57). False when the file is too short to hold them.
bool KCSectionHoldsMoreThanFirstEntry(std::span<const unsigned char> file);
// The same test from the file's first 59 bytes (or fewer) and its size.
bool KCSectionHoldsMoreThanFirstEntry(std::span<const unsigned char> head, uint64_t fileSize);

// ---- Reading ---------------------------------------------------------------------------------

// One entry as the walk meets it. Type, name and d are read at their fixed places (h = 11, or 13
// in the KDX family); only the step to the next entry uses h.
struct KCEntryView {
  size_t offset = 0;  // where the entry starts
  uint16_t headerLength = 0;
  uint8_t type = 0;  // reduced
  NameField name{};
  uint16_t dataLength = 0;  // d

  // h + d + 4: the entry's bytes, as extraction copies and the contents listing reports them.
  uint32_t Size() const { return uint32_t{headerLength} + dataLength + 4; }
};

struct KCWalk {
  uint32_t dataLength = 0;          // effective
  std::vector<KCEntryView> entries;  // in file order
  bool truncated = false;           // ended by a read past the end of the bytes
};

// Walks the entries from offset 55 while (entry offset - 55) is below the data length; a read
// past the end ends the walk with the entries before it. `familySignature` selects the KDX
// header. Never reads outside `file`.
KCWalk WalkKCGroup(std::span<const unsigned char> file, std::string_view familySignature);
// The same walk over an open group file of `fileSize` bytes, reading each entry's fixed fields
// where it stands (the data is skipped); nullopt when the file no longer holds what its size
// promised (it shrank).
std::optional<KCWalk> WalkKCFile(fs::File& file, uint64_t fileSize, std::string_view familySignature);
// The walk of a data section by itself (its size is its data length); offsets as in a group.
KCWalk WalkKCSection(std::span<const unsigned char> section, std::string_view familySignature);

// The entry's h + d + 4 bytes; nullopt when they run past the end of the file.
std::optional<std::span<const unsigned char>> KCEntryBytes(std::span<const unsigned char> file,
                                                           const KCEntryView& entry);

// What a file contributes when added to a group: the stored data length L at 53 (as stored: a
// file whose field holds 0 adds nothing) and the L bytes from 55. nullopt when they run past
// the end of the file.
std::optional<std::span<const unsigned char>> KCFileEntries(std::span<const unsigned char> file);

// A single-variable file of one entry: signature padded to 11 bytes, 42 zero bytes, the entry's
// size, the entry, its checksum.
std::vector<unsigned char> BuildKCSingleFile(std::string_view signature,
                                             std::span<const unsigned char> entry);

// ---- Groups for adding and deleting ----------------------------------------------------------

// A group's data section with its header, changed in memory and written once. Adding writes the
// new entries where the old checksum stood, as the in-place add does (bytes that stood after
// the old checksum and are not overwritten stay); deleting rewrites the whole file.
class KCGroup {
 public:
  // A new empty group: data length 0, checksum 0 (57 bytes).
  static KCGroup NewEmpty(std::string_view signature, std::string_view comment);
  // Refuses a file shorter than 55 bytes or whose data section runs past its end.
  static LayoutResult Parse(std::span<const unsigned char> file, KCGroup& out);
  // The same from the first 55 bytes (or fewer) of a file of `fileSize` bytes: the data section
  // and the bytes after its checksum stay in the file, walked by WalkSource and copied across by
  // WriteTo, so that memory does not grow with the group.
  static LayoutResult ParseHead(std::span<const unsigned char> head, uint64_t fileSize, KCGroup& out);
  // The walk of the section left in the group file `source`; nullopt when the file no longer
  // holds it (it shrank).
  std::optional<KCWalk> WalkSource(fs::File& source, std::string_view familySignature) const;
  // Reads the section left in `source` into memory, for the changes that walk it as a whole
  // (Entries, RemoveEntriesIf, DropMarked need it); false when it cannot be read.
  bool Materialize(fs::File& source);

  // Marked entries included: where the next appended entry starts in the section.
  uint32_t DataLength() const { return static_cast<uint32_t>(sourceLength_ + section_.size()); }
  // The entries of the data section; offsets are from the start of the file.
  std::vector<KCEntryView> Entries(std::string_view familySignature) const;
  // The walk that gives them, with how it ended.
  KCWalk Walk(std::string_view familySignature) const;

  // Appends entries (whole entries, as KCFileEntries gives them) to the data section.
  void AppendEntries(std::span<const unsigned char> entries);
  // Keeps the entries for which drop(entry) is false, in order, and rewrites the header as a
  // delete does: the signature from `familySignature` padded to 11 bytes, the comment kept,
  // nothing after the checksum. Returns the number dropped; nullopt (nothing changed) when an
  // entry to keep runs past the end of the data section.
  template <typename Pred>
  std::optional<size_t> RemoveEntriesIf(std::string_view familySignature, Pred&& drop);

  // Deletes the entry of `size` bytes at `at` (its offset in the data section: Entries' offset
  // less 55) in O(1): its bytes stay until Serialize leaves them out or DropMarked takes them
  // away; the header changes as RemoveEntriesIf's do. Only for a section whose entries fill it
  // exactly, where leaving an entry out is what RemoveEntriesIf writes.
  void MarkRemoved(std::string_view familySignature, size_t at, size_t size);
  // Takes the marked entries out of the section for good (Entries then no longer meets them).
  void DropMarked();
  // The header as a delete rewrites it: the family's signature, nothing after the checksum.
  void RewriteHeader(std::string_view familySignature);

  // The whole file, for a group held in memory (Parse, NewEmpty or Materialize).
  std::vector<unsigned char> Serialize() const;
  // Writes what Serialize gives to `out`, copying what is left in `source` in chunks.
  // kShortRead when the source no longer holds those bytes (it shrank).
  enum class WriteEnd { kDone, kShortRead, kWriteFailed };
  WriteEnd WriteTo(fs::File& out, fs::File* source) const;

 private:
  void Rewrite(std::string_view familySignature, std::vector<unsigned char> section);
  // The section without the marked entries.
  std::vector<unsigned char> KeptSection() const;

  std::array<unsigned char, kKCSignatureSize> signature_{};
  std::array<unsigned char, kKCCommentSize> comment_{};
  // The section: its first sourceLength_ bytes left in the group file (from offset 55), then
  // section_ in memory.
  uint64_t sourceLength_ = 0;
  std::vector<unsigned char> section_;
  // Bytes after the old checksum, in memory or left in the file (afterSpan_: offset, length);
  // the first `appended_` of them have been written over.
  std::vector<unsigned char> after_;
  std::pair<uint64_t, uint64_t> afterSpan_{};
  size_t appended_ = 0;
  std::vector<std::pair<size_t, size_t>> marked_;  // offset and size of each marked entry
  size_t markedBytes_ = 0;
};

template <typename Pred>
std::optional<size_t> KCGroup::RemoveEntriesIf(std::string_view familySignature, Pred&& drop) {
  DropMarked();
  std::vector<unsigned char> kept;
  kept.reserve(section_.size());
  size_t dropped = 0;
  for (const KCEntryView& e : Entries(familySignature)) {
    if (drop(static_cast<const KCEntryView&>(e))) {
      ++dropped;
      continue;
    }
    const size_t from = e.offset - kKCDataOffset;
    if (from + e.Size() > section_.size()) return std::nullopt;
    kept.insert(kept.end(), section_.begin() + static_cast<ptrdiff_t>(from),
                section_.begin() + static_cast<ptrdiff_t>(from + e.Size()));
  }
  Rewrite(familySignature, std::move(kept));
  return dropped;
}

}  // namespace qx
