/* The small component-object-model vocabulary that QXGroupMgr's interfaces are written in:
 * status codes, GUIDs, automation strings (BSTR), VARIANT, DISPPARAMS, EXCEPINFO and the
 * IUnknown / IDispatch / IClassFactory interfaces.
 *
 * The layouts follow the platform's: interfaces are tables of function pointers whose first
 * entries are QueryInterface, AddRef and Release, so C callers call through `lpVtbl` and C++
 * callers call the pure virtual members. Usable from C (C11) and C++. */
#ifndef QXGROUPMGR_COM_H
#define QXGROUPMGR_COM_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <uchar.h>
#endif

#if defined(__GNUC__)
#define QX_EXPORT __attribute__((visibility("default")))
#else
#define QX_EXPORT
#endif

#ifdef __cplusplus
#define QX_EXTERN_C extern "C"
#else
#define QX_EXTERN_C extern
#endif

/* ---- Scalar types ---------------------------------------------------------------------- */

typedef int32_t HRESULT;
typedef int32_t SCODE;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef uint32_t DWORD;
typedef uint16_t WORD;
typedef uint8_t BYTE;
typedef int16_t SHORT;
typedef uint16_t USHORT;
typedef unsigned int UINT;
typedef int INT;
typedef int32_t BOOL;
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG;
typedef intptr_t LONG_PTR;
typedef uint32_t LCID;
typedef int32_t DISPID;
typedef int32_t MEMBERID;
typedef uint16_t VARTYPE;
typedef int16_t VARIANT_BOOL;
typedef double DATE;

/* Wide characters are UTF-16 code units, as on the original platform. */
typedef char16_t OLECHAR;
typedef OLECHAR* LPOLESTR;
typedef const OLECHAR* LPCOLESTR;

/* An automation string: UTF-16 text preceded by a 32-bit byte length, NUL-terminated.
 * The pointer points at the first character; null is a valid empty string. */
typedef OLECHAR* BSTR;

/* An owner window: an opaque handle the caller got from a user-interface host. */
typedef struct HWND__* HWND;

#define VARIANT_TRUE ((VARIANT_BOOL)-1)
#define VARIANT_FALSE ((VARIANT_BOOL)0)

/* ---- Status codes ------------------------------------------------------------------------ */

#define SUCCEEDED(hr) (((HRESULT)(hr)) >= 0)
#define FAILED(hr) (((HRESULT)(hr)) < 0)
#define HRESULT_FROM_WIN32(x) \
  ((HRESULT)(x) <= 0 ? (HRESULT)(x) : (HRESULT)((((uint32_t)(x)) & 0x0000FFFFu) | 0x80070000u))

#define S_OK ((HRESULT)0)
#define S_FALSE ((HRESULT)1)
#define E_NOTIMPL ((HRESULT)0x80004001u)
#define E_NOINTERFACE ((HRESULT)0x80004002u)
#define E_POINTER ((HRESULT)0x80004003u)
#define E_FAIL ((HRESULT)0x80004005u)
#define E_UNEXPECTED ((HRESULT)0x8000FFFFu)
#define E_OUTOFMEMORY ((HRESULT)0x8007000Eu)
#define E_INVALIDARG ((HRESULT)0x80070057u)
#define E_ACCESSDENIED ((HRESULT)0x80070005u)
#define CLASS_E_NOAGGREGATION ((HRESULT)0x80040110u)
#define CLASS_E_CLASSNOTAVAILABLE ((HRESULT)0x80040111u)
#define REGDB_E_CLASSNOTREG ((HRESULT)0x80040154u)
#define CO_E_CLASSSTRING ((HRESULT)0x800401F3u)
#define DISP_E_UNKNOWNINTERFACE ((HRESULT)0x80020001u)
#define DISP_E_MEMBERNOTFOUND ((HRESULT)0x80020003u)
#define DISP_E_PARAMNOTFOUND ((HRESULT)0x80020004u)
#define DISP_E_TYPEMISMATCH ((HRESULT)0x80020005u)
#define DISP_E_UNKNOWNNAME ((HRESULT)0x80020006u)
#define DISP_E_NONAMEDARGS ((HRESULT)0x80020007u)
#define DISP_E_BADVARTYPE ((HRESULT)0x80020008u)
#define DISP_E_EXCEPTION ((HRESULT)0x80020009u)
#define DISP_E_OVERFLOW ((HRESULT)0x8002000Au)
#define DISP_E_BADINDEX ((HRESULT)0x8002000Bu)
#define DISP_E_BADPARAMCOUNT ((HRESULT)0x8002000Eu)
#define DISP_E_PARAMNOTOPTIONAL ((HRESULT)0x8002000Fu)
/* Win32 error 110 (ERROR_OPEN_FAILED) as a status code. */
#define QX_E_OPEN_FAILED ((HRESULT)0x8007006Eu)

