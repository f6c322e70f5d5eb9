// Both calculator layouts over arbitrary bytes: the walks never read outside the input, the
// group models write files that parse back to themselves, and adding or deleting in memory
// gives the same bytes as the step-by-step rewrite of a group file.
//
// Input: one control byte (which folder, which members), then the file.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/ByteOrder.h"
#include "formats/DeviceFamily.h"
#include "formats/LayoutKC.h"
#include "formats/LayoutMA.h"
#include "formats/MemberNames.h"

namespace {

using Buf = std::vector<unsigned char>;

void Fail(int line) {
  std::fprintf(stderr, "check failed at line %d\n", line);
  std::abort();
}
#define Check(ok) ((ok) ? void() : Fail(__LINE__))

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Folder entries point at what follows them: the only groups where the stored folder offsets
// and the ones a rewrite computes agree, so the step-by-step rewrite can be compared.
bool FolderOffsetsAgree(const Buf& f) {
  const size_t count = qx::ReadLE16(&f[58]);
  for (size_t i = 0; i < count; ++i) {
    const unsigned char* e = &f[60 + 16 * i];
    if (e[12] == 0x1F && qx::ReadLE32(e) != qx::ReadLE32(e + 16)) return false;
  }
  return true;
}

void FixFolderOffsets(Buf& out, size_t count) {
  for (size_t i = count; i-- > 0;) {
    unsigned char* e = &out[60 + 16 * i];
    if (e[12] == 0x1F) qx::WriteLE32(e, qx::ReadLE32(e + 16));
  }
}

void AddToAllOffsets(Buf& out, size_t count, int32_t delta) {
  for (size_t i = 0; i < count; ++i) {
    unsigned char* e = &out[60 + 16 * i];
    qx::WriteLE32(e, static_cast<uint32_t>(static_cast<int64_t>(qx::ReadLE32(e)) + delta));
  }
}

// The insertion through a temporary file, step by step over a group the model accepted.
Buf ReferenceInsert(const Buf& g, const std::string& target, const qx::MAVariable& v) {
  const size_t count = qx::ReadLE16(&g[58]);
  const uint32_t len = static_cast<uint32_t>(v.data.size());
  Buf out(g.begin(), g.begin() + 60);
  size_t pos = 60, total = 0, insertAt = 0;
  bool written = false;
  const auto put = [&](uint32_t off, const unsigned char* fields12) {
    unsigned char e[16];
    qx::WriteLE32(e, off);
    std::memcpy(e + 4, fields12, 12);
    out.insert(out.end(), e, e + 16);
  };
  unsigned char newFields[12];
  std::memcpy(newFields, v.fields.name.data(), 8);
  newFields[8] = v.fields.type;
  newFields[9] = v.fields.attribute;
  newFields[10] = v.fields.extra[0];
  newFields[11] = v.fields.extra[1];
  while (pos < 60 + 16 * count) {
    const unsigned char* fe = &g[pos];
    const std::string name = qx::NameFieldText(qx::ReadNameField(fe + 4));
    const bool isTarget = Lower(name) == target;
    const size_t members = qx::ReadLE16(fe + 14) + (isTarget ? 1 : 0);
    unsigned char fields[12];
    std::memcpy(fields, fe + 4, 12);
    qx::WriteLE16(fields + 10, static_cast<uint16_t>(members));
    const size_t folderAt = out.size();
    put(qx::ReadLE32(fe) + 16, fields);
    total += 1 + members;
    pos += 16;
    for (size_t k = 0; k < members; ++k) {
      if (isTarget && !written) {
        insertAt = qx::ReadLE32(&g[pos]);
        qx::WriteLE32(&out[folderAt], static_cast<uint32_t>(insertAt + 16));
        put(static_cast<uint32_t>(insertAt + 16), newFields);
        written = true;
      } else {
        const uint32_t off = qx::ReadLE32(&g[pos]) + 16 + (written ? len : 0);
        if (k == 0) qx::WriteLE32(&out[folderAt], off);
        put(off, &g[pos + 4]);
        pos += 16;
      }
    }
  }
  const uint32_t size = qx::ReadLE32(&g[pos]);
  const bool appended = !written;
  if (appended) {
    unsigned char fields[12] = {};
    std::memcpy(fields, target.data(), std::min<size_t>(8, target.size()));
    fields[8] = 0x1F;
    fields[10] = 1;
    put(size + 16, fields);
    put(size + 16, newFields);
    total += 2;
    insertAt = size;
  }
  unsigned char tail[6];
  qx::WriteLE32(tail, size + 16 + len + (appended ? 16 : 0));
  tail[4] = g[pos + 4];
  tail[5] = g[pos + 5];
  out.insert(out.end(), tail, tail + 6);
  out.insert(out.end(), g.begin() + static_cast<ptrdiff_t>(60 + 16 * count + 6),
             g.begin() + static_cast<ptrdiff_t>(insertAt));
  out.insert(out.end(), v.data.begin(), v.data.end());
  out.insert(out.end(), g.begin() + static_cast<ptrdiff_t>(insertAt), g.end());
  qx::WriteLE16(&out[58], static_cast<uint16_t>(total));
  if (appended) AddToAllOffsets(out, total, 16);
  FixFolderOffsets(out, total);
  return out;
}

// The deletion through a temporary file, for the members whose table index is in `drop`.
Buf ReferenceDelete(const Buf& g, const std::vector<bool>& drop, size_t dropCount) {
  const size_t count = qx::ReadLE16(&g[58]);
  Buf out(g.begin(), g.begin() + 60);
  std::vector<std::pair<uint32_t, uint32_t>> ranges;
  uint32_t droppedLength = 0;
  size_t pos = 60, member = 0, droppedFolders = 0;
  while (pos < 60 + 16 * count) {
    const unsigned char* fe = &g[pos];
    const size_t members = qx::ReadLE16(fe + 14);
    size_t k = 0;
    for (size_t j = 0; j < members; ++j) k += drop[member + j] ? 1 : 0;
    const bool folderGoes = members > 0 && k == members;
    size_t folderAt = SIZE_MAX;
    if (folderGoes) {
      ++droppedFolders;
    } else {
      folderAt = out.size();
      out.insert(out.end(), fe, fe + 16);
      qx::WriteLE16(&out[folderAt + 14], static_cast<uint16_t>(members - k));
    }
    pos += 16;
    bool first = true;
    for (size_t j = 0; j < members; ++j, ++member, pos += 16) {
      const uint32_t off = qx::ReadLE32(&g[pos]), next = qx::ReadLE32(&g[pos + 16]);
      if (drop[member]) {
        ranges.push_back({off, next});
        droppedLength += next - off;
        continue;
      }
      const uint32_t newOff = off - droppedLength - static_cast<uint32_t>(16 * dropCount);
      const size_t at = out.size();
      out.insert(out.end(), &g[pos], &g[pos] + 16);
      qx::WriteLE32(&out[at], newOff);
      if (first && folderAt != SIZE_MAX) qx::WriteLE32(&out[folderAt], newOff);
      first = false;
    }
  }
  const size_t total = count - dropCount - droppedFolders;
  qx::WriteLE16(&out[58], static_cast<uint16_t>(total));
  const size_t sizeAt = out.size();
  out.insert(out.end(), &g[pos], &g[pos] + 6);
  size_t from = pos + 6;
  for (const auto& [a, b] : ranges) {
    out.insert(out.end(), g.begin() + static_cast<ptrdiff_t>(from), g.begin() + static_cast<ptrdiff_t>(a));
    from = b;
  }
  out.insert(out.end(), g.begin() + static_cast<ptrdiff_t>(from), g.end());
  qx::WriteLE32(&out[sizeAt], static_cast<uint32_t>(out.size()));
  if (droppedFolders) AddToAllOffsets(out, total, -static_cast<int32_t>(16 * droppedFolders));
  FixFolderOffsets(out, total);
  return out;
}

// A group the model wrote parses back to the same model and lists what it holds.
void CheckWritten(const qx::MAGroup& g) {
  Buf bytes;
  if (!g.Serialize(bytes)) return;
  qx::MAGroup again;
  Check(static_cast<bool>(qx::MAGroup::Parse(bytes, again)));
  Buf twice;
  Check(again.Serialize(twice) && twice == bytes);
  // The walk ends the table at the first data offset, so it agrees with the model only when no
  // bytes stand between the table and the first block.
  const size_t count = qx::ReadLE16(&bytes[58]);
  if (count == 0 || qx::ReadLE32(&bytes[60]) != 66 + 16 * count) return;
  const qx::MAWalk walk = qx::WalkMAGroup(bytes);
  Check(walk.end == qx::MAWalk::kTableEnd);
  Check(walk.members.size() == g.MemberCount());
  size_t i = 0;
  for (const qx::MAFolder& f : g.folders())
    for (const qx::MAVariable& m : f.members) {
      const auto block = qx::MABlock(bytes, walk.members[i]);
      Check(block.has_value() && std::equal(block->begin(), block->end(), m.data.begin(), m.data.end()));
      Check(walk.members[i].folder == f.name);
      ++i;
    }
}

void FuzzMA(unsigned char control, const Buf& file) {
  const qx::MAWalk walk = qx::WalkMAGroup(file);
  for (const qx::MAMemberView& m : walk.members) {
    if (const auto block = qx::MABlock(file, m)) {
      const Buf single = qx::BuildMASingleFile(qx::kSigMA, m.folder, m.fields, *block);
      qx::MASingleFile parsed;
      Check(static_cast<bool>(qx::ParseMASingleFile(single, parsed)) && parsed.data.size() == block->size());
    }
    (void)qx::MemberFileNameMA(qx::NameFieldText(m.folder), "x", m.fields.type, qx::kSigNBX);
  }
  qx::MASingleFile single;
  (void)qx::ParseMASingleFile(file, single);

  qx::MAGroup g;
  if (!qx::MAGroup::Parse(file, g)) return;
  CheckWritten(g);
  const bool comparable = FolderOffsetsAgree(file);
  qx::MAVariable v;
  v.fields.name = qx::MakeNameField("new");
  v.fields.type = 0x12;
  v.data.assign(control % 7, 0xEE);

  // Insert into an existing folder, or into a new one at the end.
  const size_t target = g.folders().empty() ? 0 : control % (g.folders().size() + 1);
  std::string targetName = "fz";
  if (target < g.folders().size()) targetName = qx::NameFieldText(g.folders()[target].name);
  size_t matches = 0;
  for (const qx::MAFolder& f : g.folders()) matches += Lower(qx::NameFieldText(f.name)) == Lower(targetName);
  qx::MAGroup added = g;
  const bool ok = target < g.folders().size() ? added.InsertFirst(target, v)
                                              : added.AppendFolder(qx::MakeNameField(targetName), v);
  if (ok) {
    CheckWritten(added);
    if (comparable && targetName == Lower(targetName) && matches <= 1 &&
        (target < g.folders().size()) == (matches == 1)) {
      Buf mine;
      if (added.Serialize(mine)) Check(mine == ReferenceInsert(file, targetName, v));
    }
  }

  // Delete every member whose index has its bit set in the control byte (repeating).
  std::vector<bool> drop;
  size_t dropCount = 0;
  for (size_t i = 0; i < g.MemberCount(); ++i) {
    drop.push_back((control >> (i % 8)) & 1);
    dropCount += drop.back();
  }
  qx::MAGroup deleted = g;
  size_t index = 0;
  const size_t dropped = deleted.RemoveMembersIf([&](const qx::MAFolder&, const qx::MAVariable&) { return drop[index++]; });
  Check(dropped == dropCount);
  CheckWritten(deleted);
  if (comparable && dropCount > 0) {
    Buf mine;
    if (deleted.Serialize(mine)) Check(mine == ReferenceDelete(file, drop, dropCount));
  }
}

// The in-place add: the added entries where the checksum stood, the new length, the checksum.
Buf ReferenceKCAdd(Buf f, const Buf& entries) {
  const size_t at = 55 + qx::KCDataLength(f);
  if (f.size() < at + entries.size() + 2) f.resize(at + entries.size() + 2);
  std::copy(entries.begin(), entries.end(), f.begin() + static_cast<ptrdiff_t>(at));
  const size_t length = at - 55 + entries.size();
  qx::WriteLE16(&f[53], length >= 65536 ? 0 : static_cast<uint16_t>(length));
  qx::WriteLE16(&f[55 + length], qx::KCChecksum(std::span(f).subspan(55, length)));
  return f;
}

void FuzzKC(unsigned char control, const Buf& file) {
  const std::string_view sig = control & 1 ? qx::kSigKDX : qx::kSigKC;
  const qx::KCWalk walk = qx::WalkKCGroup(file, sig);
  for (const qx::KCEntryView& e : walk.entries) {
    (void)qx::MemberFileNameKC(e.name, e.type, sig);
    if (const auto bytes = qx::KCEntryBytes(file, e)) {
      // An entry at least as long as its fixed fields walks again in a file of its own.
      const Buf single = qx::BuildKCSingleFile(sig, *bytes);
      if (bytes->size() >= (control & 1 ? 17u : 15u)) Check(!qx::WalkKCGroup(single, sig).entries.empty());
    }
  }
  (void)qx::KCFileEntries(file);

  qx::KCGroup g;
  if (!qx::KCGroup::Parse(file, g)) return;
  const Buf entries(file.begin() + 55, file.begin() + 55 + std::min<size_t>(control % 40, file.size() - 55));
  qx::KCGroup added = g;
  added.AppendEntries(entries);
  Check(added.Serialize() == ReferenceKCAdd(file, entries));

  size_t i = 0;
  if (const auto dropped = g.RemoveEntriesIf(sig, [&](const qx::KCEntryView&) { return (control >> (i++ % 8)) & 1; })) {
    const Buf out = g.Serialize();
    qx::KCGroup again;
    Check(static_cast<bool>(qx::KCGroup::Parse(out, again)) && again.Serialize() == out);
    Check(qx::KCChecksum(std::span(out).subspan(55, out.size() - 57)) == qx::ReadLE16(&out[out.size() - 2]));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const Buf file(data + 1, data + size);
  FuzzMA(data[0], file);
  FuzzKC(data[0], file);
  return 0;
}
