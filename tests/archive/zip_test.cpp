// The zip service on archives assembled here field by field (and on its own output read back
// field by field), so neither side of a check is the code under test.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "archive/VxZip.h"
#include "archive/XmlHelpers.h"
#include "platform/time.h"
#include "support/TempDir.h"

namespace qx::test {
namespace {

namespace stdfs = std::filesystem;

std::string Le16(unsigned v) { return {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8 & 0xFF)}; }
std::string Le32(uint32_t v) { return Le16(v & 0xFFFF) + Le16(v >> 16); }
uint16_t Get16(const std::string& b, size_t at) {
  return static_cast<uint16_t>(static_cast<unsigned char>(b[at]) | static_cast<unsigned char>(b[at + 1]) << 8);
}
uint32_t Get32(const std::string& b, size_t at) { return Get16(b, at) | static_cast<uint32_t>(Get16(b, at + 2)) << 16; }

uint32_t Crc(const std::string& s) {
  return static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(s.data()), static_cast<uInt>(s.size())));
}

std::string RawDeflate(const std::string& s) {
  z_stream z{};
  deflateInit2(&z, 6, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&z, static_cast<uLong>(s.size())), '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(s.data()));
  z.avail_in = static_cast<uInt>(s.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

// One member of a hand-made archive. `stated` overrides the uncompressed size in both headers.
struct Raw {
  std::string name;
  std::string data;
  bool deflate = false;
  bool descriptor = false;  // sizes after the data, zero in the local header
  uint32_t externalAttributes = 0;
  int64_t stated = -1;
  uint16_t date = 0x5B21, time = 0x6000;  // 2025-09-01 12:00:00
};

// Local headers, central directory and end record, back to back.
std::string Archive(const std::vector<Raw>& members, bool withEnd = true) {
  std::string body, dir;
  for (const Raw& m : members) {
    const std::string stored = m.deflate ? RawDeflate(m.data) : m.data;
    const uint32_t usize = m.stated >= 0 ? static_cast<uint32_t>(m.stated) : static_cast<uint32_t>(m.data.size());
    const uint32_t offset = static_cast<uint32_t>(body.size());
    const std::string fields = Le16(m.time) + Le16(m.date) + Le32(Crc(m.data)) +
                               Le32(static_cast<uint32_t>(stored.size())) + Le32(usize);
    const std::string method = Le16(m.deflate ? 8 : 0), flags = Le16(m.descriptor ? 8 : 0);
    body += Le32(0x04034b50) + Le16(20) + flags + method +
            (m.descriptor ? Le16(m.time) + Le16(m.date) + std::string(12, '\0') : fields) +
            Le16(static_cast<unsigned>(m.name.size())) + Le16(0) + m.name + stored;
    if (m.descriptor) body += Le32(0x08074b50) + fields.substr(4);
    dir += Le32(0x02014b50) + Le16(20) + Le16(20) + flags + method + fields +
           Le16(static_cast<unsigned>(m.name.size())) + Le16(0) + Le16(0) + Le16(0) + Le16(0) +
           Le32(m.externalAttributes) + Le32(offset) + m.name;
  }
  std::string end = Le32(0x06054b50) + Le16(0) + Le16(0) + Le16(static_cast<unsigned>(members.size())) +
                    Le16(static_cast<unsigned>(members.size())) + Le32(static_cast<uint32_t>(dir.size())) +
                    Le32(static_cast<uint32_t>(body.size())) + Le16(0);
  return body + dir + (withEnd ? end : std::string());
}

std::string NameOf(VxZipEntry& e) {
  VxString s;
  e.GetFileName(s);
  return Str(s);
}

bool Logged(const VxZip& zip, const std::string& message) {
  for (const std::string& m : zip.Log())
    if (m == message) return true;
  return false;
}

VxByteData Data(const std::string& s) { return VxByteData(s.data(), s.size()); }

// ---- Writing ------------------------------------------------------------------------------------

TEST(ZipWrite, EmptyArchiveIsTheEndRecordAlone) {
  TempDir dir;
  VxZip zip;
  ASSERT_TRUE(zip.NewZip((dir / "e.zip").c_str()));
  ASSERT_TRUE(zip.WriteZip());
  EXPECT_EQ(ReadFileBytes(dir / "e.zip"), Le32(0x06054b50) + std::string(18, '\0'));
  EXPECT_EQ(zip.EntryCount(), 0);
  EXPECT_EQ(zip.FirstEntry(), nullptr);
  EXPECT_TRUE(Logged(zip, "This Zip contains no entries"));
}

TEST(ZipWrite, HeadersFieldByField) {
  TempDir dir;
  const std::string text = std::string(1000, 'a') + "\r\n";
  std::string binary(65535, '\0');
  for (size_t i = 0; i < binary.size(); ++i) binary[i] = static_cast<char>(i * 7 + (i >> 8));
  struct Case {
    const char* name;
    std::string stored;  // name as written
    const std::string* data;
    bool store;
    uint16_t internal;
  };
  const Case cases[] = {
      {"sub\\t.txt", "sub/t.txt", &text, false, 1},
      {"b.bin", "b.bin", &binary, true, 0},
      {"big.bin", "big.bin", &binary, false, 0},
  };
  VxZip zip;
  ASSERT_TRUE(zip.NewZip((dir / "w.zip").c_str()));
  for (const Case& c : cases) {
    auto e = zip.AppendData(c.name, Data(*c.data));
    ASSERT_TRUE(e);
    if (c.store) e->SetCompressionMethod(0);
  }
  // Before the write the compressed size is already the one that will be written.
  const uint32_t announced = zip.GetEntryByName("big.bin")->GetCompressedSize();
  auto stale = zip.FirstEntry();
  ASSERT_TRUE(zip.WriteZip());
  EXPECT_EQ(stale->GetUncompressedSize(), 0u);  // handles from before the write are empty
  EXPECT_EQ(NameOf(*stale), "");
  EXPECT_EQ(zip.EntryCount(), 3);

  const std::string bytes = ReadFileBytes(dir / "w.zip");
  const uint32_t directory = Get32(bytes, bytes.size() - 6);
  size_t local = 0, central = directory;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string& data = *c.data;
    const std::string payload = c.store ? data : RawDeflate(data);
    ASSERT_EQ(Get32(bytes, local), 0x04034b50u);
    EXPECT_EQ(Get16(bytes, local + 4), 20);
    EXPECT_EQ(Get16(bytes, local + 6), 0);  // no data descriptor
    EXPECT_EQ(Get16(bytes, local + 8), c.store ? 0 : 8);
    EXPECT_EQ(Get32(bytes, local + 14), Crc(data));
    EXPECT_EQ(Get32(bytes, local + 18), payload.size());
    EXPECT_EQ(Get32(bytes, local + 22), data.size());
    EXPECT_EQ(Get16(bytes, local + 28), 0);
    EXPECT_EQ(bytes.substr(local + 30, c.stored.size()), c.stored);
    EXPECT_EQ(bytes.substr(local + 30 + c.stored.size(), payload.size()), payload);

    ASSERT_EQ(Get32(bytes, central), 0x02014b50u);
    EXPECT_EQ(static_cast<unsigned char>(bytes[central + 4]), 20);
    EXPECT_EQ(static_cast<unsigned char>(bytes[central + 5]), 11);
    EXPECT_EQ(Get16(bytes, central + 6), 20);
    EXPECT_EQ(bytes.substr(central + 10, 16), bytes.substr(local + 8, 16));  // method .. sizes
    EXPECT_EQ(Get16(bytes, central + 36), c.internal);
    EXPECT_EQ(Get32(bytes, central + 38), 0x80u);
    EXPECT_EQ(Get32(bytes, central + 42), local);
    local += 30 + c.stored.size() + payload.size();
    central += 46 + c.stored.size();
  }
  EXPECT_EQ(announced, RawDeflate(binary).size());
  EXPECT_EQ(local, directory);
  EXPECT_EQ(Get16(bytes, central + 8), 3);
  EXPECT_EQ(Get16(bytes, central + 10), 3);
  EXPECT_EQ(Get32(bytes, central + 12), central - directory);
  EXPECT_EQ(central + 22, bytes.size());
}

TEST(ZipWrite, RefusedPathsLeaveTheArchiveAlone) {
  TempDir dir;
  const std::string good = dir.Write("a.zip", Archive({{"x.txt", "xyz"}}));
  for (const auto& [c, message] : std::vector<std::pair<char, std::string>>{
           {'<', "Filename cannot contain a '<'"},
           {'>', "Filename cannot contain a '>'"},
           {'"', "Filename cannot contain a double-quote character"},
           {'?', "Filename cannot contain a question-mark character"},
           {'*', "Filename cannot contain a * character"},
           {'|', "Filename cannot contain a | character"}}) {
    SCOPED_TRACE(message);
    const std::string odd = dir / (std::string("b") + c + ".zip");
    VxZip zip;
    ASSERT_TRUE(zip.NewZip(odd.c_str()));
    ASSERT_TRUE(zip.AppendData("n.txt", Data("new")));
    EXPECT_FALSE(zip.WriteZip());
    EXPECT_TRUE(Logged(zip, message));
    EXPECT_FALSE(stdfs::exists(odd));
    EXPECT_EQ(zip.EntryCount(), 1);  // the list survives a refused write
  }
  VxZip missing;
  EXPECT_FALSE(missing.OpenZip((dir / "none.zip").c_str()));
  EXPECT_TRUE(Logged(missing, "Failed to open Zip file"));
  EXPECT_FALSE(missing.WriteZip());
  EXPECT_TRUE(Logged(missing, "No zip file has been opened."));
  EXPECT_TRUE(missing.NewZip((dir / "none.zip").c_str()));
  EXPECT_TRUE(missing.WriteZip());
  EXPECT_EQ(ReadFileBytes(good), Archive({{"x.txt", "xyz"}}));
}

TEST(ZipWrite, OpenedMembersAreCopiedWithoutRecompressing) {
  TempDir dir;
  const std::string path = dir.Write("a.zip", Archive({{"keep.txt", std::string(500, 'k'), true},
                                                        {"drop.txt", "d"},
                                                        {"dir/", "", false, false, 0x10}}));
  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(path.c_str()));
  auto drop = zip.GetEntryByName("drop.txt");
  auto keep = zip.FirstEntry();
  ASSERT_TRUE(zip.DeleteEntry(drop.get()));
  EXPECT_TRUE(zip.DeleteEntry(drop.get()));  // already gone: still true, nothing changes
  EXPECT_FALSE(zip.DeleteEntry(nullptr));
  EXPECT_EQ(drop->GetUncompressedSize(), 0u);
  EXPECT_EQ(NameOf(*keep), "keep.txt");  // other handles stay valid
  ASSERT_TRUE(zip.AppendData("new.txt", Data("fresh")));
  ASSERT_TRUE(zip.WriteZip());
  ASSERT_EQ(zip.EntryCount(), 3);
  const std::string bytes = ReadFileBytes(path);
  EXPECT_NE(bytes.find(RawDeflate(std::string(500, 'k'))), std::string::npos);
  EXPECT_TRUE(zip.GetEntryByName("dir\\")->IsDirectory());
  EXPECT_EQ(zip.GetEntryByIndex(2)->GetUncompressedSize(), 5u);
  EXPECT_EQ(zip.GetEntryByIndex(3), nullptr);
  EXPECT_TRUE(Logged(zip, "No zip entry found at the given index"));
}

