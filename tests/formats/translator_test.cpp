#include "formats/NameTranslator.h"

#include <gtest/gtest.h>

#include <cctype>
#include <set>

#include "platform/activation.h"
#include "platform/registry.h"
#include "support/ScopedRegistry.h"

namespace qx {
namespace {

// Every test gets an empty registry of its own, so a translator registered on the machine
// running the tests does not answer instead of the built-in one.
class Translator : public ::testing::Test {
 protected:
  test::ScopedRegistry registry_;
};

// Turns "%XX" back into the byte, as a user of the file names would.
std::string Decode(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

TEST_F(Translator, NameFieldsBecomeFileNameText) {
  const struct { const char* what; unsigned char field[8]; const char* expected; } rows[] = {
      {"plain", {'P', 'R', 'O', 'G', '1'}, "PROG1"}, {"space", {'A', ' ', 'B'}, "A%20B"},
      {"high byte", {0xC1}, "%C1"},
      {"8 bytes without terminator", {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'}, "ABCDEFGH"},
      {"empty", {}, ""}, {"stops at the first zero", {'a', 0, 'b'}, "a"},
      {"punctuation", {'.', '%', '/', '\\', '-'}, "%2E%25%2F%5C%2D"},
      {"byte 1252 leaves undefined", {0x81, 0x9D}, "%81%9D"},
  };
  auto translator = DeviceNameTranslator::Create();
  ASSERT_NE(translator, nullptr);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    std::string name = "stale";
    EXPECT_TRUE(translator->Translate(row.field, name));
    EXPECT_EQ(name, row.expected);
  }
}

TEST_F(Translator, EveryByteIsSafeAndComesBack) {
  auto translator = DeviceNameTranslator::Create();
  ASSERT_NE(translator, nullptr);
  std::set<std::string> seen;
  for (int b = 1; b < 256; ++b) {
    SCOPED_TRACE(b);
    const std::string field(1, static_cast<char>(b));
    std::string name;
    ASSERT_TRUE(translator->Translate(field, name));
    for (char c : name)
      EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '%') << name;
    EXPECT_EQ(Decode(name), field);
    EXPECT_TRUE(seen.insert(name).second);
  }
}

TEST_F(Translator, OnlyCode19WithAStringGivesAResult) {
  IDeviceNameTranslator* t = nullptr;
  RegisterBuiltinNameTranslator();
  ASSERT_EQ(CoCreateInstance(CLSID_DeviceNameTranslator, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IDeviceNameTranslator, reinterpret_cast<void**>(&t)),
            S_OK);
  Bstr text(u"AB");
  VARIANT str, number, empty;
  VariantInit(&str);
  str.vt = VT_BSTR;
  str.bstrVal = text.get();
  VariantInit(&number);
  number.vt = VT_I4;
  number.lVal = 65;
  VariantInit(&empty);
  const struct { const char* what; LONG code; const VARIANT* name; HRESULT expected; } rows[] = {
      {"code 19", 19, &str, S_OK}, {"code 0", 0, &str, E_INVALIDARG}, {"code 20", 20, &str, E_INVALIDARG},
      {"number as name", 19, &number, DISP_E_TYPEMISMATCH},
      {"empty variant as name", 19, &empty, DISP_E_TYPEMISMATCH},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    VARIANT result;
    VariantInit(&result);
    EXPECT_EQ(t->TranslateName(row.code, *row.name, 0, &result), row.expected);
    EXPECT_EQ(result.vt, row.expected == S_OK ? VT_BSTR : VT_EMPTY);
    VariantClear(&result);
  }
  EXPECT_EQ(t->TranslateName(19, str, 0, nullptr), E_POINTER);
  t->Release();
}

TEST_F(Translator, CallableThroughDispatch) {
  IDispatch* d = nullptr;
  RegisterBuiltinNameTranslator();
  ASSERT_EQ(CoCreateInstance(CLSID_DeviceNameTranslator, nullptr, CLSCTX_ALL, IID_IDispatch,
                             reinterpret_cast<void**>(&d)),
            S_OK);
  OLECHAR member[] = u"translatename";
  LPOLESTR names[] = {member};
  DISPID id = 0;
  ASSERT_EQ(d->GetIDsOfNames(IID_NULL, names, 1, 0, &id), S_OK);
  EXPECT_EQ(id, kDispidTranslateName);

  Bstr text(u"x y");
  VARIANT out;
  VariantInit(&out);
  VARIANT args[4];  // reverse order: result, flags, name, code
  for (VARIANT& a : args) VariantInit(&a);
  args[0].vt = VT_VARIANT | VT_BYREF;
  args[0].pvarVal = &out;
  args[1].vt = VT_I4;
  args[2].vt = VT_BSTR;
  args[2].bstrVal = text.get();
  args[3].vt = VT_I2;
  args[3].iVal = 19;
  DISPPARAMS params = {args, nullptr, 4, 0};
  ASSERT_EQ(d->Invoke(id, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr), S_OK);
  ASSERT_EQ(out.vt, VT_BSTR);
  EXPECT_EQ(std::u16string_view(out.bstrVal, SysStringLen(out.bstrVal)), u"x%20y");
  VariantClear(&out);

  d->Release();
}

TEST_F(Translator, RegisteredTranslatorIsUsedInsteadOfTheBuiltin) {
  // A registration wins even when its module is gone: the container then has no translator,
  // rather than silently naming members differently from the registered one.
  ASSERT_EQ(registry::RegSetValue("CLSID\\" + GuidToString(CLSID_DeviceNameTranslator) +
                                      "\\InprocServer32",
                                  "", registry_.dir() / "missing-translator.so"),
            registry::kErrorSuccess);
  HRESULT status = S_OK;
  EXPECT_EQ(DeviceNameTranslator::Create(&status), nullptr);
  EXPECT_EQ(status, QX_E_MOD_NOT_FOUND);

  ASSERT_EQ(registry::RegDeleteTree("CLSID\\" + GuidToString(CLSID_DeviceNameTranslator)),
            registry::kErrorSuccess);
  EXPECT_NE(DeviceNameTranslator::Create(&status), nullptr);
  EXPECT_EQ(status, S_OK);
}

}  // namespace
}  // namespace qx
