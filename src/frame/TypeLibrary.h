// The type library QXGroupMgrLib as data: one description per dispatch interface (members,
// dispids, parameters, help strings, early-bound slots). It serves IDispatch (GetIDsOfNames,
// Invoke), registration and the command line's help and `call`.
//
//   const typelib::Interface* itf = typelib::FindInterface("igroupmanager2");
//   const typelib::Member* m = typelib::FindMember(*itf, "readcontents");
//   m->dispid == 5, m->params[1].name == "indfiles", m->params[1].dir == ParamDir::Out
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "qxgroupmgr/com.h"

namespace qx::typelib {

enum class ParamType {
  String,        // automation string (BSTR)
  Int32,         // 32-bit signed integer (LONG)
  WindowHandle,  // owner window (HWND)
};

enum class ParamDir { In, Out, InOut, OutRetval };

enum class MemberKind { Method, PropertyGet, PropertyPut };

struct Param {
  std::string_view name;
  ParamType type;
  ParamDir dir;
};

// One converted argument, as the early-bound method takes it. Which field is used follows the
// parameter's type and direction: [in] string -> str, [out]/[in, out]/[out, retval] string ->
// strOut, [in] integer -> value, [out, retval] integer -> valueOut, window handle -> window.
struct Argument {
  BSTR str = nullptr;
  BSTR* strOut = nullptr;
  LONG value = 0;
  LONG* valueOut = nullptr;
  HWND window = nullptr;
};

// Calls a member's early-bound method on `object` (an interface pointer of the member's
// interface, or of one derived from it, seen as IDispatch) with the arguments in parameter
// order. The table makes one per member from the method itself (see TypeLibrary.cpp), so the
// member's dispid, parameters and method are written down once, in its row.
using Thunk = HRESULT (*)(IDispatch* object, Argument* args);

struct Member {
  DISPID dispid;
  std::string_view name;
  MemberKind kind;
  std::span<const Param> params;
  std::string_view help;  // "method X" or "property X"
  // Index in the early-bound function table, counting QueryInterface as 0.
  unsigned vtableSlot;
  Thunk thunk;

  // How many arguments a caller passes through Invoke: every parameter but [out, retval].
  unsigned ArgumentCount() const;
  // The [out, retval] parameter, or null.
  const Param* Retval() const;
};

struct Interface {
  std::string_view name;
  const IID* iid;
  std::string_view help;
  const Interface* base;  // null when the interface derives from IDispatch directly
  std::span<const Member> members;  // its own members only, in early-bound order
};

struct Coclass {
  std::string_view name;
  const CLSID* clsid;
  std::string_view help;
  std::span<const Interface* const> interfaces;  // the default interface first
};

// The interface a class's IDispatch serves: the one of its interfaces that extends all the
// others (IGroupManager2 for FileManager).
const Interface& DispatchInterface(const Coclass& coclass);

struct Library {
  std::string_view name;
  const GUID* libid;
  uint16_t majorVersion;
  uint16_t minorVersion;
  std::string_view help;
  std::span<const Coclass> coclasses;
  std::span<const Interface* const> interfaces;
};

// QXGroupMgrLib 1.0.
const Library& TheLibrary();

// ---- Look-ups (names compare case-insensitively, ASCII) ----------------------------------------

bool NameEquals(std::string_view a, std::string_view b);
// Null when the library has no such interface / class.
const Interface* FindInterface(std::string_view name);
const Interface* FindInterface(const IID& iid);
const Coclass* FindCoclass(std::string_view name);
const Coclass* FindCoclass(const CLSID& clsid);
// Every member of the interface, inherited ones first, in early-bound order.
std::vector<const Member*> AllMembers(const Interface& itf);
// A member by name or dispid, inherited ones included. A property with a get and a put has two
// members of one dispid; the kind-less look-ups give the first of them.
const Member* FindMember(const Interface& itf, std::string_view name);
const Member* FindMember(const Interface& itf, DISPID dispid);
const Member* FindMember(const Interface& itf, DISPID dispid, MemberKind kind);
// Position of the parameter of that name, or -1.
int FindParam(const Member& member, std::string_view name);

// "string", "int", "HWND" / "in", "out", "in, out", "out, retval" / "method", "propget", "propput"
std::string_view ToString(ParamType type);
std::string_view ToString(ParamDir dir);
std::string_view ToString(MemberKind kind);

// ---- Dispatch over the description ---------------------------------------------------------------

// IDispatch::GetIDsOfNames: names[0] is a member, names[1..] its parameters (their positions).
// Unknown names get DISPID_UNKNOWN and the result is DISP_E_UNKNOWNNAME; the others are filled.
HRESULT GetIDsOfNames(const Interface& itf, const LPOLESTR* names, UINT count, DISPID* ids);

// IDispatch::Invoke: finds the member by dispid and flags, checks named arguments and the count,
// converts the arguments (rgvarg holds them last first; puArgErr gets the index into rgvarg of a
// bad one), calls the member's thunk on `object` and hands the [out, retval] value back in
// pVarResult (the caller owns it). Returns the method's own status once it was called: S_OK,
// S_FALSE, 2, E_FAIL, ...
HRESULT Invoke(const Interface& itf, IDispatch* object, DISPID dispid, REFIID riid, WORD flags,
               DISPPARAMS* params, VARIANT* result, UINT* argErr);

}  // namespace qx::typelib
