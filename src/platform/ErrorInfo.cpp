#include "platform/ErrorInfo.h"

#include <new>
#include <string>

#include "platform/Diagnostic.h"
#include "platform/codepage.h"
#include "platform/com.h"

namespace qx {

namespace {

class ErrorInfo final : public IErrorInfo {
 public:
  ErrorInfo(std::u16string source, std::u16string description)
      : source_(std::move(source)), description_(std::move(description)) {
    refs_.Increment();
  }

  HRESULT QueryInterface(REFIID riid, void** ppv) override {
    if (ppv == nullptr) return E_POINTER;
    if (riid != IID_IUnknown && riid != IID_IErrorInfo) {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    *ppv = static_cast<IErrorInfo*>(this);
    AddRef();
    return S_OK;
  }
  ULONG AddRef() override { return refs_.Increment(); }
  ULONG Release() override {
    const ULONG count = refs_.Decrement();
    if (count == 0) delete this;
    return count;
  }

  HRESULT GetGUID(GUID* guid) override {
    if (guid == nullptr) return E_INVALIDARG;
    *guid = IID_NULL;  // not tied to one interface: the source names the object
    return S_OK;
  }
  HRESULT GetSource(BSTR* out) override { return Copy(source_, out); }
  HRESULT GetDescription(BSTR* out) override { return Copy(description_, out); }
  HRESULT GetHelpFile(BSTR* out) override { return Copy(u"", out); }
  HRESULT GetHelpContext(DWORD* out) override {
    if (out == nullptr) return E_INVALIDARG;
    *out = 0;
    return S_OK;
  }

 private:
  ~ErrorInfo() = default;

  static HRESULT Copy(std::u16string_view text, BSTR* out) {
    if (out == nullptr) return E_INVALIDARG;
    *out = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
  }

  std::u16string source_;
  std::u16string description_;
  ComRefCount refs_;
};

}  // namespace

IErrorInfo* NewErrorInfo(std::string_view source, std::string_view description) {
  try {
    return new ErrorInfo(codepage::AnsiToWide(source), codepage::AnsiToWide(description));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void PublishDiagnostic(std::string_view source) {
  IErrorInfo* info = nullptr;
  if (diag::Current() != nullptr) info = NewErrorInfo(source, diag::Describe());
  SetErrorInfo(0, info);
  if (info != nullptr) info->Release();
}

}  // namespace qx
