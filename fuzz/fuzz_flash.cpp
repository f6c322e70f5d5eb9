// Flash expansion over arbitrary bytes: never crashes, never allocates more than the file holds,
// and writes its outputs into the destination folder.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "formats/FlashFile.h"
#include "platform/fs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = [] {
    char tmpl[] = "/tmp/qxfuzz-flash-XXXXXX";
    return std::string(::mkdtemp(tmpl) ? tmpl : "/tmp");
  }();
  static const std::string input = dir + ".in";
  if (FILE* f = std::fopen(input.c_str(), "wb")) {
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  qx::fs::File in = qx::fs::File::OpenRead(input);
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
  for (const std::string& path : outputs) qx::fs::DeleteFile(path);
  return 0;
}
