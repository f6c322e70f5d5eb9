#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "formats/FlashFile.h"
#include "support/Bytes.h"
#include "support/TempDir.h"

namespace qx {
namespace {

// A nameLength of 0xFF stands for the name's own length.
struct Record { std::string name; uint8_t device, kind, variant = 0; std::string data = "DATA";
                uint8_t nameLength = 0xFF; };

std::string Build(const Record& r) {
  std::string h(kFlashHeaderSize, '\0');
  h.replace(0, 8, "**QXFL**");
  h[kFlashNameLengthAt] = static_cast<char>(r.nameLength == 0xFF ? r.name.size() : r.nameLength);
  h.replace(kFlashNameAt, r.name.size(), r.name);
  h[kFlashDeviceAt] = static_cast<char>(r.device);
  h[kFlashKindAt] = static_cast<char>(r.kind);
  h[kFlashVariantAt] = static_cast<char>(r.variant);
  h.replace(kFlashDataLengthAt, 4, test::Le32(static_cast<uint32_t>(r.data.size())));
  return h + r.data;
}

std::string Slurp(const std::string& path) {
  std::vector<unsigned char> bytes;
  return fs::ReadWholeFile(path, bytes) ? std::string(bytes.begin(), bytes.end()) : "<none>";
}

TEST(FlashFile, OutputNamesFromNameKindAndDevice) {
  // file: "" when nothing is written
  const struct { Record record; const char* file; } rows[] = {
      {{"MyApp", 0x73, kFlashKindApp}, "MyApp.kdk"}, {{"os", 0x74, kFlashKindBase}, "os.kau"},
      {{"c", 0x98, kFlashKindCert}, "c.maq"}, {{"r", 0x88, kFlashKindCert, 8}, "r.raq"},
      {{"r", 0x88, kFlashKindBase, 8}, "r.rau"}, {{"n", 0x88, kFlashKindApp, 7}, "n.nbk"},
      {{"", 0x98, kFlashKindBase}, "BASE0.mau"}, {{"", 0x73, kFlashKindApp}, "APP0.kdk"},
      {{"", 0x73, kFlashKindCert}, "CERT0.kdq"}, {{"a/b", 0x73, kFlashKindApp}, "a_b.kdk"},
      {{"odd", 0x82, kFlashKindApp}, "odd"},   // unknown device: no extension
      {{"kind", 0x73, 0x30}, "kind"},          // unknown kind: no extension
      {{"caf\xE9", 0x73, kFlashKindApp}, "caf\xE9.kdk"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.file);
    test::TempDir dir;
    const std::string bytes = Build(r.record);
    fs::File in = fs::File::OpenRead(dir.Write("in.fl", bytes));
    std::string list;
    EXPECT_EQ(ExpandFlashRecords(in, dir.path() + "/", list), S_OK);
    const std::string out = dir.path() + "/" + r.file;
    EXPECT_EQ(list, out + ",");
    EXPECT_EQ(Slurp(out), bytes);  // header and data copied byte for byte
  }
}

TEST(FlashFile, WalksRecordsAndStopsAtDamage) {
  const Record app{"A", 0x73, kFlashKindApp};
  const Record skip{"S", 0x73, kFlashKindSkipped};
  const Record base{"", 0x98, kFlashKindBase};
  std::string longName = Build({"N", 0x73, kFlashKindApp, 0, "x", 0xF0});  // length past header
  std::string huge = Build({"big", 0x73, kFlashKindApp});
  huge.replace(kFlashDataLengthAt, 4, "\xFF\xFF\xFF\xFF");  // refused before any allocation
  const struct { const char* what; std::string bytes; HRESULT status;
      std::vector<std::string> written; } rows[] = {
      {"two records", Build(app) + Build(base), S_OK, {"A.kdk", "BASE0.mau"}},
      {"skipped kind", Build(skip) + Build(app), S_OK, {"A.kdk"}},
      {"same path twice", Build(base) + Build(base), S_OK, {"BASE0.mau", "BASE0.mau"}},
      {"trailing junk", Build(app) + "junk", S_FALSE, {"A.kdk"}},
      {"not a flash file", "hello, world", S_FALSE, {}},
      {"short header", Build(app) + Build(app).substr(0, 40), S_FALSE, {"A.kdk"}},
      {"data cut short", Build(app) + Build(app).substr(0, 80), S_FALSE, {"A.kdk"}},
      {"huge data length", Build(app) + huge, S_FALSE, {"A.kdk"}}, {"empty", "", S_OK, {}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    test::TempDir dir;
    fs::File in = fs::File::OpenRead(dir.Write("in.fl", r.bytes));
    std::string list;
    EXPECT_EQ(ExpandFlashRecords(in, dir.path() + "/", list), r.status);
    std::string want;
    for (const std::string& f : r.written) want += dir.path() + "/" + f + ",";
    EXPECT_EQ(list, want);
  }

  // A length byte beyond the header takes the name up to the header's end only.
  test::TempDir dir;
  fs::File in = fs::File::OpenRead(dir.Write("in.fl", longName));
  std::string list;
  EXPECT_EQ(ExpandFlashRecords(in, dir.path() + "/", list), S_OK);
  EXPECT_EQ(list.find(dir.path() + "/N"), 0u);
}

TEST(FlashFile, OutputThatCannotBeCreated) {
  test::TempDir dir;
  const std::string bytes = Build({"A", 0x73, kFlashKindApp}) + Build({"B", 0x73, kFlashKindApp});
  fs::File in = fs::File::OpenRead(dir.Write("in.fl", bytes));
  std::string list = "kept,";
  EXPECT_EQ(ExpandFlashRecords(in, dir.path() + "/missing/", list), static_cast<HRESULT>(0x8007006Eu));
  EXPECT_EQ(list, "kept,");

  // The first record is written before the second one fails.
  fs::CreateFolder(dir / "B.kdk");
  fs::File again = fs::File::OpenRead(dir / "in.fl");
  list.clear();
  EXPECT_EQ(ExpandFlashRecords(again, dir.path() + "/", list), static_cast<HRESULT>(0x8007006Eu));
  EXPECT_EQ(list, dir.path() + "/A.kdk,");
}

}  // namespace
}  // namespace qx
