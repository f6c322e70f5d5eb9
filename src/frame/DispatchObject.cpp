#include "frame/DispatchObject.h"

#include <new>
#include <string>
#include <string_view>

#include "frame/Module.h"
#include "platform/Diagnostic.h"
#include "platform/codepage.h"

namespace qx {

ObjectCore::ObjectCore(const typelib::Interface& described, IUnknown* outer)
    : inner_(this), controlling_(outer != nullptr ? outer : &inner_), described_(described) {
  module::Lock();
}

ObjectCore::~ObjectCore() { module::Unlock(); }

HRESULT ObjectCore::Inner::QueryInterface(REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  IUnknown* found = riid == IID_IUnknown ? this : self->Answer(riid);
  *ppv = found;
  if (found == nullptr) return E_NOINTERFACE;
  found->AddRef();
  return S_OK;
}

ULONG ObjectCore::Inner::AddRef() { return self->refs_.Increment(); }

ULONG ObjectCore::Inner::Release() {
  const ULONG count = self->refs_.Decrement();
  if (count == 0) delete self;
  return count;
}

bool ObjectCore::IsDispatchInterface(REFIID riid) const {
  if (riid == IID_IDispatch) return true;
  for (const typelib::Interface* i = &described_; i != nullptr; i = i->base)
    if (*i->iid == riid) return true;
  return false;
}

HRESULT ObjectCore::TypeInfoCount(UINT* pctinfo) {
  if (pctinfo == nullptr) return E_POINTER;
  *pctinfo = 0;
  return S_OK;
}

HRESULT ObjectCore::TypeInfo(ITypeInfo** ppTInfo) {
  if (ppTInfo != nullptr) *ppTInfo = nullptr;
  return DISP_E_BADINDEX;  // no type information objects are served
}

HRESULT ObjectCore::RunCall(const std::function<HRESULT()>& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

HRESULT ObjectCore::IDsOfNames(REFIID riid, LPOLESTR* names, UINT count, DISPID* ids) {
  return RunCall([&] {
    if (riid != IID_NULL) return DISP_E_UNKNOWNINTERFACE;
    const HRESULT hr = typelib::GetIDsOfNames(described_, names, count, ids);
    if (hr == DISP_E_UNKNOWNNAME && count > 0 && names != nullptr && names[0] != nullptr)
      diag::Record("no-such-name", codepage::WideToAnsi(std::u16string_view(names[0])),
                   "is not a member of " + std::string(described_.name));
    return hr;
  });
}

HRESULT ObjectCore::InvokeMember(IDispatch* self, DISPID dispid, REFIID riid, WORD flags,
                                 DISPPARAMS* params, VARIANT* result, UINT* argErr) {
  return RunCall([&] {
    const HRESULT hr =
        typelib::Invoke(described_, self, dispid, riid, flags, params, result, argErr);
    if (FAILED(hr) && (hr & 0xFFFF0000) == (DISP_E_MEMBERNOTFOUND & 0xFFFF0000))
      diag::Record("bad-dispatch", "dispid " + std::to_string(dispid),
                   "the member or its arguments do not match " + std::string(described_.name));
    return hr;
  });
}

HRESULT ObjectCore::Publish(ObjectCore* object, REFIID riid, void** ppv) {
  // Hold a reference while asking, so a refused interface destroys the new object.
  object->inner_.AddRef();
  const HRESULT hr = object->inner_.QueryInterface(riid, ppv);
  object->inner_.Release();
  return hr;
}

}  // namespace qx
