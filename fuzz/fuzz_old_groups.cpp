// Both old-style group containers over arbitrary bytes: open, list, count, find, write the
// contents listing, extract, add a small variable and delete one member. Nothing may read past
// the file, crash, or leave a temporary file behind.
//
// Input: one control byte (which family signature to put in front, if any), then the file.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "containers/OldGroupContainerKC.h"
#include "containers/OldGroupContainerMA.h"

namespace {

std::string g_dir;

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(),
                                                                static_cast<std::streamsize>(bytes.size()));
}

std::string Padded(std::string s, size_t n) {
  s.resize(n, '\0');
  return s;
}

void Exercise(qx::OldGroupContainer& c, const std::string& addFile) {
  c.IsValid();
  qx::StringList names;
  c.ListMembers(names);
  c.GetMemberCount();
  std::string xml;
  c.WriteContentsXml(xml, 0, "");
  std::string first;
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
  static const char* const kSignatures[] = {"",
                                            "**QXKC**\x1A\x0A",
                                            "**QXKDX*\x1A\x0A",
                                            "**QXKA**\x1A\x0A",
                                            "**QXMA**\x01",
                                            "**QXNBX*\x01",
                                            "**QXNBX*\x08",
                                            "**QXHWL*"};
  const unsigned pick = data[0] % 8;
  const bool kc = pick >= 1 && pick <= 3;
  std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  if (pick != 0) bytes = Padded(kSignatures[pick], kc ? 11 : 10) + bytes;

  const std::string group = g_dir + (kc ? "/g.kcg" : "/g.mag");
  WriteFile(group, bytes);
  // A small well-formed variable of the same family to add.
  const std::string add = g_dir + (kc ? "/v.kcp" : "/v.map");
  if (kc) {
    const std::string entry = std::string("\x0B\x00\x01\x00\x05", 5) + Padded("V", 8) +
                              std::string("\x01\x00\x2A", 3);
    std::string sum(2, '\0');
    unsigned s = 0;
    for (unsigned char ch : entry) s += ch;
    sum[0] = static_cast<char>(s & 0xFF);
    sum[1] = static_cast<char>(s >> 8 & 0xFF);
    WriteFile(add, Padded(kSignatures[pick], 11) + std::string(42, '\0') +
                       std::string(1, static_cast<char>(entry.size())) + std::string(1, '\0') + entry + sum);
  } else {
    const std::string sig = pick == 0 ? std::string("**QXMA**\x01") : std::string(kSignatures[pick]);
    WriteFile(add, Padded(sig, 10) + Padded("main", 8) + std::string(40, '\0') +
                       std::string("\x01\x00\x52\x00\x00\x00", 6) + Padded("V", 8) +
                       std::string("\x12\x00\x00\x00\x53\x00\x00\x00\xA5\x5A\x2A", 11));
  }
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
