// `qxgroup call [--class=NAME] MEMBER [ARG...]`: any member of a creatable class by its
// type-library name, through IDispatch, with the result as one JSON object on stdout. The class,
// its interface and the member's parameters all come from the type library.
#include "qxgroup/CallCommand.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>

#include "frame/Module.h"
#include "frame/TypeLibrary.h"
#include "platform/activation.h"
#include "platform/registry.h"
#include "platform/ui.h"
#include "qxgroup/Automation.h"
#include "qxgroup/Json.h"
#include "qxgroup/PackageCommands.h"

namespace qx::cli {

namespace {

int64_t ParseInteger(const std::string& text, const typelib::Param& param) {
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 0);
  if (text.empty() || *end != '\0' || errno == ERANGE)
    throw UsageError{"argument " + std::string(param.name) + " must be an integer, not \"" + text +
                     "\""};
  return value;
}

// Variants that own nothing: the strings they point at live in `Slots`.
struct Slots {
  std::vector<Bstr> strings;       // [in] and [in, out] / [out] string values
  std::vector<VARIANT> variants;   // in parameter order
};

std::shared_ptr<ui::Host> HostFor(const std::string& mode) {
  if (mode == "tty") return std::make_shared<ui::TerminalHost>();
  const struct {
    const char* mode;
    int command;
  } answers[] = {{"replace", 3}, {"all", 4}, {"skip", 5}, {"cancel", 2}};
  for (const auto& a : answers)
    if (mode == a.mode) return std::make_shared<ui::FixedAnswerHost>(a.command);
  return nullptr;
}

const typelib::Coclass& FindClass(const std::string& name) {
  const typelib::Coclass* coclass = typelib::FindCoclass(name);
  if (coclass == nullptr) {
    std::string known;
    for (const typelib::Coclass& c : typelib::TheLibrary().coclasses)
      known += (known.empty() ? "" : ", ") + std::string(c.name);
    throw UsageError{"no class named \"" + name + "\" (classes: " + known + ")"};
  }
  return *coclass;
}

// A new instance of the class, held through its IDispatch for the life of the command: made by
// the class object linked into this program, or, given a ProgID, found through the registry
// store and made by the module registered there.
class Instance {
 public:
  Instance(const typelib::Coclass& coclass, const std::string& progId) {
    if (!progId.empty()) {
      const HRESULT hr = CoCreateInstance(*coclass.clsid, nullptr, CLSCTX_INPROC_SERVER,
                                          IID_IDispatch, reinterpret_cast<void**>(&disp_));
      if (FAILED(hr) || disp_ == nullptr)
        throw Failure{"cannot create " + progId + " (" + HexStatus(hr) + ")"};
      return;
    }
    IClassFactory* factory = nullptr;
    HRESULT hr = module::GetClassObject(*coclass.clsid, IID_IClassFactory,
                                        reinterpret_cast<void**>(&factory));
    if (FAILED(hr) || factory == nullptr)
      throw Failure{"cannot get the " + std::string(coclass.name) + " class object (" +
                    HexStatus(hr) + ")"};
    hr = factory->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(&disp_));
    factory->Release();
    if (FAILED(hr) || disp_ == nullptr)
      throw Failure{"cannot create a " + std::string(coclass.name) + " (" + HexStatus(hr) + ")"};
  }
  ~Instance() { disp_->Release(); }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;
  IDispatch* operator->() const { return disp_; }

 private:
  IDispatch* disp_ = nullptr;
};

// Gives the object an owner window bound to `host` through its ShowUI property for as long as
// this lives, and takes it back at the end.
class DispatchOwnerWindow {
 public:
  DispatchOwnerWindow(IDispatch* disp, const typelib::Member& showUI,
                      std::shared_ptr<ui::Host> host)
      : disp_(disp), showUI_(showUI), window_(ui::BindOwnerWindow(std::move(host))) {
    Put(window_);
  }
  ~DispatchOwnerWindow() {
    Put(nullptr);
    ui::ReleaseOwnerWindow(window_);
  }
  DispatchOwnerWindow(const DispatchOwnerWindow&) = delete;
  DispatchOwnerWindow& operator=(const DispatchOwnerWindow&) = delete;

 private:
  void Put(HWND window) {
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_INT_PTR;
    v.intPtrVal = reinterpret_cast<LONG_PTR>(window);
    DISPID putId = DISPID_PROPERTYPUT;
    DISPPARAMS params{&v, &putId, 1, 1};
    disp_->Invoke(showUI_.dispid, IID_NULL, 0, DISPATCH_PROPERTYPUT, &params, nullptr, nullptr,
                  nullptr);
  }
  IDispatch* disp_;
  const typelib::Member& showUI_;
  HWND window_;
};