/* ---- GUIDs ---------------------------------------------------------------------------------- */

typedef struct GUID {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
} GUID;
typedef GUID IID;
typedef GUID CLSID;

#ifdef __cplusplus
typedef const GUID& REFGUID;
typedef const IID& REFIID;
typedef const CLSID& REFCLSID;
inline bool operator==(const GUID& a, const GUID& b) {
  if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
  for (int i = 0; i < 8; ++i)
    if (a.Data4[i] != b.Data4[i]) return false;
  return true;
}
inline bool operator!=(const GUID& a, const GUID& b) { return !(a == b); }
#else
typedef const GUID* REFGUID;
typedef const IID* REFIID;
typedef const CLSID* REFCLSID;
#endif

QX_EXTERN_C QX_EXPORT const IID IID_IUnknown;
QX_EXTERN_C QX_EXPORT const IID IID_IDispatch;
QX_EXTERN_C QX_EXPORT const IID IID_IClassFactory;
QX_EXTERN_C QX_EXPORT const IID IID_NULL;

/* ---- VARIANT ---------------------------------------------------------------------------- */

enum VARENUM {
  VT_EMPTY = 0,
  VT_NULL = 1,
  VT_I2 = 2,
  VT_I4 = 3,
  VT_R4 = 4,
  VT_R8 = 5,
  VT_DATE = 7,
  VT_BSTR = 8,
  VT_DISPATCH = 9,
  VT_ERROR = 10,
  VT_BOOL = 11,
  VT_VARIANT = 12,
  VT_UNKNOWN = 13,
  VT_I1 = 16,
  VT_UI1 = 17,
  VT_UI2 = 18,
  VT_UI4 = 19,
  VT_I8 = 20,
  VT_UI8 = 21,
  VT_INT = 22,
  VT_UINT = 23,
  VT_INT_PTR = 37,
  VT_UINT_PTR = 38,
  VT_BYREF = 0x4000,
  VT_TYPEMASK = 0x0FFF
};

#ifdef __cplusplus
struct IUnknown;
struct IDispatch;
#else
typedef struct IUnknown IUnknown;
typedef struct IDispatch IDispatch;
#endif

typedef struct VARIANT VARIANT;
typedef VARIANT VARIANTARG;

/* A named type: anonymous types inside the anonymous union below are a compiler extension. */
struct VARIANT_RECORD {
  void* pvRecord;
  void* pRecInfo;
};

/* 24 bytes on 64-bit systems, as on the original platform: the union is as wide as its widest
 * member, a record pointer pair. */
struct VARIANT {
  VARTYPE vt;
  WORD wReserved1;
  WORD wReserved2;
  WORD wReserved3;
  union {
    LONGLONG llVal;
    LONG lVal;
    BYTE bVal;
    SHORT iVal;
    float fltVal;
    double dblVal;
    VARIANT_BOOL boolVal;
    SCODE scode;
    DATE date;
    BSTR bstrVal;
    IUnknown* punkVal;
    IDispatch* pdispVal;
    char cVal;
    USHORT uiVal;
    ULONG ulVal;
    ULONGLONG ullVal;
    INT intVal;
    UINT uintVal;
    LONG_PTR intPtrVal;
    BYTE* pbVal;
    SHORT* piVal;
    LONG* plVal;
    LONGLONG* pllVal;
    INT* pintVal;
    UINT* puintVal;
    ULONG* pulVal;
    VARIANT_BOOL* pboolVal;
    BSTR* pbstrVal;
    IUnknown** ppunkVal;
    IDispatch** ppdispVal;
    VARIANT* pvarVal;
    void* byref;
    struct VARIANT_RECORD record;
  };
};

