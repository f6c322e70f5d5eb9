// What WriteZip puts on the disk, byte for byte: local headers, central directory and end
// record as the layout tables give them, members taken over from an opened archive copied
// without recompressing, and the refusals that leave the old archive alone.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "archive/VxZip.h"
#include "archive/ZipBytes.h"
#include "support/TempDir.h"

namespace qx {
namespace {

using test::ReadFileBytes;
using test::TempDir;
using namespace ziptest;

bool Logged(const VxZip& zip, const std::string& message) {
  for (const std::string& m : zip.Log())
    if (m == message) return true;
  return false;
}

VxByteData Bytes(const std::string& s) { return VxByteData(s.data(), s.size()); }

std::string Binary(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 7919 + i / 3) & 0xFF);
  return s;
}

TEST(ZipWrite, NewArchiveWithoutEntriesIsOnlyTheEndRecord) {
  TempDir dir;
  VxZip zip;
  ASSERT_TRUE(zip.NewZip((dir / "empty.zip").c_str()));
  ASSERT_TRUE(zip.WriteZip());
  std::string expected = "PK\x05\x06";
  expected.resize(22, '\0');
  EXPECT_EQ(ReadFileBytes(dir / "empty.zip"), expected);
  EXPECT_EQ(zip.EntryCount(), 0);
  EXPECT_EQ(zip.FirstEntry(), nullptr);
  EXPECT_TRUE(Logged(zip, "This Zip contains no entries"));
}

// Appended members as they must be written. `stored` is the name as it must appear in the
// headers; `method` < 0 leaves the method as AppendData set it.
struct AppendRow {
  const char* label;
  std::string name, stored, data;
  int method;
  uint16_t writtenMethod;
  uint16_t internalAttributes;
};

TEST(ZipWrite, AppendedMembersFollowTheLayoutByteForByte) {
  const std::string text(300, 'x');
  const std::string big = Binary(65535);
  const std::vector<AppendRow> rows = {
      {"text, deflated", "a.kdp", "a.kdp", text + "\r\n", -1, 8, 1},
      {"folders in the name", "sub\\b.kdp", "sub/b.kdp", Binary(40), -1, 8, 0},
      {"65,535 bytes stored", "big0.bin", "big0.bin", big, 0, 0, 0},
      {"65,535 bytes deflated", "big8.bin", "big8.bin", big, -1, 8, 0},
      {"any non-zero method deflates", "m3.bin", "m3.bin", text, 3, 8, 1},
      {"name in code page 850", "caf\xE9.kdp", "caf\x82.kdp", "abc", -1, 8, 1},
  };
  TempDir dir;
  const std::string path = dir / "out.zip";
  {
    VxZip zip;
    ASSERT_TRUE(zip.NewZip(path.c_str()));
    for (const AppendRow& row : rows) {
      auto e = zip.AppendData(row.name.c_str(), Bytes(row.data));
      ASSERT_NE(e, nullptr) << row.label;
      if (row.method >= 0) e->SetCompressionMethod(row.method);
      // The size announced before writing is the size written.
      const std::string payload = row.writtenMethod == 8 ? Deflate(row.data) : row.data;
      EXPECT_EQ(e->GetCompressedSize(), payload.size()) << row.label;
    }
    ASSERT_TRUE(zip.WriteZip());
    EXPECT_EQ(zip.EntryCount(), static_cast<int>(rows.size()));
  }
  const std::string bytes = ReadFileBytes(path);
  const Parsed p = ParseZip(bytes);
  ASSERT_EQ(p.error, "");
  ASSERT_EQ(p.centrals.size(), rows.size());

  // Every member carries the time of its AppendData, taken as local time.
  SYSTEMTIME now = timeutil::LocalNow();
  uint16_t nowDate = 0, nowTime = 0;
  timeutil::ToDosDateTime(now, nowDate, nowTime);
  EXPECT_EQ(p.centrals[0].date, nowDate);
  EXPECT_LE(nowTime - p.centrals[0].time, 60u);

  // The whole file, rebuilt from the tables.
  std::string expected, directory;
  for (size_t i = 0; i < rows.size(); ++i) {
    const AppendRow& row = rows[i];
    const std::string payload = row.writtenMethod == 8 ? Deflate(row.data) : row.data;
    const uint32_t offset = static_cast<uint32_t>(expected.size());
    const uint32_t time = p.centrals[i].time, date = p.centrals[i].date;
    Put32(expected, 0x04034b50);
    for (uint32_t v : {20u, 0u, uint32_t{row.writtenMethod}, time, date}) Put16(expected, v);
    for (uint32_t v : {Crc(row.data), uint32_t(payload.size()), uint32_t(row.data.size())})
      Put32(expected, v);
    Put16(expected, static_cast<uint32_t>(row.stored.size()));
    Put16(expected, 0);
    expected += row.stored + payload;

    Put32(directory, 0x02014b50);
    directory += '\x14';
    directory += '\x0B';
    for (uint32_t v : {20u, 0u, uint32_t{row.writtenMethod}, time, date}) Put16(directory, v);
    for (uint32_t v : {Crc(row.data), uint32_t(payload.size()), uint32_t(row.data.size())})
      Put32(directory, v);
    for (uint32_t v : {uint32_t(row.stored.size()), 0u, 0u, 0u, uint32_t{row.internalAttributes}})
      Put16(directory, v);
    Put32(directory, 0x80);
    Put32(directory, offset);
    directory += row.stored;
  }
  const uint32_t directoryOffset = static_cast<uint32_t>(expected.size());
  expected += directory;
  Put32(expected, 0x06054b50);
  for (uint32_t v : {0u, 0u, uint32_t(rows.size()), uint32_t(rows.size())}) Put16(expected, v);
  Put32(expected, static_cast<uint32_t>(directory.size()));
  Put32(expected, directoryOffset);
  Put16(expected, 0);
  ASSERT_EQ(bytes.size(), expected.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].label);
    EXPECT_EQ(p.locals[i].method, rows[i].writtenMethod);
    EXPECT_EQ(p.centrals[i].internalAttributes, rows[i].internalAttributes);
    EXPECT_EQ(p.centrals[i].name, rows[i].stored);
  }
  EXPECT_TRUE(bytes == expected) << "written bytes differ from the layout";
}