// The class's property that takes an owner window, or null when it shows no dialogs.
const typelib::Member* OwnerWindowMember(const typelib::Interface& itf) {
  for (const typelib::Member* m : typelib::AllMembers(itf))
    if (m->kind == typelib::MemberKind::PropertyPut && m->params.size() == 1 &&
        m->params[0].type == typelib::ParamType::WindowHandle)
      return m;
  return nullptr;
}

// The class a ProgID names in the registry store (its CurVer followed).
const typelib::Coclass& ClassOfProgId(const std::string& progId) {
  const Bstr wide = ToBstr(progId);
  CLSID clsid{};
  const HRESULT hr = CLSIDFromProgID(wide.get(), &clsid);
  if (FAILED(hr)) {
    registry::Tree store;  // a store that cannot be used is the better answer
    if (const LONG status = registry::Load(store); status != registry::kErrorSuccess)
      throw Failure{"cannot look up " + progId + ": " +
                    RegistryFailure(HRESULT_FROM_WIN32(status))};
    throw Failure{"no class registered as " + progId + " in " + registry::StorePath() + " (" +
                  HexStatus(hr) + ")"};
  }
  const typelib::Coclass* coclass = typelib::FindCoclass(clsid);
  if (coclass == nullptr)
    throw Failure{progId + " names " + GuidToString(clsid) + ", a class of another component"};
  return *coclass;
}

// Puts "Name=value" through IDispatch: the status of the put.
HRESULT PutProperty(IDispatch* disp, const typelib::Interface& itf, const std::string& set,
                    std::string& name) {
  const size_t eq = set.find('=');
  if (eq == std::string::npos || eq == 0)
    throw UsageError{"--set takes NAME=VALUE, not \"" + set + "\""};
  name = set.substr(0, eq);
  const std::string value = set.substr(eq + 1);
  const typelib::Member* put = nullptr;
  for (const typelib::Member* m : typelib::AllMembers(itf))
    if (m->kind == typelib::MemberKind::PropertyPut && typelib::NameEquals(m->name, name)) put = m;
  if (put == nullptr || put->params.size() != 1)
    throw UsageError{"--set: no property \"" + name + "\" that can be set"};
  const typelib::Param& param = put->params[0];
  Bstr text;
  VARIANT v;
  VariantInit(&v);
  if (param.type == typelib::ParamType::String) {
    CheckRepresentable(value, "--set " + name);
    text = ToBstr(value);
    v.vt = VT_BSTR;
    v.bstrVal = text.get();
  } else {
    const int64_t number = ParseInteger(value, param);
    if (number < INT32_MIN || number > INT32_MAX)
      throw UsageError{"--set " + name + " is out of range"};
    v.vt = VT_I4;
    v.lVal = static_cast<LONG>(number);
  }
  DISPID putId = DISPID_PROPERTYPUT;
  DISPPARAMS params{&v, &putId, 1, 1};
  return disp->Invoke(put->dispid, IID_NULL, 0, DISPATCH_PROPERTYPUT, &params, nullptr, nullptr,
                      nullptr);
}

}  // namespace

std::string DescribeMembers(const std::string& className) {
  std::string text = "Members (names are not case-sensitive):\n";
  const typelib::Interface& itf = typelib::DispatchInterface(FindClass(className));
  for (const typelib::Member* m : typelib::AllMembers(itf)) {
    std::string line = "  " + std::string(m->name) + "(";
    bool first = true;
    for (const typelib::Param& p : m->params) {
      if (!first) line += ", ";
      first = false;
      line += "[" + std::string(typelib::ToString(p.dir)) + "] " +
              std::string(typelib::ToString(p.type)) + " " + std::string(p.name);
    }
    line += ")";
    if (line.size() < 72) line.resize(72, ' ');
    text += line + "  " + std::string(m->help) + "\n";
  }
  return text;
}

