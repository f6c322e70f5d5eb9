#include "platform/com.h"

#include <cstdlib>
#include <cstring>
#include <limits>

#include "qxgroupmgr/ErrorCode.h"

// ---- Standard interface ids ------------------------------------------------------------------

extern "C" {
const IID IID_IUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
const IID IID_IDispatch = {0x00020400, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
const IID IID_IClassFactory = {0x00000001, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
const IID IID_NULL = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};
const IID IID_IErrorInfo = {0x1CF2B120, 0x547D, 0x101B, {0x8E, 0x65, 0x08, 0x00, 0x2B, 0x2B, 0xD1, 0x19}};
}

extern "C" {
const IID IID_ISupportErrorInfo = {
    0xDF0B3D60, 0x548F, 0x101B, {0x8E, 0x65, 0x08, 0x00, 0x2B, 0x2B, 0xA3, 0xF6}};
const IID IID_IObjectSafety = {
    0xCB5BDC81, 0x93C1, 0x11CF, {0x8F, 0x20, 0x00, 0x80, 0x5F, 0x2C, 0xD0, 0x64}};
const IID IID_IQXErrorCode = {
    0xBB84CF24, 0xF14A, 0x40B3, {0xB2, 0xF0, 0xCC, 0x1A, 0x74, 0x50, 0xCF, 0x75}};
}

// ---- Automation strings ------------------------------------------------------------------------
// Layout: [uint32 byte length, little-endian as the machine][bytes][two NUL bytes]; the BSTR
// points just past the length.

namespace {

constexpr size_t kPrefix = sizeof(uint32_t);
constexpr size_t kTerminator = sizeof(char16_t);

unsigned char* BaseOf(BSTR text) { return reinterpret_cast<unsigned char*>(text) - kPrefix; }

// Allocates room for `byteLength` bytes (zeroed) plus prefix and terminator; null when too big.
BSTR AllocateBytes(size_t byteLength) {
  if (byteLength > std::numeric_limits<uint32_t>::max() - kPrefix - kTerminator) return nullptr;
  auto* base = static_cast<unsigned char*>(std::calloc(1, kPrefix + byteLength + kTerminator));
  if (base == nullptr) return nullptr;
  const auto length = static_cast<uint32_t>(byteLength);
  std::memcpy(base, &length, kPrefix);
  return reinterpret_cast<BSTR>(base + kPrefix);
}

}  // namespace

extern "C" {

BSTR SysAllocString(const OLECHAR* text) {
  if (text == nullptr) return nullptr;
  return SysAllocStringLen(text, static_cast<UINT>(std::char_traits<char16_t>::length(text)));
}

BSTR SysAllocStringLen(const OLECHAR* text, UINT length) {
  BSTR result = AllocateBytes(size_t{length} * sizeof(OLECHAR));
  if (result != nullptr && text != nullptr) std::memcpy(result, text, size_t{length} * sizeof(OLECHAR));
  return result;
}

BSTR SysAllocStringByteLen(const char* bytes, UINT length) {
  BSTR result = AllocateBytes(length);
  if (result != nullptr && bytes != nullptr) std::memcpy(result, bytes, length);
  return result;
}

void SysFreeString(BSTR text) {
  if (text != nullptr) std::free(BaseOf(text));
}

UINT SysStringByteLen(BSTR text) {
  if (text == nullptr) return 0;
  uint32_t length = 0;
  std::memcpy(&length, BaseOf(text), kPrefix);
  return length;
}

UINT SysStringLen(BSTR text) { return SysStringByteLen(text) / sizeof(OLECHAR); }

// ---- Variants ----------------------------------------------------------------------------------

void VariantInit(VARIANTARG* v) {
  if (v == nullptr) return;
  std::memset(v, 0, sizeof(*v));
  v->vt = VT_EMPTY;
}

HRESULT VariantClear(VARIANTARG* v) {
  if (v == nullptr) return E_INVALIDARG;
  // A VT_BYREF variant only borrows what it points at.
  if ((v->vt & VT_BYREF) == 0) {
    switch (v->vt) {
      case VT_BSTR:
        SysFreeString(v->bstrVal);
        break;
      case VT_UNKNOWN:
      case VT_DISPATCH:
        if (v->punkVal != nullptr) v->punkVal->Release();
        break;
      default:
        break;
    }
  }
  VariantInit(v);
  return S_OK;
}

HRESULT VariantCopy(VARIANTARG* dest, const VARIANTARG* src) {
  if (dest == nullptr || src == nullptr) return E_INVALIDARG;
  if (dest == src) return S_OK;
  VARIANT copy = *src;
  if ((src->vt & VT_BYREF) == 0) {
    if (src->vt == VT_BSTR && src->bstrVal != nullptr) {
      copy.bstrVal = SysAllocStringByteLen(reinterpret_cast<const char*>(src->bstrVal),
                                           SysStringByteLen(src->bstrVal));
      if (copy.bstrVal == nullptr) return E_OUTOFMEMORY;
    } else if ((src->vt == VT_UNKNOWN || src->vt == VT_DISPATCH) && src->punkVal != nullptr) {
      src->punkVal->AddRef();
    }
  }
  VariantClear(dest);
  *dest = copy;
  return S_OK;
}

// ---- Error information ---------------------------------------------------------------------------
// One slot per thread. It holds a reference; the thread's exit releases what is left in it.

namespace {

struct ErrorSlot {
  IErrorInfo* info = nullptr;
  ~ErrorSlot() {
    if (info != nullptr) info->Release();
  }
};
thread_local ErrorSlot errorSlot;

}  // namespace

HRESULT SetErrorInfo(ULONG dwReserved, IErrorInfo* info) {
  if (dwReserved != 0) return E_INVALIDARG;
  if (info != nullptr) info->AddRef();
  IErrorInfo* old = errorSlot.info;
  errorSlot.info = info;
  if (old != nullptr) old->Release();
  return S_OK;
}

HRESULT GetErrorInfo(ULONG dwReserved, IErrorInfo** info) {
  if (info == nullptr) return E_INVALIDARG;
  *info = nullptr;
  if (dwReserved != 0) return E_INVALIDARG;
  // Taking the object empties the slot: the reason belongs to one failure.
  *info = errorSlot.info;
  errorSlot.info = nullptr;
  return *info != nullptr ? S_OK : S_FALSE;
}

}  // extern "C"

namespace qx {

// ---- Bstr ----------------------------------------------------------------------------------------

Bstr::Bstr(std::u16string_view text)
    : p_(SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))) {}

