// Interoperability with zip tools we did not write. Archives VxZip writes must pass unzip, 7-Zip
// and Python's zipfile; archives written by zip, 7-Zip, bsdtar and Python must open, list and
// extract through VxZip. Python's zipfile is the independent lister for both directions.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
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

// ---- Running the peers ------------------------------------------------------------------------

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

bool Have(const std::string& tool) {
  return std::system(("command -v " + tool + " >/dev/null 2>&1").c_str()) == 0;
}

// 7-Zip's command is 7z, 7zz or 7za depending on the package; empty when none is installed.
std::string SevenZip() {
  for (const char* name : {"7z", "7zz", "7za"}) {
    if (Have(name)) return name;
  }
  return {};
}

// Python helpers: list an archive the way zipfile reads it (one member a line: name bytes in hex,
// sizes, external attributes, method), check every CRC with testzip(), and write each member's
// bytes to <out>/<index> so its content can be compared without trusting our reader.
constexpr const char* kLister = R"PY(
import os, sys, zipfile
z = zipfile.ZipFile(sys.argv[1])
for n, i in enumerate(z.infolist()):
    raw = i.filename.encode('utf-8' if i.flag_bits & 0x800 else 'cp437')
    print('n' + raw.hex(), i.file_size, i.compress_size, i.external_attr, i.compress_type,
          1 if i.flag_bits & 0x800 else 0, *i.date_time)
    if len(sys.argv) > 2:
        with open(os.path.join(sys.argv[2], str(n)), 'wb') as f:
            f.write(z.read(i))
print('comment', 'x' + z.comment.hex())
bad = z.testzip()
print('testzip', 'ok' if bad is None else 'bad')
)PY";

// Writes the current folder's tree with zipfile: argv[1] "deflated" or "stored"; argv[2] a path,
// or "-" for standard output, which in a pipe cannot seek, so every member gets a data descriptor.
constexpr const char* kMaker = R"PY(
import os, sys, zipfile
method = zipfile.ZIP_STORED if sys.argv[1] == 'stored' else zipfile.ZIP_DEFLATED
out = sys.stdout.buffer if sys.argv[2] == '-' else sys.argv[2]
with zipfile.ZipFile(out, 'w', method) as z:
    for root, dirs, files in os.walk('.'):
        dirs.sort()
        for name in dirs + sorted(files):
            path = os.path.join(root, name)
            z.write(path, os.path.relpath(path, '.'))
)PY";

struct Listed {
  std::string name;  // as stored
  uint32_t size = 0;
  uint32_t compressedSize = 0;
  uint32_t externalAttributes = 0;
  int method = 0;
  bool utf8 = false;  // the archive marks the name as UTF-8
  int dateTime[6] = {};  // year, month, day, hour, minute, second as stored (local time)
};

struct Listing {
  std::vector<Listed> members;
  std::string comment;
  bool crcsOk = false;
};

// The stored date and time as a POSIX time, taking it as local time.
std::time_t LocalTimeOf(const Listed& m) {
  std::tm tm{};
  tm.tm_year = m.dateTime[0] - 1900;
  tm.tm_mon = m.dateTime[1] - 1;
  tm.tm_mday = m.dateTime[2];
  tm.tm_hour = m.dateTime[3];
  tm.tm_min = m.dateTime[4];
  tm.tm_sec = m.dateTime[5];
  tm.tm_isdst = -1;
  return std::mktime(&tm);
}

std::string FromHex(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return out;
}

