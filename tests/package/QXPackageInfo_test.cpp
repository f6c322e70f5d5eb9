#include "package/QXPackageInfo.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "frame/Module.h"
#include "package/PackageFixtures.h"

namespace qx::test {
namespace {

constexpr const char* kProperties[] = {
    "Type",         "Title",        "GradeLevel",         "TeachingTime", "Abstract",
    "Objectives",   "LearningTool", "Connectivity",       "SupportingHardware",
    "HandHeldApps", "ComputerApps", "IsQXP",
};

// The five requirement properties answer S_FALSE when nothing is found; the others S_OK.
bool IsRequirement(const std::string& name) {
  return name.find("App") != std::string::npos || name == "LearningTool" ||
         name == "Connectivity" || name == "SupportingHardware";
}

std::string Requirement(const std::string& label, const std::string& name) {
  return "<imsmd:requirement><imsmd:type><imsmd:value><imsmd:langstring>" + label +
         "</imsmd:langstring></imsmd:value></imsmd:type><imsmd:name><imsmd:value>"
         "<imsmd:langstring>" + name + "</imsmd:langstring></imsmd:value></imsmd:name>"
         "</imsmd:requirement>";
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

FakePackage WithManifest(const std::string& bytes) { return {"imsmanifest.xml", bytes, 1, false}; }

class PackageInfoTest : public ::testing::Test {
 protected:
  void TearDown() override {
    FakePackages().clear();
    ExtractFolders().clear();
    EXPECT_EQ(tmp_.Leftovers(), 0) << "the call left files in the temporary folder";
  }
  // A fresh object with the fake package `p` set as its Filename.
  IDispatch* Open(const FakePackage& p, HRESULT expected = S_OK) {
    FakePackages()["pkg.qxp"] = p;
    IDispatch* disp = PackageInfoOverFakes::New();
    EXPECT_EQ(PutFilename(disp, "pkg.qxp"), expected);
    return disp;
  }
  ScopedTmpDir tmp_;
};

TEST_F(PackageInfoTest, EveryPropertyOfAFullManifest) {
  IDispatch* p = Open(WithManifest(kFull));
  const std::pair<const char*, DispatchResult> rows[] = {
      {"Filename", {S_OK, "pkg.qxp"}},        {"Type", {S_OK, "Lesson"}},
      {"Title", {S_OK, "Area <r> <"}},         {"GradeLevel", {S_OK, "Grade 7"}},
      {"TeachingTime", {S_OK, "PT45M"}},       {"Abstract", {S_OK, "Circles and their areas."}},
      {"Objectives", {S_OK, "Use pi"}},        {"LearningTool", {S_OK, "QX-84 Plus"}},
      {"Connectivity", {S_OK, "USB cable"}},   {"SupportingHardware", {S_OK, "Probe"}},
      {"HandHeldApps", {S_OK, "Cabri"}},       {"ComputerApps", {S_OK, "Link"}},
      {"IsQXP", {S_OK, "1"}},
  };
  for (const auto& [name, expected] : rows) {
    SCOPED_TRACE(name);
    const DispatchResult got = GetProperty(p, name);
    EXPECT_EQ(got.hr, expected.hr);
    EXPECT_EQ(got.value, expected.value);
  }
  EXPECT_EQ(p->Release(), 0u);
}

// One property of one manifest per row.
TEST_F(PackageInfoTest, LookupRules) {
  const std::string title = "<imsmd:title><imsmd:langstring>";
  const std::string end = "</imsmd:langstring></imsmd:title>";
  const std::string utf16 = [] {
    const std::u16string text = u"\uFEFF<?xml version=\"1.0\" encoding=\"UTF-16\"?><r><imsmd:title>"
                                u"<imsmd:langstring>\u00C4rea</imsmd:langstring></imsmd:title></r>";
    return std::string(reinterpret_cast<const char*>(text.data()), text.size() * 2);
  }();
  const struct {
    const char* what;
    std::string manifest;
    const char* property;
    HRESULT hr;
    std::string value;
  } rows[] = {
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
      {"no technical section", Manifest(Requirement("Connectivity", "USB")), "Connectivity",
       S_FALSE, ""},
      {"UTF-8 bytes read as 1252", Manifest(title + "\xC3\x84rea" + end), "Title", S_OK,
       "\xC3\x83\xE2\x80\x9E" "rea"},
      {"declared windows-1252", Manifest(title + "\xC4rea" + end,
       "<?xml version=\"1.0\" encoding=\"windows-1252\"?>"), "Title", S_OK, "\xC3\x84rea"},
      {"UTF-16 with its mark", utf16, "Title", S_OK, "\xC3\x83\xE2\x80\x9E" "rea"},
      {"unclosed elements end with the text", "<manifest><imsmd:title><imsmd:langstring>Open",
       "Title", S_OK, "Open"},
      {"malformed: fresh object answers empty", "<manifest><imsmd:title>x</imsmd:title",
       "Title", S_OK, ""},
      {"empty file", "", "Type", S_OK, ""},
      {"requirement on an empty file", "", "ComputerApps", S_FALSE, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    IDispatch* p = Open(WithManifest(row.manifest));
    const DispatchResult got = GetProperty(p, row.property);
    EXPECT_EQ(got.hr, row.hr);
    EXPECT_EQ(got.value, row.value);
    EXPECT_EQ(GetProperty(p, "IsQXP").value, "1");
    p->Release();
  }
}

TEST_F(PackageInfoTest, FilenameOutcomesAndWhatStays) {
  FakePackages()["a.qxp"] = WithManifest(kFull);
  FakePackages()["upper.qxp"] = {"IMSMANIFEST.XML",
                                 Manifest("<imsmd:title><imsmd:langstring>Upper"
                                          "</imsmd:langstring></imsmd:title>"), 1, false};
  FakePackages()["plain.qxg"] = {"", "", 1, false};
  FakePackages()["broken.qxp"] = WithManifest("<manifest><!-- never closed");
  FakePackages()["folder.qxp"] = {"imsmanifest.xml", "", 1, true};
  FakePackages()["failing.qxp"] = {"imsmanifest.xml",
                                   Manifest("<imsmd:title><imsmd:langstring>Half"
                                            "</imsmd:langstring></imsmd:title>"), 0, false};
  // A manifest planted in the shared folder itself is never taken for the package's.
  std::filesystem::create_directories(tmp_.Private());
  ::chmod(tmp_.Private().c_str(), 0700);
  const std::string planted = tmp_.Private() + "/imsmanifest.xml";
  std::ofstream(planted) << Manifest("<imsmd:title><imsmd:langstring>Planted</imsmd:langstring>"
                                     "</imsmd:title>");

  // Each step on one object, in order: the put's status, then IsQXP and Title after it.
  const struct {
    const char* path;
    HRESULT hr;
    const char* isQxp;
    const char* title;
  } steps[] = {
      {"/nonexistent/x.qxp", E_FAIL, "0", ""},
      {"plain.qxg", S_FALSE, "0", ""},
      {"upper.qxp", S_OK, "1", "Upper"},
      {"a.qxp", S_OK, "1", "Area <r> <"},
      {"plain.qxg", S_FALSE, "1", "Area <r> <"},
      {"broken.qxp", S_OK, "1", "Area <r> <"},
      {"folder.qxp", S_OK, "1", "Area <r> <"},
      {"failing.qxp", S_FALSE, "1", "Half"},
      {"/nonexistent/y.qxp", E_FAIL, "1", "Half"},
  };
  IDispatch* p = PackageInfoOverFakes::New();
  for (const auto& step : steps) {
    SCOPED_TRACE(step.path);
    EXPECT_EQ(PutFilename(p, step.path), step.hr);
    EXPECT_EQ(GetProperty(p, "Filename").value, step.path);
    EXPECT_EQ(GetProperty(p, "IsQXP").value, step.isQxp);
    EXPECT_EQ(GetProperty(p, "Title").value, step.title);
  }
  p->Release();
  // Every extraction went to a fresh folder of its own inside the private one.
  ASSERT_EQ(ExtractFolders().size(), 7u);
  for (size_t i = 0; i < ExtractFolders().size(); ++i) {
    EXPECT_EQ(ExtractFolders()[i].rfind(tmp_.Private() + "/", 0), 0u) << ExtractFolders()[i];
    for (size_t j = 0; j < i; ++j) EXPECT_NE(ExtractFolders()[i], ExtractFolders()[j]);
  }
  EXPECT_TRUE(std::filesystem::remove(planted));
}

TEST_F(PackageInfoTest, FreshObjectAndRealFilesThatAreNoPackages) {
  const TempDir dir;
  const std::string folder = dir / "folder.qxp";
  std::filesystem::create_directory(folder);
  const std::string fifo = dir / "fifo.qxp";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  IClassFactory* cf = nullptr;
  ASSERT_EQ(module::GetClassObject(CLSID_QXPackageInfo, IID_IClassFactory,
                                   reinterpret_cast<void**>(&cf)), S_OK);
  IDispatch* p = nullptr;
  ASSERT_EQ(cf->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(&p)), S_OK);
  cf->Release();
  for (const char* name : kProperties) {
    SCOPED_TRACE(name);
    const DispatchResult got = GetProperty(p, name);
    EXPECT_EQ(got.hr, IsRequirement(name) ? S_FALSE : S_OK);
    EXPECT_EQ(got.value, name == std::string("IsQXP") ? "0" : "");
  }
  const std::pair<std::string, HRESULT> files[] = {
      {dir / "missing.qxp", E_FAIL},
      {folder, E_FAIL},
      {fifo, E_FAIL},
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

TEST_F(PackageInfoTest, DeepAndHugeManifests) {
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<imsmd:title>";
  deep += "<imsmd:langstring>bottom</imsmd:langstring>";
  for (int i = 0; i < 100000; ++i) deep += "</imsmd:title>";
  std::string huge = "<manifest><imsmd:technical>";
  const std::string filler = Requirement("Other", std::string(1000, 'x'));
  while (huge.size() < 50u << 20) huge += filler;
  huge += Requirement("Computer Applications", "Last") + "</imsmd:technical></manifest>";
  const struct {
    const char* what;
    const std::string& manifest;
    const char* property;
    DispatchResult expected;
  } rows[] = {
      {"100,000 levels", deep, "Title", {S_OK, "bottom"}},
      {"50 MB", huge, "ComputerApps", {S_OK, "Last"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    IDispatch* p = Open(WithManifest(row.manifest));
    const DispatchResult got = GetProperty(p, row.property);
    EXPECT_EQ(got.hr, row.expected.hr);
    EXPECT_EQ(got.value, row.expected.value);
    p->Release();
  }
}

TEST_F(PackageInfoTest, ObjectSafety) {
  IDispatch* disp = PackageInfoOverFakes::New();
  IObjectSafety* safety = nullptr;
  ASSERT_EQ(disp->QueryInterface(IID_IObjectSafety, reinterpret_cast<void**>(&safety)), S_OK);
  DWORD supported = 9, enabled = 9;
  EXPECT_EQ(safety->GetInterfaceSafetyOptions(IID_IDispatch, nullptr, &enabled), E_POINTER);
  EXPECT_EQ(safety->GetInterfaceSafetyOptions(IID_IClassFactory, &supported, &enabled),
            E_NOINTERFACE);
  EXPECT_EQ(supported, 0u);
  EXPECT_EQ(enabled, 0u);
  const struct {
    const IID* iid;
    DWORD mask, options;
    HRESULT hr;
    DWORD enabledAfter;
  } rows[] = {
      {&IID_IDispatch, 1, 1, S_OK, 1},
      {&IID_IQXPackageInfo, 2, 2, E_FAIL, 1},
      {&IID_IClassFactory, 1, 0, E_NOINTERFACE, 1},
      {&IID_IObjectSafety, 1, 0, S_OK, 0},
      {&IID_IUnknown, 1, 3, S_OK, 1},
      {&IID_IDispatch, 0, 1, S_OK, 1},
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

// Manifests nobody here wrote, each extracted as a package's manifest. Expected values come
// from reading the files by hand (and with a DOM outside this code base): only the answers that
// are not empty are listed; the path properties answer "" with S_OK and requirements "" with
// S_FALSE otherwise.
TEST_F(PackageInfoTest, RealManifestsFromTheCorpus) {
  const std::string dir = QX_CORPUS_DIR "/ims/";
  if (!std::filesystem::exists(dir)) GTEST_SKIP() << "no corpus beside the repository";
  const struct {
    const char* file;
    std::map<std::string, std::string> answers;
  } rows[] = {
      {"jcputney_MalformedXml_SCORM12_imsmanifest.xml", {}},
      {"jcputney_WithMetadata_SCORM12_imsmanifest.xml", {}},
      {"jcputney_WithMetadata_SCORM12_metadata.xml", {}},
      {"pyslet_imscc11_sample1_imsmanifest.xml", {}},  // lomimscc: prefix, not imsmd:
      {"pyslet_package_3_imsmanifest.xml", {}},
      {"pyslet_yingguo_imsmanifest.xml", {}},
      {"reload_interink_imsmanifest.xml", {}},
      {"pyslet_qtiv1_outputv2_imsmanifest.xml",
       {{"Title", "Numeric slider"}, {"GradeLevel", "training"}, {"Abstract", "Empty Item"}}},
      {"qtiworks_reading_imsmanifest.xml",
       {{"Title", "Projectile Trajectory"}, {"GradeLevel", "Higher Education"},
        {"Abstract", "(c) 2003 - 2010, The University of Edinburgh"}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.file);
    IDispatch* p = Open(WithManifest(ReadFileBytes(dir + row.file)));
    for (const char* name : kProperties) {
      if (name == std::string("IsQXP")) continue;
      SCOPED_TRACE(name);
      const DispatchResult got = GetProperty(p, name);
      const auto it = row.answers.find(name);
      EXPECT_EQ(got.hr, IsRequirement(name) && it == row.answers.end() ? S_FALSE : S_OK);
      EXPECT_EQ(got.value, it == row.answers.end() ? "" : it->second);
    }
    p->Release();
  }
}

}  // namespace
}  // namespace qx::test
