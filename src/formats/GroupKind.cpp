#include "formats/GroupKind.h"

#include <algorithm>
#include <cctype>

#include "formats/ByteOrder.h"
#include "platform/fs.h"

namespace qx {

namespace {

constexpr uint64_t kMADefaultFolderOffset = 10;
constexpr uint64_t kKCDataLengthOffset = 53;
constexpr uint64_t kKCFirstEntryOffset = 55;
constexpr uint64_t kKCHeaderAndChecksum = 57;

bool ReadAt(fs::File& f, uint64_t offset, unsigned char* out, size_t size) {
  return f.Seek(offset) && f.Read(out, size) == size;
}

bool HasKCGroupExtension(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return false;
  std::string ext = path.substr(dot);
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext == ".kdg" || ext == ".kcg" || ext == ".kag" || ext == ".kfg";
}

}  // namespace

std::optional<bool> IsMAStyleGroup(const std::string& path) {
  fs::File f = fs::File::OpenRead(path);
  unsigned char folder = 0;
  if (!f.IsOpen() || !ReadAt(f, kMADefaultFolderOffset, &folder, 1)) return std::nullopt;
  return folder == 0;
}

uint32_t KCEffectiveDataLength(uint16_t storedLength, uint64_t fileLength) {
  if (storedLength == 0 && fileLength >= 65536)
    return static_cast<uint32_t>(std::min<uint64_t>(fileLength - kKCHeaderAndChecksum, UINT32_MAX));
  return storedLength;
}

std::optional<bool> IsKCStyleGroup(const std::string& path) {
  fs::File f = fs::File::OpenRead(path);
  unsigned char len[2], head[4];
  if (!f.IsOpen() || !ReadAt(f, kKCDataLengthOffset, len, 2)) return std::nullopt;
  const uint32_t dataLength = KCEffectiveDataLength(ReadLE16(len), f.Size());
  if (ReadAt(f, kKCFirstEntryOffset, head, 4)) {
    const uint32_t h = ReadLE16(head), x = ReadLE16(head + 2);
    if (dataLength > h + x + 4) return true;
  }
  return HasKCGroupExtension(path);
}

}  // namespace qx
