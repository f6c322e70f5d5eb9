// The MA-style layout (families MA, NA, NBX, ra, HWL): a 60-byte header, a table of 16-byte
// entries (folders, each followed by its variables), the file size, a 2-byte marker and the
// variables' data blocks in table order.
//
//   0  signature (10)   10 default folder (8)   18 comment (40)   58 entry count (2)
//   60 entries: data offset (4), name (8), type (1), attribute (1), member count / extra (2)
//   60 + 16n  file size (4)    64 + 16n  marker (2)    66 + 16n  data blocks
//
// Two views of a group file held in memory:
// - WalkMAGroup: the members as listing, finding and extraction see them, tolerant of damage
//   (a read past the end ends the walk; the members before it stand).
// - MAGroup: a parsed table for adding and deleting; mutated in memory and written once.
//
//   MAGroup g;
//   if (!MAGroup::Parse(groupBytes, g)) ...           // refused: damaged or not a group
//   MASingleFile f;  ParseMASingleFile(fileBytes, f);
//   g.InsertFirst(i, {f.fields, {f.data.begin(), f.data.end()}});   // or AppendFolder(name, ...)
//   g.RemoveMembersIf([&](const MAFolder& f, const MAVariable& m) { return ...; });
//   std::vector<unsigned char> out;  g.Serialize(out);   // then one write through a TempFile
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "formats/LayoutResult.h"
#include "formats/NameField.h"
#include "platform/fs.h"

namespace qx {

inline constexpr size_t kMASignatureSize = 10;
inline constexpr size_t kMAFolderOffset = 10;
inline constexpr size_t kMACommentOffset = 18;
inline constexpr size_t kMACommentSize = 40;
inline constexpr size_t kMACountOffset = 58;
inline constexpr size_t kMATableOffset = 60;
inline constexpr size_t kMAEntrySize = 16;
inline constexpr uint8_t kMAFolderType = 0x1F;
// Header, one entry, file size and marker: where the data starts in a one-entry file.
inline constexpr uint32_t kMAOneEntryDataOffset = 0x52;

using MASignatureField = std::array<unsigned char, kMASignatureSize>;
using MACommentField = std::array<unsigned char, kMACommentSize>;
using MAMarker = std::array<unsigned char, 2>;

inline constexpr MAMarker kMANewGroupMarker{0x5A, 0xA5};
inline constexpr MAMarker kMASingleFileMarker{0xA5, 0x5A};

// The 12 bytes of a variable entry after its data offset; copied, never interpreted.
struct MAEntryFields {
  NameField name{};
  uint8_t type = 0;
  uint8_t attribute = 0;
  std::array<unsigned char, 2> extra{};
};

// ---- Reading ---------------------------------------------------------------------------------

// One variable entry as the walk meets it.
struct MAMemberView {
  size_t entryOffset = 0;  // where its 16-byte entry starts
  NameField folder{};      // the current folder: the default folder, then the last folder entry
  uint32_t dataOffset = 0;
  MAEntryFields fields;
  uint32_t blockEnd = 0;  // the next 4-byte offset field (next entry's, or the file size)

