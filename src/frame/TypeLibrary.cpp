#include "frame/TypeLibrary.h"

#include <type_traits>
#include <utility>

#include "platform/codepage.h"
#include "platform/com.h"
#include "qxgroupmgr/QXGroupMgr.h"

namespace qx::typelib {

namespace {

using enum ParamType;
using enum ParamDir;
using enum MemberKind;

// Early-bound slots: IUnknown (3) and IDispatch (4) come first.
constexpr unsigned kFirstSlot = 7;

// ---- Rows bound to their methods ----------------------------------------------------------------
// Row<&IFileManager::AddFiles>(4, "AddFiles", ...) makes the member's thunk from the method and
// refuses to compile when the row's parameters do not match the method's (count, type, direction).

template <class T>
T Pick(Argument& a) {
  if constexpr (std::is_same_v<T, BSTR>) return a.str;
  else if constexpr (std::is_same_v<T, BSTR*>) return a.strOut;
  else if constexpr (std::is_same_v<T, LONG>) return a.value;
  else if constexpr (std::is_same_v<T, LONG*>) return a.valueOut;
  else return a.window;
}

template <class T>
consteval bool Fits(const Param& p) {
  if constexpr (std::is_same_v<T, BSTR>) return p.type == String && p.dir == In;
  else if constexpr (std::is_same_v<T, BSTR*>) return p.type == String && p.dir != In;
  else if constexpr (std::is_same_v<T, LONG>) return p.type == Int32 && p.dir == In;
  else if constexpr (std::is_same_v<T, LONG*>) return p.type == Int32 && p.dir == OutRetval;
  else if constexpr (std::is_same_v<T, HWND>) return p.type == WindowHandle && p.dir == In;
  else return false;
}

template <class Method>
struct MethodOf;

template <class I, class... P>
struct MethodOf<HRESULT (I::*)(P...)> {
  static_assert(std::is_base_of_v<IDispatch, I>);

  static consteval bool Fits(std::span<const Param> params) {
    if (params.size() != sizeof...(P)) return false;
    size_t i = 0;
    return (typelib::Fits<P>(params[i++]) && ...);
  }

  template <auto M, size_t... N>
  static HRESULT Expand(IDispatch* object, Argument* a, std::index_sequence<N...>) {
    return (static_cast<I*>(object)->*M)(Pick<P>(a[N])...);
  }

