// `qxgroup call MEMBER [ARG...]`: any FileManager member by its type-library name, through
// IDispatch, with the result as one JSON object on stdout.
#include "qxgroup/CallCommand.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "frame/TypeLibrary.h"
#include "platform/ui.h"
#include "qxgroup/Automation.h"
#include "qxgroup/Json.h"

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

}  // namespace

std::string DescribeMembers() {
  std::string text = "Members (names are not case-sensitive):\n";
  const typelib::Interface* itf = typelib::FindInterface(IID_IGroupManager2);
  for (const typelib::Member* m : typelib::AllMembers(*itf)) {
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

int RunCall(const std::string& uiMode, const std::string& memberName,
            const std::vector<std::string>& args) {
  const typelib::Interface* itf = typelib::FindInterface(IID_IGroupManager2);
  const typelib::Member* member = typelib::FindMember(*itf, memberName);
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

  FileManagerSession fm;
  if (fm.get() == nullptr) throw Failure{fm.Error()};

  std::shared_ptr<ui::Host> host;
  if (uiMode != "none") {
    host = HostFor(uiMode);
    if (!host) throw UsageError{"--ui takes none, tty, replace, all, skip or cancel"};
  }
  OwnerWindow owner(fm.get(), std::move(host));

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
  const HRESULT hr = fm->Invoke(member->dispid, IID_NULL, 0, flags, &params, &result, nullptr,
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
