#include "platform/activation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <initializer_list>

#include "platform/codepage.h"
#include "platform/com.h"
#include "platform/registry.h"
#include "support/ScopedRegistry.h"

namespace qx {
namespace {

const CLSID kProbeClsid = *GuidFromString("{6F1D2C3B-0A49-4E57-8C66-1B2A3C4D5E6F}");
const CLSID kUnknownClsid = *GuidFromString("{00000000-1111-2222-3333-444444444444}");
// The shared module's FileManager class, which the test does not link.
const CLSID kFileManagerClsid = *GuidFromString("{41035C38-1441-4016-B34A-DBE6374ACCF2}");

// A built-in class that answers IUnknown only and counts its live instances.
struct Probe final : IUnknown {
  static inline std::atomic<int> live{0};
  static HRESULT Create(IUnknown* outer, REFIID riid, void** ppv) {
    if (outer != nullptr) return CLASS_E_NOAGGREGATION;
    *ppv = riid == IID_IUnknown ? new Probe : nullptr;
    return *ppv != nullptr ? S_OK : E_NOINTERFACE;
  }
  HRESULT QueryInterface(REFIID riid, void** ppv) override {
    *ppv = riid == IID_IUnknown ? this : nullptr;
    return *ppv != nullptr ? (AddRef(), S_OK) : E_NOINTERFACE;
  }
  ULONG AddRef() override { return ++refs; }
  ULONG Release() override { return --refs == 0 ? (delete this, 0) : refs; }
  Probe() { ++live; } ~Probe() { --live; }
  ULONG refs = 1;
};

class Activation : public ::testing::Test {
 protected:
  void SetUp() override { RegisterBuiltinClass(kProbeClsid, &Probe::Create, "QX.Probe"); }
  static void Register(const CLSID& clsid, const std::string& module) {
    ASSERT_EQ(registry::RegSetValue("CLSID\\" + GuidToString(clsid) + "\\InprocServer32", "", module), registry::kErrorSuccess);
  }
  test::ScopedRegistry registry_;
  const std::string dir_ = registry_.dir().path();
};

// Creates an object and lets it go; there must be one exactly when the call succeeds.
HRESULT Create(const CLSID& clsid, DWORD context = CLSCTX_INPROC_SERVER, const IID& iid = IID_IUnknown,
               IUnknown* outer = nullptr) {
  void* object = reinterpret_cast<void*>(1);
  const HRESULT hr = CoCreateInstance(clsid, outer, context, iid, &object);
  EXPECT_EQ(object != nullptr, hr == S_OK);
  if (object != nullptr) static_cast<IUnknown*>(object)->Release();
  return hr;
}

#define REQUIRE_MODULE()                                                        \
  if (!std::filesystem::exists(QX_MODULE_PATH)) GTEST_SKIP() << "build target qxgroupmgr first"

TEST_F(Activation, BuiltinClassesAndTheFailuresAroundThem) {
  int notAnObject = 0;  // an outer object is never called on these paths
  IUnknown* outer = reinterpret_cast<IUnknown*>(&notAnObject);
  const struct { const char* what; const CLSID* clsid; IUnknown* outer; DWORD context; const IID* iid; HRESULT expected; } rows[] = {
      {"built in", &kProbeClsid, nullptr, CLSCTX_INPROC_SERVER, &IID_IUnknown, S_OK},
      {"unknown class", &kUnknownClsid, nullptr, CLSCTX_ALL, &IID_IUnknown, REGDB_E_CLASSNOTREG},
      {"no in-process context", &kProbeClsid, nullptr, CLSCTX_LOCAL_SERVER, &IID_IUnknown, REGDB_E_CLASSNOTREG},
      {"interface it lacks", &kProbeClsid, nullptr, CLSCTX_ALL, &IID_IDispatch, E_NOINTERFACE},
      {"aggregation asking for more than IUnknown", &kProbeClsid, outer, CLSCTX_ALL, &IID_IDispatch, CLASS_E_NOAGGREGATION},
      {"class refusing aggregation", &kProbeClsid, outer, CLSCTX_ALL, &IID_IUnknown, CLASS_E_NOAGGREGATION},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(Create(*row.clsid, row.context, *row.iid, row.outer), row.expected);
    EXPECT_EQ(Probe::live.load(), 0);  // nothing leaks on any path
  }
  EXPECT_EQ(CoCreateInstance(kProbeClsid, nullptr, CLSCTX_ALL, IID_IUnknown, nullptr), E_POINTER);
}

TEST_F(Activation, RegisteredModulesReplaceTheBuiltinClassOrFail) {
  REQUIRE_MODULE();
  // A built-in stand-in that has no IDispatch; the real class in the module has.
  RegisterBuiltinClass(kFileManagerClsid, &Probe::Create);
  EXPECT_EQ(Create(kFileManagerClsid, CLSCTX_INPROC_SERVER, IID_IDispatch), E_NOINTERFACE);
  IDispatch* fm = nullptr;
  Register(kFileManagerClsid, QX_MODULE_PATH);
  ASSERT_EQ(CoCreateInstance(kFileManagerClsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, reinterpret_cast<void**>(&fm)), S_OK);
  LPOLESTR names[] = {const_cast<LPOLESTR>(u"ReadContents")};
  DISPID id = 0;
  EXPECT_EQ(fm->GetIDsOfNames(IID_NULL, names, 1, 0, &id), S_OK);
  EXPECT_EQ(fm->Release(), 0u);
  EXPECT_EQ(Probe::live.load(), 0);

  const std::string notAModule = dir_ + "/not-a-module.so";
  std::ofstream(notAModule) << "text";
  const struct { const char* what; std::string module; const CLSID* clsid; HRESULT expected; } rows[] = {
      {"not a shared object", notAModule, &kProbeClsid, QX_E_MOD_NOT_FOUND},
      {"library without DllGetClassObject", "libz.so.1", &kProbeClsid, CO_E_ERRORINDLL},
      {"module without the class", QX_MODULE_PATH, &kUnknownClsid, CLASS_E_CLASSNOTAVAILABLE},
      {"empty module path: the built-in serves", "", &kProbeClsid, S_OK},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Register(*row.clsid, row.module);
    EXPECT_EQ(Create(*row.clsid), row.expected);
    registry::RegDeleteTree("CLSID\\" + GuidToString(*row.clsid));
  }
  // A damaged store holds no registration: built-in classes still work.
  std::ofstream(dir_ + "/registry.reg") << "not a registry file\n";
  EXPECT_EQ(Create(kProbeClsid), S_OK);
}

TEST_F(Activation, ProgIdsFromTheRegistryThenTheBuiltins) {
  ASSERT_EQ(registry::RegCreateKey("QX.NoClsid"), registry::kErrorSuccess);
  for (const auto& [key, value] : std::initializer_list<std::pair<const char*, const char*>>{
           {"QX.Named.1\\CLSID", "{41035c38-1441-4016-b34a-dbe6374accf2}"}, {"QX.Broken\\CLSID", "41035C38-1441"},
           {"QX.Named\\CurVer", "QX.Named.1"}, {"QX.LoopA\\CurVer", "QX.LoopB"}, {"QX.LoopB\\CurVer", "QX.LoopA"}})
    ASSERT_EQ(registry::RegSetValue(key, "", value), registry::kErrorSuccess);
  const HRESULT bad = CO_E_CLASSSTRING;
  const struct { const char16_t* progId; HRESULT expected; const CLSID* clsid; } rows[] = {
      {u"QX.Named.1", S_OK, &kFileManagerClsid}, {u"qx.named.1", S_OK, &kFileManagerClsid},
      {u"QX.Named", S_OK, &kFileManagerClsid}, {u"QX.Probe", S_OK, &kProbeClsid}, {u"QX.LoopA", bad, nullptr},
      {u"QX.Broken", bad, nullptr}, {u"QX.NoClsid", bad, nullptr}, {u"QX.Absent", bad, nullptr},
      {u"QX.Named.1\\CLSID", bad, nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(codepage::WideToAnsi(row.progId));
    CLSID clsid{};
    EXPECT_EQ(CLSIDFromProgID(row.progId, &clsid), row.expected);
    if (row.clsid != nullptr) { EXPECT_EQ(clsid, *row.clsid); }
  }
  CLSID clsid{};
  EXPECT_EQ(CLSIDFromProgID(nullptr, &clsid), E_INVALIDARG);
  EXPECT_EQ(CLSIDFromProgID(u"QX.Probe", nullptr), E_INVALIDARG);
}

}  // namespace
}  // namespace qx
