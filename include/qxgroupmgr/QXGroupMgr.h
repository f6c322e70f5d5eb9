/* QXGroupMgr: the automation interfaces of the component module libqxgroupmgr.so.
 *
 *   IClassFactory* factory = nullptr;
 *   DllGetClassObject(CLSID_FileManager, IID_IClassFactory, (void**)&factory);
 *   IGroupManager2* fm = nullptr;
 *   factory->CreateInstance(nullptr, IID_IGroupManager2, (void**)&fm);
 *   BSTR list = nullptr;
 *   fm->ReadContents(path, &list);   // S_OK, E_POINTER or E_FAIL
 *
 * Strings are automation strings (com.h); every [out] string is owned by the caller and freed
 * with SysFreeString. Integers are 32-bit signed; 1 is true and 0 false. */
#ifndef QXGROUPMGR_QXGROUPMGR_H
#define QXGROUPMGR_QXGROUPMGR_H

#include "com.h"

/* ---- Fixed identifiers -------------------------------------------------------------------- */

QX_EXTERN_C QX_EXPORT const GUID LIBID_QXGroupMgrLib;
QX_EXTERN_C QX_EXPORT const CLSID CLSID_FileManager;
QX_EXTERN_C QX_EXPORT const CLSID CLSID_QXPackageInfo;
QX_EXTERN_C QX_EXPORT const IID IID_IFileManager;
QX_EXTERN_C QX_EXPORT const IID IID_IGroupManager2;
QX_EXTERN_C QX_EXPORT const IID IID_IQXPackageInfo;

/* ---- Module entry points ------------------------------------------------------------------ */

QX_EXTERN_C QX_EXPORT HRESULT DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv);
QX_EXTERN_C QX_EXPORT HRESULT DllCanUnloadNow(void);
QX_EXTERN_C QX_EXPORT HRESULT DllRegisterServer(void);
QX_EXTERN_C QX_EXPORT HRESULT DllUnregisterServer(void);

/* ---- Interfaces --------------------------------------------------------------------------- */

#ifdef __cplusplus

/* Dual interface, dispids 1 to 9, in this order after IDispatch's entries. */
struct IFileManager : IDispatch {
  virtual HRESULT CreateGrpFile(BSTR grpfile, BSTR newfiles) = 0;              /* 1 */
  virtual HRESULT ExpandGrpFile(BSTR grpfile, BSTR destdir) = 0;               /* 2 */
  virtual HRESULT ExtractFile(BSTR grpfile, BSTR infile, BSTR destdir) = 0;    /* 3 */
  virtual HRESULT AddFiles(BSTR grpfile, BSTR indfiles, BSTR bdestFolder) = 0; /* 4 */
  virtual HRESULT ReadContents(BSTR grpfile, BSTR* indfiles) = 0;              /* 5 */
  virtual HRESULT DeleteFile(BSTR grpfile, BSTR indfile) = 0;                  /* 6 */
  virtual HRESULT ExpandFlashFile(BSTR flashfile, BSTR destdir, BSTR* outfiles) = 0; /* 7 */
  virtual HRESULT UseQXAscii(LONG bUse) = 0;                                   /* 8 */
  virtual HRESULT DeleteFiles(BSTR grpfile, BSTR indfiles) = 0;                /* 9 */

 protected:
  ~IFileManager() = default;
};

/* Dual interface extending IFileManager with dispids 51 to 56. */
struct IGroupManager2 : IFileManager {
  virtual HRESULT GetFile(BSTR grpfile, BSTR infile, BSTR destdir) = 0; /* 51 */
  virtual HRESULT ReadContentsXml(BSTR grpfile, LONG bIncludeMetaInfo, BSTR sIncludeSubGrpsPatt,
                                  BSTR* pxmlDir) = 0;                   /* 52 */
  virtual HRESULT get_IsGroup(BSTR grpfile, LONG* pVal) = 0;            /* 53, property get */
  virtual HRESULT SplitPath(BSTR* psGrpPath, BSTR* psInGrpPath) = 0;    /* 54 */
  virtual HRESULT put_ShowUI(HWND hWnd) = 0;                            /* 55, property put */
  virtual HRESULT get_DoesPathExist(BSTR sGrpPathWithInPath, LONG* pVal) = 0; /* 56, property get */