// ---- Reading ------------------------------------------------------------------------------------

TEST(ZipRead, WhatOpensAndWhatDoesNot) {
  const std::string plain = Archive({{"a.txt", "alpha"}, {"b.txt", std::string(300, 'b'), true}});
  std::string zip64 = plain;
  zip64.replace(18, 4, Le32(0xFFFFFFFF));
  std::string lying = plain;
  lying.replace(18, 4, Le32(50000));  // compressed size past the end of the file
  std::string unpaired = Archive({{"a.txt", "alpha"}});
  unpaired.insert(unpaired.size() - 22, Archive({{"c.txt", "c"}}).substr(36, 46 + 5));
  const struct {
    const char* name;
    std::string bytes;
    bool opens;
    const char* message;
  } cases[] = {
      {"plain", plain, true, nullptr},
      {"four bytes before", "JUNK" + plain, true, nullptr},
      {"eight bytes before", "JUNKJUNK" + plain, false, "Zip signature is not valid (1)"},
      {"DWF wrapper", "(DWF V06.00" + std::string(1, '\0') + plain, true, nullptr},
      {"not an archive", "hello, world", false, "Not a Zip archive"},
      {"empty file", "", false, "Not a Zip archive"},
      {"no end record", Archive({{"a.txt", "alpha"}}, false), false, "End of Dir signature is wrong."},
      {"truncated data", plain.substr(0, 40), false, nullptr},
      {"lying size", lying, false, nullptr},
      {"zip64 size", zip64, false, "Zip64 archives are not supported"},
      {"directory without its member", unpaired, false, "Central directory does not match the local headers"},
      {"data descriptors", Archive({{"d.txt", std::string(2000, 'd'), true, true}, {"e.txt", "e", false, true}}), true, nullptr},
  };
  TempDir dir;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    VxZip zip;
    EXPECT_EQ(zip.OpenZip(dir.Write("t.zip", c.bytes).c_str()), c.opens);
    if (c.message != nullptr) {
      EXPECT_TRUE(Logged(zip, c.message));
    }
    if (!c.opens) {
      EXPECT_EQ(zip.EntryCount(), 0);
      EXPECT_EQ(zip.FirstEntry(), nullptr);
      EXPECT_TRUE(Logged(zip, "No zip file has been opened."));
      continue;
    }
    const std::string out = dir / (std::string("out-") + c.name);
    EXPECT_TRUE(zip.Extract(out.c_str()));
    for (auto e = zip.FirstEntry(); e; e = e->NextEntry()) {
      const std::string got = ReadFileBytes(out + "/" + NameOf(*e));
      EXPECT_EQ(got.size(), e->GetUncompressedSize());
    }
  }
}