// Python's view of an archive; `contentDir` (optional) receives each member's bytes.
bool ListWithPython(const TempDir& dir, const std::string& archive, Listing& listing,
                    const std::string& contentDir = {}) {
  const std::string script = dir / "lister.py";
  if (!stdfs::exists(script)) dir.Write("lister.py", kLister);
  RunResult r = Shell("python3 " + Q(script) + " " + Q(archive) + (contentDir.empty() ? "" : " " + Q(contentDir)));
  if (r.status != 0) {
    ADD_FAILURE() << "python zipfile refused " << archive << ":\n" << r.output;
    return false;
  }
  std::istringstream lines(r.output);
  std::string hex;
  while (lines >> hex) {
    if (hex == "comment") {
      lines >> hex;
      listing.comment = FromHex(hex.substr(1));
      continue;
    }
    if (hex == "testzip") {
      std::string verdict;
      lines >> verdict;
      listing.crcsOk = verdict == "ok";
      break;
    }
    Listed m;
    lines >> m.size >> m.compressedSize >> m.externalAttributes >> m.method >> m.utf8;
    for (int& field : m.dateTime) lines >> field;
    m.name = FromHex(hex.substr(1));
    listing.members.push_back(m);
  }
  return true;
}

// ---- Bytes and trees --------------------------------------------------------------------------