Bstr::~Bstr() { SysFreeString(p_); }

Bstr& Bstr::operator=(Bstr&& other) noexcept {
  if (this != &other) reset(other.release());
  return *this;
}

Bstr Bstr::Attach(BSTR owned) {
  Bstr b;
  b.p_ = owned;
  return b;
}

BSTR Bstr::release() {
  BSTR p = p_;
  p_ = nullptr;
  return p;
}

BSTR* Bstr::receive() {
  reset();
  return &p_;
}

void Bstr::reset(BSTR owned) {
  if (owned == p_) return;
  SysFreeString(p_);
  p_ = owned;
}

UINT Bstr::size() const { return SysStringLen(p_); }

std::u16string_view Bstr::view() const {
  return p_ == nullptr ? std::u16string_view() : std::u16string_view(p_, SysStringLen(p_));
}

// ---- GUID text -------------------------------------------------------------------------------------

namespace {

constexpr char kHex[] = "0123456789ABCDEF";

void AppendHex(std::string& out, uint64_t value, int digits) {
  for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4) out += kHex[(value >> shift) & 0xF];
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads `digits` hex digits at `pos`; false when any is not a hex digit.
bool ReadHex(std::string_view text, size_t pos, int digits, uint64_t& value) {
  value = 0;
  for (int i = 0; i < digits; ++i) {
    const int d = HexValue(text[pos + static_cast<size_t>(i)]);
    if (d < 0) return false;
    value = (value << 4) | static_cast<uint64_t>(d);
  }
  return true;
}

}  // namespace

std::string GuidToString(const GUID& guid) {
  std::string s;
  s.reserve(38);
  s += '{';
  AppendHex(s, guid.Data1, 8);
  s += '-';
  AppendHex(s, guid.Data2, 4);
  s += '-';
  AppendHex(s, guid.Data3, 4);
  s += '-';
  for (int i = 0; i < 8; ++i) {
    if (i == 2) s += '-';
    AppendHex(s, guid.Data4[i], 2);
  }
  s += '}';
  return s;
}

std::optional<GUID> GuidFromString(std::string_view text) {
  // {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}
  if (text.size() != 38 || text[0] != '{' || text[37] != '}' || text[9] != '-' ||
      text[14] != '-' || text[19] != '-' || text[24] != '-')
    return std::nullopt;
  GUID g{};
  uint64_t v = 0;
  if (!ReadHex(text, 1, 8, v)) return std::nullopt;
  g.Data1 = static_cast<uint32_t>(v);
  if (!ReadHex(text, 10, 4, v)) return std::nullopt;
  g.Data2 = static_cast<uint16_t>(v);
  if (!ReadHex(text, 15, 4, v)) return std::nullopt;
  g.Data3 = static_cast<uint16_t>(v);
  static constexpr size_t kBytePos[8] = {20, 22, 25, 27, 29, 31, 33, 35};
  for (int i = 0; i < 8; ++i) {
    if (!ReadHex(text, kBytePos[i], 2, v)) return std::nullopt;
    g.Data4[i] = static_cast<uint8_t>(v);
  }
  return g;
}

