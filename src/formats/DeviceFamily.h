// Device families and the signature strings that stand for them. A file's family is read from
// its first bytes by DetectFileSignature and compared whole wherever it matters.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "platform/fs.h"

namespace qx {

// Signature strings, exactly as DetectFileSignature returns them.
inline constexpr std::string_view kSigKA{"**QXKA**\x1A\x0A", 10};
inline constexpr std::string_view kSigKB{"**QXKB**\x1A\x0A", 10};
inline constexpr std::string_view kSigKC{"**QXKC**\x1A\x0A", 10};
inline constexpr std::string_view kSigKDX{"**QXKDX*\x1A\x0A", 10};
inline constexpr std::string_view kSigKF{"**QXKF**\x1A\x0A", 10};
inline constexpr std::string_view kSigMA{"**QXMA**\x01", 9};
inline constexpr std::string_view kSigNA{"**QXNA**\x01", 9};
inline constexpr std::string_view kSigNBX{"**QXNBX*\x01", 9};
inline constexpr std::string_view kSigRa{"**QXNBX*\x08", 9};
inline constexpr std::string_view kSigHWL{"**QXHWL*", 8};
inline constexpr std::string_view kSigFlash{"**QXFL**", 8};
inline constexpr std::string_view kSigZip{"PK\x03\x04", 4};
inline constexpr std::string_view kSigUnknown{"**QX_UNK**", 10};

enum class Layout { MAStyle, KCStyle };

// One device family: its signature, byte layout, the extension code of its member files
// ("" for none) and whether an old-style group container takes its groups.
struct FamilyInfo {
  std::string_view name;       // "KA", "KB", "KC", "KDX", "KF", "MA", "NA", "NBX", "ra", "HWL"
  std::string_view signature;  // what DetectFileSignature returns for the family's files
  Layout layout;
  std::string_view extensionCode;  // "kd" for ".kdp"; empty when the family has none
  bool hasGroups;
};

// Every family, in a fixed order.
std::span<const FamilyInfo> Families();
// The family whose signature equals `signature` (whole-string comparison), or null.
const FamilyInfo* FindFamilyBySignature(std::string_view signature);
// MA, NBX and ra are mutually compatible; every other family only with itself. False for
// signatures that are not families.
bool AreFamiliesCompatible(std::string_view sigA, std::string_view sigB);

// Reads the first bytes of the file and names its family: one of the signatures above, or
// another "**QX"-prefixed text that matches no family. Never fails: "**QX_UNK**" for any
// file that cannot be opened or read.
std::string DetectFileSignature(const std::string& path);
// The same from the file's first bytes (up to 10; fewer for a shorter file), read by a caller
// that goes on reading the file.
std::string DetectFileSignature(const std::string& path, std::span<const unsigned char> head);
// Opens the file, names its family from its first bytes and leaves it open at its start.
std::string DetectFileSignature(const std::string& path, fs::File& opened);

}  // namespace qx
