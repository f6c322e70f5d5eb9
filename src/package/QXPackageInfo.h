// QXPackageInfo: the automation object that reads a content package's descriptive metadata.
// Setting Filename opens the package through the container factory, extracts its
// "imsmanifest.xml" into this call's own temporary subfolder, parses it and removes the copy
// before returning; every property is then answered from the parsed manifest.
//
//   IQXPackageInfo* p = ...;                 // class object of CLSID_QXPackageInfo
//   p->put_Filename(path);                   // S_OK, S_FALSE (no manifest), E_FAIL (no group)
//   p->get_Title(&title);                    // S_OK, "" when the manifest has none
//   p->get_LearningTool(&tool);              // S_OK, or S_FALSE with "" when not required
#pragma once

#include <string>

#include "archive/VxXml.h"
#include "containers/ContainerFactory.h"
#include "frame/DispatchObject.h"
#include "platform/com.h"
#include "qxgroupmgr/QXGroupMgr.h"

namespace qx {

class QXPackageInfo : public DispatchObject<IQXPackageInfo, IObjectSafety>,
                      public ContainerFactory {
 public:
  // Creation function of the class object (aggregation supported: see module::CreateInstanceFn).
  static HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** ppv);

  // Reference count 0; the creator takes the first reference through QueryInterface.
  explicit QXPackageInfo(IUnknown* outer = nullptr);

  // IQXPackageInfo
  HRESULT get_Filename(BSTR* pVal) override;
  HRESULT put_Filename(BSTR newVal) override;
  HRESULT get_Type(BSTR* pVal) override;
  HRESULT get_Title(BSTR* pVal) override;
  HRESULT get_GradeLevel(BSTR* pVal) override;
  HRESULT get_TeachingTime(BSTR* pVal) override;
  HRESULT get_Abstract(BSTR* pVal) override;
  HRESULT get_Objectives(BSTR* pVal) override;
  HRESULT get_LearningTool(BSTR* pVal) override;
  HRESULT get_Connectivity(BSTR* pVal) override;
  HRESULT get_SupportingHardware(BSTR* pVal) override;
  HRESULT get_HandHeldApps(BSTR* pVal) override;
  HRESULT get_ComputerApps(BSTR* pVal) override;
  HRESULT get_IsQXP(LONG* pVal) override;

  // IObjectSafety: the object is safe for untrusted callers (option 1) and only that.
  HRESULT GetInterfaceSafetyOptions(REFIID riid, DWORD* pdwSupportedOptions,
                                    DWORD* pdwEnabledOptions) override;
  HRESULT SetInterfaceSafetyOptions(REFIID riid, DWORD dwOptionSetMask,
                                    DWORD dwEnabledOptions) override;

 protected:
  ~QXPackageInfo() override;
  // One call through IDispatch: the outermost forgets the previous diagnostic and publishes this
  // call's as the thread's error information (none after S_OK, except when a package's manifest
  // did not load: the put still succeeds, and a caller who asks can say why nothing is found).
  HRESULT RunCall(const std::function<HRESULT()>& body) override;

 private:
  HRESULT PathProperty(std::span<const char* const> tags, BSTR* pVal);
  HRESULT Requirement(const char* label, BSTR* pVal);
  // Runs a member as one call when it is not already inside one (a vtable call).
  HRESULT Call(const std::function<HRESULT()>& body);

  std::string filename_;  // 1252
  VxXml manifest_;        // at the root of the parsed manifest
  LONG isPackage_ = 0;
  DWORD safety_ = 0;
  bool keepNote_ = false;  // this call's diagnostic outlives its S_OK
};

}  // namespace qx
