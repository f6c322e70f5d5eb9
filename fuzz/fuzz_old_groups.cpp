// Both old-style group containers over arbitrary bytes: open, list, count, find, write the
// contents listing, extract, add a small variable and delete one member. Nothing may read past
// the file, crash, or leave a temporary file behind.
//
// Input: one control byte (which family signature to put in front, if any), then the file.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "containers/OldGroupContainerKC.h"
#include "containers/OldGroupContainerMA.h"

namespace {

std::string g_dir;

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

void Exercise(qx::OldGroupContainer& c, const std::string& addFile) {
  c.IsValid();
  qx::StringList names;
  c.ListMembers(names);
  c.GetMemberCount();
  std::string xml, first;
  c.WriteContentsXml(xml, 0, "");
  c.GetMemberName(0, first);
  c.ContainsMember(first);
  c.ExtractAllMembers(g_dir + "/out/");
  int32_t state = 0;
  c.AddMembers({addFile}, "", &state, nullptr, nullptr);
  if (!first.empty()) c.DeleteMembers({first});
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char tmpl[] = "/tmp/fuzz-old-groups-XXXXXX";
  if (::mkdtemp(tmpl) == nullptr) std::abort();
  g_dir = tmpl;
  std::filesystem::create_directory(g_dir + "/out");
  ::setenv("QXGROUPMGR_REGISTRY", (g_dir + "/registry.reg").c_str(), 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  using S = std::string;
  // Signatures padded to their field (11 bytes KC, 10 MA).
  static const S kSignatures[] = {S(), S("**QXKC**\x1A\x0A\0", 11), S("**QXKDX*\x1A\x0A\0", 11),
                                  S("**QXKA**\x1A\x0A\0", 11), S("**QXMA**\x01\0", 10),
                                  S("**QXNBX*\x01\0", 10), S("**QXNBX*\x08\0", 10), S("**QXHWL*\0\0", 10)};
  const unsigned pick = data[0] % 8;
  const bool kc = pick >= 1 && pick <= 3;
  const S bytes = kSignatures[pick] + S(reinterpret_cast<const char*>(data + 1), size - 1);
  const S group = g_dir + (kc ? "/g.kcg" : "/g.mag");
  // A small well-formed variable of the same family to add: one entry "V" with its checksum.
  const S add = g_dir + (kc ? "/v.kcp" : "/v.map");
  if (kc) {
    WriteFile(add, kSignatures[pick] + S(42, '\0') + S("\x10\0\x0B\0\x01\0\x05V\0\0\0\0\0\0\0\x01\0\x2A\x92\0", 20));
  } else {
    WriteFile(add, (pick ? kSignatures[pick] : kSignatures[4]) + S("main\0\0\0\0", 8) + S(40, '\0') +
                       S("\x01\0\x52\0\0\0V\0\0\0\0\0\0\0\x12\0\0\0\x53\0\0\0\xA5\x5A\x2A", 25));
  }
  WriteFile(group, bytes);
  {
    qx::OldGroupContainerKC c(group, nullptr);
    Exercise(c, add);
  }
  WriteFile(group, bytes);
  {
    qx::OldGroupContainerMA c(group, nullptr);
    Exercise(c, add);
  }
  for (const auto& e : std::filesystem::directory_iterator(g_dir))
    if (e.path().filename().string().rfind(".g.", 0) == 0) std::abort();  // a temporary left
  return 0;
}
