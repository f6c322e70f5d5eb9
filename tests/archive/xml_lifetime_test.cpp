// Documents shared between handles, subtrees moving between documents, failed parses, and
// inputs that must fail cleanly (run under ASan + LeakSanitizer to make these tests bite).
#include <gtest/gtest.h>

#include <string>

#include "archive/VxXml.h"
#include "archive/XmlHelpers.h"

namespace qx {
namespace {

using test::Tag;
using test::Xml;

TEST(XmlLifetime, HandlesKeepTheirDocumentInAnyOrder) {
  std::unique_ptr<VxXml> leaf;
  {
    VxXml doc;
    ASSERT_TRUE(doc.LoadXml("<r><a><b>x</b></a></r>"));
    leaf = doc.FindTag(nullptr, "b");
  }
  auto root = leaf->GetRoot();
  EXPECT_EQ(Tag(*root), "r");
  leaf.reset();
  EXPECT_EQ(Xml(*root), "\r\n<r>\r\n<a>\r\n<b>x</b>\r\n</a>\r\n</r>\r\n");
  auto parent = root->FindTag(nullptr, "a")->GetParent();
  EXPECT_EQ(Tag(*parent), "r");
  EXPECT_FALSE(parent->GetParent());

  VxXml copy(*root);
  VxXml other;
  other = copy;
  root.reset();
  parent.reset();
  EXPECT_EQ(Tag(other), "r");
  // Loading moves only this handle to the new document.
  ASSERT_TRUE(other.LoadXml("<new/>"));
  EXPECT_EQ(Tag(copy), "r");
  EXPECT_EQ(Tag(other), "new");
}

TEST(XmlLifetime, DetachMakesADocumentOfItsOwn) {
  VxXml doc;
  ASSERT_TRUE(doc.LoadXml("<?xml version=\"1.0\"?><!DOCTYPE r><r><a>1<c/></a><b>2</b></r>"));
  auto a = doc.FindTag(nullptr, "a");
  auto c = doc.FindTag(nullptr, "c");
  auto b = doc.FindTag(nullptr, "b");
  EXPECT_EQ(Xml(*b), "\r\n<b>2</b>\r\n");  // declaration and preamble belong to the root only
  a->Detach();
  EXPECT_EQ(Tag(*c->GetRoot()), "a");
  EXPECT_FALSE(a->GetParent());
  EXPECT_FALSE(b->GetPreviousSibling());
  EXPECT_FALSE(doc.FindTag(nullptr, "c"));
  EXPECT_EQ(Xml(*a), "\r\n<a>1\r\n<c></c>\r\n</a>\r\n");  // no declaration came along
  doc.Detach();                                            // a root stays as it is
  EXPECT_EQ(Xml(doc), "<?xml version=\"1.0\" ?>\r\n<!DOCTYPE r>\n\r\n\r\n<r>\r\n<b>2</b>\r\n</r>\r\n");
}

TEST(XmlLifetime, AppendSubtreeMovesHandlesAlong) {
  VxXml target;
  target.SetTag("t");
  auto existing = target.AddChild("first", nullptr);
  std::unique_ptr<VxXml> inner;
  {
    VxXml source;
    ASSERT_TRUE(source.LoadXml("<?xml version=\"1.0\"?><group><file>x</file></group>"));
    inner = source.FindTag(nullptr, "file");
    EXPECT_FALSE(target.AppendSubtree(nullptr));
    EXPECT_TRUE(target.AppendSubtree(&source));
    EXPECT_EQ(Tag(*source.GetRoot()), "t");
  }
  EXPECT_EQ(Tag(*inner->GetRoot()), "t");
  EXPECT_EQ(Tag(*inner->GetParent()->GetPreviousSibling()), "first");
  EXPECT_EQ(Xml(target),
            "\r\n<t>\r\n<first></first>\r\n<group>\r\n<file>x</file>\r\n</group>\r\n</t>\r\n");

  // Moving a child into its own descendant would make a cycle: refused.
  auto group = target.FindTag(nullptr, "group");
  EXPECT_FALSE(inner->AppendSubtree(group.get()));
  EXPECT_FALSE(inner->AppendSubtree(inner.get()));
  // Moving within one tree works, as detach then append.
  EXPECT_TRUE(existing->AppendSubtree(inner.get()));
  EXPECT_EQ(Xml(target),
            "\r\n<t>\r\n<first>\r\n<file>x</file>\r\n</first>\r\n<group></group>\r\n</t>\r\n");
}

TEST(XmlLifetime, FailedParsesKeepTheDocument) {
  struct Row {
    const char* input;
    const char* message;  // null: any message
  } rows[] = {
      {"<a><!-- never closed", "Unclosed comment"},
      {"<!DOCTYPE a [ <!ENTITY x 'y'> <a/>", "Failed to parse DTD"},
      {"<a></a", "Error in closing tag"},
      {"", nullptr},
      {"   \r\n ", nullptr},
      {"only text", nullptr},
      {"<!-- only a comment -->", nullptr},
      {"<a", nullptr},
      {"<a b=\"unterminated></a>", nullptr},
      {"<?xml version=\"1.0\"", nullptr},
      {"<?pi never closed <a/>", nullptr},
      {"<a><![CDATA[ open", nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.input);
    VxXml doc;
    ASSERT_TRUE(doc.LoadXml("<keep>me</keep>"));
    auto before = doc.Log().size();
    EXPECT_FALSE(doc.LoadXml(row.input));
    EXPECT_EQ(Xml(doc), "\r\n<keep>me</keep>\r\n");
    ASSERT_EQ(doc.Log().size(), before + 1);
    if (row.message != nullptr) {
      EXPECT_EQ(doc.Log().back(), row.message);
    }
  }
  VxXml doc;
  EXPECT_FALSE(doc.LoadXml(nullptr));
  EXPECT_FALSE(doc.LoadXmlFile(nullptr));
  EXPECT_FALSE(doc.LoadXmlFile("/nonexistent/dir/file.xml"));
  EXPECT_EQ(Tag(doc), "unnamed");
}

TEST(XmlLifetime, LargeInputsNeitherRecurseNorLeak) {
  constexpr int kDepth = 100000;
  std::string text;
  for (int i = 0; i < kDepth; ++i) text += "<d>";
  text += "x";
  for (int i = 0; i < kDepth; ++i) text += "</d>";
  VxXml doc;
  ASSERT_TRUE(doc.LoadXml(text.c_str()));
  VxString out;
  ASSERT_TRUE(doc.GetXml(out));
  // Each level: CR LF before the first child, "<d>", "</d>" and CR LF after.
  EXPECT_EQ(out.GetLength(), kDepth * (2 + 3 + 4 + 2) + 1);
  auto deepest = doc.FindTagWithContent(nullptr, "d", "x");
  ASSERT_TRUE(deepest);
  auto up = deepest->GetParent();
  up->Detach();
  EXPECT_TRUE(doc.FindTag(up.get(), "d") == nullptr);

  // Unclosed: kept as it stands, still freed without recursion.
  std::string open(3 * kDepth, ' ');
  for (int i = 0; i < kDepth; ++i) open.replace(static_cast<size_t>(i) * 3, 3, "<d>");
  EXPECT_TRUE(doc.LoadXml(open.c_str()));

  VxXml built;
  std::unique_ptr<VxXml> cursor = built.GetRoot();
  for (int i = 0; i < kDepth; ++i) cursor = cursor->AddChild("b", nullptr);
  built.FindTag(cursor.get(), "b");

  const std::string big(4 << 20, 'v');
  std::string wide = "<a k=\"" + big + "\">";
  for (int i = 0; i < 20000; ++i) wide += "<f>" + std::to_string(i) + "</f>";
  ASSERT_TRUE(doc.LoadXml((wide + "</a>").c_str()));
  VxString value;
  ASSERT_TRUE(doc.GetAttribute("k", value));
  EXPECT_EQ(value.GetLength(), static_cast<int>(big.size()));
  int count = 0;
  for (auto f = doc.FindTag(nullptr, "f"); f; f = doc.FindTag(f.get(), "f")) ++count;
  EXPECT_EQ(count, 20000);
}

}  // namespace
}  // namespace qx
