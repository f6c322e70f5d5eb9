// Writing an archive: the form appended members are written in (sizes, CRC, deflated bytes) and
// the whole archive, written beside the old one, renamed into its place and opened again.
#pragma once

#include "archive/VxZip.h"
#include "archive/ZipEntryList.h"

namespace qx::zip {

// Fills in the sizes and CRC an appended record will be written with, deflating its data once
// per method change; false when the data cannot be compressed.
bool PrepareAppended(Record& r);

// Writes every record in list order, then the directory and the end record, to a temporary file
// beside s.path, renames it into place and reopens it. A record that cannot be written is left
// out and the others still go in; anything else that fails leaves the old file as it was.
// Messages go to the log, and the first failure becomes the call's diagnostic ("zip-write").
ZipWriteResult WriteArchive(ArchiveState& s);

}  // namespace qx::zip