TEST(ZipRead, NamesAndLookups) {
  TempDir dir;
  const std::string path = dir.Write("n.zip", Archive({{"sub/b.kdp", "first"},
                                                        {"sub/b.kdp", "second!"},
                                                        {"\x82t\x82.txt", "oem"},
                                                        {"caf\xE9.txt", "ansi"}}));
  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(path.c_str()));
  const struct {
    const char* given;
    uint32_t size;  // 0: not found
  } lookups[] = {
      {"sub\\b.kdp", 5}, {"sub/b.kdp", 5}, {"SUB/B.KDP", 0}, {"\xE9t\xE9.txt", 3},  // names compare as text, whatever code page
      {"\x82t\x82.txt", 3}, {"caf\xE9.txt", 4}, {"nothing", 0},
  };
  for (const auto& l : lookups) {
    SCOPED_TRACE(l.given);
    auto e = zip.GetEntryByName(l.given);
    EXPECT_EQ(e ? e->GetUncompressedSize() : 0u, l.size);
  }
  EXPECT_TRUE(Logged(zip, "File not found in zip archive"));
  EXPECT_EQ(zip.GetEntryByName(nullptr), nullptr);
  EXPECT_EQ(NameOf(*zip.GetEntryByIndex(0)), "sub\\b.kdp");
  EXPECT_EQ(NameOf(*zip.GetEntryByIndex(2)), "\xE9t\xE9.txt");  // code page 850 shown as 1252
  EXPECT_EQ(NameOf(*zip.GetEntryByIndex(3)), "caf\xE9.txt");

  SYSTEMTIME t{};
  zip.FirstEntry()->GetFileTime(t);
  EXPECT_EQ(std::vector<int>({t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond}),
            std::vector<int>({2025, 9, 1, 12, 0, 0}));
  EXPECT_EQ(t.wDayOfWeek, 1);  // a Monday
}

