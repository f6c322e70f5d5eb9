// A fake container that records what the frame asks and answers from a script.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "containers/ContainerFactory.h"
#include "frame/FileManager.h"
#include "platform/codepage.h"
#include "platform/shell.h"
#include "platform/ui.h"

namespace qx::test {

struct Script {
  bool makeContainer = true;  // CreateContainer gives a container at all
  int32_t result = 1;         // every operation's result
  std::string failOnly;       // when set: only the operation of that name fails, with 0
  StringList members;         // ListMembers' answer
  std::string xml = "<x/>";   // WriteContentsXml's answer
  std::vector<std::pair<std::string, PromptReason>> prompts;  // AddMembers asks each in turn
  std::vector<PromptResult> answers;
  std::vector<std::string> calls;  // "Op(arg|arg)" in call order
  std::vector<ContainerKind> createdKinds;  // ConstructForCreate's kinds
  int live = 0;                             // containers not yet destroyed
  std::string Calls() const { return Join(calls, " "); }
  static std::string Join(const StringList& list, const char* separator = ",") {
    std::string text;
    for (const std::string& item : list) text += (text.empty() ? "" : separator) + item;
    return text;
  }
};

struct FakeContainer : GroupContainer {
  FakeContainer(std::string path, ContainerFactory* factory, Script& script)
      : GroupContainer(std::move(path), factory), s_(script) { ++s_.live; }
  ~FakeContainer() override { --s_.live; }

