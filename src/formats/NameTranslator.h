// The device name translator: turns the 8-byte name field of an MA-style variable into file-name
// text. The MA-style container reaches it through class activation, so a translator registered
// under CLSID_DeviceNameTranslator replaces the built-in one below.
//
// Built-in translation (the name field ends at its first zero byte): ASCII letters, digits and
// "_" stay, every other byte becomes "%XX" in upper-case hex, so the result is file-name safe
// and can be turned back into the bytes:
//   "PROG1" => "PROG1";  "A B" => "A%20B";  "\xC1" => "%C1";  "x.y" => "x%2Ey";  "" => ""
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/com.h"
#include "qxgroupmgr/com.h"

namespace qx {

// {EDC77734-6AE3-486E-A274-90941854EDB2}: the translator class, built in or registered.
extern const CLSID CLSID_DeviceNameTranslator;
// {C5B4F302-E436-4EF3-AA93-FAA4E7D51E74}: its interface. Fixed; a replacement implements it.
extern const IID IID_IDeviceNameTranslator;

// The code that asks for a device name to be made into file-name text.
inline constexpr LONG kTranslateDeviceName = 19;
// TranslateName's dispatch id.
inline constexpr DISPID kDispidTranslateName = 1;

// A dispatch interface whose first own method is TranslateName. `name` is borrowed from the
// caller; `result` is an [out] variant that receives a VT_BSTR on success.
struct IDeviceNameTranslator : IDispatch {
  virtual HRESULT TranslateName(LONG code, VARIANT name, LONG flags, VARIANT* result) = 0;

 protected:
  ~IDeviceNameTranslator() = default;
};

// The built-in translation of a name field given as 1252 bytes (see top of file).
std::string TranslateDeviceNameDefault(std::string_view field);

// The built-in translator class. Not aggregatable.
class NameTranslator final : public IDeviceNameTranslator {
 public:
  static HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** ppv);

  HRESULT QueryInterface(REFIID riid, void** ppv) override;
  ULONG AddRef() override;
  ULONG Release() override;

  // No type information is served: GetTypeInfoCount gives 0.
  HRESULT GetTypeInfoCount(UINT* pctinfo) override;
  HRESULT GetTypeInfo(UINT iTInfo, LCID lcid, ITypeInfo** ppTInfo) override;
  // Knows "TranslateName" (any case) and no parameter names.
  HRESULT GetIDsOfNames(REFIID riid, LPOLESTR* rgszNames, UINT cNames, LCID lcid,
                        DISPID* rgDispId) override;
  // TranslateName with four positional arguments, the last a VT_BYREF|VT_VARIANT.
  HRESULT Invoke(DISPID dispIdMember, REFIID riid, LCID lcid, WORD wFlags, DISPPARAMS* pDispParams,
                 VARIANT* pVarResult, EXCEPINFO* pExcepInfo, UINT* puArgErr) override;

  // E_POINTER for a null `result`; otherwise `result` is first set to VT_EMPTY. E_INVALIDARG for
  // a code other than kTranslateDeviceName, DISP_E_TYPEMISMATCH when `name` holds no string
  // (VT_BSTR, by value or by reference); `result` then stays VT_EMPTY. `flags` is not used.
  HRESULT TranslateName(LONG code, VARIANT name, LONG flags, VARIANT* result) override;

 private:
  NameTranslator() = default;
  ~NameTranslator() = default;
  ComRefCount refs_;
};

// Enters the built-in translator as a class of this process, so activation finds it without
// registration. Safe to call any number of times, from any thread.
void RegisterBuiltinNameTranslator();

// What the MA-style container holds: one activated translator, released on destruction.
//   auto translator = DeviceNameTranslator::Create();
//   std::string name;
//   if (translator && translator->Translate(field, name)) ...
class DeviceNameTranslator {
 public:
  // Registers the built-in class, then activates CLSID_DeviceNameTranslator (a registered module
  // wins). Null when activation fails; `status` then receives the reason.
  static std::unique_ptr<DeviceNameTranslator> Create(HRESULT* status = nullptr);

  ~DeviceNameTranslator();
  DeviceNameTranslator(const DeviceNameTranslator&) = delete;
  DeviceNameTranslator& operator=(const DeviceNameTranslator&) = delete;

  // TranslateName(19, the field as a wide string, 0, result). True and `out` set (in 1252) when
  // the result is a string; false and `out` empty for a failed call or any other result.
  // The array form passes all 8 bytes, zero padding included.
  bool Translate(const unsigned char (&field)[8], std::string& out);
  bool Translate(std::string_view field, std::string& out);

 private:
  explicit DeviceNameTranslator(IDeviceNameTranslator* translator) : translator_(translator) {}
  IDeviceNameTranslator* translator_;
};

}  // namespace qx
