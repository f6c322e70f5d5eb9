// C++ helpers over the COM vocabulary of qxgroupmgr/com.h: an owning automation string, GUID
// text, the argument conversions IDispatch::Invoke needs, and a reference count for objects.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "qxgroupmgr/com.h"

namespace qx {

// Owns one automation string; frees it with SysFreeString. Null stands for the empty string.
//   Bstr s(u"abc");  fm->ReadContents(s.get(), out.receive());  BSTR raw = s.release();
class Bstr {
 public:
  Bstr() = default;
  explicit Bstr(std::u16string_view text);
  ~Bstr();
  Bstr(Bstr&& other) noexcept : p_(other.release()) {}
  Bstr& operator=(Bstr&& other) noexcept;
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;

  // Takes ownership of a string allocated by SysAlloc*.
  static Bstr Attach(BSTR owned);

  BSTR get() const { return p_; }
  // Gives up ownership; the caller frees the string.
  BSTR release();
  // Frees the held string and returns a place for an [out] argument to fill.
  BSTR* receive();
  // The held string's address for an [in, out] argument: the callee may free and replace it.
  BSTR* address() { return &p_; }
  void reset(BSTR owned = nullptr);
  // Length in characters (0 for null).
  UINT size() const;
  std::u16string_view view() const;

 private:
  BSTR p_ = nullptr;
};

// "{01234567-89AB-CDEF-0123-456789ABCDEF}", upper-case hex.
std::string GuidToString(const GUID& guid);
// Parses the braced form (hex digits of either case). Empty for anything else.
std::optional<GUID> GuidFromString(std::string_view text);

// Argument conversions for IDispatch::Invoke. Each accepts its types by value and in their
// VT_BYREF forms, and a VT_BYREF|VT_VARIANT pointing at one of them.
// Integers: VT_I1/I2/I4/I8/INT, VT_UI1/UI2/UI4/UI8/UINT, VT_INT_PTR/UINT_PTR, VT_BOOL
// (VARIANT_TRUE is -1) and VT_BSTR holding a decimal number ("  -12 ").
// A value out of range gives DISP_E_OVERFLOW, any other type or text DISP_E_TYPEMISMATCH.
HRESULT VariantToInt64(const VARIANT& v, int64_t& out);
HRESULT VariantToLong(const VARIANT& v, LONG& out);
// Strings: VT_BSTR, and VT_EMPTY / VT_NULL as the null (empty) string. The result is borrowed
// from the variant, not copied.
HRESULT VariantToBstr(const VARIANT& v, BSTR& out);

// A thread-safe reference count for COM objects, starting at 0.
class ComRefCount {
 public:
  ULONG Increment() { return count_.fetch_add(1, std::memory_order_relaxed) + 1; }
  ULONG Decrement() { return count_.fetch_sub(1, std::memory_order_acq_rel) - 1; }
  ULONG Value() const { return count_.load(std::memory_order_relaxed); }

 private:
  std::atomic<ULONG> count_{0};
};

}  // namespace qx
