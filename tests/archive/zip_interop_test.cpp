// Interoperability with zip tools we did not write. Archives VxZip writes must pass unzip, 7-Zip
// and Python's zipfile; archives written by zip, 7-Zip, bsdtar and Python must open, list
// and extract through VxZip. Python's zipfile is the independent lister for both directions.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "archive/VxZip.h"
#include "platform/codepage.h"
#include "support/TempDir.h"

namespace qx {
namespace {

namespace stdfs = std::filesystem;
using test::ReadFileBytes;
using test::TempDir;

// Single-quoted for /bin/sh.
std::string Q(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

struct RunResult {
  int status = -1;
  std::string output;  // stdout and stderr
};

RunResult Shell(const std::string& command) {
  RunResult r;
  FILE* p = ::popen(("{ " + command + " ; } 2>&1").c_str(), "r");
  if (p == nullptr) return r;
  char buf[4096];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) r.output.append(buf, n);
  const int raw = ::pclose(p);
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return r;
}

// The command for a tool, empty when it is not installed; "7z" is whichever 7-Zip command exists.
std::string Tool(const std::string& tool) {
  for (const char* name : {"7z", "7zz", "7za"}) {
    if (tool != "7z" && tool != name) continue;
    if (std::system(("command -v " + std::string(name) + " >/dev/null 2>&1").c_str()) == 0) return name;
  }
  if (tool == "7z") return {};
  return std::system(("command -v " + tool + " >/dev/null 2>&1").c_str()) == 0 ? tool : "";
}

// Python zipfile helpers, beside this file: an independent lister and maker.
const std::string kScripts = QX_TEST_DATA_DIR "/../archive/";

struct Listed {
  std::string name;  // as stored
  uint32_t size = 0, compressedSize = 0, externalAttributes = 0;
  int method = 0;
  bool utf8 = false;     // the archive marks the name as UTF-8
  int dateTime[6] = {};  // year, month, day, hour, minute, second as stored (local time)
};

struct Listing {
  std::vector<Listed> members;
  std::string comment;
  bool crcsOk = false;
};

std::string FromHex(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

// Python's view of an archive; `contentDir` (optional) receives each member's bytes.
bool ListWithPython(const std::string& archive, Listing& listing,
                    const std::string& contentDir = {}) {
  const std::string script = kScripts + "zip_lister.py";
  RunResult r = Shell("python3 " + Q(script) + " " + Q(archive) + (contentDir.empty() ? "" : " " + Q(contentDir)));
  if (r.status != 0) {
    ADD_FAILURE() << "python zipfile refused " << archive << ":\n" << r.output;
    return false;
  }
  std::istringstream lines(r.output);
  for (std::string hex; lines >> hex;) {
    if (hex == "comment") {
      lines >> hex;
      listing.comment = FromHex(hex.substr(1));
    } else if (hex == "testzip") {
      lines >> hex;
      listing.crcsOk = hex == "ok";
    } else {
      Listed m;
      lines >> m.size >> m.compressedSize >> m.externalAttributes >> m.method >> m.utf8;
      for (int& field : m.dateTime) lines >> field;
      m.name = FromHex(hex.substr(1));
      listing.members.push_back(m);
    }
  }
  return true;
}

// Deterministic bytes: `text` gives lines that deflate well, otherwise noise that does not.
std::string Bytes(size_t n, uint32_t seed, bool text) {
  std::string out;
  uint32_t x = seed * 2654435761u + 1;
  while (out.size() < n) {
    x = x * 1664525u + 1013904223u;
    out += text ? "line " + std::to_string(x % 1000) + " of member " + std::to_string(seed) + "\r\n"
                : std::string(1, static_cast<char>(x >> 24));
  }
  out.resize(n);
  return out;
}

VxByteData DataOf(const std::string& bytes) { return VxByteData(bytes.data(), bytes.size()); }

std::string NameOf(VxZipEntry& e) {
  VxString s;
  e.GetFileName(s);
  return std::string(s.View());
}

bool IsAscii(const std::string& s) {
  return std::all_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) < 128; });
}

// A tree on disk keyed by relative path. A UTF-8 name stored by a peer comes back from
// extraction as UTF-8 of its Windows-1252 reading, so 8-bit path parts are keyed "<8bit>" and
// files told apart by their contents, unique in every tree built here.
struct Tree {
  std::multiset<std::pair<std::string, std::string>> files;  // key, content
  std::set<std::string> folders;
};

