// The zip format's fixed-size records as the archive service reads and writes them: field
// layouts, signatures and the in-memory entry record. Fields are read and written one at a
// time through the little-endian helpers, never by laying structs over bytes.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/fs.h"

namespace qx::zip {

inline constexpr uint32_t kLocalSig = 0x04034b50;
inline constexpr uint32_t kCentralSig = 0x02014b50;
inline constexpr uint32_t kEndSig = 0x06054b50;

inline constexpr size_t kLocalSize = 30;
inline constexpr size_t kCentralSize = 46;
inline constexpr size_t kEndSize = 22;

inline constexpr uint16_t kFlagEncrypted = 0x0001;
inline constexpr uint16_t kFlagDescriptor = 0x0008;  // sizes follow the data
inline constexpr uint16_t kFlagUtf8 = 0x0800;        // the name is UTF-8
inline constexpr uint16_t kVersion = 20;
inline constexpr uint16_t kMadeBy = 20 | (11 << 8);  // version 2.0, NTFS host
inline constexpr uint32_t kAttrFolder = 0x10;
inline constexpr uint32_t kAttrNormal = 0x80;
// Sizes and offsets are 32 bits; all ones marks a ZIP64 archive, which is not read.
inline constexpr uint32_t kSizeLimit = 0xFFFFFFFF;
inline constexpr size_t kChunk = 1 << 16;  // buffer for streaming member data
inline constexpr uint16_t kMethodStored = 0;
inline constexpr uint16_t kMethodDeflate = 8;

// The fields of a local file header that the service uses.
struct LocalHeader {
  uint16_t flags = 0, method = 0, time = 0, date = 0, nameLength = 0, extraLength = 0;
  uint32_t crc = 0, compressedSize = 0, uncompressedSize = 0;
};
void ParseLocal(const unsigned char* p, LocalHeader& h);

struct CentralHeader {
  uint16_t madeBy = 0, flags = 0, method = 0, time = 0, date = 0, nameLength = 0,
           extraLength = 0, commentLength = 0, internalAttributes = 0;
  uint32_t crc = 0, compressedSize = 0, uncompressedSize = 0, externalAttributes = 0,
           localOffset = 0;
};
void ParseCentral(const unsigned char* p, CentralHeader& h);

// One entry of the list, in archive order.
struct Record {
  std::string name;  // stored form: "/" separators, bytes above 127 in code page 850
  uint16_t method = kMethodDeflate;
  int level = 6;
  uint16_t dosDate = 0, dosTime = 0;
  // As read, less the data-descriptor bit: a rewrite puts the sizes in the header, and an
  // encrypted member stays marked so while its bytes are copied.
  uint16_t flags = 0;
  uint16_t madeBy = kMadeBy;
  uint16_t internalAttributes = 0;
  uint32_t crc = 0, compressedSize = 0, uncompressedSize = 0;
  uint32_t externalAttributes = 0;
  std::string comment;
  uint64_t serial = 0;
  size_t slot = 0;  // see ArchiveState::slots
  // From the opened archive: where its compressed bytes start in the file.
  bool fromArchive = false;
  uint64_t dataOffset = 0;
  // Appended: the caller's bytes, and their deflated form once it has been made.
  std::shared_ptr<const std::vector<unsigned char>> data;
  std::vector<unsigned char> deflated;
  bool deflatedValid = false;
};

// The header bytes of a record about to be written.
std::vector<unsigned char> LocalHeaderBytes(const Record& r);
std::vector<unsigned char> CentralHeaderBytes(const Record& r, uint32_t localOffset);
std::vector<unsigned char> EndRecordBytes(uint32_t count, uint32_t directorySize,
                                          uint32_t directoryOffset, const std::string& comment);

// True when the first 800 bytes look like text: no more bytes of 0-6 and 128-255 than a
// quarter of those of 7-127.
bool LooksLikeText(const unsigned char* data, size_t size);

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
  // Position lookups that survive deletions: every record added since the list was made
  // keeps a slot (in list order), and a Fenwick tree over the slots counts the live ones, so
  // the n-th entry is found in O(log n) however entries were deleted in between.
  std::vector<std::list<Record>::iterator> slots;
  std::vector<uint32_t> liveTree;  // 1-based Fenwick tree of 0/1 per slot

  void Log(std::string message) { log.push_back(std::move(message)); }
  Record* Find(uint64_t serial);
  void Add(Record record);
  void Remove(uint64_t serial);
  void Drop();
  // Builds the name lookups when they are not there yet.
  void IndexNames();
  // The record at a 0-based position in list order, or null.
  Record* AtIndex(size_t index);
};

// A number no other entry of the process has had.
uint64_t NewSerial();
// Opens `path` and reads its headers into the list (any list is dropped first by the caller);
// on failure the state is left without a list, with the reason logged.
bool OpenArchive(ArchiveState& s);

// The name as a caller sees it: ANSI, "\" separators.
std::string DisplayName(const Record& r);
// The key under which names compare after normalising: UTF-8 text with "/" separators.
std::string NormalNameOfStored(const Record& r);
std::string NormalNameOfGiven(const std::string& ansi);

}  // namespace qx::zip
