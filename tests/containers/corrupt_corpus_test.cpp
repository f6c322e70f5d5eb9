// Every damaged file of tests/data/corrupt through the reader its MANIFEST names: no crash, a
// failure that names the problem, the file left as it was.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "archive/VxXml.h"
#include "archive/VxZip.h"
#include "containers/ContainerFactory.h"
#include "containers/GroupContainer.h"
#include "formats/FlashFile.h"
#include "platform/Diagnostic.h"
#include "platform/fs.h"
#include "support/TempDir.h"

namespace qx {
namespace {

const std::string kCorrupt = QX_TEST_DATA_DIR "/corrupt/";
const std::string kSamples = QX_TEST_DATA_DIR "/../../samples/";

std::string Recorded() {
  const diag::Diagnostic* d = diag::Current();
  return d == nullptr ? "(nothing recorded)" : d->code + " " + diag::Describe();
}
template <typename Log>
std::string Joined(const Log& log) {
  std::string s;
  for (const std::string& m : log) s += m + "\n";
  return s.empty() ? "(nothing logged)" : s;
}

// What the reader reported; every change it is asked for must fail.
std::string Read(const std::string& reader, const std::string& path, const std::string& out) {
  diag::Clear();
  if (reader == "group") {
    ContainerFactory factory;
    std::unique_ptr<GroupContainer> c = factory.CreateContainer(path);
    if (c != nullptr) {
      StringList names;
      c->ListMembers(names);
      std::string xml;
      c->WriteContentsXml(xml, 0, "");
      c->ExtractAllMembers(out);
      EXPECT_NE(c->DeleteMembers({names.empty() ? "main.PROG1.map" : names.front()}), 1);
      int32_t state = 0;
      const std::string add = path.ends_with(".mag") ? "prog1.map" : "PROG.kdp";
      EXPECT_NE(c->AddMembers({kSamples + add}, "", &state, nullptr, nullptr), 1);
    }
    return Recorded();
  }
  if (reader == "flash") {
    fs::File in = fs::File::OpenRead(path);
    std::string list;
    EXPECT_NE(ExpandFlashRecords(in, out, list, path), S_OK);
    return Recorded();
  }
  if (reader == "zip") {
    VxZip zip;
    if (zip.OpenZip(path.c_str())) {
      EXPECT_FALSE(zip.Extract(out.c_str()));
    }
    return Joined(zip.Log());
  }
  VxXml doc;
  EXPECT_FALSE(doc.LoadXmlFile(path.c_str()));
  return Joined(doc.Log());
}

TEST(CorruptFiles, EachReaderFailsNamingTheProblem) {
  std::ifstream manifest(kCorrupt + "MANIFEST");
  ASSERT_TRUE(manifest) << kCorrupt;
  int rows = 0;
  for (std::string line; std::getline(manifest, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string file, reader, expected;
    std::getline(fields, file, '\t');
    std::getline(fields, reader, '\t');
    std::getline(fields, expected);
    SCOPED_TRACE(file + " (" + reader + ")");
    ++rows;
    test::TempDir dir;
    const std::string path = dir / file;
    std::filesystem::copy_file(kCorrupt + file, path);
    std::filesystem::create_directory(dir / "out");
    const std::string before = test::ReadFileBytes(path);
    ASSERT_FALSE(before.empty() && reader != "xml");
    const std::string report = Read(reader, path, dir / "out/");
    EXPECT_NE(report.find(expected), std::string::npos) << report;
    EXPECT_EQ(test::ReadFileBytes(path), before) << "the reader changed the file";
  }
  EXPECT_GT(rows, 0);
}

}  // namespace
}  // namespace qx
