/* A C11 caller of the component: class object, instance and calls through lpVtbl. */
#include <stdio.h>
#include <string.h>

#include "qxgroupmgr/ErrorCode.h"
#include "qxgroupmgr/QXGroupMgr.h"

static int Failed(char* message, size_t size, const char* expr, HRESULT got, HRESULT expected) {
  if (got == expected) return 0;
  snprintf(message, size, "%s gave 0x%08X, expected 0x%08X", expr, (unsigned)got, (unsigned)expected);
  return 1;
}
#define CHECK(expr, expected) do { if (Failed(message, size, #expr, (expr), (expected))) return 1; } while (0)

int RunCCaller(char* message, size_t size);

int RunCCaller(char* message, size_t size) {
  IClassFactory* cf = NULL;
  IGroupManager2* fm = NULL;
  CHECK(DllGetClassObject(&CLSID_FileManager, &IID_IClassFactory, (void**)&cf), S_OK);
  CHECK(cf->lpVtbl->CreateInstance(cf, NULL, &IID_IGroupManager2, (void**)&fm), S_OK);
  cf->lpVtbl->Release(cf);

  BSTR group = SysAllocString(u"/nonexistent-qx-module-dir/c.grp");
  BSTR list = NULL, code = NULL;
  LONG value = 3;
  CHECK(fm->lpVtbl->UseQXAscii(fm, 0), E_NOTIMPL);
  CHECK(fm->lpVtbl->ReadContents(fm, group, &list), E_FAIL);
  /* The failure's code, through the error object's second interface. */
  IErrorInfo* info = NULL;
  IQXErrorCode* coded = NULL;
  CHECK(GetErrorInfo(0, &info), S_OK);
  CHECK(info->lpVtbl->QueryInterface(info, &IID_IQXErrorCode, (void**)&coded), S_OK);
  CHECK(coded->lpVtbl->GetCode(coded, &code), S_OK);
  CHECK(SysStringLen(code) == 11 && memcmp(code, u"not-a-group", 22) == 0 ? S_OK : E_FAIL, S_OK);
  SysFreeString(code);
  coded->lpVtbl->Release(coded);
  info->lpVtbl->Release(info);
  CHECK(fm->lpVtbl->ReadContents(fm, group, NULL), E_POINTER);
  CHECK(fm->lpVtbl->GetFile(fm, group, NULL, NULL), E_FAIL);
  CHECK(fm->lpVtbl->get_IsGroup(fm, group, &value), S_OK);
  CHECK(value == 0 ? S_OK : E_FAIL, S_OK);
  CHECK(fm->lpVtbl->put_ShowUI(fm, NULL), S_OK);
  SysFreeString(group);

  UINT count = 7;
  CHECK(fm->lpVtbl->GetTypeInfoCount(fm, &count), S_OK);
  CHECK(count == 0 ? S_OK : E_FAIL, S_OK);
  CHECK(fm->lpVtbl->Release(fm) == 0 ? S_OK : E_FAIL, S_OK);
  CHECK(DllCanUnloadNow(), S_OK);
  return 0;
}