  int32_t AddMembers(const StringList& files, const std::string& dest, int32_t* state,
                     AddPromptFn prompt, void* context) override {
    s_.calls.push_back("AddMembers([" + Script::Join(files) + "]|" + dest + ")");
    if (state == nullptr || *state != 0) return 0;
    for (const auto& [file, reason] : s_.prompts)
      s_.answers.push_back(prompt != nullptr ? prompt(file, reason, this, context) : PromptReplace);
    return s_.result;
  }
  int32_t DeleteMembers(const StringList& names) override { return Record("DeleteMembers([" + Script::Join(names) + "])"); }
  int32_t ExtractMember(const std::string& name, const std::string& dest) override { return Record("ExtractMember(" + name + "|" + dest + ")"); }
  int32_t CreateWithMembers(const StringList& files, const std::string& dest) override { return Record("CreateWithMembers([" + Script::Join(files) + "]|" + dest + ")"); }
  int32_t ExtractAllMembers(const std::string& dest) override { return Record("ExtractAllMembers(" + dest + ")"); }
  int32_t ContainsMember(const std::string& name) override { return Record("ContainsMember(" + name + ")"); }
  int32_t GetMemberName(int32_t, std::string&) override { return Record("GetMemberName()"); }
  int32_t GetMemberCount() override { return static_cast<int32_t>(s_.members.size()); }
  int32_t ListMembers(StringList& names) override {
    return names.insert(names.end(), s_.members.begin(), s_.members.end()), Record("ListMembers()");
  }
  int32_t WriteContentsXml(std::string& xml, int32_t meta, std::string pattern) override {
    return xml = s_.xml, Record("WriteContentsXml(" + std::to_string(meta) + "|" + pattern + ")");
  }
  int32_t IsValid() override { return 1; }
  int32_t Record(std::string call) {
    const bool fails = !s_.failOnly.empty() && call.starts_with(s_.failOnly);
    return s_.calls.push_back(std::move(call)), s_.failOnly.empty() ? s_.result : !fails;
  }
  Script& s_;
};

struct ScriptedFileManager : FileManager {
  explicit ScriptedFileManager(Script& script) : FileManager(nullptr), s_(script) {}
  std::unique_ptr<GroupContainer> CreateContainer(const std::string& path) override {
    return s_.makeContainer ? std::make_unique<FakeContainer>(path, this, s_) : nullptr;
  }
  std::unique_ptr<GroupContainer> ConstructForCreate(ContainerKind kind, const std::string& path) override {
    return s_.createdKinds.push_back(kind), CreateContainer(path);
  }
  Script& s_;
};

struct ShellRecorder {  // collects shell notifications while it lives
  using Event = std::tuple<LONG, UINT, std::string, bool>;  // id, flags, first item, second present
  std::vector<Event> events;
  shell::ObserverToken token = shell::AddObserver(
      [this](const shell::ChangeEvent& e) { events.emplace_back(e.eventId, e.flags, e.item1, e.item2Present); });
  ShellRecorder() = default;
  ShellRecorder(const ShellRecorder&) = delete;
  ~ShellRecorder() { shell::RemoveObserver(token); }
  std::vector<Event> Take() { return std::exchange(events, {}); }
};

struct ScriptedTest : ::testing::Test {  // holds one reference to a scripted object
  Script script;
  ScriptedFileManager* fm = new ScriptedFileManager(script);
  ScriptedTest() { fm->AddRef(); }
  ~ScriptedTest() override { fm->Release(); }
};

// A window whose host gives every question one answer, bound as fm's owner while it lives.
struct OwnerWindow {
  IGroupManager2* fm;
  std::shared_ptr<ui::FixedAnswerHost> host;
  HWND hwnd = ui::BindOwnerWindow(host);
  OwnerWindow(IGroupManager2* object, int answer) : fm(object), host(std::make_shared<ui::FixedAnswerHost>(answer)) {
    EXPECT_EQ(fm->put_ShowUI(hwnd), S_OK);
  }
  OwnerWindow(const OwnerWindow&) = delete;
  ~OwnerWindow() { fm->put_ShowUI(nullptr), ui::ReleaseOwnerWindow(hwnd); }
};

// Calls a member by name with the arguments in their natural order (reversed here, as callers must).
inline HRESULT InvokeByName(IDispatch* d, const char16_t* name, std::vector<VARIANT> args, VARIANT* result,
                            WORD flags = DISPATCH_METHOD, UINT* argErr = nullptr) {
  DISPID id = 0;
  LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
  if (const HRESULT hr = d->GetIDsOfNames(IID_NULL, names, 1, 0, &id); FAILED(hr)) return hr;
  std::vector<VARIANT> reversed(args.rbegin(), args.rend());
  DISPPARAMS params{reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
  return d->Invoke(id, IID_NULL, 0, flags, &params, result, nullptr, argErr);
}

// Calls a member by name through IDispatch with string arguments, as a script does: kOut stands
// for an [out] string, kNull for a null string. `out` receives the [out] or returned string.
inline const std::string kOut = "<out>", kNull = "<null>";
inline HRESULT CallByName(IDispatch* d, const char16_t* name, const std::vector<std::string>& args,
                          std::string* out = nullptr) {
  std::vector<Bstr> strings(args.size());
  std::vector<VARIANT> variants(args.size(), VARIANT{});
  for (size_t i = 0; i < args.size(); ++i) {
    const bool isOut = args[i] == kOut;
    variants[i].vt = static_cast<VARTYPE>(isOut ? VT_BYREF | VT_BSTR : VT_BSTR);
    if (!isOut && args[i] != kNull) strings[i] = Bstr(codepage::Utf8ToWide(args[i]));
    isOut ? void(variants[i].pbstrVal = strings[i].address()) : void(variants[i].bstrVal = strings[i].get());
  }
  VARIANT result{};
  const HRESULT hr = InvokeByName(d, name, variants, &result, DISPATCH_METHOD | DISPATCH_PROPERTYGET);
  if (out != nullptr) *out = result.vt == VT_BSTR ? codepage::WideToUtf8(result.bstrVal) : "";
  for (size_t i = 0; out != nullptr && i < args.size(); ++i)
    if (args[i] == kOut) *out = codepage::WideToUtf8(strings[i].view());
  VariantClear(&result);
  return hr;
}

}  // namespace qx::test
