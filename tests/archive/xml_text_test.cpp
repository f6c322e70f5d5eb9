// Exact text of parsed and built documents: line breaks, escaping, entity handling, folding.
#include <gtest/gtest.h>

#include <string>

#include "archive/VxXml.h"
#include "archive/XmlHelpers.h"

namespace qx {
namespace {

using test::Content;
using test::Xml;

struct RoundTrip {
  const char* name;
  const char* input;
  const char* xml;
};

TEST(XmlText, ParsedDocumentsSerialiseExactly) {
  const RoundTrip rows[] = {
      {"content and two children", "<a>t<b>x</b><c/></a>",
       "\r\n<a>t\r\n<b>x</b>\r\n<c></c>\r\n</a>\r\n"},
      {"empty element never short", "<a/>", "\r\n<a></a>\r\n"},
      {"nested closes", "<a><b><c/></b><d/></a>",
       "\r\n<a>\r\n<b>\r\n<c></c>\r\n</b>\r\n<d></d>\r\n</a>\r\n"},
      {"declaration", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<a/>",
       "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\r\n\r\n<a></a>\r\n"},
      {"declaration quotes", "<?xml version='1.0' standalone=no ?><a/>",
       "<?xml version=\"1.0\" standalone=\"no\" ?>\r\n\r\n<a></a>\r\n"},
      {"preamble keeps PI and DOCTYPE",
       "<?xml version=\"1.0\"?><?style x?><!DOCTYPE a [<!ENTITY e \"v\">]><a/>",
       "<?xml version=\"1.0\" ?>\r\n<?style x?>\n<!DOCTYPE a [<!ENTITY e \"v\">]>\n\r\n\r\n"
       "<a></a>\r\n"},
      {"amp lt loses one level", "<a>&amp;lt;</a>", "\r\n<a>&lt;</a>\r\n"},
      {"amp amp escaped again", "<a>&amp;amp;</a>", "\r\n<a>&amp;amp;</a>\r\n"},
      {"numeric references kept", "<a>&#60;b&#62; &#xD;</a>", "\r\n<a>&#60;b&#62; &#xD;</a>\r\n"},
      {"content entities", "<a>x &lt; y &apos;q&apos; &quot;z&quot; &gt; &amp;</a>",
       "\r\n<a>x &lt; y &apos;q&apos; &quot;z&quot; &gt; &amp;</a>\r\n"},
      {"unknown entity escaped", "<a>&nbsp;</a>", "\r\n<a>&amp;nbsp;</a>\r\n"},
      {"attribute entities", "<a k='say \"hi\" &amp; &#38; &apos;'/>",
       "\r\n<a k=\"say &quot;hi&quot; &amp; &#38; &amp;apos;\"></a>\r\n"},
      {"attribute lt gt", "<a k=\"&lt;b&gt;\" j=\"x&#y\"/>",
       "\r\n<a k=\"&lt;b&gt;\" j=\"x&#y\"></a>\r\n"},
      {"unquoted attributes", "<a x=1 y='2'\tz = \"3\"/>",
       "\r\n<a x=\"1\" y=\"2\" z=\"3\"></a>\r\n"},
      {"text pieces joined", "<a> one <b/> two <!-- c --> three\r\n</a>",
       "\r\n<a>one two three\r\n<b></b>\r\n</a>\r\n"},
      {"cdata raw", "<a><![CDATA[<x> & y]]></a>", "\r\n<a><![CDATA[<x> & y]]></a>\r\n"},
      {"comments skipped", "<!-- c1 --><a><!-- <b> --></a><!-- c2 -->", "\r\n<a></a>\r\n"},
      {"end tag names not compared", "<a><b></x>t</y>", "\r\n<a>t\r\n<b></b>\r\n</a>\r\n"},
      {"unclosed elements kept", "<a><b>x", "\r\n<a>\r\n<b>x</b>\r\n</a>\r\n"},
      {"text outside root dropped", "before<a>in</a>after", "\r\n<a>in</a>\r\n"},
      {"other markup skipped", "<!ELEMENT a ANY><a/>", "\r\n<a></a>\r\n"},
      {"prefixed tags", "<imsmd:lom><imsmd:title>T</imsmd:title></imsmd:lom>",
       "\r\n<imsmd:lom>\r\n<imsmd:title>T</imsmd:title>\r\n</imsmd:lom>\r\n"},
  };
  for (const RoundTrip& row : rows) {
    SCOPED_TRACE(row.name);
    VxXml x;
    ASSERT_TRUE(x.LoadXml(row.input));
    EXPECT_EQ(Xml(x), row.xml);
  }
}

TEST(XmlText, ContentFoldsAfterEightyCharacters) {
  const std::string x79(79, 'x');
  const std::string x80(80, 'x');
  struct Row {
    const char* name;
    std::string content;
    std::string written;
  } rows[] = {
      {"79 then blank stays", x79 + " y", x79 + " y"},
      {"80 then blank folds", x80 + " y", x80 + " \r\ny"},
      {"following blanks and line feeds dropped", x80 + "  \n  y", x80 + " \r\ny"},
      {"line feed folds without CR LF", x80 + "\ny", x80 + "\ny"},
      {"counter restarts", x80 + " " + x80 + " " + x79 + " z",
       x80 + " \r\n" + x80 + " \r\n" + x79 + " z"},
      {"escapes count once", std::string(40, '<') + std::string(40, 'x') + " y",
       [] {
         std::string s;
         for (int i = 0; i < 40; ++i) s += "&lt;";
         return s + std::string(40, 'x') + " \r\ny";
       }()},
      {"tab does not fold", x80 + "\ty", x80 + "\ty"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    VxXml root;
    root.SetTag("a");
    root.AddChild("b", row.content.c_str());
    EXPECT_EQ(Xml(root), "\r\n<a>\r\n<b>" + row.written + "</b>\r\n</a>\r\n");
  }
  VxXml attr;
  attr.AddAttribute("k", (x80 + " " + x80).c_str());
  EXPECT_EQ(Xml(attr), "\r\n<unnamed k=\"" + x80 + " " + x80 + "\"></unnamed>\r\n");
}

TEST(XmlText, BuiltDocuments) {
  VxXml root;
  EXPECT_EQ(Xml(root), "\r\n<unnamed></unnamed>\r\n");

  ASSERT_TRUE(root.SetTag("group"));
  root.AddAttribute("name", "a&b.qxg");
  root.AddAttribute("name", "second");
  root.AddAttribute("", "ignored");
  root.AddAttribute(nullptr, "ignored");
  root.AddAttribute("empty", nullptr);
  auto dir = root.AddChild("dir", nullptr);
  dir->AddAttribute("name", "unit 1");
  auto file = dir->AddChild("file", "quiz<1>.kdp");
  auto other = root.AddChild("my tag", "x & y");
  EXPECT_EQ(Xml(root),
            "\r\n<group name=\"a&amp;b.qxg\" name=\"second\" empty=\"\">\r\n"
            "<dir name=\"unit 1\">\r\n<file>quiz&lt;1&gt;.kdp</file>\r\n</dir>\r\n"
            "<my_tag>x &amp; y</my_tag>\r\n</group>\r\n");
  EXPECT_EQ(Xml(*dir), "\r\n<dir name=\"unit 1\">\r\n<file>quiz&lt;1&gt;.kdp</file>\r\n</dir>\r\n");

  VxString value;
  EXPECT_TRUE(root.GetAttribute("name", value));
  EXPECT_EQ(value.Compare("a&b.qxg"), 0);
  EXPECT_FALSE(root.GetAttribute("missing", value));
  EXPECT_EQ(value.GetLength(), 0);

  auto unnamed = other->AddChild("", "e");
  EXPECT_EQ(Xml(*unnamed), "\r\n<nothing>e</nothing>\r\n");

  other->SetTag("my tag");
  VxString tag;
  other->GetTag(tag);
  EXPECT_EQ(tag.Compare("my tag"), 0);
  EXPECT_EQ(Content(*file), "quiz<1>.kdp");
}

TEST(XmlText, VxStringComparesUnsignedBytes) {
  VxString s("abc");
  EXPECT_EQ(s.Compare("abc"), 0);
  EXPECT_LT(s.Compare("abd"), 0);
  EXPECT_GT(s.Compare("ab"), 0);
  EXPECT_LT(s.Compare("abcd"), 0);
  EXPECT_GT(s.Compare(nullptr), 0);
  EXPECT_LT(s.Compare("ab\xE9"), 0);  // 0xE9 sorts above 'c', not below
  EXPECT_GT(s.Compare("ABC"), 0);  // case-sensitive
  s.AppendChar('\0');
  EXPECT_EQ(s.GetLength(), 4);
}

}  // namespace
}  // namespace qx
