// Single files over arbitrary bytes. Detection never crashes and answers with a signature of at
// most 10 characters and no zero byte; flash expansion never allocates more than the file
// holds and writes its outputs into the destination folder only.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "formats/DeviceFamily.h"
#include "formats/FlashFile.h"
#include "formats/GroupKind.h"
#include "platform/fs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = [] {
    char tmpl[] = "/tmp/qxfuzz-files-XXXXXX";
    return std::string(::mkdtemp(tmpl) ? tmpl : "/tmp");
  }();
  // The first byte picks an extension, so the NBX/MA/ra choice is exercised too.
  static const char* const exts[] = {".map", ".rap", ".nbp", "", ".m", ".kdg", ".ma.ra", "."};
  const std::string path = dir + ".in" + exts[size ? data[0] % 8 : 0];
  if (FILE* f = std::fopen(path.c_str(), "wb")) {
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  const std::string sig = qx::DetectFileSignature(path);
  if (sig.size() > 10 || sig.find('\0') != std::string::npos) abort();
  (void)qx::IsMAStyleGroup(path);
  (void)qx::IsKCStyleGroup(path);

  qx::fs::File in = qx::fs::File::OpenRead(path);
  std::string list;
  const HRESULT hr = qx::ExpandFlashRecords(in, dir + "/", list);
  if (hr != S_OK && hr != S_FALSE && hr != static_cast<HRESULT>(0x8007006Eu)) abort();
  // Outputs go into the folder only (names may hold commas, so the list is not split here).
  if (!list.empty() && list.compare(0, dir.size() + 1, dir + "/") != 0) abort();
  // Listed first and removed after: unlinking while the folder is being read may skip entries.
  std::vector<std::string> outputs;
  qx::fs::FindData found;
  qx::fs::Finder finder;
  for (bool ok = finder.First(dir + "/*", found); ok; ok = finder.Next(found))
    if (!(found.attributes & qx::fs::kAttrDirectory)) outputs.push_back(dir + "/" + found.name);
  for (const std::string& p : outputs) qx::fs::DeleteFile(p);
  qx::fs::DeleteFile(path);
  return 0;
}