int RunCall(const std::string& className, const std::string& uiMode,
            const std::string& memberName, const std::vector<std::string>& args,
            const std::vector<std::string>& sets, const std::string& progId) {
  const typelib::Coclass& coclass = progId.empty() ? FindClass(className) : ClassOfProgId(progId);
  const typelib::Interface& itf = typelib::DispatchInterface(coclass);
  const typelib::Member* member = typelib::FindMember(itf, memberName);
  if (member == nullptr)
    throw UsageError{"no member named \"" + memberName + "\" (see qxgroup call --help)"};

  // Arguments fill the [in] and [in, out] parameters in order; missing trailing [in, out]
  // strings start empty.
  size_t inCount = 0, inOutCount = 0;
  for (const typelib::Param& p : member->params) {
    if (p.dir == typelib::ParamDir::In) ++inCount;
    if (p.dir == typelib::ParamDir::InOut) ++inOutCount;
  }
  if (args.size() < inCount || args.size() > inCount + inOutCount)
    throw UsageError{std::string(member->name) + " takes " + std::to_string(inCount) +
                     (inOutCount ? " to " + std::to_string(inCount + inOutCount) : "") +
                     " argument(s), not " + std::to_string(args.size())};

  std::shared_ptr<ui::Host> host;
  const typelib::Member* showUI = nullptr;
  if (uiMode != "none") {
    host = HostFor(uiMode);
    if (!host) throw UsageError{"--ui takes none, tty, replace, all, skip or cancel"};
    showUI = OwnerWindowMember(itf);
    if (showUI == nullptr)
      throw UsageError{"--ui: " + std::string(coclass.name) + " shows no dialogs"};
  }
  Instance object(coclass, progId);
  std::optional<DispatchOwnerWindow> owner;
  if (showUI != nullptr) owner.emplace(object.operator->(), *showUI, std::move(host));
  for (const std::string& set : sets) {
    std::string name;
    const HRESULT hr = PutProperty(object.operator->(), itf, set, name);
    if (FAILED(hr)) {
      JsonObject top;
      top.AddString("hr", HexStatus(hr));
      top.AddString("set", name);
      std::printf("%s\n", top.Str().c_str());
      return kExitFailed;
    }
  }

  Slots slots;
  slots.strings.reserve(member->params.size());
  slots.variants.resize(member->params.size());
  size_t next = 0, dispatched = 0;
  for (size_t i = 0; i < member->params.size(); ++i) {
    const typelib::Param& p = member->params[i];
    VARIANT& v = slots.variants[i];
    VariantInit(&v);
    if (p.dir == typelib::ParamDir::OutRetval) continue;
    ++dispatched;
    const bool given = (p.dir == typelib::ParamDir::In || p.dir == typelib::ParamDir::InOut) &&
                       next < args.size();
    const std::string arg = given ? args[next++] : std::string();
    if (p.type == typelib::ParamType::String) {
      if (given) CheckRepresentable(arg, "argument " + std::string(p.name));
      slots.strings.push_back(given ? ToBstr(arg) : Bstr());
      if (p.dir == typelib::ParamDir::In) {
        v.vt = VT_BSTR;
        v.bstrVal = slots.strings.back().get();
      } else {
        v.vt = VT_BYREF | VT_BSTR;
        v.pbstrVal = slots.strings.back().address();
      }
    } else if (p.type == typelib::ParamType::Int32) {
      const int64_t value = ParseInteger(arg, p);
      if (value < INT32_MIN || value > INT32_MAX)
        throw UsageError{"argument " + std::string(p.name) + " is out of range"};
      v.vt = VT_I4;
      v.lVal = static_cast<LONG>(value);
    } else {
      v.vt = VT_INT_PTR;
      v.intPtrVal = static_cast<LONG_PTR>(ParseInteger(arg, p));
    }
  }

  // Arguments travel last first.
  std::vector<VARIANT> reversed;
  for (size_t i = member->params.size(); i-- > 0;)
    if (member->params[i].dir != typelib::ParamDir::OutRetval)
      reversed.push_back(slots.variants[i]);
  DISPPARAMS params{reversed.data(), nullptr, static_cast<UINT>(dispatched), 0};
  DISPID putId = DISPID_PROPERTYPUT;
  WORD flags = DISPATCH_METHOD;
  if (member->kind == typelib::MemberKind::PropertyGet) flags = DISPATCH_PROPERTYGET;
  if (member->kind == typelib::MemberKind::PropertyPut) {
    flags = DISPATCH_PROPERTYPUT;
    params.rgdispidNamedArgs = &putId;
    params.cNamedArgs = 1;
  }

  VARIANT result;
  VariantInit(&result);
  UINT argErr = 0;
  const HRESULT hr = object->Invoke(member->dispid, IID_NULL, 0, flags, &params, &result, nullptr,
                                &argErr);

  JsonObject out;
  size_t stringIndex = 0;
  for (const typelib::Param& p : member->params) {
    if (p.dir == typelib::ParamDir::OutRetval) {
      if (result.vt == VT_BSTR)
        out.AddString(p.name, FromBstr(result.bstrVal));
      else if (result.vt == VT_I4)
        out.AddInteger(p.name, result.lVal);
      continue;
    }
    if (p.type != typelib::ParamType::String) continue;
    const Bstr& s = slots.strings[stringIndex++];
    if (p.dir != typelib::ParamDir::In) out.AddString(p.name, FromBstr(s.get()));
  }
  VariantClear(&result);

  JsonObject top;
  top.AddString("hr", HexStatus(hr));
  top.AddRaw("out", out.Str());
  std::printf("%s\n", top.Str().c_str());
  // Why, when the component says: stdout stays the one JSON object.
  if (hr != S_OK) {
    const std::string why = TakeErrorDescription();
    if (!why.empty()) std::fprintf(stderr, "qxgroup: %s\n", why.c_str());
  }
  return SUCCEEDED(hr) ? kExitOk : kExitFailed;
}

}  // namespace qx::cli