/* ---- Dispatch call frames --------------------------------------------------------------- */

typedef struct DISPPARAMS {
  VARIANTARG* rgvarg; /* arguments in reverse order: the last argument first */
  DISPID* rgdispidNamedArgs;
  UINT cArgs;
  UINT cNamedArgs;
} DISPPARAMS;

typedef struct EXCEPINFO {
  WORD wCode;
  WORD wReserved;
  BSTR bstrSource;
  BSTR bstrDescription;
  BSTR bstrHelpFile;
  DWORD dwHelpContext;
  void* pvReserved;
  HRESULT (*pfnDeferredFillIn)(struct EXCEPINFO*);
  SCODE scode;
} EXCEPINFO;

#define DISPATCH_METHOD 0x1
#define DISPATCH_PROPERTYGET 0x2
#define DISPATCH_PROPERTYPUT 0x4
#define DISPATCH_PROPERTYPUTREF 0x8
#define DISPID_UNKNOWN ((DISPID)-1)
#define DISPID_PROPERTYPUT ((DISPID)-3)

/* Type information objects are not served; the pointer type exists for IDispatch's shape. */
typedef struct ITypeInfo ITypeInfo;

/* ---- Automation string and variant functions ---------------------------------------------
 * Exported by libqxgroupmgr.so, standing in for the platform's automation library. */

QX_EXTERN_C QX_EXPORT BSTR SysAllocString(const OLECHAR* text);
QX_EXTERN_C QX_EXPORT BSTR SysAllocStringLen(const OLECHAR* text, UINT length);
QX_EXTERN_C QX_EXPORT BSTR SysAllocStringByteLen(const char* bytes, UINT length);
QX_EXTERN_C QX_EXPORT void SysFreeString(BSTR text);
QX_EXTERN_C QX_EXPORT UINT SysStringLen(BSTR text);
QX_EXTERN_C QX_EXPORT UINT SysStringByteLen(BSTR text);
QX_EXTERN_C QX_EXPORT void VariantInit(VARIANTARG* v);
QX_EXTERN_C QX_EXPORT HRESULT VariantClear(VARIANTARG* v);
QX_EXTERN_C QX_EXPORT HRESULT VariantCopy(VARIANTARG* dest, const VARIANTARG* src);

/* ---- Interfaces ------------------------------------------------------------------------- */

#ifdef __cplusplus

struct IUnknown {
  virtual HRESULT QueryInterface(REFIID riid, void** ppv) = 0;
  virtual ULONG AddRef() = 0;
  virtual ULONG Release() = 0;

 protected:
  ~IUnknown() = default;  // released through Release, never deleted through the interface
};

struct IDispatch : IUnknown {
  virtual HRESULT GetTypeInfoCount(UINT* pctinfo) = 0;
  virtual HRESULT GetTypeInfo(UINT iTInfo, LCID lcid, ITypeInfo** ppTInfo) = 0;
  virtual HRESULT GetIDsOfNames(REFIID riid, LPOLESTR* rgszNames, UINT cNames, LCID lcid,
                                DISPID* rgDispId) = 0;
  virtual HRESULT Invoke(DISPID dispIdMember, REFIID riid, LCID lcid, WORD wFlags,
                         DISPPARAMS* pDispParams, VARIANT* pVarResult, EXCEPINFO* pExcepInfo,
                         UINT* puArgErr) = 0;

 protected:
  ~IDispatch() = default;
};

