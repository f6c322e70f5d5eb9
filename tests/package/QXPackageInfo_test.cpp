// QXPackageInfo reached through IDispatch by member name, as a script reaches it, mostly over
// containers that extract a manifest the test gives.
#include "package/QXPackageInfo.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>

#include <gtest/gtest.h>

#include "frame/Module.h"
#include "platform/codepage.h"
#include "platform/com.h"
#include "support/TempDir.h"

namespace qx::test {
namespace {

// What the fake package at a path holds: the manifest member's bytes under the name extraction
// writes (empty name: the member is missing), what ExtractMember answers, whether it is a folder.
struct FakePackage { std::string storedName = "imsmanifest.xml", bytes; int32_t result = 1;
    bool asFolder = false; };
std::map<std::string, FakePackage> fakes;
std::vector<std::string> extractFolders;

class FakeContainer : public GroupContainer {
 public:
  FakeContainer(std::string path, ContainerFactory* f, FakePackage p) : GroupContainer(std::move(path), f), p_(std::move(p)) {}
  int32_t ExtractMember(const std::string& name, const std::string& dest) override {
    extractFolders.push_back(dest);
    if (name != "imsmanifest.xml" || p_.storedName.empty()) return 0;
    if (p_.asFolder) std::filesystem::create_directories(dest + p_.storedName + "/inner");
    else std::ofstream(dest + p_.storedName, std::ios::binary) << p_.bytes;
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

// Paths in `fakes` open as fake packages; any other goes to the real factory.
class OverFakes : public QXPackageInfo {
 public:
  explicit OverFakes(IUnknown* outer) : QXPackageInfo(outer) {}
  std::unique_ptr<GroupContainer> CreateContainer(const std::string& path) override {
    const auto it = fakes.find(path);
    if (it == fakes.end()) return QXPackageInfo::CreateContainer(path);
    return std::make_unique<FakeContainer>(path, this, it->second);
  }
  static IDispatch* New() {
    IDispatch* disp = nullptr;
    EXPECT_EQ(CreateAggregable<OverFakes>(nullptr, IID_IDispatch, reinterpret_cast<void**>(&disp)), S_OK);
    return disp;
  }
};

DISPID IdOf(IDispatch* disp, const std::string& name) {
  std::u16string wide(name.begin(), name.end());
  LPOLESTR names[] = {wide.data()};
  DISPID id = DISPID_UNKNOWN;
  EXPECT_EQ(disp->GetIDsOfNames(IID_NULL, names, 1, 0, &id), S_OK) << name;
  return id;
}

// A property read through IDispatch by name: the status and the value (a string as UTF-8, an
// integer in decimal).
struct DispatchResult { HRESULT hr; std::string value; };

DispatchResult GetProperty(IDispatch* disp, const std::string& name) {
  DISPPARAMS none{nullptr, nullptr, 0, 0};
  VARIANT result;
  VariantInit(&result);
  DispatchResult out{disp->Invoke(IdOf(disp, name), IID_NULL, 0, DISPATCH_PROPERTYGET, &none, &result, nullptr, nullptr), ""};
  if (result.vt == VT_BSTR && result.bstrVal != nullptr) out.value = codepage::WideToUtf8(std::u16string_view(result.bstrVal));
  if (result.vt == VT_I4) out.value = std::to_string(result.lVal);
  VariantClear(&result);
  return out;
}

HRESULT PutFilename(IDispatch* disp, const std::string& utf8Path) {
  Bstr path(codepage::Utf8ToWide(utf8Path));
  VARIANT arg;
  VariantInit(&arg);
  arg.vt = VT_BSTR;
  arg.bstrVal = path.get();
  DISPID put = DISPID_PROPERTYPUT;
  DISPPARAMS params{&arg, &put, 1, 1};
  return disp->Invoke(IdOf(disp, "Filename"), IID_NULL, 0, DISPATCH_PROPERTYPUT, &params, nullptr, nullptr, nullptr);
}

constexpr const char* kProperties[] = {"Type", "Title", "GradeLevel", "TeachingTime", "Abstract", "Objectives",
                                       "LearningTool", "Connectivity", "SupportingHardware", "HandHeldApps",
                                       "ComputerApps"};

// The last five, the requirements, answer S_FALSE when nothing is found; the others S_OK.
bool IsRequirement(std::string_view name) { return std::find(kProperties + 6, std::end(kProperties), name) != std::end(kProperties); }

std::string Requirement(const std::string& label, const std::string& name) {
  return "<imsmd:requirement><imsmd:type><imsmd:value><imsmd:langstring>" + label + "</imsmd:langstring></imsmd:value>"
         "</imsmd:type><imsmd:name><imsmd:value><imsmd:langstring>" + name + "</imsmd:langstring></imsmd:value></imsmd:name></imsmd:requirement>";
}

// A manifest whose metadata is `lom` (inside imsmd:lom).
std::string Manifest(const std::string& lom, const std::string& declaration =
                                                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>") {
  return declaration + "\n<manifest identifier=\"M\" xmlns:imsmd=\"http://www.imsglobal.org/xsd/imsmd_v1p2\">"
         "<metadata><imsmd:lom>" + lom + "</imsmd:lom></metadata><organizations/></manifest>\n";
}

const std::string kFull = Manifest(
    "<imsmd:general>"
    "<imsmd:title><imsmd:langstring xml:lang=\"en\">Area &#60;r&#62; &amp;#60;</imsmd:langstring></imsmd:title>"
    "<imsmd:description><imsmd:langstring>Circles and their areas.</imsmd:langstring></imsmd:description>"
    "<imsmd:structure><imsmd:source><imsmd:langstring>LOMv1.0</imsmd:langstring></imsmd:source>"
    "<imsmd:value><imsmd:langstring>Lesson</imsmd:langstring></imsmd:value></imsmd:structure>"
    "</imsmd:general>"
    "<imsmd:educational><imsmd:context><imsmd:value><imsmd:langstring>Grade 7</imsmd:langstring>"
    "</imsmd:value></imsmd:context><imsmd:typicallearningtime><imsmd:datetime>PT45M</imsmd:datetime>"
    "</imsmd:typicallearningtime></imsmd:educational>"
    "<imsmd:technical>" +
    Requirement("Learning Tools", "QX-84 Plus") + Requirement("Connectivity", "USB cable") +
    Requirement("Supporting Hardware Items", "Probe") +
    Requirement("Handheld Applications", "Cabri") + Requirement("Computer Applications", "Link") +
    "</imsmd:technical>"
    "<imsmd:classification><imsmd:purpose><imsmd:value><imsmd:langstring>Use pi</imsmd:langstring>"
    "</imsmd:value></imsmd:purpose></imsmd:classification>");


// Each test runs with $TMPDIR at a fresh folder, so leftovers beside the component's private
// folder inside it can be counted.
class PackageInfoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* old = ::getenv("TMPDIR")) oldTmp_ = old;
    ::setenv("TMPDIR", tmp_.path().c_str(), 1);
  }
  void TearDown() override {
    fakes.clear();
    extractFolders.clear();
    for (const auto& e : std::filesystem::recursive_directory_iterator(tmp_.path()))
      EXPECT_EQ(e.path(), Private()) << "the call left files in the temporary folder";
    oldTmp_.empty() ? ::unsetenv("TMPDIR") : ::setenv("TMPDIR", oldTmp_.c_str(), 1);
  }
  std::string Private() const { return tmp_ / ("QXGrpMgr-" + std::to_string(::getuid())); }
  // A fresh object with the fake package `p` set as its Filename.
  IDispatch* Open(const FakePackage& p) {
    fakes["pkg.qxp"] = p;
    IDispatch* disp = OverFakes::New();
    EXPECT_EQ(PutFilename(disp, "pkg.qxp"), S_OK);
    return disp;
  }
  TempDir tmp_;
  std::string oldTmp_;
};

// Each row reads one property from a fresh object; the full manifest's rows come first.
TEST_F(PackageInfoTest, PropertiesOfManifests) {
  const std::string title = "<imsmd:title><imsmd:langstring>", end = "</imsmd:langstring></imsmd:title>";
  const struct { const char* what; std::string manifest; const char* property; HRESULT hr;
      std::string value; } rows[] = {
      {"full", kFull, "Filename", S_OK, "pkg.qxp"}, {"full", kFull, "Type", S_OK, "Lesson"},
      {"full", kFull, "Title", S_OK, "Area <r> <"}, {"full", kFull, "GradeLevel", S_OK, "Grade 7"},
      {"full", kFull, "TeachingTime", S_OK, "PT45M"}, {"full", kFull, "Abstract", S_OK, "Circles and their areas."},
      {"full", kFull, "Objectives", S_OK, "Use pi"}, {"full", kFull, "LearningTool", S_OK, "QX-84 Plus"},
      {"full", kFull, "Connectivity", S_OK, "USB cable"}, {"full", kFull, "SupportingHardware", S_OK, "Probe"},
      {"full", kFull, "HandHeldApps", S_OK, "Cabri"}, {"full", kFull, "ComputerApps", S_OK, "Link"},
      {"full", kFull, "IsQXP", S_OK, "1"},
      {"shallower title wins", Manifest("<imsmd:a><imsmd:b>" + title + "deep" + end +
                                        "</imsmd:b></imsmd:a><imsmd:c>" + title + "shallow" + end +
                                        "</imsmd:c>"), "Title", S_OK, "shallow"},
      {"equal depth: first wins", Manifest("<x>" + title + "one" + end + "</x><y>" + title + "two" +
                                           end + "</y>"), "Title", S_OK, "one"},
      {"title without langstring", Manifest("<imsmd:title>bare</imsmd:title>"), "Title", S_OK, ""},
      {"no teaching time outside lom", "<r><imsmd:educational><imsmd:typicallearningtime>"
       "<imsmd:datetime>PT1H</imsmd:datetime></imsmd:typicallearningtime></imsmd:educational></r>",
       "TeachingTime", S_OK, ""},
      {"\"A Learning Tool\" is no match",
       Manifest("<imsmd:technical>" + Requirement("A Learning Tool", "X") + "</imsmd:technical>"),
       "LearningTool", S_FALSE, ""},
      {"label without a name", Manifest("<imsmd:technical><imsmd:requirement><imsmd:type>"
       "<imsmd:value><imsmd:langstring>Connectivity</imsmd:langstring></imsmd:value></imsmd:type>"
       "</imsmd:requirement></imsmd:technical>"), "Connectivity", S_FALSE, ""},
      {"label too shallow for three parents", "<imsmd:technical><imsmd:langstring>Connectivity"
       "</imsmd:langstring></imsmd:technical>", "Connectivity", S_FALSE, ""},
      {"no technical section", Manifest(Requirement("Connectivity", "USB")), "Connectivity", S_FALSE, ""},
      {"UTF-8 bytes read as 1252", Manifest(title + "\xC3\x84rea" + end), "Title", S_OK, "\xC3\x83\xE2\x80\x9E" "rea"},
      {"declared windows-1252", Manifest(title + "\xC4rea" + end,
       "<?xml version=\"1.0\" encoding=\"windows-1252\"?>"), "Title", S_OK, "\xC3\x84rea"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.what) + ", " + row.property);
    IDispatch* p = Open({.bytes = row.manifest});
    const DispatchResult got = GetProperty(p, row.property);
    EXPECT_EQ(got.hr, row.hr);
    EXPECT_EQ(got.value, row.value);
    EXPECT_EQ(p->Release(), 0u);
  }
}

