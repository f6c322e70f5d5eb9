// QXPackageInfo over a container that extracts a manifest given by the test, reached through
// IDispatch by member name as a script reaches it.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "package/QXPackageInfo.h"
#include "platform/codepage.h"
#include "platform/com.h"
#include "support/TempDir.h"

namespace qx::test {

// What the fake package at a path holds: the manifest member's bytes under the name extraction
// writes (empty name: the member is missing), and what ExtractMember answers.
struct FakePackage {
  std::string storedName = "imsmanifest.xml";
  std::string bytes;
  int32_t result = 1;
  bool asFolder = false;  // the member is a folder: extraction makes one
};

inline std::map<std::string, FakePackage>& FakePackages() {
  static std::map<std::string, FakePackage> packages;
  return packages;
}
inline std::vector<std::string>& ExtractFolders() {
  static std::vector<std::string> folders;
  return folders;
}

class FakePackageContainer : public GroupContainer {
 public:
  FakePackageContainer(std::string path, ContainerFactory* f, FakePackage p)
      : GroupContainer(std::move(path), f), p_(std::move(p)) {}
  int32_t ExtractMember(const std::string& name, const std::string& dest) override {
    ExtractFolders().push_back(dest);
    if (name != "imsmanifest.xml" || p_.storedName.empty()) return 0;
    const std::string target = dest + p_.storedName;
    if (p_.asFolder) std::filesystem::create_directories(target + "/inner");
    else std::ofstream(target, std::ios::binary) << p_.bytes;
    return p_.result;
  }
  int32_t AddMembers(const StringList&, const std::string&, int32_t*, AddPromptFn, void*) override { return 0; }
  int32_t DeleteMembers(const StringList&) override { return 0; }
  int32_t CreateWithMembers(const StringList&, const std::string&) override { return 0; }
  int32_t ExtractAllMembers(const std::string&) override { return 0; }
  int32_t ContainsMember(const std::string&) override { return 0; }
  int32_t GetMemberName(int32_t, std::string&) override { return 0; }
  int32_t GetMemberCount() override { return 0; }
  int32_t ListMembers(StringList&) override { return 0; }
  int32_t WriteContentsXml(std::string&, int32_t, std::string) override { return 0; }
  int32_t IsValid() override { return 1; }

 private:
  FakePackage p_;
};

// Paths registered in FakePackages() open as fake packages; any other goes to the real factory.
class PackageInfoOverFakes : public QXPackageInfo {
 public:
  static IDispatch* New() {
    IDispatch* disp = nullptr;
    EXPECT_EQ(CreateAggregable<PackageInfoOverFakes>(nullptr, IID_IDispatch,
                                                     reinterpret_cast<void**>(&disp)),
              S_OK);
    return disp;
  }
  explicit PackageInfoOverFakes(IUnknown* outer) : QXPackageInfo(outer) {}
  std::unique_ptr<GroupContainer> CreateContainer(const std::string& path) override {
    const auto it = FakePackages().find(path);
    if (it == FakePackages().end()) return QXPackageInfo::CreateContainer(path);
    return std::make_unique<FakePackageContainer>(path, this, it->second);
  }
};

// A property read or a put through IDispatch by name: the status and, for reads, the value
// (a string as UTF-8, an integer in decimal).
struct DispatchResult {
  HRESULT hr;
  std::string value;
};

inline DISPID IdOf(IDispatch* disp, const std::string& name) {
  std::u16string wide(name.begin(), name.end());
  LPOLESTR names[] = {wide.data()};
  DISPID id = DISPID_UNKNOWN;
  EXPECT_EQ(disp->GetIDsOfNames(IID_NULL, names, 1, 0, &id), S_OK) << name;
  return id;
}

inline DispatchResult GetProperty(IDispatch* disp, const std::string& name) {
  DISPPARAMS none{nullptr, nullptr, 0, 0};
  VARIANT result;
  VariantInit(&result);
  DispatchResult out{disp->Invoke(IdOf(disp, name), IID_NULL, 0, DISPATCH_PROPERTYGET, &none,
                                  &result, nullptr, nullptr),
                     ""};
  if (result.vt == VT_BSTR && result.bstrVal != nullptr)
    out.value = codepage::WideToUtf8(std::u16string_view(result.bstrVal));
  if (result.vt == VT_I4) out.value = std::to_string(result.lVal);
  VariantClear(&result);
  return out;
}

inline HRESULT PutFilename(IDispatch* disp, const std::string& utf8Path) {
  Bstr path(codepage::Utf8ToWide(utf8Path));
  VARIANT arg;
  VariantInit(&arg);
  arg.vt = VT_BSTR;
  arg.bstrVal = path.get();
  DISPID put = DISPID_PROPERTYPUT;
  DISPPARAMS params{&arg, &put, 1, 1};
  return disp->Invoke(IdOf(disp, "Filename"), IID_NULL, 0, DISPATCH_PROPERTYPUT, &params, nullptr,
                      nullptr, nullptr);
}

// Points $TMPDIR at a fresh folder for one test, so leftovers in the component's private
// folder can be counted.
class ScopedTmpDir {
 public:
  ScopedTmpDir() {
    const char* old = ::getenv("TMPDIR");
    if (old != nullptr) old_ = old, hadOld_ = true;
    ::setenv("TMPDIR", dir_.path().c_str(), 1);
  }
  ~ScopedTmpDir() {
    if (hadOld_) ::setenv("TMPDIR", old_.c_str(), 1);
    else ::unsetenv("TMPDIR");
  }
  ScopedTmpDir(const ScopedTmpDir&) = delete;
  ScopedTmpDir& operator=(const ScopedTmpDir&) = delete;
  // The component's private folder under it.
  std::string Private() const { return dir_ / ("QXGrpMgr-" + std::to_string(::getuid())); }
  // Entries anywhere below the temporary folder but the private folder itself.
  int Leftovers() const {
    int n = 0;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir_.path()))
      if (e.path() != Private()) ++n;
    return n;
  }

 private:
  TempDir dir_;
  std::string old_;
  bool hadOld_ = false;
};

}  // namespace qx::test
