// Opening archives made by hand: what opens, what is refused and with which message, and
// that damaged sizes are caught before they are believed.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "archive/VxZip.h"
#include "support/ZipBytes.h"
#include "archive/ZipRead.h"
#include "platform/Diagnostic.h"
#include "support/TempDir.h"

namespace qx {
namespace {

using test::TempDir;
using namespace ziptest;

Member Described(Member m, bool signature = true) {
  m.descriptor = true;
  m.descriptorSignature = signature;
  return m;
}

std::string Cut(std::string s, size_t keep) { return s.substr(0, keep); }

// Entries -1: refused, with `message` logged ("": any) and the call's diagnostic as "code: text"
// naming the entry and offset (when given).
struct OpenRow { const char* label; std::string bytes; int entries; std::string message, diagnostic = ""; };

std::vector<OpenRow> OpenRows() {
  const Member a{"a.kdp", "first member"}, b{"sub/b.kdp", std::string(3000, 'b')};
  const std::string good = BuildZip({a, b});
  Member wide{"w.kdp", "x"};
  wide.uncompressedSize = 0xFFFFFFFF;
  Member wideCentral{"w", "x"};
  wideCentral.centralCompressedSize = 0xFFFFFFFF;
  Member wideDescribed = Described({"w", "x"});
  wideDescribed.uncompressedSize = 0xFFFFFFFF;
  Member longer{"a.kdp", "x"};
  longer.compressedSize = 0x7FFFFFF0;
  Member differs{"sub/b.kdp", "abc"};
  differs.centralCompressedSize = 1;
  const std::string mismatched = BuildZip({a, differs});
  const size_t directory = good.find("PK\x01\x02");
  const std::string hugeName = std::string(good).replace(directory + 28, 2, "\xFF\xFF");  // name length past the end
  const std::string longExtra = std::string(good).replace(28, 2, Le16(0xFFFF));  // a's extra field
  return {
      {"two members", good, 2, ""},
      {"only the end record", BuildZip({}), 0, ""},
      {"end record and comment", BuildZip({}, {.comment = "c"}), 0, ""},
      {"four bytes before the first header", BuildZip({a, b}, {.prefix = "abcd"}), 2, ""},
      {"eight bytes before the first header", BuildZip({a, b}, {.prefix = "abcdefgh"}), -1, "Not a Zip archive"},
      {"(DWF header of 12 bytes", BuildZip({a}, {.prefix = "(DWF V06.00)"}), 1, ""},
      {"(DWF header and four more", BuildZip({a}, {.prefix = "(DWF V06.00)xxxx"}), 1, ""},
      {"stored members", BuildZip({{"s1", "stored one", 0}, {"s2", "stored two", 0}}), 2, ""},
      {"sizes in data descriptors", BuildZip({Described(a), Described(b)}), 2, ""},
      {"data descriptor without its signature", BuildZip({Described(a, false), b}), 2, ""},
      {"empty file", "", -1, "Zip signature is not valid (1)"},
      {"three bytes", "PK\x03", -1, "Not a Zip archive"},
      {"text file", "just some text, not an archive at all", -1, "Not a Zip archive",
       "zip-damaged: Not a Zip archive (no header signature at offset 0 or offset 4)"},
      {"no end record", BuildZip({a, b}, {.endRecord = false}), -1, "End of Dir signature is wrong.",
       "zip-damaged: End of Dir signature is wrong. (no end record at offset " + std::to_string(good.find("PK\x05\x06")) + ")"},
      {"end record cut short", Cut(good, good.size() - 5), -1, "End of Dir signature is wrong."},
      {"cut inside member data", Cut(good, 50), -1, ""},
      {"cut inside a local header", Cut(good, 20), -1, ""},
      {"cut inside the directory", Cut(good, directory + 20), -1, "",
       "zip-damaged: Zip file is truncated in the central directory (entry 0 at offset " + std::to_string(directory) + ")"},
      {"local size past the end of the file", BuildZip({longer}), -1, ""},
      {"central size differs from the local one", mismatched, -1, "",
       "zip-damaged: Central directory does not match the local headers (entry 1 (sub\\b.kdp) at offset " +
           std::to_string(mismatched.rfind("PK\x01\x02")) + ": compressed size 1, local header " +
           std::to_string(Payload(differs).size()) + ")"},
      {"name length past the end of the file", hugeName, -1, ""},
      {"local extra field past the end of the file", longExtra, -1, "Zip file is truncated in a local header"},
      {"more directory headers than members", std::string(good).replace(good.find("PK\x03\x04", 1), 4, "XXXX"), -1,
       "Central directory does not match the local headers"},
      {"fewer directory headers than members", BuildZip({a, b}, {.dropCentral = 1}), -1, ""},
      {"ZIP64 size marker", BuildZip({a, wide}), -1, "Zip64 archives are not supported",
       "zip-unsupported: Zip64 archives are not supported (entry 1 (w.kdp) at offset " +
           std::to_string(30 + 5 + Payload(a).size()) + ")"},
      {"ZIP64 marker in the directory only", BuildZip({wideCentral}), -1, "Zip64 archives are not supported"},
      {"ZIP64 marker in a data descriptor", BuildZip({wideDescribed}), -1, "Zip64 archives are not supported"},
      {"descriptor never followed by a header", Cut(BuildZip({Described(a)}), 60), -1, ""},
  };
}

// Every row also with the archive read 37 bytes at a time, so fields and signatures straddle reads.
struct ReadSize {
  explicit ReadSize(size_t n) { zip::g_testReadSize = n; }
  ~ReadSize() { zip::g_testReadSize = 0; }
};
constexpr size_t kReadSizes[] = {0, 37};

TEST(ZipRead, OpensWellFormedArchivesAndRefusesDamagedOnes) {
  for (const size_t readSize : kReadSizes) for (const OpenRow& row : OpenRows()) {
    SCOPED_TRACE(std::string(row.label) + ", reads of " + std::to_string(readSize));
    const ReadSize reads(readSize);
    TempDir dir;
    const std::string path = dir.Write("t.zip", row.bytes);
    diag::Clear();
    VxZip zip;
    const bool opened = zip.OpenZip(path.c_str());
    EXPECT_EQ(opened, row.entries >= 0);
    EXPECT_EQ(zip.EntryCount(), row.entries >= 0 ? row.entries : 0);
    if (!opened) {
      EXPECT_TRUE(row.message.empty() ? !zip.Log().empty() : Logged(zip, row.message));
      // A refused archive has no list: entry operations fail as before any open.
      EXPECT_EQ(zip.FirstEntry(), nullptr);
      EXPECT_TRUE(Logged(zip, "No zip file has been opened."));
      // The refusal is also the call's diagnostic, with the archive as its subject.
      const diag::Diagnostic* d = diag::Current();
      ASSERT_NE(d, nullptr);
      EXPECT_EQ(d->subject, path);
      EXPECT_TRUE(row.diagnostic.empty() || d->code + ": " + d->text == row.diagnostic) << d->code << ": " << d->text;
    }
  }
  diag::Clear();
}

TEST(ZipRead, BothSignatureMessagesForAnUnknownStart) {
  TempDir dir;
  VxZip zip;
  EXPECT_FALSE(zip.OpenZip(dir.Write("t.zip", "12345678PK\x03\x04").c_str()));
  const std::vector<std::string> expected = {"Zip signature is not valid (1)", "Not a Zip archive"};
  EXPECT_EQ(zip.Log(), expected);
}

// The end of a streamed member is the header signature that its descriptor stands right in
// front of; signatures inside the member's own bytes (a stored zip, here) do not end it.
TEST(ZipRead, DataDescriptorsGiveTheSizesAndTheData) {
  const std::string inner = BuildZip({{"in1.txt", "one", 0}, {"in2.txt", "two", 0}});
  std::vector<Member> rows = {{"d.txt", std::string(2000, 'z') + "end"}, {"inner.zip", inner, 0}};
  // The file is searched in chunks; put signatures across the first chunk boundaries.
  for (size_t filler = 780; filler < 1030; ++filler)
    rows.push_back({"f.bin", std::string(filler, 'f') + inner, 0});
  // With 37-byte reads every few bytes is a read boundary: the first fillers cover them all.
  for (const size_t readSize : kReadSizes) for (size_t i = 0; i < (readSize == 0 ? rows.size() : 40); ++i)
  for (bool signature : {true, false}) {
    const Member& member = rows[i];
    SCOPED_TRACE(member.name + ", " + std::to_string(member.data.size()) + " bytes, signature " +
                 std::to_string(signature) + ", reads of " + std::to_string(readSize));
    const ReadSize reads(readSize);
    TempDir dir;
    const std::string path = dir.Write("d.zip", BuildZip({Described(member, signature), Described({"after.txt", "after", 0}, signature)}));
    VxZip zip;
    ASSERT_TRUE(zip.OpenZip(path.c_str()));
    ASSERT_EQ(zip.EntryCount(), 2);
    auto e = zip.FirstEntry();
    EXPECT_EQ(e->GetUncompressedSize(), member.data.size());
    EXPECT_EQ(e->GetCompressedSize(), Payload(member).size());
    ASSERT_TRUE(zip.Extract((dir / "out").c_str()));
    EXPECT_EQ(test::ReadFileBytes(dir / ("out/" + member.name)), member.data);
    EXPECT_EQ(test::ReadFileBytes(dir / "out/after.txt"), "after");
  }
}

}  // namespace
}  // namespace qx