TEST_F(PackageInfoTest, FilenameOutcomesAndWhatStays) {
  const auto titled = [](const char* title) { return Manifest("<imsmd:title><imsmd:langstring>" + std::string(title) + "</imsmd:langstring></imsmd:title>"); };
  fakes = {{"a.qxp", {.bytes = kFull}}, {"upper.qxp", {"IMSMANIFEST.XML", titled("Upper")}}, {"plain.qxg", {"", ""}},
           {"broken.qxp", {.bytes = "<manifest><!-- never closed"}}, {"folder.qxp", {"imsmanifest.xml", "", 1, true}},
           {"failing.qxp", {"imsmanifest.xml", titled("Half"), 0, false}}};
  // A manifest planted in the shared folder itself is never taken for the package's.
  std::filesystem::create_directories(Private());
  ::chmod(Private().c_str(), 0700);
  const std::string planted = Private() + "/imsmanifest.xml";
  std::ofstream(planted) << titled("Planted");

  // Each step on one object, in order: the put's status, then IsQXP and Title after it.
  const struct { const char* path; HRESULT hr; const char* isQxp; const char* title; } steps[] = {
      {"/nonexistent/x.qxp", E_FAIL, "0", ""},   {"plain.qxg", S_FALSE, "0", ""},
      {"upper.qxp", S_OK, "1", "Upper"},         {"a.qxp", S_OK, "1", "Area <r> <"},
      {"plain.qxg", S_FALSE, "1", "Area <r> <"}, {"broken.qxp", S_OK, "1", "Area <r> <"},
      {"folder.qxp", S_OK, "1", "Area <r> <"},   {"failing.qxp", S_FALSE, "1", "Half"},
      {"/nonexistent/y.qxp", E_FAIL, "1", "Half"},
  };
  IDispatch* p = OverFakes::New();
  for (const auto& step : steps) {
    SCOPED_TRACE(step.path);
    EXPECT_EQ(PutFilename(p, step.path), step.hr);
    EXPECT_EQ(GetProperty(p, "Filename").value, step.path);
    EXPECT_EQ(GetProperty(p, "IsQXP").value, step.isQxp);
    EXPECT_EQ(GetProperty(p, "Title").value, step.title);
  }
  p->Release();
  // Every extraction went to a fresh folder of its own inside the private one.
  ASSERT_EQ(extractFolders.size(), 7u);
  for (size_t i = 0; i < extractFolders.size(); ++i) {
    EXPECT_EQ(extractFolders[i].rfind(Private() + "/", 0), 0u) << extractFolders[i];
    for (size_t j = 0; j < i; ++j) EXPECT_NE(extractFolders[i], extractFolders[j]);
  }
  EXPECT_TRUE(std::filesystem::remove(planted));
}