TEST(ZipRead, DirectoryListing) {
  TempDir dir;
  const std::string path = dir.Write("l.zip", Archive({{"a.kdp", "a"},
                                                        {"sub/b.kdp", "b"},
                                                        {"sub/", "", false, false, 0x10},
                                                        {"sub/deep/c.kdp", "c"},
                                                        {"d.kdp", "d"}}));
  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(path.c_str()));
  VxString xml;
  ASSERT_TRUE(zip.GetDirectoryAsXML(xml));
  EXPECT_EQ(Str(xml),
            "\r\n<zip_contents>\r\n<file>a.kdp</file>\r\n<dir name=\"sub\">\r\n<file>b.kdp</file>\r\n"
            "<dir name=\"deep\">\r\n<file>c.kdp</file>\r\n</dir>\r\n</dir>\r\n<file>d.kdp</file>\r\n"
            "</zip_contents>\r\n");
}

// ---- Extracting ---------------------------------------------------------------------------------

TEST(ZipExtract, StaysInsideItsFolder) {
  TempDir dir;
  const std::string path = dir.Write("x.zip", Archive({{"../up.txt", "u"},
                                                        {"/abs.txt", "a"},
                                                        {"a/../../x.txt", "x"},
                                                        {std::string("nul\0.txt", 8), "n"},
                                                        {"ok/fine.txt", "fine"}}));
  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(path.c_str()));
  const std::string out = dir / "out";
  EXPECT_FALSE(zip.Extract(out.c_str()));
  EXPECT_TRUE(Logged(zip, "Not all files extracted successfully."));
  EXPECT_EQ(ReadFileBytes(out + "/ok/fine.txt"), "fine");
  size_t written = 0;
  for (const auto& e : stdfs::recursive_directory_iterator(dir.path())) written += e.is_regular_file();
  EXPECT_EQ(written, 2u);  // the archive and fine.txt
  EXPECT_FALSE(stdfs::exists("/abs.txt"));
}