struct IClassFactory : IUnknown {
  virtual HRESULT CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppvObject) = 0;
  virtual HRESULT LockServer(BOOL fLock) = 0;

 protected:
  ~IClassFactory() = default;
};

#else /* C callers: explicit tables of function pointers */

typedef struct IUnknownVtbl {
  HRESULT (*QueryInterface)(IUnknown* This, REFIID riid, void** ppv);
  ULONG (*AddRef)(IUnknown* This);
  ULONG (*Release)(IUnknown* This);
} IUnknownVtbl;
struct IUnknown {
  const IUnknownVtbl* lpVtbl;
};

typedef struct IDispatchVtbl {
  HRESULT (*QueryInterface)(IDispatch* This, REFIID riid, void** ppv);
  ULONG (*AddRef)(IDispatch* This);
  ULONG (*Release)(IDispatch* This);
  HRESULT (*GetTypeInfoCount)(IDispatch* This, UINT* pctinfo);
  HRESULT (*GetTypeInfo)(IDispatch* This, UINT iTInfo, LCID lcid, ITypeInfo** ppTInfo);
  HRESULT (*GetIDsOfNames)(IDispatch* This, REFIID riid, LPOLESTR* rgszNames, UINT cNames,
                           LCID lcid, DISPID* rgDispId);
  HRESULT (*Invoke)(IDispatch* This, DISPID dispIdMember, REFIID riid, LCID lcid, WORD wFlags,
                    DISPPARAMS* pDispParams, VARIANT* pVarResult, EXCEPINFO* pExcepInfo,
                    UINT* puArgErr);
} IDispatchVtbl;
struct IDispatch {
  const IDispatchVtbl* lpVtbl;
};

typedef struct IClassFactory IClassFactory;
typedef struct IClassFactoryVtbl {
  HRESULT (*QueryInterface)(IClassFactory* This, REFIID riid, void** ppv);
  ULONG (*AddRef)(IClassFactory* This);
  ULONG (*Release)(IClassFactory* This);
  HRESULT (*CreateInstance)(IClassFactory* This, IUnknown* pUnkOuter, REFIID riid,
                            void** ppvObject);
  HRESULT (*LockServer)(IClassFactory* This, BOOL fLock);
} IClassFactoryVtbl;
struct IClassFactory {
  const IClassFactoryVtbl* lpVtbl;
};

#endif /* __cplusplus */

/* ---- ISupportErrorInfo ---------------------------------------------------------------------
 * Asked by a caller after a failed call: S_OK when the object publishes error information for
 * calls through that interface, S_FALSE when it does not. */

QX_EXTERN_C QX_EXPORT const IID IID_ISupportErrorInfo;

#ifdef __cplusplus

struct ISupportErrorInfo : IUnknown {
  virtual HRESULT InterfaceSupportsErrorInfo(REFIID riid) = 0;

 protected:
  ~ISupportErrorInfo() = default;
};

#else

typedef struct ISupportErrorInfo ISupportErrorInfo;
typedef struct ISupportErrorInfoVtbl {
  HRESULT (*QueryInterface)(ISupportErrorInfo* This, REFIID riid, void** ppv);
  ULONG (*AddRef)(ISupportErrorInfo* This);
  ULONG (*Release)(ISupportErrorInfo* This);
  HRESULT (*InterfaceSupportsErrorInfo)(ISupportErrorInfo* This, REFIID riid);
} ISupportErrorInfoVtbl;
struct ISupportErrorInfo {
  const ISupportErrorInfoVtbl* lpVtbl;
};

#endif /* __cplusplus */
/* ---- Error information ---------------------------------------------------------------------
 * Why the last call on this thread failed: a failing method of a QXGroupMgr object leaves an
 * error object behind (SetErrorInfo); the caller takes it with GetErrorInfo, which hands over
 * the reference and empties the thread's slot. A successful call empties the slot, so a caller
 * that asks after a failure never reads a reason left over from an earlier one.
 *   IErrorInfo* info = NULL;
 *   if (GetErrorInfo(0, &info) == S_OK) { info->GetDescription(&text); info->Release(); }
 * The description is "subject: sentence" (the file or member at fault first). */