// Deterministic bytes: `text` gives lines that deflate well, otherwise noise that does not.
std::string Bytes(size_t n, uint32_t seed, bool text) {
  std::string out;
  out.reserve(n);
  uint32_t x = seed * 2654435761u + 1;
  while (out.size() < n) {
    x = x * 1664525u + 1013904223u;
    if (text) {
      out += "line " + std::to_string(x % 1000) + " of member " + std::to_string(seed) + "\r\n";
    } else {
      out += static_cast<char>(x >> 24);
    }
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

// Stored name ("/") => the name GetFileName gives back ("\") for names without bytes 128-159.
std::string Backslashed(std::string name) {
  for (char& c : name) c = c == '/' ? '\\' : c;
  return name;
}

bool IsAscii(const std::string& s) {
  for (unsigned char c : s) {
    if (c > 127) return false;
  }
  return true;
}

// A tree on disk keyed by relative path. Names with bytes above 127 come back from extraction in
// another form (a UTF-8 name stored by a peer is taken as Windows-1252 and written out as UTF-8
// of that), so each such path component is keyed as "<8bit>" and files are told apart by their
// contents, which are unique in every tree built here.
struct Tree {
  std::multiset<std::pair<std::string, std::string>> files;  // key, content
  std::set<std::string> folders;                               // keys
};

std::string KeyOf(const stdfs::path& relative) {
  std::string key;
  for (const auto& part : relative) {
    const std::string s = part.string();
    key += (key.empty() ? "" : "/") + (IsAscii(s) ? s : std::string("<8bit>"));
  }
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

// The source tree the peers archive: text that deflates, noise that does not, an empty file,
// folders two deep, an empty folder, UTF-8 names (é, ï, à) whose bytes all lie outside 128-159; on request a zip
// inside, which zip stores as it is, so a streamed archive holds header signatures in a
// member's data, right where a reader looking for the end of data-descriptor members scans.
void MakeSourceTree(const std::string& root, bool nestedZip) {
  const struct {
    const char* path;
    size_t size;
    bool text;
  } files[] = {
      {"a.txt", 20000, true},
      {"bin.dat", 3000, false},
      {"caf\xC3\xA9.txt", 5000, true},
      {"sub/b.kdp", 700, false},
      {"sub/na\xC3\xAFve.kdp", 40, true},
      {"sub/deep/c.txt", 9000, true},
      {"d\xC3\xA9j\xC3\xA0/x.txt", 300, true},
  };
  stdfs::create_directories(root + "/empty");
  std::ofstream(root + "/zero.kdp", std::ios::binary);  // a member with no data at all
  uint32_t seed = 1;
  for (const auto& f : files) {
    const std::string full = root + "/" + f.path;
    stdfs::create_directories(stdfs::path(full).parent_path());
    const std::string bytes = std::string(f.path) + "\n" + Bytes(f.size, seed++, f.text);
    std::ofstream(full, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  if (!nestedZip) return;
  VxZip inner;
  const std::string innerPath = root + "/sub/inner.zip";
  const std::string innerBytes = Bytes(500, 99, true);
  ASSERT_TRUE(inner.NewZip(innerPath.c_str()));
  auto e = inner.AppendData("inside.kdp", VxByteData(innerBytes.data(), innerBytes.size()));
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

struct Written {
  const char* label;
  std::string path;
  std::vector<Member> members;  // in archive order
};

std::vector<Member> FreshMembers() {
  return {
      {"a.txt", "a.txt", Bytes(30000, 1, true)},
      {"bin.dat", "bin.dat", Bytes(5000, 2, false)},
      {"sub/b.kdp", "sub/b.kdp", Bytes(900, 3, false)},
      {"sub\\deep\\c.txt", "sub/deep/c.txt", Bytes(1200, 4, true)},
      {"\xE9t\xE9.txt", "\x82t\x82.txt", Bytes(64, 5, true)},        // é is 0x82 in code page 850
      {"caf\xE9\\na\xEFve.kdp", "caf\x82/na\x8Bve.kdp", Bytes(10, 6, false)},  // ï is 0x8B
      {"stored.bin", "stored.bin", Bytes(65535, 7, false), true},
      {"big.bin", "big.bin", Bytes(1 << 20, 8, true)},
  };
}

bool WriteArchive(const std::string& path, const std::vector<Member>& members) {
  VxZip zip;
  if (!zip.NewZip(path.c_str())) return false;
  for (const Member& m : members) {
    auto e = zip.AppendData(m.name.c_str(), DataOf(m.bytes));
    if (!e) return false;
    if (m.store) e->SetCompressionMethod(0);
  }
  return zip.WriteZip();
}

// Opens `from` (a copy of it at `to`), deletes the member named `drop`, appends one, writes.
bool ModifyArchive(const std::string& from, const std::string& to,
                   const std::string& drop, const Member& add) {
  stdfs::copy_file(from, to, stdfs::copy_options::overwrite_existing);
  VxZip zip;
  if (!zip.OpenZip(to.c_str())) return false;
  auto victim = zip.GetEntryByName(drop.c_str());
  if (!victim || !zip.DeleteEntry(victim.get())) return false;
  if (!zip.AppendData(add.name.c_str(), DataOf(add.bytes))) return false;
  return zip.WriteZip();
}

class WrittenByUs : public ::testing::TestWithParam<const char*> {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir;
    archives_ = new std::vector<Written>;
    Written fresh{"fresh", *dir_ / "fresh.zip", FreshMembers()};
    if (!WriteArchive(fresh.path, fresh.members)) return;
    const Member added{"added/new.txt", "added/new.txt", Bytes(4000, 9, true)};
    Written modified{"opened, one deleted, one appended", *dir_ / "modified.zip", fresh.members};
    modified.members.erase(modified.members.begin() + 1);  // bin.dat
    modified.members.push_back(added);
    if (!ModifyArchive(fresh.path, modified.path, "bin.dat", added)) return;
    archives_->push_back(fresh);
    archives_->push_back(modified);
  }
  static void TearDownTestSuite() {
    delete archives_;
    delete dir_;
  }
  void SetUp() override {
    ASSERT_EQ(archives_->size(), 2u) << "VxZip could not write the archives to check";
  }

  static TempDir* dir_;
  static std::vector<Written>* archives_;
};
TempDir* WrittenByUs::dir_ = nullptr;
std::vector<Written>* WrittenByUs::archives_ = nullptr;

TEST_P(WrittenByUs, PeerAccepts) {
  const std::string checker = GetParam();
  std::string seven;
  if (checker == "7z") {
    seven = SevenZip();
    if (seven.empty()) GTEST_SKIP() << "7-Zip (7z/7zz/7za) is not installed";
  } else if (!Have(checker)) {
    GTEST_SKIP() << checker << " is not installed";
  }
  int row = 0;
  for (const Written& w : *archives_) {
    SCOPED_TRACE(w.label);
    if (checker == "unzip") {
      RunResult r = Shell("unzip -tq " + Q(w.path));
      EXPECT_EQ(r.status, 0) << r.output;
      // unzip writes 8-bit names of a host-11 archive with their bytes as stored.
      const std::string out = *dir_ / ("unzip-" + std::to_string(row));
      r = Shell("unzip -qo " + Q(w.path) + " -d " + Q(out));
      EXPECT_EQ(r.status, 0) << r.output;
      for (const Member& m : w.members) {
        EXPECT_EQ(ReadFileBytes(out + "/" + m.stored), m.bytes) << m.stored;
      }
    } else if (checker == "7z") {
      RunResult r = Shell(seven + " t " + Q(w.path));
      EXPECT_EQ(r.status, 0) << r.output;
      EXPECT_NE(r.output.find("Everything is Ok"), std::string::npos) << r.output;
    } else if (checker == "python3") {
      const std::string out = *dir_ / ("py-" + std::to_string(row));
      stdfs::create_directories(out);
      Listing l;
      ASSERT_TRUE(ListWithPython(*dir_, w.path, l, out));
      EXPECT_TRUE(l.crcsOk);
      ASSERT_EQ(l.members.size(), w.members.size());
      for (size_t i = 0; i < w.members.size(); ++i) {
        const Member& m = w.members[i];
        SCOPED_TRACE(m.stored);
        EXPECT_EQ(l.members[i].name, m.stored);
        EXPECT_EQ(l.members[i].size, m.bytes.size());
        EXPECT_EQ(l.members[i].method, m.store ? 0 : 8);
        if (m.store) {
          EXPECT_EQ(l.members[i].compressedSize, m.bytes.size());
        }
        EXPECT_EQ(ReadFileBytes(out + "/" + std::to_string(i)), m.bytes);
        // Stamped with the local time of AppendData, a few seconds ago.
        EXPECT_LE(std::abs(std::difftime(LocalTimeOf(l.members[i]), std::time(nullptr))), 300.0);
      }
    } else if (checker == "zipinfo") {
      // zipinfo -l: perms, version, host, size, type, compressed size, method, date, time, name.
      RunResult r = Shell("zipinfo -l " + Q(w.path));
      ASSERT_EQ(r.status, 0) << r.output;
      std::map<std::string, std::pair<uint32_t, uint32_t>> listed;
      std::istringstream lines(r.output);
      for (std::string line; std::getline(lines, line);) {
        std::istringstream f(line);
        std::string perms, version, host, type, method, date, time, name;
        uint32_t size = 0, csize = 0;
        if (!(f >> perms >> version >> host >> size >> type >> csize >> method >> date >> time)) continue;
        std::getline(f >> std::ws, name);
        listed[name] = {size, csize};
      }
      VxZip zip;
      ASSERT_TRUE(zip.OpenZip(w.path.c_str()));
      ASSERT_EQ(listed.size(), w.members.size()) << r.output;
      for (size_t i = 0; i < w.members.size(); ++i) {
        const Member& m = w.members[i];
        SCOPED_TRACE(m.stored);
        auto e = zip.GetEntryByIndex(static_cast<int>(i));
        ASSERT_TRUE(e);
        ASSERT_EQ(listed.count(m.stored), 1u) << r.output;
        EXPECT_EQ(listed[m.stored].first, m.bytes.size());
        EXPECT_EQ(listed[m.stored].first, e->GetUncompressedSize());
        EXPECT_EQ(listed[m.stored].second, e->GetCompressedSize());
      }
    }
    ++row;
  }
}

INSTANTIATE_TEST_SUITE_P(Checkers, WrittenByUs, ::testing::Values("unzip", "7z", "python3", "zipinfo"),
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
    {"zip_no_dir_entries", "zip", "zip -q -r -D \"$OUT\" ."},
    {"zip_stored", "zip", "zip -q -r -0 \"$OUT\" .", true},
    {"zip_streamed", "zip", "zip -q -r - . | cat > \"$OUT\""},  // data descriptors
    {"zip_with_comment", "zip", "echo 'Lesson 4: quadratics' | zip -q -r -z \"$OUT\" ."},
    {"sevenzip", "7z", "\"$Z\" a -tzip \"$OUT\" . >/dev/null"},
    {"sevenzip_stored", "7z", "\"$Z\" a -tzip -mx=0 \"$OUT\" . >/dev/null"},
    {"bsdtar", "bsdtar", "bsdtar --format zip -cf \"$OUT\" *"},
    {"bsdtar_files_only", "bsdtar", "find . -type f | bsdtar --format zip -n -cf \"$OUT\" -T -"},
    {"python", "python3", "python3 \"$MAKER\" deflated \"$OUT\""},
    {"python_stored", "python3", "python3 \"$MAKER\" stored \"$OUT\""},
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
    std::string seven;
    if (std::string(row.tool) == "7z") {
      seven = SevenZip();
      if (seven.empty()) GTEST_SKIP() << "7-Zip (7z/7zz/7za) is not installed";
    } else if (!Have(row.tool)) {
      GTEST_SKIP() << row.tool << " is not installed";
    }
    if (!Have("python3")) GTEST_SKIP() << "python3 (the independent lister) is not installed";
    ASSERT_NO_FATAL_FAILURE(MakeSourceTree(source, row.nestedZip));
    const std::string maker = dir.Write("maker.py", kMaker);
    RunResult made = Shell("cd " + Q(source) + " && OUT=" + Q(archive) + " Z=" + Q(seven) + " MAKER=" +
                           Q(maker) + " LC_ALL=C.UTF-8 sh -c " + Q(row.command));
    ASSERT_EQ(made.status, 0) << made.output;
  }

  TempDir dir;
  const std::string source = dir / "src";
  const std::string archive = dir / "peer.zip";
};

// What extraction must produce: every file the archive holds, and every folder it names or
// implies. Keys as ReadTree makes them.
Tree ExpectedTree(const std::string& source, const Listing& listing) {
  Tree all = ReadTree(source);
  Tree want;
  for (const Listed& m : listing.members) {
    std::string name = m.name;
    if (name.rfind("./", 0) == 0) name.erase(0, 2);
    const bool folder = !name.empty() && name.back() == '/';
    if (folder) name.pop_back();
    if (name.empty()) continue;
    stdfs::path p(name);
    if (folder) want.folders.insert(KeyOf(p));
    for (p = p.parent_path(); !p.empty(); p = p.parent_path()) want.folders.insert(KeyOf(p));
  }
  for (const auto& f : all.files) want.files.insert(f);
  return want;
}

TEST_P(WrittenByPeer, OpensListsAndExtracts) {
  ASSERT_NO_FATAL_FAILURE(MakePeerArchive());
  if (IsSkipped()) return;

  Listing listing;
  ASSERT_TRUE(ListWithPython(dir, archive, listing));
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
    // A name marked as UTF-8 is handed out in the ANSI code page; an unmarked one as stored.
    EXPECT_EQ(NameOf(*e), Backslashed(m.utf8 ? codepage::Utf8ToAnsi(m.name) : m.name));
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
  const Tree got = ReadTree(out);
  const Tree want = ExpectedTree(source, listing);
  EXPECT_EQ(got.folders, want.folders);
  EXPECT_EQ(got.files.size(), want.files.size());
  for (const auto& f : want.files) {
    EXPECT_EQ(got.files.count(f), 1u) << "missing or different after extraction: " << f.first;
  }
  // Extracted files carry the stored date and time, read as local time.
  for (const Listed& m : listing.members) {
    if (m.name.back() == '/' || !IsAscii(m.name)) continue;
    struct stat st {};
    ASSERT_EQ(::stat((out + "/" + m.name).c_str(), &st), 0) << m.name;
    EXPECT_EQ(st.st_mtime, LocalTimeOf(m)) << m.name;
  }
}

INSTANTIATE_TEST_SUITE_P(Peers, WrittenByPeer, ::testing::ValuesIn(kPeers),
                         [](const auto& info) { return std::string(info.param.label); });

// A peer's archive taken over by VxZip (opened, one member deleted, one appended, written) must
// still read back everywhere: records copied from it keep their data, whatever headers, extra
// fields or data descriptors they came with.
TEST_P(WrittenByPeer, RewrittenByUsStillReads) {
  ASSERT_NO_FATAL_FAILURE(MakePeerArchive());
  if (IsSkipped()) return;
  Listing before;
  ASSERT_TRUE(ListWithPython(dir, archive, before));

  // The member to drop: a.txt, wherever the tool put it.
  size_t drop = before.members.size();
  for (size_t i = 0; i < before.members.size(); ++i) {
    if (before.members[i].name == "a.txt" || before.members[i].name == "./a.txt") drop = i;
  }
  ASSERT_LT(drop, before.members.size());
  const Member added{"added.txt", "added.txt", Bytes(2500, 42, true)};
  const std::string rewritten = dir / "rewritten.zip";
  ASSERT_TRUE(ModifyArchive(archive, rewritten, before.members[drop].name, added));

  const std::string contents = dir / "contents";
  stdfs::create_directories(contents);
  Listing after;
  ASSERT_TRUE(ListWithPython(dir, rewritten, after, contents));
  EXPECT_TRUE(after.crcsOk);
  ASSERT_EQ(after.members.size(), before.members.size());
  for (size_t i = 0, j = 0; i < before.members.size(); ++i) {
    if (i == drop) continue;
    SCOPED_TRACE(before.members[i].name);
    EXPECT_EQ(after.members[j].name, before.members[i].name);
    EXPECT_EQ(after.members[j].size, before.members[i].size);
    ++j;
  }
  EXPECT_EQ(after.members.back().name, added.stored);
  EXPECT_EQ(after.comment, before.comment);
  EXPECT_EQ(ReadFileBytes(contents + "/" + std::to_string(after.members.size() - 1)), added.bytes);

  if (Have("unzip")) {
    RunResult r = Shell("unzip -tq " + Q(rewritten));
    EXPECT_EQ(r.status, 0) << r.output;
  }
  // And by ourselves: the reopened archive extracts the same bytes Python read.
  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(rewritten.c_str()));
  ASSERT_EQ(zip.EntryCount(), static_cast<int>(after.members.size()));
  const std::string out = dir / "out";
  for (size_t i = 0; i < after.members.size(); ++i) {
    const Listed& m = after.members[i];
    if (m.name.back() == '/' || !IsAscii(m.name)) continue;
    SCOPED_TRACE(m.name);
    auto e = zip.GetEntryByIndex(static_cast<int>(i));
    ASSERT_TRUE(e);
    EXPECT_EQ(e->GetUncompressedSize(), m.size);
    const std::string into = out + "/" + std::to_string(i);
    ASSERT_TRUE(e->ExtractInto(into.c_str()));
    EXPECT_EQ(ReadFileBytes(into + "/" + stdfs::path(m.name).filename().string()),
              ReadFileBytes(contents + "/" + std::to_string(i)));
  }
}

// Encryption is not read: members zip encrypted must not come out as plaintext-looking garbage.
// Extraction fails for them and leaves no file behind.
TEST(ZipInteropEncrypted, EncryptedMembersAreNotExtracted) {
  if (!Have("zip")) GTEST_SKIP() << "zip is not installed";
  TempDir dir;
  dir.Write("secret.kdp", Bytes(3000, 11, true));
  dir.Write("short.kdp", "x");
  const std::string archive = dir / "locked.zip";
  RunResult made = Shell("cd " + Q(dir.path()) + " && zip -q -P pw " + Q(archive) + " secret.kdp short.kdp");
  ASSERT_EQ(made.status, 0) << made.output;

  VxZip zip;
  if (!zip.OpenZip(archive.c_str())) return;  // refusing the whole archive is fine too
  const std::string out = dir / "out";
  EXPECT_FALSE(zip.Extract(out.c_str()));
  EXPECT_FALSE(stdfs::exists(out + "/secret.kdp"));
  EXPECT_FALSE(stdfs::exists(out + "/short.kdp"));
}

}  // namespace
}  // namespace qx