// Through the class object, as a client creates it: a fresh object, then files that are no packages.
TEST_F(PackageInfoTest, FreshObjectAndRealFilesThatAreNoPackages) {
  const TempDir dir;
  const std::string folder = dir / "folder.qxp", fifo = dir / "fifo.qxp";
  std::filesystem::create_directory(folder);
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  IClassFactory* cf = nullptr;
  ASSERT_EQ(module::GetClassObject(CLSID_QXPackageInfo, IID_IClassFactory, reinterpret_cast<void**>(&cf)), S_OK);
  IDispatch* p = nullptr;
  ASSERT_EQ(cf->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(&p)), S_OK);
  cf->Release();
  EXPECT_EQ(GetProperty(p, "IsQXP").value, "0");
  for (const char* name : kProperties) {
    SCOPED_TRACE(name);
    const DispatchResult got = GetProperty(p, name);
    EXPECT_EQ(got.hr, IsRequirement(name) ? S_FALSE : S_OK);
    EXPECT_EQ(got.value, "");
  }
  const std::pair<std::string, HRESULT> files[] = {
      {dir / "missing.qxp", E_FAIL}, {folder, E_FAIL}, {fifo, E_FAIL},
      {QX_TEST_DATA_DIR "/../../samples/notes.txt", E_FAIL},
      {QX_TEST_DATA_DIR "/../../samples/school.mag", S_FALSE},
      {QX_TEST_DATA_DIR "/../../samples/math.kdg", S_FALSE},
  };
  for (const auto& [path, hr] : files) {
    SCOPED_TRACE(path);
    EXPECT_EQ(PutFilename(p, path), hr);
    EXPECT_EQ(GetProperty(p, "IsQXP").value, "0");
  }
  EXPECT_EQ(p->Release(), 0u);
}

