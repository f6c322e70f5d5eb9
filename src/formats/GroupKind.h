// Is a calculator file a group of many variables, or a single variable? Both byte layouts use
// the same structure for the two; these tests tell them apart for a file on disk.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qx {

// MA-style: a group has an empty default folder (the first byte at offset 10 is 0).
//   "**QXMA**\x01\0" + "\0..."  => group;  "**QXMA**\x01\0" + "main\0..." => single variable
// Empty when the file cannot be read or is too short to hold the field.
std::optional<bool> IsMAStyleGroup(const std::string& path);

// KC-style: a group when the data section holds more than its first entry, or when the
// extension is one of the group extensions (HasKCGroupExtension). Empty when the file cannot
// be read.
std::optional<bool> IsKCStyleGroup(const std::string& path);

// ".kdg", ".kcg", ".kag" or ".kfg", in any case:  "a/B.KCG" => true;  "a.kcp" => false
bool HasKCGroupExtension(const std::string& path);

// The data section length as it is to be read: the stored 16-bit length, or, when that is 0
// and the file is 65536 bytes or longer, the file length minus the 57 header and checksum bytes.
uint32_t KCEffectiveDataLength(uint16_t storedLength, uint64_t fileLength);

}  // namespace qx
