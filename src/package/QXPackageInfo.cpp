#include "package/QXPackageInfo.h"

#include <new>

#include "package/ManifestLookup.h"
#include "platform/Diagnostic.h"
#include "platform/ErrorInfo.h"
#include "platform/codepage.h"
#include "platform/TempFolder.h"
#include "platform/fs.h"

namespace qx {

namespace {

constexpr char kManifestMember[] = "imsmanifest.xml";

// The property paths, each step searched below the element the step before found.
constexpr const char* kTypePath[] = {"imsmd:general", "imsmd:structure", "imsmd:value",
                                     "imsmd:langstring"};
constexpr const char* kTitlePath[] = {"imsmd:title", "imsmd:langstring"};
constexpr const char* kGradeLevelPath[] = {"imsmd:educational", "imsmd:context", "imsmd:value",
                                           "imsmd:langstring"};
constexpr const char* kTeachingTimePath[] = {"imsmd:lom", "imsmd:educational",
                                             "imsmd:typicallearningtime", "imsmd:datetime"};
constexpr const char* kAbstractPath[] = {"imsmd:description", "imsmd:langstring"};
constexpr const char* kObjectivesPath[] = {"imsmd:classification", "imsmd:purpose",
                                           "imsmd:value", "imsmd:langstring"};

// The source every error object of this class names: the version-independent ProgID.
constexpr std::string_view kErrorSource = "QXGroupMgr.QXPackageInfo";

// How deep this thread is in QXPackageInfo calls: only the outermost one forgets the previous
// diagnostic and publishes the new one, so a property reached through Invoke is one call.
thread_local int callDepth = 0;

std::string ToAnsi(BSTR text) {
  if (text == nullptr) return {};
  return codepage::WideToAnsi(std::u16string_view(text));
}

// A new automation string from 1252 text; null only when memory ran out.
BSTR ToBstr(std::string_view ansi) {
  const std::u16string wide = codepage::AnsiToWide(ansi);
  return SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
}

HRESULT Give(std::string_view ansi, BSTR* pVal) {
  BSTR result = ToBstr(ansi);
  if (result == nullptr) return E_OUTOFMEMORY;
  *pVal = result;
  return S_OK;
}

// The file the extraction wrote into the call's fresh folder: the member's own name, whatever
// letter case the package stores it in. Empty when nothing was written.
std::string ExtractedManifest(const std::string& folder) {
  fs::Finder finder;
  fs::FindData found;
  for (bool more = finder.First(folder + "*", found); more; more = finder.Next(found))
    if (found.name != "." && found.name != "..") return folder + found.name;
  return {};
}

}  // namespace

QXPackageInfo::QXPackageInfo(IUnknown* outer) : DispatchObject(outer) {}

QXPackageInfo::~QXPackageInfo() = default;

HRESULT QXPackageInfo::CreateInstance(IUnknown* outer, REFIID riid, void** ppv) {
  return CreateAggregable<QXPackageInfo>(outer, riid, ppv);
}

HRESULT QXPackageInfo::Call(const std::function<HRESULT()>& body) {
  const bool outermost = callDepth++ == 0;
  if (outermost) diag::Clear();
  HRESULT hr = E_FAIL;
  try {
    hr = body();
  } catch (const std::bad_alloc&) {
    diag::Record("out-of-memory", filename_, "memory ran out");
    hr = E_OUTOFMEMORY;
  } catch (...) {
    diag::Record("internal", filename_, "an unexpected error ended the call");
    hr = E_FAIL;
  }
  --callDepth;
  if (outermost) {
    if (hr == S_OK && !keepNote_) diag::Clear();
    else if (FAILED(hr)) diag::Record("failed", filename_, "the call failed");  // first record wins
    keepNote_ = false;
    PublishDiagnostic(kErrorSource);
  }
  return hr;
}

HRESULT QXPackageInfo::RunCall(const std::function<HRESULT()>& body) { return Call(body); }

// ---- Filename --------------------------------------------------------------------------------------

HRESULT QXPackageInfo::get_Filename(BSTR* pVal) {
  if (pVal == nullptr) return E_POINTER;
  return Call([&] { return Give(filename_, pVal); });
}

HRESULT QXPackageInfo::put_Filename(BSTR newVal) {
  return Call([&] {
    filename_ = ToAnsi(newVal);
    std::unique_ptr<GroupContainer> container = CreateContainer(filename_);
    if (container == nullptr) {
      diag::Record("not-a-package", filename_, "is not a group file this component can open");
      return E_FAIL;
    }
    // A fresh folder of this call's own: nothing another process left can pass for the manifest.
    const fs::TempWorkFolder folder;
    const int32_t extracted =
        folder.IsOpen() ? container->ExtractMember(kManifestMember, folder.Path()) : 0;
    container.reset();
    const std::string copy = folder.IsOpen() ? ExtractedManifest(folder.Path()) : std::string();
    if (!copy.empty()) {
      // A manifest that does not load leaves the previous one in place.
      if (!manifest_.LoadXmlFile(copy.c_str())) {
        keepNote_ = true;
        diag::Record("bad-manifest", filename_,
                     manifest_.Log().empty() ? "its manifest does not load"
                                             : "its manifest does not load: " + manifest_.Log().back());
      }
    }
    if (extracted == 0) {
      diag::Record("no-manifest", filename_, "holds no imsmanifest.xml");
      return S_FALSE;
    }
    isPackage_ = 1;
    return S_OK;
  });
}

// ---- Metadata --------------------------------------------------------------------------------------

HRESULT QXPackageInfo::PathProperty(std::span<const char* const> tags, BSTR* pVal) {
  if (pVal == nullptr) return E_POINTER;
  return Call([&] {
    bool found = false;
    const std::string text = manifest::LookupPath(manifest_, tags, found);
    return Give(text, pVal);
  });
}

HRESULT QXPackageInfo::Requirement(const char* label, BSTR* pVal) {
  if (pVal == nullptr) return E_POINTER;
  return Call([&]() -> HRESULT {
    std::string text;
    HRESULT hr = S_FALSE;
    try {
      hr = manifest::LookupRequirement(manifest_, label, text);
    } catch (...) {
      text.clear();
      hr = E_UNEXPECTED;
    }
    const HRESULT given = Give(text, pVal);
    if (FAILED(given)) return given;
    if (hr == S_FALSE)
      diag::Record("no-requirement", label, "the manifest names no such requirement");
    if (hr == E_UNEXPECTED)
      diag::Record("internal", label, "the requirement look-up failed unexpectedly");
    return hr;
  });
}

HRESULT QXPackageInfo::get_Type(BSTR* pVal) { return PathProperty(kTypePath, pVal); }
HRESULT QXPackageInfo::get_Title(BSTR* pVal) { return PathProperty(kTitlePath, pVal); }
HRESULT QXPackageInfo::get_GradeLevel(BSTR* pVal) { return PathProperty(kGradeLevelPath, pVal); }
HRESULT QXPackageInfo::get_TeachingTime(BSTR* pVal) {
  return PathProperty(kTeachingTimePath, pVal);
}
HRESULT QXPackageInfo::get_Abstract(BSTR* pVal) { return PathProperty(kAbstractPath, pVal); }
HRESULT QXPackageInfo::get_Objectives(BSTR* pVal) { return PathProperty(kObjectivesPath, pVal); }

HRESULT QXPackageInfo::get_LearningTool(BSTR* pVal) { return Requirement("Learning Tool", pVal); }
HRESULT QXPackageInfo::get_Connectivity(BSTR* pVal) { return Requirement("Connectivity", pVal); }
HRESULT QXPackageInfo::get_SupportingHardware(BSTR* pVal) {
  return Requirement("Supporting Hardware", pVal);
}
HRESULT QXPackageInfo::get_HandHeldApps(BSTR* pVal) {
  return Requirement("Handheld Applications", pVal);
}
HRESULT QXPackageInfo::get_ComputerApps(BSTR* pVal) {
  return Requirement("Computer Applications", pVal);
}

HRESULT QXPackageInfo::get_IsQXP(LONG* pVal) {
  if (pVal == nullptr) return E_POINTER;
  return Call([&] {
    *pVal = isPackage_;
    return S_OK;
  });
}

// ---- IObjectSafety ---------------------------------------------------------------------------------

HRESULT QXPackageInfo::GetInterfaceSafetyOptions(REFIID riid, DWORD* pdwSupportedOptions,
                                                 DWORD* pdwEnabledOptions) {
  if (pdwSupportedOptions == nullptr || pdwEnabledOptions == nullptr) return E_POINTER;
  IUnknown* asked = nullptr;
  const HRESULT hr = QueryInterface(riid, reinterpret_cast<void**>(&asked));
  if (FAILED(hr)) {
    *pdwSupportedOptions = 0;
    *pdwEnabledOptions = 0;
    return hr;
  }
  asked->Release();
  *pdwSupportedOptions = INTERFACESAFE_FOR_UNTRUSTED_CALLER;
  *pdwEnabledOptions = safety_;
  return S_OK;
}

HRESULT QXPackageInfo::SetInterfaceSafetyOptions(REFIID riid, DWORD dwOptionSetMask,
                                                 DWORD dwEnabledOptions) {
  IUnknown* asked = nullptr;
  if (FAILED(QueryInterface(riid, reinterpret_cast<void**>(&asked)))) return E_NOINTERFACE;
  asked->Release();
  if ((dwOptionSetMask & ~DWORD{INTERFACESAFE_FOR_UNTRUSTED_CALLER}) != 0) return E_FAIL;
  safety_ = (safety_ & ~dwOptionSetMask) | (dwOptionSetMask & dwEnabledOptions);
  return S_OK;
}

}  // namespace qx
