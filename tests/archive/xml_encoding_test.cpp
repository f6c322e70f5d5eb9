// Files in other character sets, and arguments/results in the document's declared encoding.
#include <gtest/gtest.h>

#include <string>

#include "archive/VxXml.h"
#include "archive/XmlHelpers.h"

namespace qx {
namespace {

using test::Str;

std::string DataFile(const char* name) { return std::string(QX_TEST_DATA_DIR "/xml/") + name; }

std::string ContentOf(const VxXml& doc, const char* tag) {
  auto e = doc.FindTag(nullptr, tag);
  return e ? test::Content(*e) : "<missing>";
}

TEST(XmlEncoding, FilesAreReadInTheirCharacterSet) {
  struct Row {
    const char* file;
    const char* declaration;  // first line of GetXml, or "" for none
    const char* content;      // of <t>, as handed out
  } rows[] = {
      {"utf16le_bom.xml", "<?xml version=\"1.0\" encoding=\"utf-8\" ?>", "caf\xC3\xA9 \xCE\xA9"},
      {"utf16be_bom.xml", "<?xml version=\"1.0\" encoding=\"utf-8\" ?>", "caf\xC3\xA9 \xCE\xA9"},
      {"utf8_bom_windows1252.xml", "<?xml version=\"1.0\" encoding=\"windows-1252\" ?>",
       "\x80?"},
      {"windows1252.xml", "<?xml version=\"1.0\" encoding=\"windows-1252\" ?>", "caf\xE9"},
      {"iso88591.xml", "<?xml version=\"1.0\" encoding=\"ISO-8859-1\" standalone=\"yes\" ?>",
       "caf\xE9"},
      {"utf8_plain.xml", "", "caf\xC3\xA9"},
      {"nul_inside.xml", "", "a"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.file);
    VxXml doc;
    ASSERT_TRUE(doc.LoadXmlFile(DataFile(row.file).c_str()));
    EXPECT_EQ(ContentOf(doc, "t"), row.content);
    VxString xml;
    doc.GetXml(xml);
    std::string text = Str(xml);
    EXPECT_EQ(text.substr(0, text.find("\r\n")), row.declaration);
  }
}

TEST(XmlEncoding, BrokenUtf16FailsAndKeepsTheDocument) {
  VxXml doc;
  EXPECT_FALSE(doc.LoadXmlFile(DataFile("utf16_odd.xml").c_str()));
  VxString tag;
  doc.GetTag(tag);
  EXPECT_EQ(Str(tag), "unnamed");
  EXPECT_FALSE(doc.Log().empty());
}

TEST(XmlEncoding, ArgumentsAndResultsUseTheDeclaredEncoding) {
  VxXml doc;
  ASSERT_TRUE(doc.LoadXmlFile(DataFile("windows1252.xml").c_str()));
  EXPECT_TRUE(doc.FindTagWithContent(nullptr, "t", "caf\xE9"));
  EXPECT_FALSE(doc.FindTagWithContent(nullptr, "t", "caf\xC3\xA9"));
  auto u = doc.FindTagWithAttribute(nullptr, "u", "a", "\xE9*");
  ASSERT_TRUE(u);
  VxString value;
  ASSERT_TRUE(u->GetAttribute("a", value));
  EXPECT_EQ(Str(value), "\xE9t\xE9");
  EXPECT_EQ(ContentOf(doc, "u"), "\x80");

  auto added = doc.AddChild("n\xE8", "\xE8 & \xFF");
  VxString tag;
  added->GetTag(tag);
  EXPECT_EQ(Str(tag), "n\xE8");
  VxString xml;
  doc.GetXml(xml);
  EXPECT_NE(Str(xml).find("<n\xE8>\xE8 &amp; \xFF</n\xE8>"), std::string::npos);
}

TEST(XmlEncoding, TextParsedInPlaceKeepsItsBytes) {
  VxXml doc;
  // Not converted on the way in, so not valid UTF-8 on the way out: handed out unchanged.
  ASSERT_TRUE(doc.LoadXml("<?xml version=\"1.0\" encoding=\"windows-1252\"?><r>caf\xE9</r>"));
  VxString s;
  doc.GetContent(s);
  EXPECT_EQ(Str(s), "caf\xE9");
  // UTF-8 documents take and give bytes as they are.
  ASSERT_TRUE(doc.LoadXml("<r>caf\xC3\xA9</r>"));
  EXPECT_TRUE(doc.FindTagWithContent(nullptr, "r", "caf\xC3\xA9"));
}

}  // namespace
}  // namespace qx