 protected:
  ~IGroupManager2() = default;
};

/* Dual interface of QXPackageInfo, dispids 1 to 13: a package's descriptive metadata. Setting
 * Filename opens the package (S_OK, S_FALSE when it has no manifest, E_FAIL when it is no
 * group); the path properties give "" with S_OK when absent, the requirements "" with S_FALSE. */
struct IQXPackageInfo : IDispatch {
  virtual HRESULT get_Filename(BSTR* pVal) = 0;           /* 1, property get */
  virtual HRESULT put_Filename(BSTR newVal) = 0;          /* 1, property put */
  virtual HRESULT get_Type(BSTR* pVal) = 0;               /* 2, property get */
  virtual HRESULT get_Title(BSTR* pVal) = 0;              /* 3, property get */
  virtual HRESULT get_GradeLevel(BSTR* pVal) = 0;         /* 4, property get */
  virtual HRESULT get_TeachingTime(BSTR* pVal) = 0;       /* 5, property get */
  virtual HRESULT get_Abstract(BSTR* pVal) = 0;           /* 6, property get */
  virtual HRESULT get_Objectives(BSTR* pVal) = 0;         /* 7, property get */
  virtual HRESULT get_LearningTool(BSTR* pVal) = 0;       /* 8, property get */
  virtual HRESULT get_Connectivity(BSTR* pVal) = 0;       /* 9, property get */
  virtual HRESULT get_SupportingHardware(BSTR* pVal) = 0; /* 10, property get */
  virtual HRESULT get_HandHeldApps(BSTR* pVal) = 0;       /* 11, property get */
  virtual HRESULT get_ComputerApps(BSTR* pVal) = 0;       /* 12, property get */
  virtual HRESULT get_IsQXP(LONG* pVal) = 0;              /* 13, property get */

 protected:
  ~IQXPackageInfo() = default;
};

#else /* C callers */

typedef struct IGroupManager2 IGroupManager2;
typedef struct IGroupManager2 IFileManager;
typedef struct IGroupManager2Vtbl {
  HRESULT (*QueryInterface)(IGroupManager2* This, REFIID riid, void** ppv);
  ULONG (*AddRef)(IGroupManager2* This);
  ULONG (*Release)(IGroupManager2* This);
  HRESULT (*GetTypeInfoCount)(IGroupManager2* This, UINT* pctinfo);
  HRESULT (*GetTypeInfo)(IGroupManager2* This, UINT iTInfo, LCID lcid, ITypeInfo** ppTInfo);
  HRESULT (*GetIDsOfNames)(IGroupManager2* This, REFIID riid, LPOLESTR* rgszNames, UINT cNames,
                           LCID lcid, DISPID* rgDispId);
  HRESULT (*Invoke)(IGroupManager2* This, DISPID dispIdMember, REFIID riid, LCID lcid,
                    WORD wFlags, DISPPARAMS* pDispParams, VARIANT* pVarResult,
                    EXCEPINFO* pExcepInfo, UINT* puArgErr);
  HRESULT (*CreateGrpFile)(IGroupManager2* This, BSTR grpfile, BSTR newfiles);
  HRESULT (*ExpandGrpFile)(IGroupManager2* This, BSTR grpfile, BSTR destdir);
  HRESULT (*ExtractFile)(IGroupManager2* This, BSTR grpfile, BSTR infile, BSTR destdir);
  HRESULT (*AddFiles)(IGroupManager2* This, BSTR grpfile, BSTR indfiles, BSTR bdestFolder);
  HRESULT (*ReadContents)(IGroupManager2* This, BSTR grpfile, BSTR* indfiles);
  HRESULT (*DeleteFile)(IGroupManager2* This, BSTR grpfile, BSTR indfile);
  HRESULT (*ExpandFlashFile)(IGroupManager2* This, BSTR flashfile, BSTR destdir, BSTR* outfiles);
  HRESULT (*UseQXAscii)(IGroupManager2* This, LONG bUse);
  HRESULT (*DeleteFiles)(IGroupManager2* This, BSTR grpfile, BSTR indfiles);
  HRESULT (*GetFile)(IGroupManager2* This, BSTR grpfile, BSTR infile, BSTR destdir);
  HRESULT (*ReadContentsXml)(IGroupManager2* This, BSTR grpfile, LONG bIncludeMetaInfo,
                             BSTR sIncludeSubGrpsPatt, BSTR* pxmlDir);
  HRESULT (*get_IsGroup)(IGroupManager2* This, BSTR grpfile, LONG* pVal);
  HRESULT (*SplitPath)(IGroupManager2* This, BSTR* psGrpPath, BSTR* psInGrpPath);
  HRESULT (*put_ShowUI)(IGroupManager2* This, HWND hWnd);
  HRESULT (*get_DoesPathExist)(IGroupManager2* This, BSTR sGrpPathWithInPath, LONG* pVal);
} IGroupManager2Vtbl;
struct IGroupManager2 {
  const IGroupManager2Vtbl* lpVtbl;
};

