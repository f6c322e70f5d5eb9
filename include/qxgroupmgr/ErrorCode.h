/* QXGroupMgr: the diagnostic code behind an error object.
 *
 * The error objects QXGroupMgr leaves on a thread (GetErrorInfo, see com.h) also answer
 * QueryInterface for IQXErrorCode: the failure's short, stable code for scripts ("no-member",
 * "truncated", "not-a-group", "flash-file", ...) beside the description for people. An error
 * object from elsewhere answers E_NOINTERFACE.
 *
 *   IQXErrorCode* coded = NULL;
 *   if (info->QueryInterface(IID_IQXErrorCode, (void**)&coded) == S_OK) {   // C++
 *     coded->GetCode(&code);   // a BSTR the caller frees with SysFreeString
 *     coded->Release();
 *   }
 */
#ifndef QXGROUPMGR_ERRORCODE_H
#define QXGROUPMGR_ERRORCODE_H

#include "qxgroupmgr/com.h"

QX_EXTERN_C QX_EXPORT const IID IID_IQXErrorCode;

#ifdef __cplusplus
struct IQXErrorCode : IUnknown {
  virtual HRESULT GetCode(BSTR* pBstrCode) = 0;

 protected:
  ~IQXErrorCode() = default;
};
#else
typedef struct IQXErrorCode IQXErrorCode;
typedef struct IQXErrorCodeVtbl {
  HRESULT (*QueryInterface)(IQXErrorCode* This, REFIID riid, void** ppv);
  ULONG (*AddRef)(IQXErrorCode* This);
  ULONG (*Release)(IQXErrorCode* This);
  HRESULT (*GetCode)(IQXErrorCode* This, BSTR* pBstrCode);
} IQXErrorCodeVtbl;
struct IQXErrorCode {
  const IQXErrorCodeVtbl* lpVtbl;
};
#endif

#endif /* QXGROUPMGR_ERRORCODE_H */
