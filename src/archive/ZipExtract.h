// Extracting: members inflated (or copied) into files, checked against their size and CRC, with
// the times and attributes the archive stored for them. Names that would lead out of the
// destination folder are refused.
#pragma once

#include <string>

#include "archive/ZipEntryList.h"

namespace qx::zip {

// Every entry under `folder` ("" or "." for the current one), made with its parents; folders
// for folder entries. True when all were written.
bool ExtractAll(ArchiveState& s, const std::string& folder);

// One entry's file into `folder` (made when missing) under the last part of its name; a folder
// entry writes nothing and succeeds.
bool ExtractOne(ArchiveState& s, const Record& r, const std::string& folder);

}  // namespace qx::zip