// ---- Argument conversions ------------------------------------------------------------------------

namespace {

// Follows a VT_BYREF|VT_VARIANT to the variant it points at (one level, as automation does).
const VARIANT* Deref(const VARIANT& v) {
  if (v.vt == (VT_BYREF | VT_VARIANT)) return v.pvarVal;
  return &v;
}

bool IsSpace(char16_t c) { return c == u' ' || c == u'\t'; }

HRESULT ParseDecimal(BSTR text, int64_t& out) {
  if (text == nullptr) return DISP_E_TYPEMISMATCH;
  const std::u16string_view s(text, SysStringLen(text));
  size_t i = 0;
  while (i < s.size() && IsSpace(s[i])) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == u'-' || s[i] == u'+')) negative = s[i++] == u'-';
  const size_t digitsStart = i;
  // Accumulate as a negative number so INT64_MIN fits.
  int64_t value = 0;
  bool overflow = false;
  for (; i < s.size() && s[i] >= u'0' && s[i] <= u'9'; ++i) {
    const int d = s[i] - u'0';
    if (value < (std::numeric_limits<int64_t>::min() + d) / 10) overflow = true;
    else value = value * 10 - d;
  }
  if (i == digitsStart) return DISP_E_TYPEMISMATCH;
  while (i < s.size() && IsSpace(s[i])) ++i;
  if (i != s.size()) return DISP_E_TYPEMISMATCH;
  if (overflow) return DISP_E_OVERFLOW;
  if (!negative) {
    if (value == std::numeric_limits<int64_t>::min()) return DISP_E_OVERFLOW;
    value = -value;
  }
  out = value;
  return S_OK;
}

HRESULT FromUnsigned(uint64_t value, int64_t& out) {
  if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return DISP_E_OVERFLOW;
  out = static_cast<int64_t>(value);
  return S_OK;
}

}  // namespace

HRESULT VariantToInt64(const VARIANT& variant, int64_t& out) {
  const VARIANT* v = Deref(variant);
  if (v == nullptr) return DISP_E_TYPEMISMATCH;
  const bool byref = (v->vt & VT_BYREF) != 0;
  if (byref && v->byref == nullptr) return DISP_E_TYPEMISMATCH;
  switch (v->vt & ~VT_BYREF) {
    case VT_I1:
      out = byref ? *static_cast<const signed char*>(v->byref) : static_cast<signed char>(v->cVal);
      return S_OK;
    case VT_I2:
      out = byref ? *v->piVal : v->iVal;
      return S_OK;
    case VT_I4:
      out = byref ? *v->plVal : v->lVal;
      return S_OK;
    case VT_INT:
      out = byref ? *v->pintVal : v->intVal;
      return S_OK;
    case VT_I8:
    case VT_INT_PTR:
      out = byref ? *v->pllVal : v->llVal;
      return S_OK;
    case VT_BOOL:
      out = byref ? *v->pboolVal : v->boolVal;
      return S_OK;
    case VT_UI1:
      out = byref ? *v->pbVal : v->bVal;
      return S_OK;
    case VT_UI2:
      out = byref ? *static_cast<const USHORT*>(v->byref) : v->uiVal;
      return S_OK;
    case VT_UI4:
      out = byref ? *v->pulVal : v->ulVal;
      return S_OK;
    case VT_UINT:
      out = byref ? *v->puintVal : v->uintVal;
      return S_OK;
    case VT_UI8:
    case VT_UINT_PTR:
      return FromUnsigned(byref ? *static_cast<const ULONGLONG*>(v->byref) : v->ullVal, out);
    case VT_BSTR:
      return ParseDecimal(byref ? *v->pbstrVal : v->bstrVal, out);
    default:
      return DISP_E_TYPEMISMATCH;
  }
}

HRESULT VariantToLong(const VARIANT& v, LONG& out) {
  int64_t wide = 0;
  const HRESULT hr = VariantToInt64(v, wide);
  if (FAILED(hr)) return hr;
  if (wide < std::numeric_limits<LONG>::min() || wide > std::numeric_limits<LONG>::max())
    return DISP_E_OVERFLOW;
  out = static_cast<LONG>(wide);
  return S_OK;
}

HRESULT VariantToBstr(const VARIANT& variant, BSTR& out) {
  const VARIANT* v = Deref(variant);
  if (v == nullptr) return DISP_E_TYPEMISMATCH;
  switch (v->vt) {
    case VT_EMPTY:
    case VT_NULL:
      out = nullptr;
      return S_OK;
    case VT_BSTR:
      out = v->bstrVal;
      return S_OK;
    case VT_BYREF | VT_BSTR:
      if (v->pbstrVal == nullptr) return DISP_E_TYPEMISMATCH;
      out = *v->pbstrVal;
      return S_OK;
    default:
      return DISP_E_TYPEMISMATCH;
  }
}

}  // namespace qx
