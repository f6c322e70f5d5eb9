#include "formats/NameTranslator.h"

#include <mutex>
#include <new>

#include "platform/activation.h"
#include "platform/codepage.h"

namespace qx {

const CLSID CLSID_DeviceNameTranslator = {
    0xEDC77734, 0x6AE3, 0x486E, {0xA2, 0x74, 0x90, 0x94, 0x18, 0x54, 0xED, 0xB2}};
const IID IID_IDeviceNameTranslator = {
    0xC5B4F302, 0xE436, 0x4EF3, {0xAA, 0x93, 0xFA, 0xA4, 0xE7, 0xD5, 0x1E, 0x74}};

namespace {

bool KeptAsIs(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

bool EqualsNoCase(const OLECHAR* text, std::u16string_view name) {
  size_t i = 0;
  for (; text[i] != 0; ++i) {
    if (i == name.size()) return false;
    char16_t a = text[i], b = name[i];
    if (a >= u'A' && a <= u'Z') a = static_cast<char16_t>(a + 32);
    if (b >= u'A' && b <= u'Z') b = static_cast<char16_t>(b + 32);
    if (a != b) return false;
  }
  return i == name.size();
}

// The string a name argument holds: VT_BSTR by value or by reference, or a variant reference to
// one. False for anything else.
bool NameString(const VARIANT& v, BSTR& out) {
  switch (v.vt) {
    case VT_BSTR: out = v.bstrVal; return true;
    case VT_BSTR | VT_BYREF:
      if (v.pbstrVal == nullptr) return false;
      out = *v.pbstrVal;
      return true;
    case VT_VARIANT | VT_BYREF:
      if (v.pvarVal == nullptr || v.pvarVal->vt != VT_BSTR) return false;
      out = v.pvarVal->bstrVal;
      return true;
    default: return false;
  }
}

}  // namespace

std::string TranslateDeviceNameDefault(std::string_view field) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  field = field.substr(0, field.find('\0'));
  std::string out;
  out.reserve(field.size() * 3);
  for (const char ch : field) {
    const auto c = static_cast<unsigned char>(ch);
    if (KeptAsIs(c)) {
      out += ch;
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0x0F];
    }
  }
  return out;
}

// ---- NameTranslator ------------------------------------------------------------------------------

HRESULT NameTranslator::CreateInstance(IUnknown* outer, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  if (outer != nullptr) return CLASS_E_NOAGGREGATION;
  auto* object = new (std::nothrow) NameTranslator;
  if (object == nullptr) return E_OUTOFMEMORY;
  object->AddRef();
  const HRESULT hr = object->QueryInterface(riid, ppv);
  object->Release();  // gone again when the interface was refused
  return hr;
}

HRESULT NameTranslator::QueryInterface(REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  if (riid == IID_IUnknown || riid == IID_IDispatch || riid == IID_IDeviceNameTranslator) {
    *ppv = static_cast<IDeviceNameTranslator*>(this);
    AddRef();
    return S_OK;
  }
  *ppv = nullptr;
  return E_NOINTERFACE;
}

ULONG NameTranslator::AddRef() { return refs_.Increment(); }

ULONG NameTranslator::Release() {
  const ULONG count = refs_.Decrement();
  if (count == 0) delete this;
  return count;
}

HRESULT NameTranslator::GetTypeInfoCount(UINT* pctinfo) {
  if (pctinfo == nullptr) return E_POINTER;
  *pctinfo = 0;
  return S_OK;
}

HRESULT NameTranslator::GetTypeInfo(UINT, LCID, ITypeInfo** ppTInfo) {
  if (ppTInfo != nullptr) *ppTInfo = nullptr;
  return DISP_E_BADINDEX;
}

HRESULT NameTranslator::GetIDsOfNames(REFIID riid, LPOLESTR* rgszNames, UINT cNames, LCID,
                                      DISPID* rgDispId) {
  if (riid != IID_NULL) return DISP_E_UNKNOWNINTERFACE;
  if (cNames == 0) return S_OK;
  if (rgszNames == nullptr || rgDispId == nullptr) return E_POINTER;
  HRESULT hr = S_OK;
  for (UINT i = 0; i < cNames; ++i) {
    // The member name first; TranslateName's parameters have no names to look up.
    const bool known = i == 0 && rgszNames[0] != nullptr && EqualsNoCase(rgszNames[0], u"TranslateName");
    rgDispId[i] = known ? kDispidTranslateName : DISPID_UNKNOWN;
    if (!known) hr = DISP_E_UNKNOWNNAME;
  }
  return hr;
}

