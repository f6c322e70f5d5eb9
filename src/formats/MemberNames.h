// File names of the variables inside old-style groups: the names under which a group lists,
// finds, extracts and deletes its members. They are only ever made from device names; nothing
// turns a file name back into a device name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "formats/NameField.h"

namespace qx {

// "." + family code + type letter for the MA-style families (MA, NA, NBX, ra).
//   (0x12, MA) => ".map"    (0x24, ra) => ".rak"    (0x0C, NBX) => ".nbs"
//   (0x05, MA) => nullopt (the type has no letter)   (any type, HWL or KC) => "" (no extension)
std::optional<std::string> TypeExtensionMA(uint8_t type, std::string_view familySignature);

// Folder, ".", the translated variable name and the type extension; without the folder and
// its "." when the folder is empty; without extension when the type has none.
//   ("main", "prog1", 0x12, MA) => "main.prog1.map"    ("main", "prog1", 0x05, MA) => "main.prog1"
//   ("", "x", 0x00, NA) => "x.nae"
std::string MemberFileNameMA(std::string_view folder, std::string_view translatedName, uint8_t type,
                             std::string_view familySignature);

// The member name of a KA, KC or KDX entry from its name field (token form) and type code
// (already reduced, as the layout reader gives it). Never fails: a name no rule covers is the
// raw name field without extension. Other families get the raw name field.
//   (KDX, 0x00, "[")        => "theta.kdn"     (KC, 0x00, "[") => "[.kcn"
//   (KC, 0x01, 5D 00)       => "L1.kcl"        (KC, 0x03, 5E 23) => "Y2T.kcy"
//   (KA, 0x10, any)         => "UserZoomWin.kaw"
std::string MemberFileNameKC(const NameField& nameField, uint8_t type, std::string_view familySignature);

// For a file of a family compatible with the group's (MA, NBX, ra): its member name with the 3
// characters from the last "." on replaced by "." and the group family's extension code.
//   ("main.prog1.nbp", MA) => "main.prog1.map"    ("a.b.map", ra) => "a.b.rap"    ("abc", MA) => "abc"
std::string RenameForGroupFamily(std::string_view memberName, std::string_view groupFamilySignature);

}  // namespace qx
