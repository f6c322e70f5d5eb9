// Memory running out at every allocation of a call in turn, through the frame with the real
// containers: the call fails and says so, leaves the group file as it was and frees what it
// took; once no allocation fails, the call does what it would have done anyway.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>

#include "frame/FileManager.h"
#include "platform/Diagnostic.h"
#include "platform/codepage.h"
#include "support/ScopedRegistry.h"

// A counting operator new: while armed, allocation number `g_failAt` (from 0) throws, and every
// block taken while armed is counted until it is freed. Blocks carry a 16-byte header saying so.
namespace {
std::atomic<bool> g_armed{false}, g_fired{false};
std::atomic<long> g_failAt{-1}, g_seen{0}, g_live{0};
constexpr size_t kHeader = 16;

void* Allocate(size_t n, bool mayThrow) {
  const bool counted = g_armed.load();
  if (counted && g_seen++ == g_failAt.load()) {
    g_fired = true;
    if (mayThrow) throw std::bad_alloc();
    return nullptr;
  }
  auto* p = static_cast<unsigned char*>(std::malloc(n + kHeader));
  if (p == nullptr) {
    if (mayThrow) throw std::bad_alloc();
    return nullptr;
  }
  p[0] = counted ? 1 : 0;
  if (counted) ++g_live;
  return p + kHeader;
}
void Free(void* q) {
  if (q == nullptr) return;
  auto* p = static_cast<unsigned char*>(q) - kHeader;
  if (p[0] == 1) --g_live;
  std::free(p);
}
}  // namespace

void* operator new(size_t n) { return Allocate(n, true); }
void* operator new[](size_t n) { return Allocate(n, true); }
void* operator new(size_t n, const std::nothrow_t&) noexcept { return Allocate(n, false); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return Allocate(n, false); }
void operator delete(void* p) noexcept { Free(p); }
void operator delete[](void* p) noexcept { Free(p); }
void operator delete(void* p, size_t) noexcept { Free(p); }
void operator delete[](void* p, size_t) noexcept { Free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { Free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { Free(p); }

namespace qx::test {
namespace {

namespace stdfs = std::filesystem;
const std::string kSamples = QX_TEST_DATA_DIR "/../../samples/";

Bstr B(const std::string& utf8) { return Bstr(codepage::Utf8ToWide(utf8)); }

// A call with its arguments made before memory starts to fail: the group and a second string
// (a file to add, a member to delete; empty for a listing).
// group: a sample, copied fresh for every run; kind: "list", "xml", "add" or "delete"
struct Operation { const char* name; const char* group; const char* kind; std::string argument; };

HRESULT Call(IGroupManager2* fm, const Operation& op, const Bstr& group, const Bstr& argument,
             Bstr& names) {
  if (std::string(op.kind) == "list") return fm->ReadContents(group.get(), names.receive());
  if (std::string(op.kind) == "xml")
    return fm->ReadContentsXml(group.get(), 0, argument.get(), names.receive());
  if (std::string(op.kind) == "add") return fm->AddFiles(group.get(), argument.get(), nullptr);
  return fm->DeleteFiles(group.get(), argument.get());
}

struct Outcome { HRESULT hr = E_FAIL; std::string out, group, why; long live = 0; bool fired = false; };

Outcome RunOnce(const Operation& op, const std::string& dir, long failAt) {
  stdfs::remove_all(dir);
  stdfs::create_directories(dir);
  const std::string group = dir + "/" + op.group;
  stdfs::copy_file(kSamples + op.group, group);
  Outcome o;
  o.why.reserve(4096);
  const Bstr groupArg = B(group), argument = B(op.argument);
  Bstr names;
  // The object comes from the class factory, which answers E_OUTOFMEMORY itself; the calls are
  // what is measured, and what the object keeps from them is freed by Release.
  IGroupManager2* fm = nullptr;
  if (FileManager::CreateInstance(nullptr, IID_IGroupManager2, reinterpret_cast<void**>(&fm)) != S_OK)
    return o;
  g_seen = 0;
  g_live = 0;
  g_fired = false;
  g_failAt = failAt;
  g_armed = true;
  o.hr = Call(fm, op, groupArg, argument, names);
  if (const diag::Diagnostic* d = diag::Current()) o.why = d->code;
  diag::Clear();
  SetErrorInfo(0, nullptr);
  g_armed = false;
  fm->Release();
  o.live = g_live;
  o.out = codepage::WideToUtf8(names.view());
  o.fired = g_fired;
  o.group = test::ReadFileBytes(group);
  return o;
}

TEST(AllocationFailure, EveryAllocationFailsOnceInTurn) {
  ScopedRegistry registry;
  const std::string dir = registry.dir() / "run";
  const Operation ops[] = {
      {"list MA group", "school.mag", "list", ""},
      {"list KDX group", "math.kdg", "list", ""},
      {"contents XML of MA group", "school.mag", "xml", ""},
      {"add to MA group", "school.mag", "add", kSamples + "area.rap"},
      {"delete from MA group", "school.mag", "delete", "main.PROG1.map"},
      {"delete from KDX group", "math.kdg", "delete", "A.kdn"},
  };
  for (const Operation& op : ops) {
    SCOPED_TRACE(op.name);
    const std::string original = test::ReadFileBytes(kSamples + op.group);
    const Outcome whole = RunOnce(op, dir, -1);
    ASSERT_EQ(whole.hr, S_OK) << whole.why;
    long n = 0;
    for (;; ++n) {
      SCOPED_TRACE("allocation " + std::to_string(n));
      const Outcome o = RunOnce(op, dir, n);
      EXPECT_LE(o.live, whole.live) << "blocks left behind";
      if (!o.fired) {
        EXPECT_EQ(o.hr, S_OK);
        EXPECT_EQ(o.group, whole.group);
        break;
      }
      if (o.hr == S_OK) {  // the failure was absorbed: nothing may show
        EXPECT_EQ(o.out, whole.out);
        EXPECT_EQ(o.group, whole.group);
        continue;
      }
      EXPECT_FALSE(o.why.empty()) << "no reason recorded for " << std::hex << o.hr;
      EXPECT_EQ(o.group, original) << "the group changed although the call failed";
      if (::testing::Test::HasFailure()) break;  // one faulty allocation is enough to show
    }
    EXPECT_GT(n, 10);
  }
}

}  // namespace
}  // namespace qx::test