TEST_F(PackageInfoTest, ObjectSafety) {
  IDispatch* disp = OverFakes::New();
  IObjectSafety* safety = nullptr;
  ASSERT_EQ(disp->QueryInterface(IID_IObjectSafety, reinterpret_cast<void**>(&safety)), S_OK);
  DWORD supported = 9, enabled = 9;
  EXPECT_EQ(safety->GetInterfaceSafetyOptions(IID_IDispatch, nullptr, &enabled), E_POINTER);
  EXPECT_EQ(safety->GetInterfaceSafetyOptions(IID_IClassFactory, &supported, &enabled), E_NOINTERFACE);
  EXPECT_EQ(supported + enabled, 0u);
  // In order on one object: what a set answers, and the options enabled after it.
  const struct { const IID* iid; DWORD mask, options; HRESULT hr; DWORD enabledAfter; } rows[] = {
      {&IID_IDispatch, 1, 1, S_OK, 1}, {&IID_IQXPackageInfo, 2, 2, E_FAIL, 1}, {&IID_IClassFactory, 1, 0, E_NOINTERFACE, 1},
      {&IID_IObjectSafety, 1, 0, S_OK, 0}, {&IID_IUnknown, 1, 3, S_OK, 1}, {&IID_IDispatch, 0, 1, S_OK, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(GuidToString(*row.iid) + " mask " + std::to_string(row.mask));
    EXPECT_EQ(safety->SetInterfaceSafetyOptions(*row.iid, row.mask, row.options), row.hr);
    ASSERT_EQ(safety->GetInterfaceSafetyOptions(IID_IQXPackageInfo, &supported, &enabled), S_OK);
    EXPECT_EQ(supported, DWORD{INTERFACESAFE_FOR_UNTRUSTED_CALLER});
    EXPECT_EQ(enabled, row.enabledAfter);
  }
  safety->Release();
  EXPECT_EQ(disp->Release(), 0u);
}

// Manifests nobody here wrote. Expected values come from reading the files by hand (and with a
// DOM outside this code base): only answers that are not empty are listed.
TEST_F(PackageInfoTest, RealManifestsFromTheCorpus) {
  const std::string dir = QX_CORPUS_DIR "/ims/";
  if (!std::filesystem::exists(dir)) GTEST_SKIP() << "no corpus beside the repository";
  const std::pair<const char*, std::map<std::string, std::string>> rows[] = {
      {"jcputney_MalformedXml_SCORM12_imsmanifest.xml", {}}, {"jcputney_WithMetadata_SCORM12_imsmanifest.xml", {}},
      {"jcputney_WithMetadata_SCORM12_metadata.xml", {}}, {"pyslet_package_3_imsmanifest.xml", {}},
      {"pyslet_imscc11_sample1_imsmanifest.xml", {}},  // lomimscc: prefix, not imsmd:
      {"pyslet_yingguo_imsmanifest.xml", {}}, {"reload_interink_imsmanifest.xml", {}},
      {"pyslet_qtiv1_outputv2_imsmanifest.xml", {{"Title", "Numeric slider"}, {"GradeLevel", "training"}, {"Abstract", "Empty Item"}}},
      {"qtiworks_reading_imsmanifest.xml", {{"Title", "Projectile Trajectory"}, {"GradeLevel", "Higher Education"},
                                            {"Abstract", "(c) 2003 - 2010, The University of Edinburgh"}}},
  };
  for (const auto& [file, answers] : rows) {
    IDispatch* p = Open({.bytes = ReadFileBytes(dir + file)});
    for (const char* name : kProperties) {
      SCOPED_TRACE(std::string(file) + ", " + name);
      const DispatchResult got = GetProperty(p, name);
      const auto it = answers.find(name);
      EXPECT_EQ(got.hr, IsRequirement(name) && it == answers.end() ? S_FALSE : S_OK);
      EXPECT_EQ(got.value, it == answers.end() ? "" : it->second);
    }
    p->Release();
  }
}

}  // namespace
}  // namespace qx::test
