// The entry list of an archive: its records in archive order, with the look-ups VxZip and its
// entry handles need (by serial, by name, by position), and what else a VxZip holds: the path,
// the open file, the comment and the log. Shared between a VxZip and its handles.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "archive/ZipFormat.h"
#include "platform/fs.h"

namespace qx::zip {

// Everything a VxZip holds, shared with its entry handles (which keep only a weak reference,
// so a handle may outlive its archive).
struct ArchiveState {
  std::string path;
  bool hasList = false;
  std::list<Record> records;
  std::unordered_map<uint64_t, std::list<Record>::iterator> bySerial;
  std::string comment;
  fs::File file;  // the opened archive, read by seeking
  std::vector<std::string> log;

  // Name lookups: serials by normalised and by stored name, in list order, built by the first
  // lookup (an archive that is only listed or extracted never pays for them). List order is
  // serial order (records are only appended or removed), so each vector stays sorted and its
  // front is the first match.
  using NameIndex = std::unordered_map<std::string, std::vector<uint64_t>>;
  NameIndex byNormalName, byStoredName;
  bool namesIndexed = false;
  int nameWalks = 0;  // look-ups answered by walking the list since it was made
  // Raised when the list comes to stand for a new file (a write), so handles made before go
  // empty although the records keep their serials.
  uint64_t generation = 0;
  // Position lookups that survive deletions: every record added since the list was made
  // keeps a slot (in list order), and a Fenwick tree over the slots counts the live ones, so
  // the n-th entry is found in O(log n) however entries were deleted in between.
  std::vector<std::list<Record>::iterator> slots;
  std::vector<uint32_t> liveTree;  // 1-based Fenwick tree of 0/1 per slot

  void Log(std::string message) { log.push_back(std::move(message)); }
  // Logs `message` and records it as the call's diagnostic: `code` ("zip-damaged",
  // "zip-unsupported", "zip-write", ...), the archive as subject, and the message followed by
  // `where` (the entry and byte offset at fault) as text.
  void Fail(std::string_view code, const std::string& message, const std::string& where = {});
  Record* Find(uint64_t serial);
  void Add(Record record);
  void Remove(uint64_t serial);
  void Drop();
  // Room for n records, so reading a large archive does not grow the look-ups step by step.
  void Reserve(size_t n);
  // Forgets the slots of removed records (positions are then the list's own again).
  void CompactSlots();
  // Builds the name lookups when they are not there yet.
  void IndexNames();
  // The first record named `given` ("/" separators, ANSI): by normalised name first, then by
  // stored name. The first few look-ups walk the list (adding one file to a large archive needs
  // two or three, far cheaper than an index); later ones build the index and use it.
  Record* FindByName(const std::string& given);
  // The record at a 0-based position in list order, or null.
  Record* AtIndex(size_t index);
};

// A number no other entry of the process has had.
uint64_t NewSerial();

}  // namespace qx::zip
