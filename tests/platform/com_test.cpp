#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>

#include "platform/com.h"

namespace qx {
namespace {

uint32_t PrefixOf(BSTR s) {
  uint32_t n = 0;
  std::memcpy(&n, reinterpret_cast<const unsigned char*>(s) - 4, 4);
  return n;
}

TEST(BstrTest, LengthsPrefixAndTerminator) {
  struct Case { const char* name; BSTR s; UINT chars, bytes; };
  const char16_t text[] = u"ab\0cd";  // an embedded NUL is part of the string
  Case cases[] = {
      {"SysAllocString", SysAllocString(u"h\u00e9llo"), 5, 10}, {"empty", SysAllocString(u""), 0, 0},
      {"NUL inside", SysAllocStringLen(text, 5), 5, 10}, {"no text", SysAllocStringLen(nullptr, 4), 4, 8},
      {"odd bytes", SysAllocStringByteLen("abc", 3), 1, 3}, {"one byte", SysAllocStringByteLen("a", 1), 0, 1},
      {"no bytes given", SysAllocStringByteLen(nullptr, 6), 3, 6},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_NE(c.s, nullptr);
    EXPECT_EQ(std::tuple(SysStringLen(c.s), SysStringByteLen(c.s), PrefixOf(c.s)),
              std::tuple(c.chars, c.bytes, c.bytes));
    const auto* bytes = reinterpret_cast<const unsigned char*>(c.s);  // terminated right after them
    EXPECT_EQ(bytes[c.bytes] | bytes[c.bytes + 1], 0);
    SysFreeString(c.s);
  }
  EXPECT_EQ(Bstr::Attach(SysAllocStringLen(nullptr, 3)).view(), std::u16string_view(u"\0\0\0", 3));
  EXPECT_EQ(Bstr::Attach(SysAllocStringLen(text, 5)).view(), std::u16string_view(text, 5));
  // Null is the empty string.
  EXPECT_EQ(SysAllocString(nullptr), nullptr);
  EXPECT_EQ(std::pair(SysStringLen(nullptr), SysStringByteLen(nullptr)), std::pair(0u, 0u));
  SysFreeString(nullptr);
  EXPECT_EQ(SysAllocStringLen(nullptr, std::numeric_limits<UINT>::max()), nullptr);
  EXPECT_TRUE(Bstr().view().empty());
}

// Counts references, to see what VariantClear and VariantCopy do with interface pointers.
struct Counted final : IUnknown {
  HRESULT QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG AddRef() override { return ++refs; }
  ULONG Release() override { return --refs; }
  ULONG refs = 1;
};

VARIANT Var(VARTYPE vt) {
  VARIANT v;
  VariantInit(&v);
  v.vt = vt;
  return v;
}

TEST(VariantTest, ClearAndCopy) {
  VARIANT s = Var(VT_BSTR), d = Var(VT_EMPTY), u = Var(VT_UNKNOWN), r = Var(VT_BYREF | VT_BSTR);
  s.bstrVal = SysAllocStringByteLen("xyz", 3);  // odd length survives the copy
  ASSERT_EQ(VariantCopy(&d, &s), S_OK);
  ASSERT_EQ(d.vt, VT_BSTR);
  EXPECT_NE(d.bstrVal, s.bstrVal);
  EXPECT_EQ(SysStringByteLen(d.bstrVal), 3u);
  EXPECT_EQ(std::memcmp(d.bstrVal, "xyz", 3), 0);
  // Copying over a string frees it (a leak otherwise shows under ASan).
  ASSERT_EQ(VariantCopy(&d, &s), S_OK);
  EXPECT_EQ(VariantClear(&d), S_OK);
  EXPECT_EQ(d.vt, VT_EMPTY);

  Counted unk;
  u.punkVal = &unk;
  ASSERT_EQ(VariantCopy(&d, &u), S_OK);
  EXPECT_EQ(unk.refs, 2u);
  VariantClear(&d);
  EXPECT_EQ(unk.refs, 1u);

  // A by-reference variant borrows: clearing it frees nothing it points at.
  r.pbstrVal = &s.bstrVal;
  ASSERT_EQ(VariantCopy(&d, &r), S_OK);
  EXPECT_EQ(d.pbstrVal, &s.bstrVal);
  VariantClear(&d);
  VariantClear(&r);
  EXPECT_EQ(SysStringByteLen(s.bstrVal), 3u);
  VariantClear(&s);
  EXPECT_EQ(VariantClear(nullptr), E_INVALIDARG);
}

TEST(VariantTest, ToLong) {
  LONG l4 = -7;
  LONGLONG i8 = 5'000'000'000;
  struct Case { const char* name; VARTYPE vt; std::function<void(VARIANT&)> fill; HRESULT expected; LONG value; };
  // Decimal text: surrounding blanks and a sign are fine, nothing else is.
  auto text = [](const char16_t* t) { return [t](VARIANT& v) { v.bstrVal = SysAllocString(t); }; };
  const HRESULT over = DISP_E_OVERFLOW, mismatch = DISP_E_TYPEMISMATCH;
  const std::vector<Case> cases = {
      {"UI4 fits", VT_UI4, [](VARIANT& v) { v.ulVal = 0x7FFFFFFF; }, S_OK, 0x7FFFFFFF},
      {"UI4 too big", VT_UI4, [](VARIANT& v) { v.ulVal = 0x80000000u; }, over, 0},
      {"I8 fits", VT_I8, [](VARIANT& v) { v.llVal = -2147483648LL; }, S_OK, INT32_MIN},
      {"I8 too big", VT_I8, [](VARIANT& v) { v.llVal = 2147483648LL; }, over, 0},
      {"BOOL true", VT_BOOL, [](VARIANT& v) { v.boolVal = VARIANT_TRUE; }, S_OK, -1},
      {"UI8 huge", VT_UI8, [](VARIANT& v) { v.ullVal = ~0ull; }, over, 0},
      {"byref I4", VT_BYREF | VT_I4, [&](VARIANT& v) { v.plVal = &l4; }, S_OK, -7},
      {"byref I8 too big", VT_BYREF | VT_I8, [&](VARIANT& v) { v.pllVal = &i8; }, over, 0},
      {"byref null pointer", VT_BYREF | VT_I4, [](VARIANT& v) { v.plVal = nullptr; }, mismatch, 0},
      {"R8", VT_R8, [](VARIANT& v) { v.dblVal = 1.0; }, mismatch, 0},
      {"plus", VT_BSTR, text(u"+5"), S_OK, 5}, {"smallest", VT_BSTR, text(u"-2147483648"), S_OK, INT32_MIN},
      {"one too big", VT_BSTR, text(u"2147483648"), over, 0},
      {"far too big", VT_BSTR, text(u"99999999999999999999999"), over, 0},
      {"empty text", VT_BSTR, text(u""), mismatch, 0}, {"sign alone", VT_BSTR, text(u"-"), mismatch, 0},
      {"inner gap", VT_BSTR, text(u"1 2"), mismatch, 0}, {"wide 1", VT_BSTR, text(u"\uff11"), mismatch, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    VARIANT v = Var(c.vt);
    c.fill(v);
    LONG out = 0;
    EXPECT_EQ(VariantToLong(v, out), c.expected);
    if (c.expected == S_OK) { EXPECT_EQ(out, c.value); }
    if (c.vt == VT_BSTR) VariantClear(&v);
  }
  int64_t wide = 0;
  VARIANT v = Var(VT_BSTR);
  v.bstrVal = SysAllocString(u"-9223372036854775808");
  ASSERT_EQ(VariantToInt64(v, wide), S_OK);
  EXPECT_EQ(wide, INT64_MIN);
  VariantClear(&v);
}

TEST(GuidTest, TextRoundTrip) {
  EXPECT_EQ(GuidToString(IID_NULL), "{00000000-0000-0000-0000-000000000000}");
  const GUID g = {0x871AFE2C, 0x13C8, 0x49C5, {0xAD, 0x0D, 0xF7, 0x2B, 0x18, 0xC0, 0x55, 0xB1}};
  EXPECT_EQ(GuidToString(g), "{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}");
  EXPECT_EQ(GuidFromString("{871AFE2C-13C8-49C5-AD0D-F72B18C055B1}"), g);
  EXPECT_EQ(GuidFromString("{871afe2c-13c8-49c5-ad0d-f72b18c055b1}"), g);

  for (const char* bad : {"871AFE2C-13C8-49C5-AD0D-F72B18C055B1", "{871AFE2C-13C8-49C5-AD0DF72B18C055B1}",
                          "{871AFE2C-13C8-49C5-AD0D-F72B18C055B}", "{871AFE2C-13C8-49C5-AD0D-F72B18C055BG}",
                          "{871AFE2C 13C8-49C5-AD0D-F72B18C055B1}", "", "{}"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(GuidFromString(bad).has_value());
  }
}

}  // namespace
}  // namespace qx
