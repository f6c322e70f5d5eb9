// Interoperability with zip tools we did not write. Archives VxZip writes must pass unzip, 7-Zip
// and Python's zipfile; archives written by zip, 7-Zip, bsdtar and Python must open, list,
// extract and take a rewrite through VxZip. Python's zipfile is the independent lister both ways.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "archive/VxZip.h"
#include "platform/codepage.h"
#include "support/TempDir.h"
#include "support/ZipBytes.h"

namespace qx {
namespace {

namespace stdfs = std::filesystem;
using test::ReadFileBytes;
using test::TempDir;
using ziptest::Bytes;

// Single-quoted for /bin/sh.
std::string Q(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// The exit status and output (stdout and stderr) of a shell command.
std::pair<int, std::string> Shell(const std::string& command) {
  std::string out;
  FILE* p = ::popen(("{ " + command + " ; } 2>&1").c_str(), "r");
  if (p == nullptr) return {-1, out};
  char buf[4096];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  const int raw = ::pclose(p);
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, out};
}

// The command for a tool, empty when it is not installed; "7z" is whichever 7-Zip command exists.
std::string Tool(const std::string& tool) {
  for (const std::string& name : tool == "7z" ? std::vector<std::string>{"7z", "7zz", "7za"} : std::vector{tool})
    if (Shell("command -v " + name + " >/dev/null").first == 0) return name;
  return {};
}

const std::string kScripts = QX_TEST_DATA_DIR "/../archive/";

// A member as listed: the name as stored, utf8 when the archive marks it as UTF-8, and the date
// and time as stored (local time).
struct Listed { std::string name; uint32_t size, compressedSize, externalAttributes; int method, utf8, dateTime[6]; };

struct Listing { bool crcsOk = false; std::string comment; std::vector<Listed> members; };

std::string FromHex(const std::string& hex) {  // after a one-letter prefix
  std::string out;
  for (size_t i = 1; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

// Python's view of an archive; `contentDir` (optional) receives each member's bytes as 0, 1, ...
Listing ListWithPython(const std::string& archive, const std::string& contentDir = {}) {
  const auto [status, out] = Shell("python3 " + Q(kScripts + "zip_lister.py") + " " + Q(archive) + " " + Q(contentDir));
  EXPECT_EQ(status, 0) << "python zipfile refused " << archive << ":\n" << out;
  std::istringstream in(out);
  Listing l;
  std::string verdict, hex;
  in >> verdict >> hex;
  l.crcsOk = verdict == "ok";
  l.comment = FromHex(hex);
  for (Listed m; in >> hex >> m.size >> m.compressedSize >> m.externalAttributes >> m.method >> m.utf8;) {
    for (int& field : m.dateTime) in >> field;
    m.name = FromHex(hex);
    l.members.push_back(m);
  }
  return l;
}

// Deterministic bytes: `text` gives lines that deflate well, otherwise noise that does not.
std::string Fill(size_t n, uint32_t seed, bool text) {
  std::string out;
  for (uint32_t x = seed * 2654435761u + 1; out.size() < n;) {
    x = x * 1664525u + 1013904223u;
    out += text ? "line " + std::to_string(x % 1000) + " of member " + std::to_string(seed) + "\r\n"
                : std::string(1, static_cast<char>(x >> 24));
  }
  out.resize(n);
  return out;
}

// A tree on disk as (relative path, content) pairs, folders as "path/" with no content. A UTF-8
// name stored by a peer comes back from extraction as UTF-8 of its Windows-1252 reading, so
// 8-bit path parts are keyed "<8bit>" and files told apart by their contents, unique here.
using Tree = std::multiset<std::pair<std::string, std::string>>;

std::string KeyOf(const stdfs::path& relative) {
  std::string key;
  for (const auto& part : relative) {
    const std::string s = part.string();
    key += (key.empty() ? "" : "/") + (std::all_of(s.begin(), s.end(), [](unsigned char c) { return c < 128; }) ? s : "<8bit>");
  }
  return key;
}

Tree ReadTree(const std::string& root) {
  Tree t;
  for (const auto& e : stdfs::recursive_directory_iterator(root))
    t.emplace(KeyOf(stdfs::relative(e.path(), root)) + (e.is_directory() ? "/" : ""),
              e.is_directory() ? "" : ReadFileBytes(e.path().string()));
  return t;
}

// What peers archive: text, noise, an empty file, folders two deep, an empty folder, UTF-8 names
// whose bytes lie outside 128-159; on request a stored zip inside, so a streamed archive holds
// header signatures in member data, right where a reader scans for the end of such members.
void MakeSourceTree(const std::string& root, bool nestedZip) {
  const std::pair<const char*, size_t> files[] = {
      {"a.txt", 20000}, {"bin.dat", 3000}, {"caf\xC3\xA9.txt", 5000}, {"sub/b.kdp", 700},
      {"sub/na\xC3\xAFve.kdp", 40}, {"sub/deep/c.txt", 9000}, {"d\xC3\xA9j\xC3\xA0/x.txt", 300}, {"zero.kdp", 0},
  };
  stdfs::create_directories(root + "/empty");
  uint32_t seed = 1;
  for (const auto& [path, size] : files) {
    stdfs::create_directories(stdfs::path(root + "/" + path).parent_path());
    std::ofstream(root + "/" + path, std::ios::binary) << (size ? path + std::string("\n") + Fill(size, seed, seed % 2) : "");
    ++seed;
  }
  if (nestedZip) std::ofstream(root + "/sub/inner.zip", std::ios::binary) << ziptest::BuildZip({{"inside.kdp", Fill(500, 99, true), 0}});
}

// ---- Archives VxZip writes, checked by the peers ----------------------------------------------

// Name as given to AppendData (Windows-1252, either separator), as it must be stored ("/" and
// code page 850), the bytes, and whether the member is stored (method 0) instead of deflated.
struct Member { std::string name, stored, bytes; bool store = false; };

// One archive, checked by every peer that is installed.
TEST(WrittenByUs, PeersAccept) {
  const TempDir dir;
  const std::string path = dir / "ours.zip", out = dir / "out";
  const Member members[] = {
      {"a.txt", "a.txt", Fill(30000, 1, true)},
      {"bin.dat", "bin.dat", Fill(5000, 2, false)},
      {"sub/b.kdp", "sub/b.kdp", Fill(900, 3, false)},
      {"sub\\deep\\c.txt", "sub/deep/c.txt", Fill(1200, 4, true)},
      {"\xE9t\xE9.txt", "\x82t\x82.txt", Fill(64, 5, true)},                  // é is 0x82 in code page 850
      {"caf\xE9\\na\xEFve.kdp", "caf\x82/na\x8Bve.kdp", Fill(10, 6, false)},  // ï is 0x8B
      {"stored.bin", "stored.bin", Fill(65535, 7, false), true},
      {"big.bin", "big.bin", Fill(1 << 20, 8, true)},
  };
  VxZip zip;
  ASSERT_TRUE(zip.NewZip(path.c_str()));
  for (const Member& m : members) {
    auto e = zip.AppendData(m.name.c_str(), Bytes(m.bytes));
    ASSERT_TRUE(e);
    if (m.store) e->SetCompressionMethod(0);
  }
  ASSERT_TRUE(zip.WriteZip());
  if (!Tool("unzip").empty()) {
    const auto [status, output] = Shell("unzip -tq " + Q(path) + " && unzip -qo " + Q(path) + " -d " + Q(out));
    EXPECT_EQ(status, 0) << output;
    // unzip writes 8-bit names of a host-11 archive with their bytes as stored.
    for (const Member& m : members) EXPECT_EQ(ReadFileBytes(out + "/" + m.stored), m.bytes) << m.stored;
  }
  if (const std::string sevenZip = Tool("7z"); !sevenZip.empty()) {
    const auto [status, output] = Shell(sevenZip + " t " + Q(path));
    EXPECT_EQ(status, 0) << output;
  }
  if (Tool("python3").empty()) return;
  stdfs::create_directories(dir / "python");
  const Listing l = ListWithPython(path, dir / "python");
  EXPECT_TRUE(l.crcsOk);
  ASSERT_EQ(l.members.size(), std::size(members));
  for (size_t i = 0; i < l.members.size(); ++i) {
    const Member& m = members[i];
    SCOPED_TRACE(m.stored);
    EXPECT_EQ(l.members[i].name + " " + std::to_string(l.members[i].size), m.stored + " " + std::to_string(m.bytes.size()));
    EXPECT_EQ(l.members[i].method, m.store ? 0 : 8);
    EXPECT_EQ(ReadFileBytes(dir / ("python/" + std::to_string(i))), m.bytes);
  }
}

// ---- Archives the peers write, read by VxZip --------------------------------------------------

// The tool must be installed ("7z": any 7-Zip command); the command runs inside the source folder
// with $OUT the archive and $Z the 7-Zip command; nestedZip puts a stored zip file in the tree.
struct PeerRow { const char* label; const char* tool; const char* command; bool nestedZip = false; };

const PeerRow kPeers[] = {
    {"zip", "zip", "zip -q -r \"$OUT\" ."},
    {"zip_stored", "zip", "zip -q -r -0 \"$OUT\" .", true},
    {"zip_streamed", "zip", "zip -q -r - . | cat > \"$OUT\""},  // data descriptors
    {"zip_with_comment", "zip", "echo 'Lesson 4: quadratics' | zip -q -r -z \"$OUT\" ."},
    {"sevenzip", "7z", "\"$Z\" a -tzip \"$OUT\" . >/dev/null"},
    {"sevenzip_stored", "7z", "\"$Z\" a -tzip -mx=0 \"$OUT\" . >/dev/null"},
    {"bsdtar", "bsdtar", "bsdtar --format zip -cf \"$OUT\" *"},
    {"bsdtar_files_only", "bsdtar", "find . -type f | bsdtar --format zip -n -cf \"$OUT\" -T -"},
    {"python", "python3", "python3 \"$MAKER\" deflated \"$OUT\""},
    {"python_unseekable", "python3", "python3 \"$MAKER\" deflated - | cat > \"$OUT\""},  // data descriptors
    // Streamed members end where the header after their data descriptor begins; a stored zip
    // inside holds header signatures that must not be taken for it.
    {"zip_streamed_nested_zip", "zip", "zip -q -r - . | cat > \"$OUT\"", true},
    {"python_unseekable_stored_nested_zip", "python3", "python3 \"$MAKER\" stored - | cat > \"$OUT\"", true},
};

void PrintTo(const PeerRow& row, std::ostream* os) { *os << row.label; }

class WrittenByPeer : public ::testing::TestWithParam<PeerRow> {};

// Then taken over by VxZip (a member deleted, one appended, written), the archive must still read
// back: records copied from it keep their data, whatever headers, extra fields or data
// descriptors they came with.
TEST_P(WrittenByPeer, OpensListsExtractsAndTakesARewrite) {
  const PeerRow& row = GetParam();
  const std::string tool = Tool(row.tool);
  if (tool.empty() || Tool("python3").empty()) GTEST_SKIP() << row.tool << " or python3 is not installed";
  const TempDir dir;
  const std::string source = dir / "src", archive = dir / "peer.zip", out = dir / "out";
  ASSERT_NO_FATAL_FAILURE(MakeSourceTree(source, row.nestedZip));
  const auto [status, output] = Shell("cd " + Q(source) + " && OUT=" + Q(archive) + " Z=" + Q(tool) + " MAKER=" +
                                      Q(kScripts + "zip_maker.py") + " LC_ALL=C.UTF-8 sh -c " + Q(row.command));
  ASSERT_EQ(status, 0) << output;
  Listing before = ListWithPython(archive);
  ASSERT_TRUE(before.crcsOk);

  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(archive.c_str()));
  ASSERT_EQ(zip.EntryCount(), static_cast<int>(before.members.size()));
  Tree want = ReadTree(source);  // every source file, and every folder the archive names or implies
  std::erase_if(want, [](const auto& file) { return file.first.back() == '/'; });
  std::set<std::string> folders;
  for (size_t i = 0; i < before.members.size(); ++i) {
    const Listed& m = before.members[i];
    SCOPED_TRACE(m.name);
    auto e = zip.GetEntryByIndex(static_cast<int>(i));
    ASSERT_TRUE(e);
    // A name marked as UTF-8 is handed out in the ANSI code page, an unmarked one as stored,
    // with backslashes (no name here has bytes 128-159).
    std::string shown = m.utf8 ? codepage::Utf8ToAnsi(m.name) : m.name;
    std::replace(shown.begin(), shown.end(), '/', '\\');
    VxString name;
    e->GetFileName(name);
    EXPECT_EQ(name.View(), shown);
    EXPECT_EQ(e->GetUncompressedSize(), m.size);
    EXPECT_EQ(e->GetCompressedSize(), m.compressedSize);
    EXPECT_EQ(e->IsDirectory(), (m.externalAttributes & 0x10) != 0);
    SYSTEMTIME t{};
    e->GetFileTime(t);
    EXPECT_EQ(std::vector<int>({t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond}),
              std::vector<int>(m.dateTime, m.dateTime + 6));
    auto byName = zip.GetEntryByName(m.name.c_str());
    EXPECT_TRUE(byName && byName->GetUncompressedSize() == m.size);
    for (auto p = stdfs::path(m.name.substr(m.name.rfind("./", 0) == 0 ? 2 : 0)).parent_path(); !p.empty();
         p = p.parent_path())
      folders.insert(KeyOf(p) + "/");
  }
  for (const std::string& f : folders) want.emplace(f, "");
  EXPECT_TRUE(zip.Extract(out.c_str()));
  EXPECT_EQ(ReadTree(out), want);

  const auto dropped = std::find_if(before.members.begin(), before.members.end(),
                                    [](const Listed& m) { return m.name == "a.txt" || m.name == "./a.txt"; });
  ASSERT_NE(dropped, before.members.end());
  auto victim = zip.GetEntryByName(dropped->name.c_str());
  ASSERT_TRUE(victim && zip.DeleteEntry(victim.get()));
  const std::string added = Fill(2500, 42, true), contents = dir / "contents";
  ASSERT_TRUE(zip.AppendData("added.txt", Bytes(added)));
  ASSERT_TRUE(zip.WriteZip());
  stdfs::create_directories(contents);
  const Listing after = ListWithPython(archive, contents);
  EXPECT_TRUE(after.crcsOk);
  before.members.erase(dropped);
  ASSERT_EQ(after.members.size(), before.members.size() + 1);
  for (size_t i = 0; i < before.members.size(); ++i)
    EXPECT_EQ(after.members[i].name + " " + std::to_string(after.members[i].size),
              before.members[i].name + " " + std::to_string(before.members[i].size));
  EXPECT_EQ(after.members.back().name, "added.txt");
  EXPECT_EQ(after.comment, before.comment);
  EXPECT_EQ(ReadFileBytes(contents + "/" + std::to_string(before.members.size())), added);
  EXPECT_TRUE(Tool("unzip").empty() || Shell("unzip -tq " + Q(archive)).first == 0);
}

INSTANTIATE_TEST_SUITE_P(Peers, WrittenByPeer, ::testing::ValuesIn(kPeers),
                         [](const auto& info) { return std::string(info.param.label); });

}  // namespace
}  // namespace qx
