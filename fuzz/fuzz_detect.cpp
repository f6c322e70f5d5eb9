// Detection over arbitrary first bytes and names: never crashes, always answers with a
// signature of at most 10 characters and no zero byte.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "formats/DeviceFamily.h"
#include "formats/GroupKind.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = [] {
    char tmpl[] = "/tmp/qxfuzz-detect-XXXXXX";
    return std::string(::mkdtemp(tmpl) ? tmpl : "/tmp");
  }();
  // The first byte picks an extension, so the NBX/MA/ra choice is exercised too.
  static const char* const exts[] = {".map", ".rap", ".nbp", "", ".m", ".kdg", ".ma.ra", "."};
  const std::string path = dir + "/f" + exts[size ? data[0] % 8 : 0];
  if (FILE* f = std::fopen(path.c_str(), "wb")) {
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  const std::string sig = qx::DetectFileSignature(path);
  if (sig.size() > 10 || sig.find('\0') != std::string::npos) abort();
  (void)qx::IsMAStyleGroup(path);
  (void)qx::IsKCStyleGroup(path);
  return 0;
}
