// Zip archives as the zip-based groups and packages use them: an archive is read into a list
// of entries, changed in memory, and written back whole by WriteZip.
//
//   VxZip zip;
//   zip.OpenZip("lesson.qxg");                 // or NewZip for an archive not yet on disk
//   auto e = zip.GetEntryByName("sub\\b.kdp");  // handles are owned by the caller
//   VxByteData data;  data.LoadFile("PROG.kdp");
//   zip.AppendData("sub\\PROG.kdp", data);
//   zip.WriteZip();                            // every handle taken before is empty now
//
// Names and paths are Windows-1252 text. Nothing throws: a failure is a false, null or 0
// result plus a message in Log().
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "archive/VxString.h"
#include "platform/time.h"

namespace qx {

namespace zip {
struct ArchiveState;
}

// A member's bytes on their way into an archive.
class VxByteData {
 public:
  VxByteData() = default;
  VxByteData(const void* data, size_t size) { Assign(data, size); }

  // Reads the whole file; the buffer is emptied first, so a failure leaves it empty.
  bool LoadFile(const char* path);
  void Assign(const void* data, size_t size);

  const unsigned char* GetData() const { return bytes_.data(); }
  size_t GetSize() const { return bytes_.size(); }

 private:
  std::vector<unsigned char> bytes_;
};

// What WriteZipGraded did to the archive file, and why in words.
struct ZipWriteResult {
  enum class Outcome {
    Untouched,            // the file on disk is as it was (message says why)
    Written,              // every entry was written
    WrittenLeavingOut,    // written without the entries in leftOut (message names them)
  };
  struct LeftOut {
    std::string name;    // as GetFileName gives it
    std::string reason;  // "cannot be compressed", ...
  };
  Outcome outcome = Outcome::Untouched;
  std::string message;  // empty when everything was written and read back
  std::vector<LeftOut> leftOut;
  // The written archive was opened again; false leaves the VxZip without a list.
  bool reopened = false;

  // WriteZip's answer: everything written and open again.
  bool Complete() const { return outcome == Outcome::Written && reopened; }
  // The same as the 1 / 0 of the platform's interfaces.
  int AsInt() const { return Complete() ? 1 : 0; }
};

// A handle on one entry of a VxZip. It goes empty when its entry goes (deleted, or the archive
// reopened or rewritten): getters then give 0, empty text or the current local time, and
// actions fail. Deleting a handle never touches the archive; it may outlive the archive.
class VxZipEntry {
 public:
  VxZipEntry(std::weak_ptr<zip::ArchiveState> state, uint64_t serial, uint64_t generation)
      : state_(std::move(state)), serial_(serial), generation_(generation) {}

  // The following entry, or null after the last.
  std::unique_ptr<VxZipEntry> NextEntry();
  // Writes the entry's file into the folder (created with its parents when missing) under the
  // last part of its name; a folder entry writes nothing and succeeds.
  bool ExtractInto(const char* destFolder);
  // The name in ANSI form with "\" separators.
  bool GetFileName(VxString& name);
  uint32_t GetUncompressedSize();
  // For an entry appended since the last write: the size its data will have when written.
  uint32_t GetCompressedSize();
  // 0 stores the entry, any other value deflates it, when the archive is written.
  void SetCompressionMethod(int method);
  // The stored MS-DOS date and time as a calendar time (no time-zone shift).
  void GetFileTime(SYSTEMTIME& time);
  // True for a folder entry read from the archive; false for appended entries.
  bool IsDirectory();

  uint64_t Serial() const { return serial_; }

 private:
  std::weak_ptr<zip::ArchiveState> state_;
  uint64_t serial_;
  uint64_t generation_;  // the list's generation when the handle was made
};

class VxZip {
 public:
  VxZip();
  ~VxZip();
  VxZip(const VxZip&) = delete;
  VxZip& operator=(const VxZip&) = delete;

  // Reads the archive's headers; member data stays in the file until it is needed.
  bool OpenZip(const char* path);
  // Starts an empty archive for the path; nothing is written until WriteZip.
  bool NewZip(const char* path);
  // Writes the whole archive beside the old one and renames it into place, then reopens it.
  // True when every entry was written and the archive read back (WriteZipGraded().Complete()).
  bool WriteZip();
  // The same, telling an archive left untouched from one written whole or without some entries.
  ZipWriteResult WriteZipGraded();
  // Writes every entry under the folder ("" or "." for the current one); true when all were.
  bool Extract(const char* destFolder);

  std::unique_ptr<VxZipEntry> FirstEntry();
  std::unique_ptr<VxZipEntry> GetEntryByIndex(int index);
  // "\" and "/" are the same; the comparison is exact otherwise. The first match wins.
  std::unique_ptr<VxZipEntry> GetEntryByName(const char* name);
  // Gives each entry's name as GetFileName gives it, from the last entry to the first, until
  // `visit` returns true: for look-ups too few to pay for an index.
  void VisitNamesFromLast(const std::function<bool(std::string_view name)>& visit);
  // Adds a deflated entry at the end (never replacing one of the same name).
  std::unique_ptr<VxZipEntry> AppendData(const char* name, const VxByteData& data);
  // False only for a null handle; an entry already gone changes nothing.
  bool DeleteEntry(VxZipEntry* entry);
  // <zip_contents> with nested <dir name="..."> and <file>name</file> elements.
  bool GetDirectoryAsXML(VxString& listing);
  int EntryCount();

  // Every failure's message, oldest first.
  const std::vector<std::string>& Log() const;

 private:
  std::shared_ptr<zip::ArchiveState> state_;
};

}  // namespace qx
