// Both calculator layouts over arbitrary bytes: the walks never read outside the input, and
// the group models, after adding and deleting in memory, write files that parse back to
// themselves and list what they hold.
//
// Input: one control byte (which folder, which members), then the file.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
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
  qx::MAVariable v;
  v.fields.name = qx::MakeNameField("new");
  v.fields.type = 0x12;
  v.data.assign(control % 7, 0xEE);
  // Insert into an existing folder, or into a new one at the end.
  const size_t target = control % (g.folders().size() + 1);
  qx::MAGroup added = g;
  if (target < g.folders().size() ? added.InsertFirst(target, v) : added.AppendFolder(qx::MakeNameField("fz"), v)) {
    Check(added.MemberCount() == g.MemberCount() + 1);
    CheckWritten(added);
  }
  // Delete every member whose index has its bit set in the control byte (repeating).
  size_t index = 0, expected = 0;
  for (size_t i = 0; i < g.MemberCount(); ++i) expected += (control >> (i % 8)) & 1;
  qx::MAGroup deleted = g;
  Check(deleted.RemoveMembersIf([&](const qx::MAFolder&, const qx::MAVariable&) {
          return (control >> (index++ % 8)) & 1;
        }) == expected);
  CheckWritten(deleted);
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
  qx::KCGroup reparsed;
  Check(static_cast<bool>(qx::KCGroup::Parse(added.Serialize(), reparsed)));

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