typedef struct IQXPackageInfo IQXPackageInfo;
typedef struct IQXPackageInfoVtbl {
  HRESULT (*QueryInterface)(IQXPackageInfo* This, REFIID riid, void** ppv);
  ULONG (*AddRef)(IQXPackageInfo* This);
  ULONG (*Release)(IQXPackageInfo* This);
  HRESULT (*GetTypeInfoCount)(IQXPackageInfo* This, UINT* pctinfo);
  HRESULT (*GetTypeInfo)(IQXPackageInfo* This, UINT iTInfo, LCID lcid, ITypeInfo** ppTInfo);
  HRESULT (*GetIDsOfNames)(IQXPackageInfo* This, REFIID riid, LPOLESTR* rgszNames, UINT cNames,
                           LCID lcid, DISPID* rgDispId);
  HRESULT (*Invoke)(IQXPackageInfo* This, DISPID dispIdMember, REFIID riid, LCID lcid,
                    WORD wFlags, DISPPARAMS* pDispParams, VARIANT* pVarResult,
                    EXCEPINFO* pExcepInfo, UINT* puArgErr);
  HRESULT (*get_Filename)(IQXPackageInfo* This, BSTR* pVal);
  HRESULT (*put_Filename)(IQXPackageInfo* This, BSTR newVal);
  HRESULT (*get_Type)(IQXPackageInfo* This, BSTR* pVal);
  HRESULT (*get_Title)(IQXPackageInfo* This, BSTR* pVal);
  HRESULT (*get_GradeLevel)(IQXPackageInfo* This, BSTR* pVal);
  HRESULT (*get_TeachingTime)(IQXPackageInfo* This, BSTR* pVal);
  HRESULT (*get_Abstract)(IQXPackageInfo* This, BSTR* pVal);
  HRESULT (*get_Objectives)(IQXPackageInfo* This, BSTR* pVal);
  HRESULT (*get_LearningTool)(IQXPackageInfo* This, BSTR* pVal);
  HRESULT (*get_Connectivity)(IQXPackageInfo* This, BSTR* pVal);
  HRESULT (*get_SupportingHardware)(IQXPackageInfo* This, BSTR* pVal);
  HRESULT (*get_HandHeldApps)(IQXPackageInfo* This, BSTR* pVal);
  HRESULT (*get_ComputerApps)(IQXPackageInfo* This, BSTR* pVal);
  HRESULT (*get_IsQXP)(IQXPackageInfo* This, LONG* pVal);
} IQXPackageInfoVtbl;
struct IQXPackageInfo {
  const IQXPackageInfoVtbl* lpVtbl;
};

#endif /* __cplusplus */

#endif /* QXGROUPMGR_QXGROUPMGR_H */
