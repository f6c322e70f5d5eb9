#include "formats/DeviceFamily.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/codepage.h"
#include "platform/fs.h"
#include "platform/path.h"

namespace qx {

namespace {

constexpr std::array<FamilyInfo, 10> kFamilies{{
    {"KA", kSigKA, Layout::KCStyle, "ka", true},
    {"KB", kSigKB, Layout::KCStyle, "", false},
    {"KC", kSigKC, Layout::KCStyle, "kc", true},
    {"KDX", kSigKDX, Layout::KCStyle, "kd", true},
    {"KF", kSigKF, Layout::KCStyle, "kf", false},
    {"MA", kSigMA, Layout::MAStyle, "ma", true},
    {"NA", kSigNA, Layout::MAStyle, "na", true},
    {"NBX", kSigNBX, Layout::MAStyle, "nb", true},
    {"ra", kSigRa, Layout::MAStyle, "ra", true},
    {"HWL", kSigHWL, Layout::MAStyle, "", true},
}};

// The NA, NBX and MA signatures may end in 0x1A 0x0A in a file; they stand for the 0x01 forms.
constexpr std::array<std::pair<std::string_view, std::string_view>, 3> kTailFixes{{
    {{"**QXNA**\x1A\x0A", 10}, kSigNA},
    {{"**QXNBX*\x1A\x0A", 10}, kSigNBX},
    {{"**QXMA**\x1A\x0A", 10}, kSigMA},
}};

// The extension of the path's file name, dot included, in lower case:
//   "a/b.MAP" => ".map";  "a.b/c" => "";  "x." => "."
std::string LowerExtension(const std::string& path) {
  return codepage::ToLower1252(path::Extension(path));
}

bool InCompatibleSet(std::string_view sig) {
  return sig == kSigMA || sig == kSigNBX || sig == kSigRa;
}

}  // namespace

std::span<const FamilyInfo> Families() { return kFamilies; }

const FamilyInfo* FindFamilyBySignature(std::string_view signature) {
  for (const FamilyInfo& f : kFamilies)
    if (f.signature == signature) return &f;
  return nullptr;
}

bool AreFamiliesCompatible(std::string_view sigA, std::string_view sigB) {
  if (FindFamilyBySignature(sigA) == nullptr || FindFamilyBySignature(sigB) == nullptr)
    return false;
  return sigA == sigB || (InCompatibleSet(sigA) && InCompatibleSet(sigB));
}

namespace {

std::string DetectOpened(const std::string& path, fs::File& opened) {
  if (!opened.IsOpen()) return std::string(kSigUnknown);
  unsigned char head[10];
  const size_t n = opened.Read(head, sizeof head);
  return DetectFileSignature(path, std::span<const unsigned char>(head, n));
}

}  // namespace

std::string DetectFileSignature(const std::string& path) {
  fs::File f = fs::File::OpenRead(path);
  return DetectOpened(path, f);
}

std::string DetectFileSignature(const std::string& path, fs::File& opened) {
  opened = fs::File::OpenRead(path);
  std::string signature = DetectOpened(path, opened);
  opened.Seek(0);
  return signature;
}

std::string DetectFileSignature(const std::string& path, std::span<const unsigned char> head) {
  char buf[11] = {};
  std::memcpy(buf, head.data(), std::min<size_t>(head.size(), 10));
  std::string candidate(buf, std::strlen(buf));

  for (const auto& [from, to] : kTailFixes)
    if (candidate == from) {
      candidate = to;
      break;
    }

  if (candidate == kSigNBX) {
    // The NBX bytes are shared with the MA and ra families; the extension tells them apart.
    const std::string ext = LowerExtension(path);
    if (ext.size() >= 3) {
      if (ext.find("ma") != std::string::npos)
        candidate = kSigMA;
      else if (ext.find("ra") != std::string::npos)
        candidate = kSigRa;
    }
  }

  const std::string_view c = candidate;
  if (c.starts_with(kSigFlash)) return std::string(kSigFlash);
  if (c.starts_with(kSigZip) || c.starts_with("PK\x05\x06")) return std::string(kSigZip);
  if (!c.starts_with("**QX")) return std::string(kSigUnknown);
  return candidate;
}

}  // namespace qx