  // Next offset field minus own offset. Wraps when a damaged file has them backwards.
  uint32_t BlockLength() const { return blockEnd - dataOffset; }
};

struct MAWalk {
  enum End {
    kTableEnd,          // the position reached (first data offset - 6), or no first member
    kStepFailed,        // the next entry's name and type lie past the end of the file
    kMemberUnreadable,  // a variable entry or its block end lies past the end of the file
  };
  std::vector<MAMemberView> members;  // in table order
  End end = kTableEnd;
};

// Walks the table from offset 60 until the position reaches (first data offset - 6), the end
// of the table in a well-formed file; folder entries set the current folder. No members when
// the first data offset lies beyond the file. Never reads outside `file`.
MAWalk WalkMAGroup(std::span<const unsigned char> file);
// The same walk over the first bytes of a file of `fileSize` bytes: `head` holds at least the
// MAWalkExtent(head, fileSize) bytes the walk reads, so the table is read without the data.
MAWalk WalkMAGroup(std::span<const unsigned char> head, uint64_t fileSize);
// How many leading bytes of the file the walk reads, from the first 64 bytes (or all of a
// shorter file): the table up to the first data offset, never more than the file.
uint64_t MAWalkExtent(std::span<const unsigned char> first64, uint64_t fileSize);

// The member's data block; nullopt when it does not lie wholly inside the file.
std::optional<std::span<const unsigned char>> MABlock(std::span<const unsigned char> file,
                                                      const MAMemberView& member);

// A group when the default folder field is empty (first byte 0); nullopt when the file is too
// short to hold it.
std::optional<bool> MAIsGroup(std::span<const unsigned char> file);

// The looser test of adding and deleting: first byte 0, or the 8 bytes add up to 0 mod 256.
bool MADefaultFolderCountsAsEmpty(const NameField& folder);

// ---- Single-variable files -------------------------------------------------------------------

struct MASingleFile {
  MASignatureField signature{};
  NameField folder{};  // the variable's folder; empty when the file is really a group
  MAEntryFields fields;
  std::span<const unsigned char> data;  // (file size - 0x52) bytes from 0x52, inside the input
};

// Reads the header fields at their one-entry places and the data from 0x52 up to the file size
// field. Fails when the file is shorter than 0x52 or the size field is below 0x52 or beyond the
// end of the file.
LayoutResult ParseMASingleFile(std::span<const unsigned char> file, MASingleFile& out);

// The 0x52 bytes that precede the data of a single-variable file holding `dataLength` bytes.
std::vector<unsigned char> BuildMASingleFileHeader(std::string_view signature,
                                                   const NameField& folder,
                                                   const MAEntryFields& fields,
                                                   uint32_t dataLength);

// A single-variable file: signature padded to 10 bytes, folder, 40 zero bytes, count 1, data
// offset 0x52, the entry fields, file size 0x52 + data, marker A5 5A, data.
std::vector<unsigned char> BuildMASingleFile(std::string_view signature, const NameField& folder,
                                             const MAEntryFields& fields,
                                             std::span<const unsigned char> data);

// ---- Groups for adding and deleting ----------------------------------------------------------

// A run of bytes left in the group file, copied across when the new file is written.
struct MASpan {
  uint64_t at = 0;
  uint64_t length = 0;
};

struct MAVariable {
  MAEntryFields fields;
  std::vector<unsigned char> data;  // held in memory; follows the bytes left in the group file
  bool removed = false;             // marked by MarkRemoved: neither counted nor written
  uint64_t sourceAt = 0;            // where the bytes left in the group file start
  uint32_t sourceLength = 0;        // how many there are (0 for data held whole)
  MASpan trail{};                   // bytes from after the old file size that joined the block

  uint64_t Size() const { return sourceLength + data.size() + trail.length; }
};

struct MAFolder {
  NameField name{};
  uint8_t attribute = 0;
  std::deque<MAVariable> members;  // the member count field is written from the unmarked ones
  size_t removed = 0;              // members marked removed

  size_t Live() const { return members.size() - removed; }
  // Had members and has none left unmarked: gone, as a delete drops it.
  bool Gone() const { return !members.empty() && removed == members.size(); }
};

// A group table with its data, parsed so that adding and deleting happen in memory and the file
// is written once. Serialize writes what the step-by-step rewrites through a temporary file
// write: every data offset recomputed from the blocks' new places, folder entries pointing at
// their first member (an empty folder at the data that follows it, or the file size), and the
// signature, default folder, comment, marker, attributes and extra bytes as they were.
class MAGroup {
 public:
  // A new empty group: the folder "main" with no members, marker 5A A5 (0x52 bytes).
  static MAGroup NewEmpty(std::string_view signature, std::string_view comment);

  // Parses a group for changing. Refuses (with where and why): a short file, a default folder
  // that is not empty by the looser test, a table whose entries are not folders each followed
  // by their members, member data offsets that go backwards or leave [table end, file size],
  // and a file size field past the end of the file.
  static LayoutResult Parse(std::span<const unsigned char> file, MAGroup& out);
  // The same, from the first TableExtent bytes of a file of `fileSize` bytes: the members' data
  // and the bytes outside any block stay in the file, copied across by WriteTo.
  static LayoutResult ParseTable(std::span<const unsigned char> head, uint64_t fileSize,
                                 MAGroup& out);
  // How many leading bytes ParseTable needs, from the first 60 (or all of a shorter file).
  static uint64_t TableExtent(std::span<const unsigned char> first60, uint64_t fileSize);

