// The zip format's fixed-size records as the archive service reads and writes them: field
// layouts, signatures, the in-memory entry record and the forms its name takes. Fields are read
// and written one at a time through the little-endian helpers, never by laying structs over
// bytes. The list of records an archive holds is ZipEntryList.h's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qx::zip {

inline constexpr uint32_t kLocalSig = 0x04034b50;
inline constexpr uint32_t kCentralSig = 0x02014b50;
inline constexpr uint32_t kEndSig = 0x06054b50;
inline constexpr uint32_t kDescriptorSig = 0x08074b50;  // optional, before a data descriptor

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
  size_t slot = 0;  // see ArchiveState::slots (ZipEntryList.h)
  // From the opened archive: where its compressed bytes start in the file.
  bool fromArchive = false;
  uint64_t dataOffset = 0;
  // Appended: the caller's bytes, and their deflated form once it has been made.
  std::shared_ptr<const std::vector<unsigned char>> data;
  std::vector<unsigned char> deflated;
  bool deflatedValid = false;
};

// A folder entry read from the archive (appended entries are always files).
inline bool IsFolderRecord(const Record& r) {
  return r.fromArchive && (r.externalAttributes & kAttrFolder) != 0;
}

// The header bytes of a record about to be written, appended to `out` (one buffer serves every
// header of a write).
void AppendLocalHeader(const Record& r, std::vector<unsigned char>& out);
void AppendCentralHeader(const Record& r, uint32_t localOffset, std::vector<unsigned char>& out);
// The method a record is written with: one without data is stored, whatever it was given.
uint16_t WrittenMethod(const Record& r);
std::vector<unsigned char> EndRecordBytes(uint32_t count, uint32_t directorySize,
                                          uint32_t directoryOffset, const std::string& comment);

// True when the first 800 bytes look like text: no more bytes of 0-6 and 128-255 than a
// quarter of those of 7-127.
bool LooksLikeText(const unsigned char* data, size_t size);

// The name as a caller sees it: ANSI, "\" separators.
std::string DisplayName(const Record& r);
// The same into `out`, reusing its storage.
void DisplayNameInto(const Record& r, std::string& out);
// The key under which names compare after normalising: UTF-8 text with "/" separators.
std::string NormalNameOfStored(const Record& r);
std::string NormalNameOfGiven(const std::string& ansi);
// NormalNameOfStored(r) == normal, without making the string where the name needs no conversion.
bool NormalNameIs(const Record& r, const std::string& normal);

}  // namespace qx::zip
