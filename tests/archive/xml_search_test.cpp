// Breadth-first search with and without a resume point, and wildcard patterns.
#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>
#include <vector>

#include "archive/VxXml.h"
#include "archive/XmlHelpers.h"

namespace qx {
namespace {

using test::Content;

// Contents of every match, walking with `after` from the start.
std::vector<std::string> AllMatches(const VxXml& scope, const char* tag) {
  std::vector<std::string> found;
  std::unique_ptr<VxXml> cursor = scope.FindTag(nullptr, tag);
  while (cursor) {
    found.push_back(Content(*cursor));
    cursor = scope.FindTag(cursor.get(), tag);
  }
  return found;
}

TEST(XmlSearch, BreadthFirstOrder) {
  VxXml doc;
  ASSERT_TRUE(doc.LoadXml(
      "<x>0<a><b><x>3a</x></b><x>2a</x></a><c><x>2b<x>3b</x></x></c><x>1</x></x>"));
  EXPECT_EQ(AllMatches(doc, "x"), (std::vector<std::string>{"0", "1", "2a", "2b", "3a", "3b"}));
  auto c = doc.FindTag(nullptr, "c");
  ASSERT_TRUE(c);
  EXPECT_EQ(AllMatches(*c, "x"), (std::vector<std::string>{"2b", "3b"}));
  // Content searches resume the same way.
  EXPECT_EQ(Content(*doc.FindTagWithContent(doc.FindTagWithContent(nullptr, "x", "2*").get(), "x", "2*")), "2b");
  // An "after" element outside the scope leaves nothing to find.
  auto one = doc.FindTag(doc.FindTag(nullptr, "x").get(), "x");
  EXPECT_FALSE(c->FindTag(one.get(), "x"));
  VxXml elsewhere;
  EXPECT_FALSE(doc.FindTag(&elsewhere, "x"));
  // Tags are whole and case-sensitive.
  EXPECT_FALSE(doc.FindTag(nullptr, "X"));
  EXPECT_FALSE(doc.FindTag(nullptr, "b "));
}

TEST(XmlSearch, WildcardPatterns) {
  struct Row {
    const char* pattern;
    const char* text;
    bool match;
  } rows[] = {
      {"Learning Tool*", "Learning Tool", true}, {"Learning Tool*", "Learning Tools", true},
      {"Learning Tool*", "A Learning Tool", false}, {"", "", true}, {"", "x", false}, {"*", "", true},
      {"**", "anything", true}, {"a*c", "abbbc", true}, {"a*c", "abcx", false},
      {"*.kdg", "unit1.kdg", true}, {"*a*b*", "xxaxxbxx", true}, {"*a*b", "xxbxxa", false},
      {"?", "x", false}, {"abc", "ABC", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.pattern) + " / " + row.text);
    VxXml doc;
    doc.AddChild("k", row.text);
    EXPECT_EQ(static_cast<bool>(doc.FindTagWithContent(nullptr, "k", row.pattern)), row.match);
    auto holder = doc.AddChild("h", nullptr);
    holder->AddAttribute("v", row.text);
    EXPECT_EQ(static_cast<bool>(doc.FindTagWithAttribute(nullptr, "h", "v", row.pattern)),
              row.match);
  }
}

TEST(XmlSearch, AttributeSearchTriesEveryPairOfThatName) {
  VxXml doc;
  ASSERT_TRUE(doc.LoadXml(
      "<r><d name='a' name='unit1'/><d Name='unit1'/><f name='unit1'/><d name='unit1'>2</d></r>"));
  auto first = doc.FindTagWithAttribute(nullptr, "d", "name", "unit1");
  ASSERT_TRUE(first);
  VxString v;
  EXPECT_TRUE(first->GetAttribute("name", v));
  EXPECT_EQ(v.Compare("a"), 0);  // matched through its second pair
  auto second = doc.FindTagWithAttribute(first.get(), "d", "name", "unit1");
  ASSERT_TRUE(second);
  EXPECT_EQ(Content(*second), "2");
  EXPECT_FALSE(doc.FindTagWithAttribute(second.get(), "d", "name", "unit1"));
}

TEST(XmlSearch, SeesChangesMadeBetweenSearches) {
  VxXml doc;
  doc.SetTag("r");
  auto a = doc.AddChild("f", "1");
  EXPECT_TRUE(doc.FindTag(a.get(), "r") == nullptr);
  auto b = a->AddChild("f", "2");
  auto c = doc.AddChild("f", "3");
  EXPECT_EQ(AllMatches(doc, "f"), (std::vector<std::string>{"1", "3", "2"}));
  c->Detach();
  EXPECT_EQ(AllMatches(doc, "f"), (std::vector<std::string>{"1", "2"}));
  doc.AppendSubtree(c.get());
  b->AppendSubtree(doc.AddChild("f", "4").get());
  EXPECT_EQ(AllMatches(doc, "f"), (std::vector<std::string>{"1", "3", "2", "4"}));
}

// Resumed searches over random trees agree with a plain breadth-first walk, from every scope.
TEST(XmlSearch, ResumedSearchMatchesPlainBreadthFirstWalk) {
  std::mt19937 rng(12345);
  for (int round = 0; round < 20; ++round) {
    SCOPED_TRACE(round);
    VxXml doc;
    std::vector<std::unique_ptr<VxXml>> nodes;
    std::vector<std::vector<size_t>> children(1);
    std::vector<bool> marked(1, false);
    nodes.push_back(doc.GetRoot());
    for (size_t i = 1; i <= 200; ++i) {
      size_t parent = rng() % nodes.size();
      bool mark = rng() % 3 == 0;
      nodes.push_back(nodes[parent]->AddChild(mark ? "m" : "o", std::to_string(i).c_str()));
      children[parent].push_back(i);
      children.emplace_back();
      marked.push_back(mark);
    }
    for (size_t s = 0; s < nodes.size(); s += 7) {
      std::vector<std::string> expected;
      std::deque<size_t> queue{s};
      while (!queue.empty()) {
        size_t n = queue.front();
        queue.pop_front();
        if (marked[n]) expected.push_back(std::to_string(n));
        for (size_t c : children[n]) queue.push_back(c);
      }
      EXPECT_EQ(AllMatches(*nodes[s], "m"), expected) << "scope " << s;
    }
  }
}

}  // namespace
}  // namespace qx