HRESULT NameTranslator::Invoke(DISPID dispIdMember, REFIID riid, LCID, WORD wFlags,
                               DISPPARAMS* pDispParams, VARIANT* pVarResult, EXCEPINFO*,
                               UINT* puArgErr) {
  if (riid != IID_NULL) return DISP_E_UNKNOWNINTERFACE;
  if (dispIdMember != kDispidTranslateName || (wFlags & DISPATCH_METHOD) == 0)
    return DISP_E_MEMBERNOTFOUND;
  if (pDispParams == nullptr) return E_POINTER;
  if (pDispParams->cNamedArgs != 0) return DISP_E_NONAMEDARGS;
  if (pDispParams->cArgs != 4) return DISP_E_BADPARAMCOUNT;
  VARIANT* args = pDispParams->rgvarg;  // in reverse order: code is args[3]
  const auto mismatch = [&](UINT index) {
    if (puArgErr != nullptr) *puArgErr = index;
    return DISP_E_TYPEMISMATCH;
  };
  LONG code = 0, flags = 0;
  if (FAILED(VariantToLong(args[3], code))) return mismatch(3);
  if (FAILED(VariantToLong(args[1], flags))) return mismatch(1);
  if (args[0].vt != (VT_VARIANT | VT_BYREF) || args[0].pvarVal == nullptr) return mismatch(0);
  // The name goes on as it came; TranslateName itself judges whether it holds a string.
  VARIANT name = args[2];
  if (name.vt == (VT_VARIANT | VT_BYREF) && name.pvarVal != nullptr) name = *name.pvarVal;
  VariantClear(args[0].pvarVal);
  if (pVarResult != nullptr) VariantInit(pVarResult);
  return TranslateName(code, name, flags, args[0].pvarVal);
}

HRESULT NameTranslator::TranslateName(LONG code, VARIANT name, LONG, VARIANT* result) {
  if (result == nullptr) return E_POINTER;
  VariantInit(result);
  if (code != kTranslateDeviceName) return E_INVALIDARG;
  BSTR text = nullptr;
  if (!NameString(name, text)) return DISP_E_TYPEMISMATCH;
  try {
    std::u16string_view wide(text == nullptr ? u"" : text, SysStringLen(text));
    wide = wide.substr(0, wide.find(u'\0'));
    const std::u16string translated = codepage::AnsiToWide(
        TranslateDeviceNameDefault(codepage::WideToAnsi(wide)));
    BSTR out = SysAllocStringLen(translated.data(), static_cast<UINT>(translated.size()));
    if (out == nullptr) return E_OUTOFMEMORY;
    result->vt = VT_BSTR;
    result->bstrVal = out;
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

// Entered on every use rather than once: module unload forgets the built-in classes, and a
// host's static destructor may still come here afterwards.
void RegisterBuiltinNameTranslator() {
  RegisterBuiltinClass(CLSID_DeviceNameTranslator, &NameTranslator::CreateInstance);
}

// ---- DeviceNameTranslator --------------------------------------------------------------------------

std::unique_ptr<DeviceNameTranslator> DeviceNameTranslator::Create(HRESULT* status) {
  RegisterBuiltinNameTranslator();
  IDeviceNameTranslator* translator = nullptr;
  HRESULT hr = CoCreateInstance(CLSID_DeviceNameTranslator, nullptr, CLSCTX_INPROC_SERVER,
                                IID_IDeviceNameTranslator, reinterpret_cast<void**>(&translator));
  if (SUCCEEDED(hr) && translator == nullptr) hr = E_NOINTERFACE;
  if (status != nullptr) *status = hr;
  if (FAILED(hr)) return nullptr;
  std::unique_ptr<DeviceNameTranslator> holder(new (std::nothrow) DeviceNameTranslator(translator));
  if (holder == nullptr) {
    translator->Release();
    if (status != nullptr) *status = E_OUTOFMEMORY;
  }
  return holder;
}

DeviceNameTranslator::~DeviceNameTranslator() { translator_->Release(); }

bool DeviceNameTranslator::Translate(const unsigned char (&field)[8], std::string& out) {
  return Translate(std::string_view(reinterpret_cast<const char*>(field), sizeof field), out);
}

bool DeviceNameTranslator::Translate(std::string_view field, std::string& out) {
  out.clear();
  try {
    Bstr text(codepage::AnsiToWide(field));
    VARIANT name;
    VariantInit(&name);
    name.vt = VT_BSTR;
    name.bstrVal = text.get();
    VARIANT result;
    VariantInit(&result);
    const HRESULT hr = translator_->TranslateName(kTranslateDeviceName, name, 0, &result);
    const bool ok = SUCCEEDED(hr) && result.vt == VT_BSTR;
    if (ok) out = codepage::WideToAnsi(std::u16string_view(
                  result.bstrVal == nullptr ? u"" : result.bstrVal, SysStringLen(result.bstrVal)));
    VariantClear(&result);
    return ok;
  } catch (const std::bad_alloc&) {
    out.clear();
    return false;
  }
}

}  // namespace qx
