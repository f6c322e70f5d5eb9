// DispatchObject<Itf, Extra...>: what every automation object of the module shares, written once:
// the reference count and the module lock, aggregation (a non-delegating inner unknown, and every
// interface delegating to the outer object when there is one), QueryInterface, IDispatch driven
// by the type library's description of Itf, and ISupportErrorInfo. A class derives from it,
// implements the methods of Itf (and of any Extra interfaces) and nothing else:
//
//   class Thing : public DispatchObject<IThing, IObjectSafety> {
//    public:
//     static HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** ppv) {
//       return CreateAggregable<Thing>(outer, riid, ppv);
//     }
//     explicit Thing(IUnknown* outer = nullptr) : DispatchObject(outer) {}
//     HRESULT get_Name(BSTR* pVal) override;                        // IThing
//     HRESULT GetInterfaceSafetyOptions(...) override;              // IObjectSafety
//   };
//
// Itf needs its rows in TypeLibrary.cpp (dispid, name, parameters and the method they call) and,
// like every Extra interface, an InterfaceId below.
#pragma once

#include <functional>

#include "frame/TypeLibrary.h"
#include "platform/com.h"
#include "qxgroupmgr/QXGroupMgr.h"

namespace qx {

// The interface id of an interface type, for the interfaces the module's objects implement.
template <class I>
struct InterfaceId;
template <>
struct InterfaceId<IFileManager> {
  static const IID& Get() { return IID_IFileManager; }
};
template <>
struct InterfaceId<IGroupManager2> {
  static const IID& Get() { return IID_IGroupManager2; }
};
template <>
struct InterfaceId<IQXPackageInfo> {
  static const IID& Get() { return IID_IQXPackageInfo; }
};
template <>
struct InterfaceId<IObjectSafety> {
  static const IID& Get() { return IID_IObjectSafety; }
};

// The part that does not depend on the interface types: identity, count, aggregation and the
// dispatch over a type-library description.
class ObjectCore {
 public:
  ObjectCore(const ObjectCore&) = delete;
  ObjectCore& operator=(const ObjectCore&) = delete;

  // The inner, non-delegating unknown: the object's own identity when it is aggregated.
  IUnknown* InnerUnknown() { return &inner_; }

 protected:
  // Reference count 0 (the creator takes the first reference through QueryInterface); the
  // module stays locked while the object lives.
  ObjectCore(const typelib::Interface& described, IUnknown* outer);
  virtual ~ObjectCore();

  // The interface pointer that answers `riid`, or null; IUnknown itself is the inner's.
  virtual IUnknown* Answer(REFIID riid) = 0;

  // The outer object, or the inner unknown.
  IUnknown* Controlling() const { return controlling_; }
  // IDispatch, the described interface or one of its bases.
  bool IsDispatchInterface(REFIID riid) const;

  // Runs one call that came in through IDispatch (name look-up or invocation). This one ends
  // exceptions from the standard library as E_OUTOFMEMORY or E_FAIL instead of letting them
  // cross the interface; a class that does something around each of its calls (publishing why
  // it failed, say) overrides it, and the members Invoke reaches then run inside it.
  virtual HRESULT RunCall(const std::function<HRESULT()>& body);

  HRESULT TypeInfoCount(UINT* pctinfo);
  HRESULT TypeInfo(ITypeInfo** ppTInfo);
  HRESULT IDsOfNames(REFIID riid, LPOLESTR* names, UINT count, DISPID* ids);
  // Invokes a member of the described interface on `self`, through RunCall.
  HRESULT InvokeMember(IDispatch* self, DISPID dispid, REFIID riid, WORD flags,
                       DISPPARAMS* params, VARIANT* result, UINT* argErr);

  // Asks a new object (count 0) for `riid`; a refusal destroys it.
  static HRESULT Publish(ObjectCore* object, REFIID riid, void** ppv);

 private:
  struct Inner final : IUnknown {
    explicit Inner(ObjectCore* owner) : self(owner) {}
    HRESULT QueryInterface(REFIID riid, void** ppv) override;
    ULONG AddRef() override;
    ULONG Release() override;
    ObjectCore* self;
  };

  Inner inner_;
  IUnknown* controlling_;
  ComRefCount refs_;
  const typelib::Interface& described_;
};

template <class Itf, class... Extra>
class DispatchObject : public Itf, public ISupportErrorInfo, public Extra..., public ObjectCore {
 public:
  // IUnknown: delegates to the outer object when aggregated.
  HRESULT QueryInterface(REFIID riid, void** ppv) override {
    return Controlling()->QueryInterface(riid, ppv);
  }
  ULONG AddRef() override { return Controlling()->AddRef(); }
  ULONG Release() override { return Controlling()->Release(); }

  // IDispatch over the type library's description of Itf; no type information objects.
  HRESULT GetTypeInfoCount(UINT* pctinfo) override { return TypeInfoCount(pctinfo); }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo** ppTInfo) override { return TypeInfo(ppTInfo); }
  HRESULT GetIDsOfNames(REFIID riid, LPOLESTR* rgszNames, UINT cNames, LCID,
                        DISPID* rgDispId) override {
    return IDsOfNames(riid, rgszNames, cNames, rgDispId);
  }
  HRESULT Invoke(DISPID dispIdMember, REFIID riid, LCID, WORD wFlags, DISPPARAMS* pDispParams,
                 VARIANT* pVarResult, EXCEPINFO*, UINT* puArgErr) override {
    return InvokeMember(static_cast<Itf*>(this), dispIdMember, riid, wFlags, pDispParams,
                        pVarResult, puArgErr);
  }

  // ISupportErrorInfo: S_OK for the dispatch interfaces, S_FALSE for any other.
  HRESULT InterfaceSupportsErrorInfo(REFIID riid) override {
    return IsDispatchInterface(riid) ? S_OK : S_FALSE;
  }

 protected:
  explicit DispatchObject(IUnknown* outer)
      : ObjectCore(*typelib::FindInterface(InterfaceId<Itf>::Get()), outer) {}

  IUnknown* Answer(REFIID riid) override {
    if (IsDispatchInterface(riid)) return static_cast<Itf*>(this);
    if (riid == IID_ISupportErrorInfo) return static_cast<ISupportErrorInfo*>(this);
    IUnknown* found = nullptr;
    ((found == nullptr && riid == InterfaceId<Extra>::Get()
          ? found = static_cast<Extra*>(this)
          : found),
     ...);
    return found;
  }

  // A class's creation function (see module::CreateInstanceFn): aggregation allowed when the
  // outer object asks for IUnknown, as the rules of aggregation want.
  template <class Derived>
  static HRESULT CreateAggregable(IUnknown* outer, REFIID riid, void** ppv) {
    if (ppv == nullptr) return E_POINTER;
    *ppv = nullptr;
    if (outer != nullptr && riid != IID_IUnknown) return CLASS_E_NOAGGREGATION;
    return Publish(new Derived(outer), riid, ppv);
  }
};

}  // namespace qx
