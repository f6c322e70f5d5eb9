// Flash files: calculator software (operating systems, applications, certificates) as a run of
// records, each a 78-byte header and its data. Expanding one writes each record to a file of its
// own, named after the record's name, kind and target family.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/fs.h"
#include "qxgroupmgr/com.h"

namespace qx {

inline constexpr size_t kFlashHeaderSize = 78;

// Header fields the expansion reads (offsets into the header).
inline constexpr size_t kFlashNameLengthAt = 0x10;
inline constexpr size_t kFlashNameAt = 0x11;
inline constexpr size_t kFlashDeviceAt = 0x30;
inline constexpr size_t kFlashKindAt = 0x31;
inline constexpr size_t kFlashVariantAt = 0x49;
inline constexpr size_t kFlashDataLengthAt = 0x4A;

// Record kinds.
inline constexpr uint8_t kFlashKindBase = 0x23;
inline constexpr uint8_t kFlashKindApp = 0x24;
inline constexpr uint8_t kFlashKindCert = 0x25;
inline constexpr uint8_t kFlashKindSkipped = 0x3E;

// The output extension for a record ("" when the device or kind has none).
//   (0x73, 0x24, any) => ".kdk"   (0x88, 0x25, 8) => ".raq"   (0x88, 0x25, 1) => ".nbq"
std::string FlashExtension(uint8_t device, uint8_t kind, uint8_t variant);

// Writes every record of `flash`, from its current position on, to destFolder + name + extension
// (destFolder is used as given: it ends in '/' or is empty), and appends each output path and ","
// to `outFiles`. Returns S_OK; S_FALSE at a record that does not begin with "**QXFL**", is cut
// short, or claims more data than the file holds (records before it stay written); 0x8007006E
// when an output file cannot be created.
// `flashName` names the file in the diagnostic a stop records ("not-a-flash-file",
// "not-a-flash-record" with the offset, "cannot-write" naming the output file).
HRESULT ExpandFlashRecords(fs::File& flash, const std::string& destFolder, std::string& outFiles,
                           std::string_view flashName = {});

}  // namespace qx
