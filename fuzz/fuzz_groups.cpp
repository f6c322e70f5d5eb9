// Every group container over arbitrary bytes, chosen by the factory as for a caller: list, XML
// with meta and nested groups, expand, extract members, folders and nested members, add a file
// and a small variable of the group's family, delete nested members and members; bytes without
// a signature also go through the zip reader's own calls, ending in a rewrite. Nothing may
// crash, hang, read past the file, allocate what a header merely claims, write outside the work
// folder, or leave a temporary file.
//
// Input: one control byte (which family signature, if any, goes in front), then the file.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "archive/VxZip.h"
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

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char tmpl[] = "/tmp/fuzz-groups-XXXXXX";
  if (::mkdtemp(tmpl) == nullptr) std::abort();
  g_dir = tmpl;
  sfs::create_directory(g_dir + "/tmp");
  ::setenv("TMPDIR", (g_dir + "/tmp").c_str(), 1);
  ::setenv("QXGROUPMGR_REGISTRY", (g_dir + "/registry.reg").c_str(), 1);
  std::ofstream(g_dir + "/add.txt") << "added";
  std::atexit([] { Clear(g_dir); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  using S = std::string;
  // Signatures padded to their field (11 bytes KC, 10 MA); none leaves zip archives to the bytes.
  static const S kSignatures[] = {S(), S("**QXKC**\x1A\x0A\0", 11), S("**QXKDX*\x1A\x0A\0", 11),
                                  S("**QXKA**\x1A\x0A\0", 11), S("**QXMA**\x01\0", 10),
                                  S("**QXNBX*\x01\0", 10), S("**QXNBX*\x08\0", 10), S("**QXHWL*\0\0", 10)};
  const unsigned pick = data[0] % 8;
  const bool kc = pick >= 1 && pick <= 3;
  const S group = g_dir + (pick == 0 ? "/g.qxg" : kc ? "/g.kcg" : "/g.mag");
  WriteFile(group, kSignatures[pick] + S(reinterpret_cast<const char*>(data + 1), size - 1));
  // A small well-formed variable of the same family: one entry "V" (KC with its checksum).
  const S variable = g_dir + (kc ? "/v.kcp" : "/v.map");
  if (kc) {
    WriteFile(variable, kSignatures[pick] + S(42, '\0') + S("\x10\0\x0B\0\x01\0\x05V\0\0\0\0\0\0\0\x01\0\x2A\x92\0", 20));
  } else {
    WriteFile(variable, (pick ? kSignatures[pick] : kSignatures[4]) + S("main\0\0\0\0", 8) + S(40, '\0') +
                            S("\x01\0\x52\0\0\0V\0\0\0\0\0\0\0\x12\0\0\0\x53\0\0\0\xA5\x5A\x2A", 25));
  }
  const std::string out = g_dir + "/out/";
  {
    qx::ContainerFactory factory;
    std::unique_ptr<qx::GroupContainer> c = factory.CreateContainer(group);
    if (c != nullptr) {
      c->IsValid();
      c->GetMemberCount();
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
      c->AddMembers({variable}, "", &state, nullptr, nullptr);
      c->DeleteMembers({first + "\\add.txt", first + "\\x"});
      c->DeleteMembers({first});
    }
  }
  qx::VxZip zip;
  if (pick == 0 && zip.OpenZip(group.c_str())) {
    int seen = 0;
    for (auto e = zip.FirstEntry(); e != nullptr; e = e->NextEntry(), ++seen) {
      qx::VxString name;
      qx::SYSTEMTIME t;
      e->GetFileName(name);
      e->GetFileTime(t);
      zip.GetEntryByName(name.GetString());
      (void)(e->GetUncompressedSize() + e->GetCompressedSize() + e->IsDirectory());
      e->ExtractInto((out + "one").c_str());
    }
    if (seen != zip.EntryCount()) std::abort();
    qx::VxString listing;
    zip.GetDirectoryAsXML(listing);
    // Members taken over are copied as they stand: one deleted and one appended keep the count.
    const int before = zip.EntryCount();
    if (auto first = zip.FirstEntry()) zip.DeleteEntry(first.get());
    zip.AppendData("added.txt", qx::VxByteData("added", 5));
    if (zip.WriteZip() && zip.EntryCount() != (before > 0 ? before : 1)) std::abort();
  }
  std::error_code ec;
  for (const auto& e : sfs::directory_iterator(g_dir, ec)) {
    const std::string name = e.path().filename().string();
    if (name != "out" && name != "tmp" && name != "add.txt" && name.rfind("g.", 0) != 0 &&
        name.rfind("v.", 0) != 0 && name != "registry.reg")
      std::abort();  // a temporary file left behind
  }
  if (!sfs::is_empty(g_dir + "/tmp")) std::abort();
  Clear(out);
  return 0;
}
