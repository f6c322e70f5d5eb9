// Reading an archive: its headers into the entry list when it is opened, and a member's bytes as
// they stand in the file when it is copied or extracted.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "archive/ZipEntryList.h"

namespace qx::zip {

// Tests set this to read archives in pieces of that many bytes (at least 4; 0: the normal
// sizes), so that signatures and fields straddling two reads are exercised.
extern size_t g_testReadSize;

// Opens s.path and reads its headers into the list (any list is dropped first by the caller).
// On failure the state is left without a list, the reason logged and recorded as the call's
// diagnostic with the entry and byte offset at fault.
bool OpenArchive(ArchiveState& s);

// Receives bytes in order; false stops the stream.
using Sink = std::function<bool(const unsigned char*, size_t)>;

// Streams a record's compressed bytes, as they stand in the archive file, to the sink; false
// when the file cannot give them or the sink refused.
bool CopyStoredBytes(ArchiveState& s, const Record& r, const Sink& sink);
// The same through the caller's buffer, so copying many small members allocates once.
bool CopyStoredBytes(ArchiveState& s, const Record& r, const Sink& sink,
                     std::vector<unsigned char>& buffer);
// Appends a record's compressed bytes to `out` in one read (for small members: the whole
// member is held in memory).
bool AppendStoredBytes(ArchiveState& s, const Record& r, std::vector<unsigned char>& out);

}  // namespace qx::zip
