#include "formats/GroupKind.h"

#include <algorithm>
#include <vector>

#include "formats/LayoutKC.h"
#include "formats/LayoutMA.h"
#include "platform/codepage.h"
#include "platform/fs.h"
#include "platform/path.h"

namespace qx {

namespace {

// Calculator files are small; a file past this is not one worth reading whole to classify.
constexpr uint64_t kMaxClassifiedSize = 64u << 20;

}  // namespace

bool HasKCGroupExtension(const std::string& path) {
  const std::string ext = codepage::ToLower1252(path::Extension(path));
  return ext == ".kdg" || ext == ".kcg" || ext == ".kag" || ext == ".kfg";
}

std::optional<bool> IsMAStyleGroup(const std::string& path) {
  std::vector<unsigned char> bytes;
  if (!fs::ReadWholeFile(path, bytes, kMaxClassifiedSize)) return std::nullopt;
  return MAIsGroup(bytes);
}

std::optional<bool> IsKCStyleGroup(const std::string& path) {
  std::vector<unsigned char> bytes;
  if (!fs::ReadWholeFile(path, bytes, kMaxClassifiedSize)) return std::nullopt;
  return KCSectionHoldsMoreThanFirstEntry(bytes) || HasKCGroupExtension(path);
}

uint32_t KCEffectiveDataLength(uint16_t storedLength, uint64_t fileLength) {
  if (storedLength == 0 && fileLength >= 65536)
    return static_cast<uint32_t>(std::min<uint64_t>(fileLength - kKCEmptyFileSize, UINT32_MAX));
  return storedLength;
}

}  // namespace qx
