// The zip-based group container over arbitrary bytes: list, XML with meta and nested groups,
// expand, extract members, folders and nested members, add into a folder and into a nested
// group, delete nested members and members. Nothing may crash, hang, write outside the work
// folder, or leave anything in the temporary folder.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "containers/ContainerFactory.h"
#include "containers/GroupContainer.h"

namespace {

namespace sfs = std::filesystem;
std::string g_dir;

void Clear(const std::string& folder) {
  std::error_code ec;
  for (const auto& e : sfs::recursive_directory_iterator(folder, ec))
    sfs::permissions(e.path(), sfs::perms::owner_all, sfs::perm_options::add, ec);
  sfs::remove_all(folder, ec);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char tmpl[] = "/tmp/fuzz-groups-zip-XXXXXX";
  if (::mkdtemp(tmpl) == nullptr) std::abort();
  g_dir = tmpl;
  sfs::create_directory(g_dir + "/tmp");
  ::setenv("TMPDIR", (g_dir + "/tmp").c_str(), 1);
  std::ofstream(g_dir + "/add.txt") << "added";
  std::atexit([] { Clear(g_dir); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string group = g_dir + "/g.qxg";
  const std::string out = g_dir + "/out/";
  std::ofstream(group, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  {
    qx::ContainerFactory factory;
    std::unique_ptr<qx::GroupContainer> c = factory.CreateContainer(group);
    if (c != nullptr) {
      qx::StringList names;
      c->ListMembers(names);
      std::string xml;
      c->WriteContentsXml(xml, 1, "*");
      c->WriteContentsXml(xml, 0, "*.TXT;");
      c->ExtractAllMembers(out);
      for (size_t i = 0; i < names.size() && i < 8; ++i) {
        c->ExtractMember(names[i], out + "one/");
        c->ExtractMember(names[i] + "\\x", out + "one/");
        c->ContainsMember(names[i]);
      }
      const std::string first = names.empty() ? std::string("f") : names.front();
      int32_t state = 0;
      c->AddMembers({g_dir + "/add.txt"}, first + "\\", &state, nullptr, nullptr);
      c->DeleteMembers({first + "\\add.txt", first + "\\x"});
      c->DeleteMembers({first});
    }
  }
  std::error_code ec;
  for (const auto& e : sfs::directory_iterator(g_dir, ec)) {
    const std::string name = e.path().filename().string();
    if (name != "g.qxg" && name != "out" && name != "tmp" && name != "add.txt") std::abort();
  }
  if (!sfs::is_empty(g_dir + "/tmp")) std::abort();
  Clear(out);
  return 0;
}