  template <auto M>
  static HRESULT Bound(IDispatch* object, Argument* a) {
    return Expand<M>(object, a, std::index_sequence_for<P...>{});
  }
};

template <auto M>
consteval Member Row(DISPID dispid, std::string_view name, MemberKind kind,
                     std::span<const Param> params, std::string_view help, unsigned slot) {
  if (!MethodOf<decltype(M)>::Fits(params)) throw "the row's parameters do not match its method";
  return {dispid, name, kind, params, help, slot, &MethodOf<decltype(M)>::template Bound<M>};
}

// ---- IFileManager ------------------------------------------------------------------------------

constexpr Param kCreateGrpFile[] = {{"grpfile", String, In}, {"newfiles", String, In}};
constexpr Param kExpandGrpFile[] = {{"grpfile", String, In}, {"destdir", String, In}};
constexpr Param kExtractFile[] = {
    {"grpfile", String, In}, {"infile", String, In}, {"destdir", String, In}};
constexpr Param kAddFiles[] = {
    {"grpfile", String, In}, {"indfiles", String, In}, {"bdestFolder", String, In}};
constexpr Param kReadContents[] = {{"grpfile", String, In}, {"indfiles", String, Out}};
constexpr Param kDeleteFile[] = {{"grpfile", String, In}, {"indfile", String, In}};
constexpr Param kExpandFlashFile[] = {
    {"flashfile", String, In}, {"destdir", String, In}, {"outfiles", String, InOut}};
constexpr Param kUseQXAscii[] = {{"bUse", Int32, In}};
constexpr Param kDeleteFiles[] = {{"grpfile", String, In}, {"indfiles", String, In}};

using FM = IFileManager;
constexpr Member kFileManagerMembers[] = {
    Row<&FM::CreateGrpFile>(1, "CreateGrpFile", Method, kCreateGrpFile, "method CreateGrpFile",
                            kFirstSlot + 0),
    Row<&FM::ExpandGrpFile>(2, "ExpandGrpFile", Method, kExpandGrpFile, "method ExpandGrpFile",
                            kFirstSlot + 1),
    Row<&FM::ExtractFile>(3, "ExtractFile", Method, kExtractFile, "method ExtractFile",
                          kFirstSlot + 2),
    Row<&FM::AddFiles>(4, "AddFiles", Method, kAddFiles, "method AddFiles", kFirstSlot + 3),
    Row<&FM::ReadContents>(5, "ReadContents", Method, kReadContents, "method ReadContents",
                           kFirstSlot + 4),
    Row<&FM::DeleteFile>(6, "DeleteFile", Method, kDeleteFile, "method DeleteFile",
                         kFirstSlot + 5),
    Row<&FM::ExpandFlashFile>(7, "ExpandFlashFile", Method, kExpandFlashFile,
                              "method ExpandFlashFile", kFirstSlot + 6),
    Row<&FM::UseQXAscii>(8, "UseQXAscii", Method, kUseQXAscii, "method UseQXAscii",
                         kFirstSlot + 7),
    Row<&FM::DeleteFiles>(9, "DeleteFiles", Method, kDeleteFiles, "method DeleteFiles",
                          kFirstSlot + 8),
};

constexpr Interface kIFileManager = {
    "IFileManager", &IID_IFileManager, "IFileManager Interface", nullptr, kFileManagerMembers};

// ---- IGroupManager2 ----------------------------------------------------------------------------

constexpr unsigned kGroupManager2Slot = kFirstSlot + std::size(kFileManagerMembers);

constexpr Param kGetFile[] = {
    {"grpfile", String, In}, {"infile", String, In}, {"destdir", String, In}};
constexpr Param kReadContentsXml[] = {{"grpfile", String, In},
                                      {"bIncludeMetaInfo", Int32, In},
                                      {"sIncludeSubGrpsPatt", String, In},
                                      {"pxmlDir", String, OutRetval}};
constexpr Param kIsGroup[] = {{"grpfile", String, In}, {"pVal", Int32, OutRetval}};
constexpr Param kSplitPath[] = {{"psGrpPath", String, InOut}, {"psInGrpPath", String, Out}};
constexpr Param kShowUI[] = {{"hWnd", WindowHandle, In}};
constexpr Param kDoesPathExist[] = {
    {"sGrpPathWithInPath", String, In}, {"pVal", Int32, OutRetval}};

using GM2 = IGroupManager2;
constexpr Member kGroupManager2Members[] = {
    Row<&GM2::GetFile>(51, "GetFile", Method, kGetFile, "method GetFile", kGroupManager2Slot + 0),
    Row<&GM2::ReadContentsXml>(52, "ReadContentsXml", Method, kReadContentsXml,
                               "method ReadContentsXml", kGroupManager2Slot + 1),
    Row<&GM2::get_IsGroup>(53, "IsGroup", PropertyGet, kIsGroup, "property IsGroup",
                           kGroupManager2Slot + 2),
    Row<&GM2::SplitPath>(54, "SplitPath", Method, kSplitPath, "method SplitPath",
                         kGroupManager2Slot + 3),
    Row<&GM2::put_ShowUI>(55, "ShowUI", PropertyPut, kShowUI, "property ShowUI",
                          kGroupManager2Slot + 4),
    Row<&GM2::get_DoesPathExist>(56, "DoesPathExist", PropertyGet, kDoesPathExist,
                                 "property DoesPathExist", kGroupManager2Slot + 5),
};

constexpr Interface kIGroupManager2 = {"IGroupManager2", &IID_IGroupManager2,
                                       "IGroupManager2 Interface", &kIFileManager,
                                       kGroupManager2Members};

// ---- IQXPackageInfo ----------------------------------------------------------------------------

constexpr Param kStringValue[] = {{"pVal", String, OutRetval}};
constexpr Param kNewString[] = {{"newVal", String, In}};
constexpr Param kIntValue[] = {{"pVal", Int32, OutRetval}};

using PI = IQXPackageInfo;
constexpr Member kPackageInfoMembers[] = {
    Row<&PI::get_Filename>(1, "Filename", PropertyGet, kStringValue, "property Filename",
                           kFirstSlot + 0),
    Row<&PI::put_Filename>(1, "Filename", PropertyPut, kNewString, "property Filename",
                           kFirstSlot + 1),
    Row<&PI::get_Type>(2, "Type", PropertyGet, kStringValue, "property Type", kFirstSlot + 2),
    Row<&PI::get_Title>(3, "Title", PropertyGet, kStringValue, "property Title", kFirstSlot + 3),
    Row<&PI::get_GradeLevel>(4, "GradeLevel", PropertyGet, kStringValue, "property GradeLevel",
                             kFirstSlot + 4),
    Row<&PI::get_TeachingTime>(5, "TeachingTime", PropertyGet, kStringValue,
                               "property TeachingTime", kFirstSlot + 5),
    Row<&PI::get_Abstract>(6, "Abstract", PropertyGet, kStringValue, "property Abstract",
                           kFirstSlot + 6),
    Row<&PI::get_Objectives>(7, "Objectives", PropertyGet, kStringValue, "property Objectives",
                             kFirstSlot + 7),
    Row<&PI::get_LearningTool>(8, "LearningTool", PropertyGet, kStringValue,
                               "property LearningTool", kFirstSlot + 8),
    Row<&PI::get_Connectivity>(9, "Connectivity", PropertyGet, kStringValue,
                               "property Connectivity", kFirstSlot + 9),
    Row<&PI::get_SupportingHardware>(10, "SupportingHardware", PropertyGet, kStringValue,
                                     "property SupportingHardware", kFirstSlot + 10),
    Row<&PI::get_HandHeldApps>(11, "HandHeldApps", PropertyGet, kStringValue,
                               "property HandHeldApps", kFirstSlot + 11),
    Row<&PI::get_ComputerApps>(12, "ComputerApps", PropertyGet, kStringValue,
                               "property ComputerApps", kFirstSlot + 12),
    Row<&PI::get_IsQXP>(13, "IsQXP", PropertyGet, kIntValue, "property IsQXP", kFirstSlot + 13),
};

constexpr Interface kIQXPackageInfo = {"IQXPackageInfo", &IID_IQXPackageInfo,
                                       "IQXPackageInfo Interface", nullptr, kPackageInfoMembers};

// ---- The library -------------------------------------------------------------------------------

constexpr const Interface* kFileManagerInterfaces[] = {&kIFileManager, &kIGroupManager2};
constexpr const Interface* kPackageInfoInterfaces[] = {&kIQXPackageInfo};

constexpr Coclass kCoclasses[] = {
    {"FileManager", &CLSID_FileManager, "FileManager Class", kFileManagerInterfaces},
    {"QXPackageInfo", &CLSID_QXPackageInfo, "QXPackageInfo Class", kPackageInfoInterfaces},
};

constexpr const Interface* kInterfaces[] = {&kIFileManager, &kIGroupManager2, &kIQXPackageInfo};

constexpr Library kLibrary = {
    "QXGroupMgrLib", &LIBID_QXGroupMgrLib, 1, 0, "QXGroupMgr 1.0 Type Library",
    kCoclasses,      kInterfaces};

// A wide name as ASCII; false when it holds anything else (no member name does).
bool NarrowAscii(const OLECHAR* wide, std::string& out) {
  out.clear();
  if (wide == nullptr) return false;
  for (; *wide != 0; ++wide) {
    if (*wide >= 0x80) return false;
    out += static_cast<char>(*wide);
  }
  return true;
}

}  // namespace

unsigned Member::ArgumentCount() const {
  unsigned n = 0;
  for (const Param& p : params)
    if (p.dir != OutRetval) ++n;
  return n;
}

const Param* Member::Retval() const {
  for (const Param& p : params)
    if (p.dir == OutRetval) return &p;
  return nullptr;
}

const Library& TheLibrary() { return kLibrary; }

bool NameEquals(std::string_view a, std::string_view b) { return codepage::EqualsNoCase1252(a, b); }

const Interface* FindInterface(std::string_view name) {
  for (const Interface* itf : kLibrary.interfaces)
    if (NameEquals(itf->name, name)) return itf;
  return nullptr;
}

const Interface* FindInterface(const IID& iid) {
  for (const Interface* itf : kLibrary.interfaces)
    if (*itf->iid == iid) return itf;
  return nullptr;
}

const Coclass* FindCoclass(std::string_view name) {
  for (const Coclass& c : kLibrary.coclasses)
    if (NameEquals(c.name, name)) return &c;
  return nullptr;
}

const Coclass* FindCoclass(const CLSID& clsid) {
  for (const Coclass& c : kLibrary.coclasses)
    if (*c.clsid == clsid) return &c;
  return nullptr;
}

const Interface& DispatchInterface(const Coclass& coclass) {
  const auto depth = [](const Interface* itf) {
    size_t n = 0;
    for (; itf->base != nullptr; itf = itf->base) ++n;
    return n;
  };
  const Interface* widest = coclass.interfaces.front();
  for (const Interface* itf : coclass.interfaces)
    if (depth(itf) > depth(widest)) widest = itf;
  return *widest;
}

std::vector<const Member*> AllMembers(const Interface& itf) {
  std::vector<const Member*> members;
  if (itf.base != nullptr) members = AllMembers(*itf.base);
  for (const Member& m : itf.members) members.push_back(&m);
  return members;
}

const Member* FindMember(const Interface& itf, std::string_view name) {
  for (const Interface* i = &itf; i != nullptr; i = i->base)
    for (const Member& m : i->members)
      if (NameEquals(m.name, name)) return &m;
  return nullptr;
}

const Member* FindMember(const Interface& itf, DISPID dispid) {
  for (const Interface* i = &itf; i != nullptr; i = i->base)
    for (const Member& m : i->members)
      if (m.dispid == dispid) return &m;
  return nullptr;
}

const Member* FindMember(const Interface& itf, DISPID dispid, MemberKind kind) {
  for (const Interface* i = &itf; i != nullptr; i = i->base)
    for (const Member& m : i->members)
      if (m.dispid == dispid && m.kind == kind) return &m;
  return nullptr;
}

int FindParam(const Member& member, std::string_view name) {
  for (size_t i = 0; i < member.params.size(); ++i)
    if (NameEquals(member.params[i].name, name)) return static_cast<int>(i);
  return -1;
}

std::string_view ToString(ParamType type) {
  switch (type) {
    case String: return "string";
    case Int32: return "int";
    case WindowHandle: return "HWND";
  }
  return "?";
}

std::string_view ToString(ParamDir dir) {
  switch (dir) {
    case In: return "in";
    case Out: return "out";
    case InOut: return "in, out";
    case OutRetval: return "out, retval";
  }
  return "?";
}

std::string_view ToString(MemberKind kind) {
  switch (kind) {
    case Method: return "method";
    case PropertyGet: return "propget";
    case PropertyPut: return "propput";
  }
  return "?";
}

HRESULT GetIDsOfNames(const Interface& itf, const LPOLESTR* names, UINT count, DISPID* ids) {
  if (count == 0) return S_OK;
  if (names == nullptr || ids == nullptr) return E_INVALIDARG;
  HRESULT hr = S_OK;
  std::string name;
  const Member* member = NarrowAscii(names[0], name) ? FindMember(itf, name) : nullptr;
  ids[0] = member != nullptr ? member->dispid : DISPID_UNKNOWN;
  if (member == nullptr) hr = DISP_E_UNKNOWNNAME;
  for (UINT i = 1; i < count; ++i) {
    const int pos = (member != nullptr && NarrowAscii(names[i], name)) ? FindParam(*member, name) : -1;
    ids[i] = pos >= 0 ? static_cast<DISPID>(pos) : DISPID_UNKNOWN;
    if (pos < 0) hr = DISP_E_UNKNOWNNAME;
  }
  return hr;
}

namespace {

// The member that `flags` asks for. Automation clients send METHOD|PROPERTYGET for a call whose
// result they use, so either bit reaches a method or a property get; puts need a put bit.
const Member* SelectMember(const Interface& itf, DISPID dispid, WORD flags) {
  if ((flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) != 0)
    return FindMember(itf, dispid, PropertyPut);
  if ((flags & DISPATCH_METHOD) != 0) {
    if (const Member* m = FindMember(itf, dispid, Method)) return m;
    return FindMember(itf, dispid, PropertyGet);
  }
  if ((flags & DISPATCH_PROPERTYGET) != 0) return FindMember(itf, dispid, PropertyGet);
  return nullptr;
}

// An [out] or [in, out] string: the caller's BSTR* (VT_BYREF|VT_BSTR), or a by-reference variant
// that holds a string or nothing yet.
HRESULT OutStringTarget(VARIANT& v, BSTR*& target) {
  if (v.vt == (VT_BYREF | VT_BSTR) && v.pbstrVal != nullptr) {
    target = v.pbstrVal;
    return S_OK;
  }
  if (v.vt == (VT_BYREF | VT_VARIANT) && v.pvarVal != nullptr) {
    VARIANT& inner = *v.pvarVal;
    if (inner.vt == VT_EMPTY || inner.vt == VT_NULL) {
      inner.vt = VT_BSTR;
      inner.bstrVal = nullptr;
    }
    if (inner.vt == VT_BSTR) {
      target = &inner.bstrVal;
      return S_OK;
    }
  }
  return DISP_E_TYPEMISMATCH;
}

HRESULT ConvertArgument(const Param& param, VARIANT& v, Argument& arg) {
  switch (param.type) {
    case String:
      if (param.dir == In) return VariantToBstr(v, arg.str);
      return OutStringTarget(v, arg.strOut);
    case Int32:
      if (param.dir == In) return VariantToLong(v, arg.value);
      return DISP_E_TYPEMISMATCH;  // no interface has an [out] integer that is not the retval
    case WindowHandle: {
      int64_t handle = 0;
      const HRESULT hr = VariantToInt64(v, handle);
      if (SUCCEEDED(hr)) arg.window = reinterpret_cast<HWND>(static_cast<intptr_t>(handle));
      return hr;
    }
  }
  return DISP_E_TYPEMISMATCH;
}

}  // namespace

HRESULT Invoke(const Interface& itf, IDispatch* object, DISPID dispid, REFIID riid, WORD flags,
               DISPPARAMS* params, VARIANT* result, UINT* argErr) {
  if (riid != IID_NULL) return DISP_E_UNKNOWNINTERFACE;
  const Member* member = SelectMember(itf, dispid, flags);
  if (member == nullptr) return DISP_E_MEMBERNOTFOUND;

  DISPPARAMS none{nullptr, nullptr, 0, 0};
  if (params == nullptr) params = &none;
  if (params->cArgs > 0 && params->rgvarg == nullptr) return E_INVALIDARG;
  if (params->cNamedArgs > 0) {
    const bool putValue = member->kind == PropertyPut && params->cNamedArgs == 1 &&
                          params->rgdispidNamedArgs != nullptr &&
                          params->rgdispidNamedArgs[0] == DISPID_PROPERTYPUT;
    if (!putValue) return DISP_E_NONAMEDARGS;
  }
  if (params->cArgs != member->ArgumentCount()) return DISP_E_BADPARAMCOUNT;

  std::vector<Argument> args(member->params.size());
  BSTR retString = nullptr;
  LONG retValue = 0;
  UINT position = 0;  // arguments the caller passed, in parameter order
  for (size_t i = 0; i < member->params.size(); ++i) {
    const Param& param = member->params[i];
    if (param.dir == OutRetval) {
      if (param.type == String) args[i].strOut = &retString;
      else args[i].valueOut = &retValue;
      continue;
    }
    const UINT index = params->cArgs - 1 - position++;
    const HRESULT hr = ConvertArgument(param, params->rgvarg[index], args[i]);
    if (FAILED(hr)) {
      if (argErr != nullptr) *argErr = index;
      return hr;
    }
  }

  if (result != nullptr) VariantInit(result);
  const HRESULT hr = member->thunk(object, args.data());
  const Param* retval = member->Retval();
  if (retval != nullptr && SUCCEEDED(hr) && result != nullptr) {
    if (retval->type == String) {
      result->vt = VT_BSTR;
      result->bstrVal = retString;
      retString = nullptr;
    } else {
      result->vt = VT_I4;
      result->lVal = retValue;
    }
  }
  SysFreeString(retString);
  return hr;
}

}  // namespace qx::typelib