// Internal attribute 1 marks text: among the first 800 bytes, no more bytes of 0-6 and
// 128-255 than a quarter of those of 7-127.
TEST(ZipWrite, TextJudgementCountsTheFirst800Bytes) {
  struct Row {
    const char* label;
    std::string data;
    uint32_t attribute;
  };
  const std::vector<Row> rows = {
      {"plain text", std::string(100, 'a'), 1},
      {"a quarter exactly is still text", std::string(80, 'a') + std::string(20, '\0'), 1},
      {"one more is binary", std::string(79, 'a') + std::string(21, '\0'), 0},
      {"7 is text, 6 is not", std::string(40, '\x07') + std::string(10, '\x06'), 1},
      {"6 tips it over", std::string(40, '\x07') + std::string(11, '\x06'), 0},
      {"128-255 count as binary", std::string(40, 'a') + std::string(11, '\xE9'), 0},
      {"bytes after 800 do not count", std::string(800, 'a') + std::string(5000, '\0'), 1},
      {"a single zero byte", std::string(1, '\0'), 0},
  };
  TempDir dir;
  const std::string path = dir / "t.zip";
  VxZip zip;
  ASSERT_TRUE(zip.NewZip(path.c_str()));
  for (const Row& row : rows) ASSERT_NE(zip.AppendData(row.label, Bytes(row.data)), nullptr);
  ASSERT_TRUE(zip.WriteZip());
  const Parsed p = ParseZip(ReadFileBytes(path));
  ASSERT_EQ(p.centrals.size(), rows.size());
  for (size_t i = 0; i < rows.size(); ++i)
    EXPECT_EQ(p.centrals[i].internalAttributes, rows[i].attribute) << rows[i].label;
}

