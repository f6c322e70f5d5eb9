#include "platform/registry.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include "support/ScopedRegistry.h"

namespace qx::registry {
namespace {

namespace stdfs = std::filesystem;
// A store of its own one folder down, so the first write also has to create a folder.
class RegistryStore : public ::testing::Test {
 protected:
  test::ScopedRegistry registry_{"conf/registry.reg"};
  const std::string dir_ = registry_.dir().path(), file_ = registry_.file();
};

TEST(RegistryTree, KeyPathsAreCheckedAndComparedWithoutCase) {
  for (const char* good : {"CLSID\\{41035C38-1441-4016-B34A-DBE6374ACCF2}\\InprocServer32", "odd]name["}) {
    Tree tree;
    EXPECT_EQ(tree.CreateKey(good), kErrorSuccess) << good;
    EXPECT_NE(tree.Find(good), nullptr) << good;
  }
  for (const char* bad : {"", "\\CLSID", "CLSID\\", "CLSID\\\\x", "line\nbreak"}) {
    Tree tree;
    EXPECT_EQ(tree.CreateKey(bad), kErrorInvalidParameter) << bad;
    std::vector<std::string> made;
    tree.SubKeys("", made);
    EXPECT_TRUE(made.empty()) << bad;  // nothing half made
  }

  Tree tree;
  ASSERT_EQ(tree.SetValue("Clsid\\{ABC}", "ThreadingModel", "Apartment"), kErrorSuccess);
  std::string data;
  EXPECT_EQ(tree.GetValue("CLSID\\{abc}", "threadingmodel", data), kErrorSuccess);
  EXPECT_EQ(data, "Apartment");
  std::vector<std::string> names;
  ASSERT_EQ(tree.SubKeys("", names), kErrorSuccess);
  EXPECT_EQ(names, std::vector<std::string>{"Clsid"});  // the case it was made with
}

TEST(RegistryTree, WritesRegFileTextAndReadsItBack) {
  Tree tree;
  tree.SetValue("P.1", "", "Display \"D\"\r\n");
  tree.SetValue("P.1\\CLSID", "", "{X}");
  tree.CreateKey("CLSID\\{X}\\Programmable");
  tree.SetValue("CLSID\\{X}\\InprocServer32", "", "C:\\dir\\caf\xE9.so");
  tree.SetValue("CLSID\\{X}\\InprocServer32", "ThreadingModel", "Apartment");
  EXPECT_EQ(tree.Serialize(),
            "Windows Registry Editor Version 5.00\n\n[HKEY_CLASSES_ROOT\\CLSID]\n\n[HKEY_CLASSES_ROOT\\CLSID\\{X}]\n\n"
            "[HKEY_CLASSES_ROOT\\CLSID\\{X}\\InprocServer32]\n@=\"C:\\\\dir\\\\caf\xC3\xA9.so\"\n"
            "\"ThreadingModel\"=\"Apartment\"\n\n[HKEY_CLASSES_ROOT\\CLSID\\{X}\\Programmable]\n\n"
            "[HKEY_CLASSES_ROOT\\P.1]\n@=\"Display \\\"D\\\"\\r\\n\"\n\n[HKEY_CLASSES_ROOT\\P.1\\CLSID]\n@=\"{X}\"\n\n");
  Tree back;
  ASSERT_EQ(back.Parse(tree.Serialize()), kErrorSuccess);
  EXPECT_EQ(back.Serialize(), tree.Serialize());
}

TEST(RegistryTree, ParseAcceptsExportsAndRejectsDamage) {
  const std::string key = "REGEDIT4\n[HKEY_CLASSES_ROOT\\A]\n";
  const struct { const char* what; std::string text; bool ok; } rows[] = {
      {"empty file", "", true}, {"only blank lines and comments", "\n; written by hand\r\n\n", true},
      {"bom, crlf, comment, spaces", "\xEF\xBB\xBFWindows Registry Editor Version 5.00\r\n\r\n; note\r\n[HKEY_CLASSES_ROOT\\A]\r\n@ = \"x\"  \r\n", true},
      {"root in another case", "REGEDIT4\n[hkey_classes_root\\A]\n", true},
      {"no header", "[HKEY_CLASSES_ROOT\\A]\n", false}, {"value before a key", "REGEDIT4\n@=\"x\"\n", false},
      {"other root", "REGEDIT4\n[HKEY_CURRENT_USER\\A]\n", false},
      {"unclosed key", "REGEDIT4\n[HKEY_CLASSES_ROOT\\A\n", false},
      {"dword value", key + "\"n\"=dword:00000001\n", false}, {"unterminated", key + "@=\"abc\n", false},
      {"unknown escape", key + "@=\"a\\tb\"\n", false}, {"text after value", key + "@=\"a\" x\n", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Tree tree;
    std::string error;
    EXPECT_EQ(tree.Parse(row.text, &error), row.ok ? kErrorSuccess : kErrorBadDb);
    if (!row.ok) {
      EXPECT_EQ(error.rfind("line ", 0), 0u) << error;
      EXPECT_EQ(tree.Find("A"), nullptr);  // nothing half-read is kept
    }
  }
}

TEST_F(RegistryStore, ChangesPersistDeleteTreeKeepsTheParentAndOthersChangesAreRead) {
  std::string data;
  EXPECT_EQ(RegQueryValue("CLSID\\{A}", "", data), kErrorFileNotFound);  // no file yet
  ASSERT_EQ(RegSetValue("CLSID\\{A}", "", "A Class"), kErrorSuccess);
  ASSERT_EQ(RegSetValue("CLSID\\{A}\\InprocServer32", "ThreadingModel", "Apartment"), kErrorSuccess);
  ASSERT_EQ(RegCreateKey("CLSID\\{B}"), kErrorSuccess);

  ASSERT_EQ(RegDeleteTree("clsid\\{a}"), kErrorSuccess);
  for (const auto& [key, expected] : {std::pair{"CLSID\\{A}\\InprocServer32", kErrorFileNotFound},
           {"CLSID\\{A}", kErrorFileNotFound}, {"CLSID", kErrorSuccess}, {"CLSID\\{B}", kErrorSuccess}})
    EXPECT_EQ(RegOpenKey(key), expected) << key;
  EXPECT_EQ(RegDeleteTree("CLSID\\{A}"), kErrorFileNotFound);
  EXPECT_EQ(RegDeleteValue("CLSID\\{B}", "none"), kErrorFileNotFound);
  std::string name;
  EXPECT_EQ(RegEnumKey("CLSID", 0, name), kErrorSuccess);
  EXPECT_EQ(name, "{B}");
  EXPECT_EQ(RegEnumKey("CLSID", 1, name), kErrorNoMoreItems);

  std::set<std::string> leaves;  // no temporary files beside the store and its lock
  for (const auto& entry : stdfs::directory_iterator(dir_ + "/conf")) leaves.insert(entry.path().filename().string());
  EXPECT_EQ(leaves, (std::set<std::string>{"registry.reg", "registry.reg.lock"}));

  // Someone else changes the file: it is read again.
  ASSERT_EQ(RegSetValue("K", "v", "mine"), kErrorSuccess);
  ASSERT_EQ(RegQueryValue("K", "v", data), kErrorSuccess);
  std::ofstream(file_, std::ios::binary | std::ios::trunc) << "REGEDIT4\n\n[HKEY_CLASSES_ROOT\\K]\n\"v\"=\"theirs, longer\"\n";
  ASSERT_EQ(RegQueryValue("K", "v", data), kErrorSuccess);
  EXPECT_EQ(data, "theirs, longer");
  // A write starts from the file's contents, not from what this process saw before.
  ASSERT_EQ(RegSetValue("K", "w", "x"), kErrorSuccess);
  ASSERT_EQ(RegQueryValue("K", "v", data), kErrorSuccess);
  EXPECT_EQ(data, "theirs, longer");
}

TEST_F(RegistryStore, ProcessesWritingAtOnceKeepEachOthersKeys) {
  constexpr int kProcesses = 3, kKeysEach = 40;
  for (int p = 0; p < kProcesses; ++p) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    for (int k = 0; child == 0 && k < kKeysEach; ++k)
      if (RegCreateKey("P" + std::to_string(p) + "\\K" + std::to_string(k)) != kErrorSuccess) ::_exit(1);
    if (child == 0) ::_exit(0);
  }
  for (int status = 0, p = 0; p < kProcesses; ++p)
    EXPECT_TRUE(::wait(&status) > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0);
  Tree tree;
  ASSERT_EQ(Load(tree), kErrorSuccess);
  for (int p = 0; p < kProcesses; ++p) {
    std::vector<std::string> names;
    ASSERT_EQ(tree.SubKeys("P" + std::to_string(p), names), kErrorSuccess);
    EXPECT_EQ(names.size(), size_t{kKeysEach}) << "process " << p;
  }
}

}  // namespace
}  // namespace qx::registry