std::string KeyOf(const stdfs::path& relative) {
  std::string key;
  for (const auto& part : relative)
    key += (key.empty() ? "" : "/") + (IsAscii(part.string()) ? part.string() : std::string("<8bit>"));
  return key;
}

Tree ReadTree(const std::string& root) {
  Tree t;
  for (const auto& e : stdfs::recursive_directory_iterator(root)) {
    const std::string key = KeyOf(stdfs::relative(e.path(), root));
    if (e.is_directory()) {
      t.folders.insert(key);
    } else {
      t.files.emplace(key, ReadFileBytes(e.path().string()));
    }
  }
  return t;
}

// What peers archive: text, noise, an empty file, folders two deep, an empty folder, UTF-8 names
// whose bytes lie outside 128-159; on request a stored zip inside, so a streamed archive holds
// header signatures in member data, right where a reader scans for the end of such members.
void MakeSourceTree(const std::string& root, bool nestedZip) {
  const struct {
    const char* path;
    size_t size;
    bool text;
  } files[] = {
      {"a.txt", 20000, true},           {"bin.dat", 3000, false},        {"caf\xC3\xA9.txt", 5000, true},
      {"sub/b.kdp", 700, false},        {"sub/na\xC3\xAFve.kdp", 40, true}, {"sub/deep/c.txt", 9000, true},
      {"d\xC3\xA9j\xC3\xA0/x.txt", 300, true},
  };
  stdfs::create_directories(root + "/empty");
  std::ofstream(root + "/zero.kdp", std::ios::binary);
  uint32_t seed = 1;
  for (const auto& f : files) {
    const std::string full = root + "/" + f.path;
    stdfs::create_directories(stdfs::path(full).parent_path());
    const std::string bytes = std::string(f.path) + "\n" + Bytes(f.size, seed++, f.text);
    std::ofstream(full, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  if (!nestedZip) return;
  VxZip inner;
  ASSERT_TRUE(inner.NewZip((root + "/sub/inner.zip").c_str()));
  const std::string innerBytes = Bytes(500, 99, true);
  auto e = inner.AppendData("inside.kdp", DataOf(innerBytes));
  ASSERT_TRUE(e);
  e->SetCompressionMethod(0);
  ASSERT_TRUE(inner.WriteZip());
}

// ---- Archives VxZip writes, checked by the peers ----------------------------------------------

struct Member {
  std::string name;    // as given to AppendData (Windows-1252, either separator)
  std::string stored;  // as it must be stored: "/" and code page 850
  std::string bytes;
  bool store = false;  // method 0 instead of deflate
};

// Opens `from` (a copy of it at `to`), deletes the member named `drop`, appends one, writes.
bool ModifyArchive(const std::string& from, const std::string& to, const std::string& drop, const Member& add) {
  stdfs::copy_file(from, to, stdfs::copy_options::overwrite_existing);
  VxZip zip;
  if (!zip.OpenZip(to.c_str())) return false;
  auto victim = zip.GetEntryByName(drop.c_str());
  if (!victim || !zip.DeleteEntry(victim.get())) return false;
  return zip.AppendData(add.name.c_str(), DataOf(add.bytes)) && zip.WriteZip();
}

// One archive for every checker, written once.
struct Ours {
  TempDir dir;
  std::string path = dir / "ours.zip";
  std::vector<Member> members = {
      {"a.txt", "a.txt", Bytes(30000, 1, true)},
      {"bin.dat", "bin.dat", Bytes(5000, 2, false)},
      {"sub/b.kdp", "sub/b.kdp", Bytes(900, 3, false)},
      {"sub\\deep\\c.txt", "sub/deep/c.txt", Bytes(1200, 4, true)},
      {"\xE9t\xE9.txt", "\x82t\x82.txt", Bytes(64, 5, true)},                  // é is 0x82 in code page 850
      {"caf\xE9\\na\xEFve.kdp", "caf\x82/na\x8Bve.kdp", Bytes(10, 6, false)},  // ï is 0x8B
      {"stored.bin", "stored.bin", Bytes(65535, 7, false), true},
      {"big.bin", "big.bin", Bytes(1 << 20, 8, true)},
  };
  bool written = [this] {
    VxZip zip;
    if (!zip.NewZip(path.c_str())) return false;
    for (const Member& m : members) {
      auto e = zip.AppendData(m.name.c_str(), DataOf(m.bytes));
      if (!e) return false;
      if (m.store) e->SetCompressionMethod(0);
    }
    return zip.WriteZip();
  }();
};

class WrittenByUs : public ::testing::TestWithParam<const char*> {};

TEST_P(WrittenByUs, PeerAccepts) {
  static const Ours ours;
  ASSERT_TRUE(ours.written);
  const std::string checker = GetParam(), tool = Tool(checker);
  if (tool.empty()) GTEST_SKIP() << checker << " is not installed";
  const std::string out = ours.dir / checker;
  if (checker == "unzip") {
    RunResult r = Shell("unzip -tq " + Q(ours.path) + " && unzip -qo " + Q(ours.path) + " -d " + Q(out));
    EXPECT_EQ(r.status, 0) << r.output;
    // unzip writes 8-bit names of a host-11 archive with their bytes as stored.
    for (const Member& m : ours.members) EXPECT_EQ(ReadFileBytes(out + "/" + m.stored), m.bytes) << m.stored;
  } else if (checker == "7z") {
    RunResult r = Shell(tool + " t " + Q(ours.path));
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("Everything is Ok"), std::string::npos) << r.output;
  } else {
    stdfs::create_directories(out);
    Listing l;
    ASSERT_TRUE(ListWithPython(ours.path, l, out));
    EXPECT_TRUE(l.crcsOk);
    ASSERT_EQ(l.members.size(), ours.members.size());
    for (size_t i = 0; i < ours.members.size(); ++i) {
      const Member& m = ours.members[i];
      EXPECT_EQ(l.members[i].name, m.stored);
      EXPECT_EQ(l.members[i].size, m.bytes.size()) << m.stored;
      EXPECT_EQ(l.members[i].method, m.store ? 0 : 8) << m.stored;
      EXPECT_EQ(ReadFileBytes(out + "/" + std::to_string(i)), m.bytes) << m.stored;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Checkers, WrittenByUs, ::testing::Values("unzip", "7z", "python3"),
                         [](const auto& info) { return std::string(info.param) == "7z" ? "sevenzip" : info.param; });

// ---- Archives the peers write, read by VxZip --------------------------------------------------

struct PeerRow {
  const char* label;
  const char* tool;     // must be installed; "7z" means any 7-Zip command
  const char* command;  // run inside the source folder; $OUT is the archive, $Z the 7-Zip command
  bool nestedZip = false;  // the tree holds a zip file, stored as it is
};

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

class WrittenByPeer : public ::testing::TestWithParam<PeerRow> {
 protected:
  // Builds the source tree and has the row's tool archive it; skips when a tool is missing.
  void MakePeerArchive() {
    const PeerRow& row = GetParam();
    const std::string tool = Tool(row.tool);
    if (tool.empty()) GTEST_SKIP() << row.tool << " is not installed";
    if (Tool("python3").empty()) GTEST_SKIP() << "python3 (the independent lister) is not installed";
    ASSERT_NO_FATAL_FAILURE(MakeSourceTree(source, row.nestedZip));
    const std::string maker = kScripts + "zip_maker.py";
    RunResult made = Shell("cd " + Q(source) + " && OUT=" + Q(archive) + " Z=" + Q(tool) + " MAKER=" +
                           Q(maker) + " LC_ALL=C.UTF-8 sh -c " + Q(row.command));
    ASSERT_EQ(made.status, 0) << made.output;
  }

  TempDir dir;
  const std::string source = dir / "src";
  const std::string archive = dir / "peer.zip";
};

// What extraction must produce: every source file, and every folder the archive names or implies.
Tree ExpectedTree(const std::string& source, const Listing& listing) {
  Tree want{ReadTree(source).files, {}};
  for (const Listed& m : listing.members) {
    std::string name = m.name.rfind("./", 0) == 0 ? m.name.substr(2) : m.name;
    const bool folder = !name.empty() && name.back() == '/';
    if (folder) name.pop_back();
    if (name.empty()) continue;
    stdfs::path p(name);
    if (folder) want.folders.insert(KeyOf(p));
    for (p = p.parent_path(); !p.empty(); p = p.parent_path()) want.folders.insert(KeyOf(p));
  }
  return want;
}

TEST_P(WrittenByPeer, OpensListsAndExtracts) {
  ASSERT_NO_FATAL_FAILURE(MakePeerArchive());
  if (IsSkipped()) return;
  Listing listing;
  ASSERT_TRUE(ListWithPython(archive, listing));
  ASSERT_TRUE(listing.crcsOk);

  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(archive.c_str()));
  ASSERT_EQ(zip.EntryCount(), static_cast<int>(listing.members.size()));
  int walked = 0;
  for (auto e = zip.FirstEntry(); e; e = e->NextEntry()) ++walked;
  EXPECT_EQ(walked, zip.EntryCount());
  for (size_t i = 0; i < listing.members.size(); ++i) {
    const Listed& m = listing.members[i];
    SCOPED_TRACE(m.name);
    auto e = zip.GetEntryByIndex(static_cast<int>(i));
    ASSERT_TRUE(e);
    // A name marked as UTF-8 is handed out in the ANSI code page, an unmarked one as stored,
    // with backslashes (no name here has bytes 128-159).
    std::string shown = m.utf8 ? codepage::Utf8ToAnsi(m.name) : m.name;
    std::replace(shown.begin(), shown.end(), '/', '\\');
    EXPECT_EQ(NameOf(*e), shown);
    EXPECT_EQ(e->GetUncompressedSize(), m.size);
    EXPECT_EQ(e->GetCompressedSize(), m.compressedSize);
    EXPECT_EQ(e->IsDirectory(), (m.externalAttributes & 0x10) != 0);
    SYSTEMTIME t{};
    e->GetFileTime(t);
    const int fields[6] = {t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond};
    EXPECT_TRUE(std::equal(fields, fields + 6, m.dateTime));
    auto byName = zip.GetEntryByName(m.name.c_str());
    ASSERT_TRUE(byName);
    EXPECT_EQ(byName->GetUncompressedSize(), m.size);
  }

  const std::string out = dir / "out";
  EXPECT_TRUE(zip.Extract(out.c_str()));
  const Tree got = ReadTree(out), want = ExpectedTree(source, listing);
  EXPECT_EQ(got.folders, want.folders);
  EXPECT_EQ(got.files, want.files);
}

INSTANTIATE_TEST_SUITE_P(Peers, WrittenByPeer, ::testing::ValuesIn(kPeers),
                         [](const auto& info) { return std::string(info.param.label); });

// A peer's archive taken over by VxZip (opened, one member deleted, one appended, written) must
// still read back: records copied from it keep their data, whatever headers, extra fields or
// data descriptors they came with.
TEST_P(WrittenByPeer, RewrittenByUsStillReads) {
  ASSERT_NO_FATAL_FAILURE(MakePeerArchive());
  if (IsSkipped()) return;
  Listing before;
  ASSERT_TRUE(ListWithPython(archive, before));
  const auto dropped = std::find_if(before.members.begin(), before.members.end(),
                                    [](const Listed& m) { return m.name == "a.txt" || m.name == "./a.txt"; });
  ASSERT_NE(dropped, before.members.end());
  const Member added{"added.txt", "added.txt", Bytes(2500, 42, true)};
  const std::string rewritten = dir / "rewritten.zip";
  ASSERT_TRUE(ModifyArchive(archive, rewritten, dropped->name, added));

  const std::string contents = dir / "contents";
  stdfs::create_directories(contents);
  Listing after;
  ASSERT_TRUE(ListWithPython(rewritten, after, contents));
  EXPECT_TRUE(after.crcsOk);
  before.members.erase(dropped);
  ASSERT_EQ(after.members.size(), before.members.size() + 1);
  for (size_t i = 0; i < before.members.size(); ++i) {
    EXPECT_EQ(after.members[i].name, before.members[i].name);
    EXPECT_EQ(after.members[i].size, before.members[i].size) << before.members[i].name;
  }
  EXPECT_EQ(after.members.back().name, added.stored);
  EXPECT_EQ(after.comment, before.comment);
  EXPECT_EQ(ReadFileBytes(contents + "/" + std::to_string(before.members.size())), added.bytes);
  if (!Tool("unzip").empty()) {
    RunResult r = Shell("unzip -tq " + Q(rewritten));
    EXPECT_EQ(r.status, 0) << r.output;
  }
}

}  // namespace
}  // namespace qx