TEST(ZipExtract, DamagedMembersLeaveNoFile) {
  const std::string big(100000, 'z');
  const struct {
    const char* name;
    Raw member;
  } cases[] = {
      {"inflates past its stated size", {"bomb.txt", big, true, false, 0, 1000}},
      {"stated larger than it inflates", {"short.txt", "abc", true, false, 0, 10}},
  };
  TempDir dir;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string bytes = Archive({c.member, {"good.txt", "good"}});
    VxZip zip;
    ASSERT_TRUE(zip.OpenZip(dir.Write("d.zip", bytes).c_str()));
    const std::string out = dir / "out";
    EXPECT_FALSE(zip.Extract(out.c_str()));
    EXPECT_FALSE(stdfs::exists(out + "/" + c.member.name));
    EXPECT_EQ(ReadFileBytes(out + "/good.txt"), "good");
  }
  // A flipped byte of stored data fails its CRC.
  std::string bytes = Archive({{"c.txt", "checked"}});
  bytes[30 + 5] ^= 1;
  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(dir.Write("c.zip", bytes).c_str()));
  EXPECT_FALSE(zip.GetEntryByName("c.txt")->ExtractInto((dir / "crc").c_str()));
  EXPECT_FALSE(stdfs::exists(dir / "crc/c.txt"));
}

TEST(ZipExtract, IntoAFolderWithTimesAndAttributes) {
  TempDir dir;
  const std::string path = dir.Write("t.zip", Archive({{"sub/b.kdp", "bee", false, false, 0x01},
                                                        {"sub/", "", false, false, 0x10}}));
  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(path.c_str()));
  const std::string out = dir / "new/out";  // missing, parents too
  ASSERT_TRUE(zip.FirstEntry()->ExtractInto(out.c_str()));
  EXPECT_EQ(ReadFileBytes(out + "/b.kdp"), "bee");
  EXPECT_FALSE(stdfs::exists(out + "/sub"));
  EXPECT_TRUE(zip.GetEntryByIndex(1)->ExtractInto(out.c_str()));  // a folder writes nothing
  struct stat st {};
  ASSERT_EQ(::stat((out + "/b.kdp").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, timeutil::FromLocal(timeutil::FromDosDateTime(0x5B21, 0x6000)));
  EXPECT_EQ(st.st_mode & 0222, 0u);  // read-only

  // Appended members get neither the stored time nor attributes.
  ASSERT_TRUE(zip.NewZip((dir / "fresh.zip").c_str()));
  auto e = zip.AppendData("f.txt", Data("f"));
  ASSERT_TRUE(e->ExtractInto(out.c_str()));
  ASSERT_EQ(::stat((out + "/f.txt").c_str(), &st), 0);
  EXPECT_NE(st.st_mode & 0200, 0u);
  EXPECT_FALSE(e->IsDirectory());
}

// ---- Entry list ---------------------------------------------------------------------------------

TEST(ZipEntries, AppendRefusalsAndHandles) {
  TempDir dir;
  VxZip zip;
  EXPECT_EQ(zip.AppendData("a", Data("x")), nullptr);
  EXPECT_TRUE(Logged(zip, "No zip file has been opened."));
  ASSERT_TRUE(zip.NewZip((dir / "h.zip").c_str()));
  const struct {
    const char* name;
    std::string data;
    const char* message;
  } refusals[] = {
      {nullptr, "x", "null parameter"},
      {"a", "", "Data length must be > 0"},
      {"", "x", "No filename was provided"},
  };
  for (const auto& r : refusals) {
    SCOPED_TRACE(r.message);
    EXPECT_EQ(zip.AppendData(r.name, Data(r.data)), nullptr);
    EXPECT_TRUE(Logged(zip, r.message));
  }
  auto one = zip.AppendData("dup.txt", Data("one"));
  auto two = zip.AppendData("dup.txt", Data("second"));
  EXPECT_EQ(zip.EntryCount(), 2);
  EXPECT_EQ(zip.GetEntryByName("dup.txt")->GetUncompressedSize(), 3u);
  zip.DeleteEntry(one.get());
  EXPECT_EQ(zip.GetEntryByName("dup.txt")->GetUncompressedSize(), 6u);
  EXPECT_EQ(one->NextEntry(), nullptr);
  EXPECT_FALSE(one->ExtractInto(dir.path().c_str()));
  EXPECT_TRUE(Logged(zip, "Object not initialized"));

  // A handle outlives its archive and is then simply empty.
  std::unique_ptr<VxZipEntry> orphan;
  {
    VxZip gone;
    gone.NewZip((dir / "g.zip").c_str());
    orphan = gone.AppendData("o.txt", Data("o"));
  }
  EXPECT_EQ(orphan->GetCompressedSize(), 0u);
  EXPECT_FALSE(orphan->ExtractInto(dir.path().c_str()));
}

}  // namespace
}  // namespace qx::test