  std::vector<MAFolder>& folders() { return folders_; }
  const std::vector<MAFolder>& folders() const { return folders_; }
  size_t EntryCount() const;
  size_t MemberCount() const;

  // Puts a variable first in folder `folder`, so its data precedes that of the folder's former
  // first member. False (nothing changed) when a count would overflow.
  bool InsertFirst(size_t folder, MAVariable variable);
  // Appends a folder (type 0x1F, attribute 0) holding the one variable, at the end of the table
  // with its data at the end of the data. False when the entry count would overflow.
  bool AppendFolder(const NameField& name, MAVariable variable);
  // Marks one member of folder `folder` as deleted, with the outcome of dropping it through
  // RemoveMembersIf, but without touching any other member: a replacement costs O(1).
  void MarkRemoved(size_t folder, MAVariable& member);
  // Drops the marked members (and the folders gone with them) for good; the bytes written stay
  // the same.
  // True when there were any.
  bool DropRemoved();
  // Drops every member for which drop(folder, member) is true, and every folder that had members
  // and has none left. Returns the number of members dropped. Marked members must be dropped
  // first (DropRemoved).
  template <typename Pred>
  size_t RemoveMembersIf(Pred&& drop);

  // The whole file. False when it would not fit the 16- and 32-bit fields. For a group parsed
  // with Parse (all data in memory).
  bool Serialize(std::vector<unsigned char>& out) const;
  // Writes the whole file to `out`, copying data left in the group file from `source` in
  // chunks. kTooLarge when it would not fit the fields; kShortRead when the source no longer
  // holds the bytes (it shrank); kWriteFailed when `out` did not take them.
  enum class WriteEnd { kDone, kTooLarge, kShortRead, kWriteFailed };
  WriteEnd WriteTo(fs::File& out, fs::File* source) const;

 private:
  void AfterRemoval(size_t dropped);
  static LayoutResult ParseFrom(std::span<const unsigned char> head, uint64_t fileSize,
                                bool whole, MAGroup& out);
  // The header, table, file size and marker; false when they would not fit the fields.
  bool Head(std::vector<unsigned char>& out, uint64_t& fileSize) const;

  size_t removed_ = 0;  // members marked removed, in all folders
  size_t gone_ = 0;     // folders gone with them

  MASignatureField signature_{};
  NameField defaultFolder_{};
  MACommentField comment_{};
  MAMarker marker_{};
  std::vector<MAFolder> folders_;
  // Makes the bytes after the old file size part of the block of `data` and `trail`.
  void JoinTail(std::vector<unsigned char>& data, MASpan& trail);
  uint64_t LeadSize() const { return leadSpan_.length + lead_.size() + leadTrail_.length; }

  // Bytes between the end of the table and the first block, and after the file size: kept
  // where the step-by-step copy of the data area would keep them. Held in memory for a group
  // parsed whole, left in the file (the spans) for one parsed by its table.
  MASpan leadSpan_;
  std::vector<unsigned char> lead_;
  MASpan leadTrail_;
  std::vector<unsigned char> tail_;
  MASpan tailSpan_;
};

template <typename Pred>
size_t MAGroup::RemoveMembersIf(Pred&& drop) {
  size_t dropped = 0;
  std::vector<MAFolder> kept;
  kept.reserve(folders_.size());
  for (MAFolder& f : folders_) {
    const size_t before = f.members.size();
    std::deque<MAVariable> stay;
    for (MAVariable& m : f.members) {
      if (drop(static_cast<const MAFolder&>(f), static_cast<const MAVariable&>(m)))
        ++dropped;
      else
        stay.push_back(std::move(m));
    }
    f.members = std::move(stay);
    if (before == 0 || !f.members.empty()) kept.push_back(std::move(f));
  }
  folders_ = std::move(kept);
  AfterRemoval(dropped);
  return dropped;
}

}  // namespace qx
