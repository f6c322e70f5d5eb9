#include "platform/ErrorInfo.h"

#include <new>
#include <string>

#include "platform/Diagnostic.h"
#include "platform/codepage.h"
#include "platform/com.h"
#include "qxgroupmgr/ErrorCode.h"

namespace qx {

namespace {

class ErrorInfo final : public IErrorInfo, public IQXErrorCode {
 public:
  ErrorInfo(std::u16string source, std::u16string description, std::u16string code)
      : source_(std::move(source)), description_(std::move(description)), code_(std::move(code)) {
    refs_.Increment();
  }

  HRESULT QueryInterface(REFIID riid, void** ppv) override {
    if (ppv == nullptr) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IErrorInfo) {
      *ppv = static_cast<IErrorInfo*>(this);
    } else if (riid == IID_IQXErrorCode) {
      *ppv = static_cast<IQXErrorCode*>(this);
    } else {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
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
  HRESULT GetCode(BSTR* out) override { return Copy(code_, out); }

 private:
  ~ErrorInfo() = default;

  static HRESULT Copy(std::u16string_view text, BSTR* out) {
    if (out == nullptr) return E_INVALIDARG;
    *out = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
  }

  std::u16string source_;
  std::u16string description_;
  std::u16string code_;
  ComRefCount refs_;
};

}  // namespace

IErrorInfo* NewErrorInfo(std::string_view source, std::string_view description,
                         std::string_view code) {
  try {
    return new ErrorInfo(codepage::AnsiToWide(source), codepage::AnsiToWide(description),
                         codepage::AnsiToWide(code));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void PublishDiagnostic(std::string_view source) {
  IErrorInfo* info = nullptr;
  if (const diag::Diagnostic* d = diag::Current())
    info = NewErrorInfo(source, diag::Describe(), d->code);
  SetErrorInfo(0, info);
  if (info != nullptr) info->Release();
}

}  // namespace qx
