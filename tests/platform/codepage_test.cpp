#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/codepage.h"

namespace qx::codepage {
namespace {

TEST(Codepage, EveryByteRoundTripsThroughWideAndUtf8) {
  std::string all;
  for (int c = 1; c < 256; ++c) all.push_back(static_cast<char>(c));
  EXPECT_EQ(WideToAnsi(AnsiToWide(all)), all);
  EXPECT_EQ(Utf8ToAnsi(AnsiToUtf8(all)), all);
  EXPECT_EQ(WideToUtf8(AnsiToWide(all)), AnsiToUtf8(all));
  EXPECT_EQ(Utf8ToWide(AnsiToUtf8(all)), AnsiToWide(all));
  // Bytes the code page leaves undefined (0x81, 0x9D) keep their value as C1 code points.
  const struct { unsigned char ansi; char16_t wide; } rows[] = {
      {0x80, u'\u20AC'}, {0x9F, u'\u0178'}, {0xE9, u'\u00E9'}, {0x81, u'\u0081'}, {0x9D, u'\u009D'}};
  for (const auto& r : rows) {
    SCOPED_TRACE(static_cast<int>(r.ansi));
    const std::string a(1, static_cast<char>(r.ansi));
    EXPECT_EQ(AnsiToWide(a), std::u16string(1, r.wide));
    EXPECT_EQ(WideToAnsi(std::u16string(1, r.wide)), a);
  }
}

TEST(Codepage, WhatTheCodePageCannotHoldBecomesQuestionMark) {
  // From UTF-8: Greek gamma; one astral character, one '?'; a truncated sequence; overlong (each
  // byte rejected); an invalid byte; an encoded surrogate. 0x82 is é in 850 and 0xE9 in 1252;
  // 0xB0 (a box-drawing shade) has no 1252 form and the euro sign none in 850.
  const struct { std::string (*convert)(std::string_view); const char *in, *out; } rows[] = {
      {Utf8ToAnsi, "\xCE\xB3.mag", "?.mag"}, {Utf8ToAnsi, "\xF0\x9F\x98\x80", "?"},
      {Utf8ToAnsi, "\xE2\x82", "??"}, {Utf8ToAnsi, "\xC0\xAF", "??"}, {Utf8ToAnsi, "a\xFF" "b", "a?b"},
      {Utf8ToAnsi, "\xED\xA0\x80", "???"}, {Cp850ToAnsi, "caf\x82", "caf\xE9"}, {Cp850ToAnsi, "\xB0", "?"},
      {AnsiToCp850, "caf\xE9", "caf\x82"}, {AnsiToCp850, "\x80", "?"}};
  for (const auto& r : rows) EXPECT_EQ(r.convert(r.in), r.out) << r.in;
  EXPECT_EQ(WideToAnsi(u"\xD800x"), "?x");  // lone surrogate
  EXPECT_EQ(WideToUtf8(u"\U0001F600"), "\xF0\x9F\x98\x80");
}

TEST(Codepage, NamedCharacterSets) {
  EXPECT_TRUE(IsKnownCharset("windows-1252") && !IsKnownCharset("no-such-charset"));
  // A failed conversion leaves nothing behind.
  const struct { const char *from, *to; std::string in; bool ok; const char* out; } rows[] = {
      {"ISO-8859-1", "UTF-8", "caf\xE9", true, "caf\xC3\xA9"},
      {"UTF-8", "ISO-8859-1", "\xCE\xB3x\xC3\xA9", true, "?x\xE9"},
      {"UTF-16LE", "UTF-8", std::string("A\0\xAC\x20", 4), true, "A\xE2\x82\xAC"},
      {"UTF-8", "ISO-8859-1", "bad\xFF", false, ""}, {"nope", "UTF-8", "x", false, ""}};
  for (const auto& r : rows) {
    std::string out = "stale";
    EXPECT_EQ(ConvertCharset(r.from, r.to, r.in, out), r.ok) << r.from << " " << r.in;
    if (r.ok || r.from == std::string("UTF-8")) { EXPECT_EQ(out, r.out) << r.from << " " << r.in; }
  }
}

TEST(Codepage, ConcurrentConversions) {
  // Descriptors are pooled between calls; threads must never share one.
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&wrong, t] {
      const std::string from = t % 2 ? "ISO-8859-1" : "CP850";
      for (int i = 0; i < 200; ++i) {
        std::string out;
        if (!ConvertCharset(from, "UTF-8", "caf", out) || out != "caf") ++wrong;
        if (Cp850ToAnsi("\x82") != "\xE9") ++wrong;
      }
    });
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(wrong, 0);
}

TEST(Codepage, CaseFoldsLettersOf1252Only) {
  // Multiplication and division signs sit among the letters; sharp s has no capital here.
  const struct { char upper, lower; } rows[] = {
      {'A', 'a'}, {'Z', 'z'}, {'\xC0', '\xE0'}, {'\xDE', '\xFE'}, {'\x8A', '\x9A'}, {'\x8C', '\x9C'},
      {'\x8E', '\x9E'}, {'\x9F', '\xFF'}, {'\xD7', '\xD7'}, {'\xF7', '\xF7'}, {'\xDF', '\xDF'}, {'[', '['},
      {'@', '@'}, {'1', '1'}, {'\x80', '\x80'}, {'\x9B', '\x9B'}};
  for (const auto& r : rows) {
    SCOPED_TRACE(static_cast<int>(static_cast<unsigned char>(r.upper)));
    EXPECT_EQ(Lower1252(r.upper), r.lower);
    EXPECT_EQ(Upper1252(r.lower), r.upper);
  }
  EXPECT_TRUE(EqualsNoCase1252("Caf\xC9.MAP", "caf\xE9.map"));
  EXPECT_FALSE(EqualsNoCase1252("a\xD7", "a\xF7"));
  EXPECT_FALSE(LessNoCase1252("B", "a\x01"));
  EXPECT_TRUE(LessNoCase1252("a", "B"));
  EXPECT_TRUE(LessNoCase1252("ab", "AB1"));
}

}  // namespace
}  // namespace qx::codepage
