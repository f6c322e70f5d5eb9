// The entry list and its handles: names and lookups, duplicates, deletion, handles that go
// empty, the refusals of AppendData and the folder listing as XML.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "archive/VxZip.h"
#include "support/ZipBytes.h"
#include "support/TempDir.h"

namespace qx {
namespace {

using test::TempDir;
using namespace ziptest;

std::string NameOf(VxZipEntry& e) {
  VxString name;
  e.GetFileName(name);
  return std::string(name.View());
}

// Names are shown in the ANSI code page with backslashes (0x82 is e-acute in code page 850; a
// name without bytes 128-159 is taken as 1252 already); lookups take either separator and read
// at most 259 bytes of the name asked for.
TEST(ZipEntries, NamesAndLookups) {
  TempDir dir;
  const std::string kLong(259, 'n');
  const std::string path = dir.Write(
      "n.zip", BuildZip({{"sub/b.kdp", "b"}, {"win\\c.kdp", "c"}, {"dir/caf\x82.kdp", "x"}, {"na\xEFve.kdp", "y"}, {kLong, "z"}}));
  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(path.c_str()));
  const std::string shown[] = {"sub\\b.kdp", "win\\c.kdp", "dir\\caf\xE9.kdp", "na\xEFve.kdp", kLong};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(NameOf(*zip.GetEntryByIndex(i)), shown[i]);
  const std::vector<std::pair<std::string, int>> rows = {
      {"sub\\b.kdp", 0}, {"sub/b.kdp", 0},  {"SUB/B.KDP", -1}, {"sub/b.kd", -1},          {"b.kdp", -1},
      {"win\\c.kdp", 1}, {"win/c.kdp", 1},  {"", -1},          {"dir/caf\xE9.kdp", 2}, {kLong + "more", 4}, {kLong.substr(1), -1},
  };
  for (const auto& [name, index] : rows) {
    SCOPED_TRACE(name);
    auto e = zip.GetEntryByName(name.c_str());
    ASSERT_EQ(e != nullptr, index >= 0);
    EXPECT_EQ(e ? NameOf(*e) : "", index >= 0 ? shown[index] : "");
  }
  EXPECT_TRUE(Logged(zip, "File not found in zip archive"));
  EXPECT_EQ(zip.GetEntryByName(nullptr), nullptr);
  EXPECT_TRUE(Logged(zip, "null parameter"));
}

TEST(ZipEntries, DuplicateNamesAreKeptAndTheFirstIsFound) {
  TempDir dir;
  VxZip zip;
  ASSERT_TRUE(zip.NewZip((dir / "d.zip").c_str()));
  ASSERT_NE(zip.AppendData("a.kdp", Bytes("first")), nullptr);
  ASSERT_NE(zip.AppendData("a.kdp", Bytes("second one")), nullptr);
  EXPECT_EQ(zip.GetEntryByName("a.kdp")->GetUncompressedSize(), 5u);
  ASSERT_TRUE(zip.WriteZip());
  EXPECT_EQ(zip.EntryCount(), 2);
  auto first = zip.GetEntryByName("a.kdp");
  EXPECT_EQ(first->GetUncompressedSize(), 5u);
  // Deleting the first makes the second the match.
  EXPECT_TRUE(zip.DeleteEntry(first.get()));
  EXPECT_EQ(zip.GetEntryByName("a.kdp")->GetUncompressedSize(), 10u);
}

TEST(ZipEntries, AppendDataRefusals) {
  TempDir dir;
  VxZip zip;
  EXPECT_EQ(zip.AppendData("x", Bytes("data")), nullptr);
  EXPECT_TRUE(Logged(zip, "No zip file has been opened."));
  ASSERT_TRUE(zip.NewZip((dir / "r.zip").c_str()));
  const std::vector<std::tuple<const char*, std::string, const char*>> rows = {
      {nullptr, "data", "null parameter"}, {"x", "", "Data length must be > 0"}, {"", "data", "No filename was provided"}};
  for (const auto& [name, data, message] : rows) {
    EXPECT_EQ(zip.AppendData(name, Bytes(data)), nullptr);
    EXPECT_TRUE(Logged(zip, message)) << message;
  }
  EXPECT_EQ(zip.EntryCount(), 0);
}

TEST(ZipEntries, HandlesFollowTheirRecordThroughOtherDeletions) {
  TempDir dir;
  VxZip zip;
  ASSERT_TRUE(zip.NewZip((dir / "h.zip").c_str()));
  std::vector<std::unique_ptr<VxZipEntry>> handles;
  for (const char* name : {"0", "1", "2", "3", "4"}) handles.push_back(zip.AppendData(name, Bytes(name)));
  EXPECT_TRUE(zip.DeleteEntry(handles[1].get()) && zip.DeleteEntry(handles[3].get()));
  EXPECT_EQ(NameOf(*handles[2]), "2");
  EXPECT_EQ(NameOf(*handles[0]->NextEntry()), "2");
  EXPECT_EQ(NameOf(*handles[2]->NextEntry()), "4");
  EXPECT_EQ(handles[4]->NextEntry(), nullptr);
  EXPECT_EQ(zip.GetEntryByIndex(-1), nullptr);
  EXPECT_TRUE(Logged(zip, "No zip entry found at the given index"));

  // A deleted record's handle is empty; deleting through it again changes nothing.
  EXPECT_EQ(NameOf(*handles[1]), "");
  EXPECT_EQ(handles[1]->GetUncompressedSize(), 0u);
  EXPECT_TRUE(zip.DeleteEntry(handles[1].get()));
  EXPECT_EQ(zip.EntryCount(), 3);
  EXPECT_FALSE(zip.DeleteEntry(nullptr));
}

// Positions after any mix of appends and deletions, against a plain vector of names.
TEST(ZipEntries, IndexesFollowAppendsAndDeletions) {
  TempDir dir;
  VxZip zip;
  ASSERT_TRUE(zip.NewZip((dir / "i.zip").c_str()));
  std::vector<std::string> model;
  unsigned seed = 12345;
  const auto next = [&seed] { return seed = seed * 1103515245u + 12345u, (seed >> 16) & 0x7FFF; };
  for (int step = 0; step < 600; ++step) {
    if (model.empty() || next() % 3 != 0) {
      const std::string name = "m" + std::to_string(step);
      ASSERT_NE(zip.AppendData(name.c_str(), Bytes(name)), nullptr);
      model.push_back(name);
    } else {
      const size_t at = next() % model.size();
      auto e = zip.GetEntryByIndex(static_cast<int>(at));
      ASSERT_NE(e, nullptr);
      ASSERT_EQ(NameOf(*e), model[at]);
      ASSERT_TRUE(zip.DeleteEntry(e.get()));
      model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
    }
    ASSERT_EQ(zip.EntryCount(), static_cast<int>(model.size()));
  }
  for (size_t i = 0; i < model.size(); ++i)
    ASSERT_EQ(NameOf(*zip.GetEntryByIndex(static_cast<int>(i))), model[i]) << i;
  EXPECT_EQ(zip.GetEntryByIndex(static_cast<int>(model.size())), nullptr);
}

// Handles go empty when WriteZip rebuilds the list, when the archive goes away, and when
// another open drops the list.
TEST(ZipEntries, HandlesGoEmptyWhenTheListIsRebuiltOrGone) {
  TempDir dir;
  VxZip zip;
  ASSERT_TRUE(zip.NewZip((dir / "w.zip").c_str()));
  auto appended = zip.AppendData("a.kdp", Bytes("aaaa"));
  auto other = zip.AppendData("b.kdp", Bytes("bb"));
  ASSERT_TRUE(zip.WriteZip());
  const size_t logged = zip.Log().size();
  for (VxZipEntry* e : {appended.get(), other.get()}) {
    EXPECT_EQ(NameOf(*e), "");
    EXPECT_EQ(e->GetUncompressedSize() + e->GetCompressedSize(), 0u);
    EXPECT_FALSE(e->IsDirectory());
    SYSTEMTIME t{};
    e->GetFileTime(t);
    EXPECT_EQ(t.wYear, timeutil::LocalNow().wYear);  // an empty handle gives the time now
    EXPECT_EQ(e->NextEntry(), nullptr);
    EXPECT_FALSE(e->ExtractInto((dir / "x").c_str()));
  }
  // The calls that act say so, NextEntry and ExtractInto; the ones that only look do not.
  EXPECT_EQ(zip.Log().size(), logged + 4);
  EXPECT_TRUE(Logged(zip, "Object not initialized"));
  EXPECT_EQ(zip.GetEntryByName("b.kdp")->GetUncompressedSize(), 2u);  // new handles see the records

  // A failed open drops the list, and without one nothing is written.
  auto reopened = zip.FirstEntry();
  ASSERT_FALSE(zip.OpenZip((dir / "missing.zip").c_str()));
  EXPECT_TRUE(Logged(zip, "Failed to open Zip file"));
  EXPECT_FALSE(zip.WriteZip());
  EXPECT_FALSE(std::filesystem::exists(dir / "missing.zip"));
  EXPECT_EQ(reopened->GetUncompressedSize(), 0u);
  EXPECT_EQ(zip.EntryCount(), 0);
  EXPECT_EQ(zip.GetEntryByIndex(0), nullptr);
  EXPECT_TRUE(Logged(zip, "No zip file has been opened."));
  EXPECT_FALSE(zip.NewZip(nullptr));
  EXPECT_FALSE(zip.OpenZip(nullptr));

  auto gone = std::make_unique<VxZip>();
  ASSERT_TRUE(gone->NewZip((dir / "o.zip").c_str()));
  auto orphan = gone->AppendData("a", Bytes("a"));
  gone.reset();
  EXPECT_EQ(orphan->GetUncompressedSize(), 0u);
  EXPECT_EQ(orphan->NextEntry(), nullptr);
  EXPECT_FALSE(orphan->ExtractInto("/nonexistent"));
}

TEST(ZipEntries, DirectoryListingNestsFoldersOnce) {
  TempDir dir;
  Member folder{"sub/", "", 0}, emptyFolder{"empty/", "", 0};
  folder.externalAttributes = emptyFolder.externalAttributes = 0x10;
  const std::string path = dir.Write(
      "x.zip", BuildZip({{"a.kdp", "a"}, {"sub/b.kdp", "b"}, folder, {"sub/c/d.kdp", "d"},
                         {"sub\\e.kdp", "e"}, emptyFolder, {"a&b.kdp", "&"}}));
  VxZip zip;
  ASSERT_TRUE(zip.OpenZip(path.c_str()));
  VxString xml;
  ASSERT_TRUE(zip.GetDirectoryAsXML(xml));
  EXPECT_EQ(std::string(xml.View()),
            "\r\n<zip_contents>\r\n<file>a.kdp</file>\r\n<dir name=\"sub\">\r\n<file>b.kdp</file>\r\n"
            "<dir name=\"c\">\r\n<file>d.kdp</file>\r\n</dir>\r\n<file>e.kdp</file>\r\n</dir>\r\n"
            "<dir name=\"empty\"></dir>\r\n<file>a&amp;b.kdp</file>\r\n</zip_contents>\r\n");
}

}  // namespace
}  // namespace qx