QX_EXTERN_C QX_EXPORT const IID IID_IErrorInfo;

#ifdef __cplusplus
struct IErrorInfo : IUnknown {
  virtual HRESULT GetGUID(GUID* pGUID) = 0;
  virtual HRESULT GetSource(BSTR* pBstrSource) = 0;
  virtual HRESULT GetDescription(BSTR* pBstrDescription) = 0;
  virtual HRESULT GetHelpFile(BSTR* pBstrHelpFile) = 0;
  virtual HRESULT GetHelpContext(DWORD* pdwHelpContext) = 0;

 protected:
  ~IErrorInfo() = default;
};
#else
typedef struct IErrorInfo IErrorInfo;
typedef struct IErrorInfoVtbl {
  HRESULT (*QueryInterface)(IErrorInfo* This, REFIID riid, void** ppv);
  ULONG (*AddRef)(IErrorInfo* This);
  ULONG (*Release)(IErrorInfo* This);
  HRESULT (*GetGUID)(IErrorInfo* This, GUID* pGUID);
  HRESULT (*GetSource)(IErrorInfo* This, BSTR* pBstrSource);
  HRESULT (*GetDescription)(IErrorInfo* This, BSTR* pBstrDescription);
  HRESULT (*GetHelpFile)(IErrorInfo* This, BSTR* pBstrHelpFile);
  HRESULT (*GetHelpContext)(IErrorInfo* This, DWORD* pdwHelpContext);
} IErrorInfoVtbl;
struct IErrorInfo {
  const IErrorInfoVtbl* lpVtbl;
};
#endif

/* dwReserved must be 0. SetErrorInfo keeps a reference to `info` (null empties the slot);
 * GetErrorInfo gives S_OK and the object (the caller releases it), or S_FALSE and null. */
QX_EXTERN_C QX_EXPORT HRESULT SetErrorInfo(ULONG dwReserved, IErrorInfo* info);
QX_EXTERN_C QX_EXPORT HRESULT GetErrorInfo(ULONG dwReserved, IErrorInfo** info);

/* ---- IObjectSafety ---------------------------------------------------------------------------
 * Lets a script host ask whether an object is safe to call from untrusted scripts and switch
 * that safety on. */

QX_EXTERN_C QX_EXPORT const IID IID_IObjectSafety;

#define INTERFACESAFE_FOR_UNTRUSTED_CALLER 0x00000001u
#define INTERFACESAFE_FOR_UNTRUSTED_DATA 0x00000002u

#ifdef __cplusplus

struct IObjectSafety : IUnknown {
  virtual HRESULT GetInterfaceSafetyOptions(REFIID riid, DWORD* pdwSupportedOptions,
                                            DWORD* pdwEnabledOptions) = 0;
  virtual HRESULT SetInterfaceSafetyOptions(REFIID riid, DWORD dwOptionSetMask,
                                            DWORD dwEnabledOptions) = 0;

 protected:
  ~IObjectSafety() = default;
};

#else

typedef struct IObjectSafety IObjectSafety;
typedef struct IObjectSafetyVtbl {
  HRESULT (*QueryInterface)(IObjectSafety* This, REFIID riid, void** ppv);
  ULONG (*AddRef)(IObjectSafety* This);
  ULONG (*Release)(IObjectSafety* This);
  HRESULT (*GetInterfaceSafetyOptions)(IObjectSafety* This, REFIID riid,
                                       DWORD* pdwSupportedOptions, DWORD* pdwEnabledOptions);
  HRESULT (*SetInterfaceSafetyOptions)(IObjectSafety* This, REFIID riid, DWORD dwOptionSetMask,
                                       DWORD dwEnabledOptions);
} IObjectSafetyVtbl;
struct IObjectSafety {
  const IObjectSafetyVtbl* lpVtbl;
};

#endif /* __cplusplus */

#endif /* QXGROUPMGR_COM_H */
