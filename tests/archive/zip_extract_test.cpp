// Extraction: every file lands inside the destination, damaged or hostile members fail on
// their own without stopping the others and leave no partial file, and members of the opened
// archive carry their stored time and attributes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "archive/VxZip.h"
#include "support/ZipBytes.h"
#include "support/TempDir.h"

namespace qx {
namespace {

namespace stdfs = std::filesystem;
using test::ReadFileBytes;
using test::TempDir;
using namespace ziptest;

// Every path below `root`, relative to it, "/" separated.
std::set<std::string> Tree(const std::string& root) {
  std::set<std::string> out;
  std::error_code ec;
  for (const auto& e : stdfs::recursive_directory_iterator(root, ec))
    out.insert(stdfs::relative(e.path(), root).generic_string());
  return out;
}

// `written`: what lands below the destination besides ok.txt.
struct ExtractRow { const char* label; Member member; bool extracted; std::set<std::string> written; };

std::vector<ExtractRow> ExtractRows() {
  Member bomb{"bomb.bin", std::string(1 << 20, '\0')};
  bomb.uncompressedSize = 1000;
  Member badCrc{"crc.bin", std::string(5000, 'c')};
  badCrc.crc = 0x12345678;
  Member storedSizes{"sizes.bin", "stored data", 0};
  storedSizes.uncompressedSize = 5;
  Member shortData{"short.bin", std::string(5000, 's')};
  shortData.uncompressedSize = 6000;
  Member garbage{"garbage.bin", "deflate"};
  garbage.payload = "\xFF\xFF\xFF\xFF not a deflate stream";
  Member folder{"dir/", "", 0};
  folder.externalAttributes = 0x10;
  // Traditional encryption: 12 bytes of encryption header, then the (here unencrypted) data.
  Member encrypted{"enc.txt", "secret", 0};
  encrypted.flags = 1;
  encrypted.payload = std::string(12, '\x5A') + "secret";
  Member bzip{"b.bz2", "data", 12};
  bzip.payload = "BZh91AY&SY";
  return {
      {"stored member", {"a.kdp", "plain", 0}, true, {"a.kdp"}},
      {"deflated member in folders", {"sub/deep/b.kdp", std::string(9000, 'b')}, true,
       {"sub", "sub/deep", "sub/deep/b.kdp"}},
      {"backslash separators", {"win\\c.kdp", "c", 0}, true, {"win", "win/c.kdp"}},
      {"folder entry", folder, true, {"dir"}},
      {"parent reference", {"../evil.txt", "x", 0}, false, {}},
      {"parent reference inside", {"sub/../../evil.txt", "x", 0}, false, {}},
      {"parent reference with backslashes", {"..\\evil.txt", "x", 0}, false, {}},
      {"absolute name", {"/tmp/evil.txt", "x", 0}, false, {}},
      {"NUL in the name", {std::string("a\0b.txt", 7), "x", 0}, false, {}},
      {"empty name", {"", "x", 0}, false, {}},
      {"inflates past its stated size", bomb, false, {}},
      {"CRC does not match", badCrc, false, {}},
      {"stored sizes differ", storedSizes, false, {}},
      {"data shorter than stated", shortData, false, {}},
      {"not a deflate stream", garbage, false, {}},
      {"method 12", bzip, false, {}},
      {"encrypted", encrypted, false, {}},
  };
}

// ExtractInto, into a missing folder, fails the same members but drops the folders, so for parent
// references and absolute folders only the last part decides.
TEST(ZipExtract, EachMemberLandsInsideTheFolderOrFailsAlone) {
  for (const ExtractRow& row : ExtractRows()) {
    SCOPED_TRACE(row.label);
    TempDir dir;
    const std::string path = dir.Write("t.zip", BuildZip({row.member, {"ok.txt", "fine", 0}}));
    VxZip zip;
    ASSERT_TRUE(zip.OpenZip(path.c_str()));
    const std::string dest = dir / "out/nested", into = dir / "into";
    EXPECT_EQ(zip.Extract(dest.c_str()), row.extracted);
    EXPECT_TRUE(row.extracted || Logged(zip, "Not all files extracted successfully."));
    EXPECT_TRUE(row.extracted || zip.Log().size() >= 2) << "no reason logged";
    std::set<std::string> expected = row.written;
    expected.insert("ok.txt");
    EXPECT_EQ(Tree(dest), expected);
    // Nothing beside the destination.
    EXPECT_EQ(Tree(dir.path()).size(), Tree(dest).size() + 3);  // t.zip, out, out/nested

    const std::string label = row.label;
    const bool lastPartSafe = label.rfind("parent reference", 0) == 0 || label == "absolute name";
    const bool ok = zip.FirstEntry()->ExtractInto(into.c_str());
    EXPECT_EQ(ok, row.extracted || lastPartSafe);
    const std::string last = row.member.name.substr(row.member.name.find_last_of("/\\") + 1);
    EXPECT_EQ(Tree(into), ok && !last.empty() ? std::set<std::string>{last} : std::set<std::string>{});
  }
}

TEST(ZipExtract, MembersOfTheArchiveGetTheirTimeAndReadOnlyAttribute) {
  TempDir dir;
  Member ro{"ro.txt", "read only", 0};
  ro.externalAttributes = 0x21;  // archive + read-only
  Member rw{"rw.txt", "writable", 0};
  const std::string path = dir.Write("t.zip", BuildZip({ro, rw}));
  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(path.c_str()));
  ASSERT_NE(zip.AppendData("new.txt", VxByteData("n", 1)), nullptr);
  ASSERT_TRUE(zip.Extract((dir / "out").c_str()));

  SYSTEMTIME stored = timeutil::FromDosDateTime(0x5D76, 0xA52F);
  const std::time_t expected = timeutil::FromLocal(stored);
  EXPECT_EQ(timeutil::GetFileTime(dir / "out/ro.txt"), expected);
  EXPECT_EQ(timeutil::GetFileTime(dir / "out/rw.txt"), expected);
  // An appended member has not been through the archive yet: it keeps the time of writing.
  EXPECT_LE(std::time(nullptr) - timeutil::GetFileTime(dir / "out/new.txt"), 120);

  struct stat st{};
  ASSERT_EQ(::stat((dir / "out/ro.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0222, 0u);
  ASSERT_EQ(::stat((dir / "out/rw.txt").c_str(), &st), 0);
  EXPECT_NE(st.st_mode & 0200, 0u);
}

TEST(ZipExtract, NeedsAnArchiveAndAFolder) {
  VxZip zip;
  EXPECT_FALSE(zip.Extract("anywhere"));
  EXPECT_TRUE(Logged(zip, "Cannot extract before opening a Zip archive"));
  EXPECT_FALSE(zip.Extract(nullptr));
  EXPECT_TRUE(Logged(zip, "null parameter"));
}

}  // namespace
}  // namespace qx
