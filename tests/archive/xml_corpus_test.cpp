// Real IMS manifests written by other tools: parsed, searched breadth-first, serialised.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "archive/VxXml.h"
#include "archive/XmlHelpers.h"
#include "support/TempDir.h"

namespace qx {
namespace {

using test::Content;

std::string CorpusFile(const char* name) {
  return std::string(QX_CORPUS_DIR "/ims/") + name;
}

size_t Occurrences(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// The corpus lives beside the repository, not in it; a clone elsewhere skips these.
class XmlCorpus : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::is_directory(QX_CORPUS_DIR "/ims"))
      GTEST_SKIP() << "corpus not found at " QX_CORPUS_DIR;
  }
};

int Depth(const VxXml& e) {
  int depth = 0;
  for (auto p = e.GetParent(); p; p = p->GetParent()) ++depth;
  return depth;
}

TEST_F(XmlCorpus, ManifestsParseAndEveryElementIsFound) {
  struct Row {
    const char* file;
    const char* tag;  // counted against the start tags in the raw text
  } rows[] = {
      {"qtiworks_reading_imsmanifest.xml", "imsmd:langstring"},
      {"pyslet_qtiv1_outputv2_imsmanifest.xml", "imsmd:title"},
      {"pyslet_package_3_imsmanifest.xml", "file"},
      {"pyslet_imscc11_sample1_imsmanifest.xml", "resource"},
      {"jcputney_WithMetadata_SCORM12_imsmanifest.xml", "item"},
      {"jcputney_WithMetadata_SCORM12_metadata.xml", "langstring"},
      {"reload_interink_imsmanifest.xml", "file"},
      {"pyslet_yingguo_imsmanifest.xml", "manifest"},
      {"jcputney_MalformedXml_SCORM12_imsmanifest.xml", "item"},  // unclosed element: kept
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.file);
    VxXml doc;
    ASSERT_TRUE(doc.LoadXmlFile(CorpusFile(row.file).c_str()));
    std::string raw = test::ReadFileBytes(CorpusFile(row.file));
    size_t expected = 0;
    for (char end : std::string(" \t\r\n/>")) expected += Occurrences(raw, "<" + std::string(row.tag) + end);
    size_t found = 0;
    int lastDepth = 0;
    for (auto e = doc.FindTag(nullptr, row.tag); e; e = doc.FindTag(e.get(), row.tag)) {
      ++found;
      int depth = Depth(*e);
      EXPECT_GE(depth, lastDepth);  // breadth-first: never back up a level
      lastDepth = depth;
    }
    EXPECT_EQ(found, expected);
    VxString xml;
    ASSERT_TRUE(doc.GetXml(xml));
    // Our own output reads back with the same elements (folding may move line breaks).
    VxXml again;
    ASSERT_TRUE(again.LoadXml(xml.GetString()));
    size_t refound = 0;
    for (auto e = again.FindTag(nullptr, row.tag); e; e = again.FindTag(e.get(), row.tag)) ++refound;
    EXPECT_EQ(refound, expected);
  }
}

TEST_F(XmlCorpus, MetadataLookupsFindTheShallowestElement) {
  VxXml doc;
  ASSERT_TRUE(doc.LoadXmlFile(CorpusFile("qtiworks_reading_imsmanifest.xml").c_str()));
  auto title = doc.FindTag(nullptr, "imsmd:title");
  ASSERT_TRUE(title);
  EXPECT_EQ(Depth(*title), 4);  // manifest > metadata > imsmd:lom > imsmd:general > title
  auto lang = title->FindTag(nullptr, "imsmd:langstring");
  ASSERT_TRUE(lang);
  EXPECT_EQ(Content(*lang), "Projectile Trajectory");
  VxString l;
  EXPECT_TRUE(lang->GetAttribute("xml:lang", l));
  EXPECT_EQ(l.Compare("en"), 0);

  VxXml cc;
  ASSERT_TRUE(cc.LoadXmlFile(CorpusFile("pyslet_imscc11_sample1_imsmanifest.xml").c_str()));
  EXPECT_FALSE(cc.FindTag(nullptr, "imsmd:title"));
}

}  // namespace
}  // namespace qx