TEST(ZipWrite, MembersOfTheOpenedArchiveAreCopiedNotRecompressed) {
  TempDir dir;
  const std::string path = dir / "old.zip";
  // Level 1 and an unknown method give bytes a level-6 rewrite could not reproduce.
  Member fast{"fast.txt", std::string(5000, 'q') + "tail", 8};
  fast.level = 1;
  fast.localExtra = std::string("\x99\x99\x02\x00zz", 6);
  Member odd{"odd.bin", "whatever", 12};
  odd.payload = "not really bzip2";
  odd.flags = 1;  // encrypted: must stay marked so
  Member streamed{"streamed.txt", "sizes after the data"};
  streamed.descriptor = true;
  dir.Write("old.zip", BuildZip({fast, odd, streamed}, Comment("kept comment")));

  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(path.c_str()));
  ASSERT_NE(zip.AppendData("new.txt", Bytes("fresh")), nullptr);
  ASSERT_TRUE(zip.WriteZip());
  const Parsed p = ParseZip(ReadFileBytes(path));
  ASSERT_EQ(p.error, "");
  ASSERT_EQ(p.locals.size(), 4u);
  EXPECT_EQ(p.locals[0].payload, Deflate(fast.data, 1));
  EXPECT_EQ(p.locals[0].crc, Crc(fast.data));
  EXPECT_EQ(p.locals[0].extraLength, 0u);  // extra fields are not carried over
  EXPECT_EQ(p.locals[1].method, 12u);
  EXPECT_EQ(p.locals[1].payload, "not really bzip2");
  EXPECT_EQ(p.locals[1].flags, 1u);
  EXPECT_EQ(p.centrals[1].flags, 1u);
  // Sizes go into the header; the data descriptor is not copied.
  EXPECT_EQ(p.locals[2].flags, 0u);
  EXPECT_EQ(p.locals[2].compressedSize, Deflate(streamed.data).size());
  EXPECT_EQ(p.locals[2].payload, Deflate(streamed.data));
  EXPECT_EQ(p.centrals[0].date, 0x5D76u);
  EXPECT_EQ(p.centrals[0].time, 0xA52Fu);
  EXPECT_EQ(p.centrals[0].externalAttributes, 0x20u);
  EXPECT_EQ(p.centrals[3].name, "new.txt");
  EXPECT_EQ(p.comment, "kept comment");
  // The reopened archive reads its own output.
  auto e = zip.GetEntryByName("fast.txt");
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->GetUncompressedSize(), fast.data.size());
  ASSERT_TRUE(e->ExtractInto((dir / "x").c_str()));
  EXPECT_EQ(ReadFileBytes(dir / "x/fast.txt"), fast.data);
}

// Each forbidden character is refused before anything is written: the old archive keeps its
// bytes and the list its entries, and no temporary file is left.
TEST(ZipWrite, ForbiddenCharactersInThePathLeaveTheOldArchive) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"<", "Filename cannot contain a '<'"},
      {">", "Filename cannot contain a '>'"},
      {"\"", "Filename cannot contain a double-quote character"},
      {"?", "Filename cannot contain a question-mark character"},
      {"*", "Filename cannot contain a * character"},
      {"|", "Filename cannot contain a | character"},
  };
  for (const auto& [c, message] : rows) {
    SCOPED_TRACE(c);
    TempDir dir;
    const std::string original = BuildZip({{"a.kdp", "old data"}});
    const std::string path = dir.Write("a" + c + ".zip", original);
    VxZip zip;
    ASSERT_TRUE(zip.OpenZip(path.c_str()));
    ASSERT_NE(zip.AppendData("b.kdp", Bytes("new")), nullptr);
    EXPECT_FALSE(zip.WriteZip());
    EXPECT_TRUE(Logged(zip, message));
    EXPECT_EQ(ReadFileBytes(path), original);
    EXPECT_EQ(zip.EntryCount(), 2);
    size_t files = 0;
    for ([[maybe_unused]] const auto& f : std::filesystem::directory_iterator(dir.path())) ++files;
    EXPECT_EQ(files, 1u);
  }
}

TEST(ZipWrite, WithoutAnOpenArchiveNothingIsWritten) {
  TempDir dir;
  const std::string path = dir / "missing.zip";
  VxZip zip;
  EXPECT_FALSE(zip.OpenZip(path.c_str()));
  EXPECT_TRUE(Logged(zip, "Failed to open Zip file"));
  EXPECT_FALSE(zip.WriteZip());
  EXPECT_TRUE(Logged(zip, "No zip file has been opened."));
  EXPECT_FALSE(std::filesystem::exists(path));
  ASSERT_TRUE(zip.NewZip(path.c_str()));
  EXPECT_TRUE(zip.WriteZip());
  EXPECT_EQ(ReadFileBytes(path).size(), 22u);
}

TEST(ZipWrite, CreatesTheArchiveFolderAndReplacesAnExistingFile) {
  TempDir dir;
  const std::string path = dir / "a/b/c.zip";
  {
    VxZip zip;
    ASSERT_TRUE(zip.NewZip(path.c_str()));
    ASSERT_NE(zip.AppendData("one", Bytes("1")), nullptr);
    ASSERT_TRUE(zip.WriteZip());
  }
  VxZip zip;
  ASSERT_TRUE(zip.NewZip(path.c_str()));  // a new list for an existing file replaces it
  ASSERT_NE(zip.AppendData("two", Bytes("2")), nullptr);
  ASSERT_TRUE(zip.WriteZip());
  const Parsed p = ParseZip(ReadFileBytes(path));
  ASSERT_EQ(p.centrals.size(), 1u);
  EXPECT_EQ(p.centrals[0].name, "two");
  size_t files = 0;
  for ([[maybe_unused]] const auto& f : std::filesystem::directory_iterator(dir / "a/b")) ++files;
  EXPECT_EQ(files, 1u);  // no temporary file beside it
}

}  // namespace
}  // namespace qx
