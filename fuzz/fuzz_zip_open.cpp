// The zip reader over arbitrary bytes: open, walk the entries, list them as XML, extract
// everything and then each entry on its own. Nothing may read past the file, allocate what a
// header merely claims, crash, or write outside the extraction folder.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "archive/VxZip.h"

namespace {

std::string g_dir;

void WriteFile(const std::string& path, const uint8_t* data, size_t size) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

// Empties a folder, giving write permission back first: extraction may have made files
// read-only.
void Clear(const std::string& folder) {
  std::error_code ec;
  for (const auto& e : std::filesystem::recursive_directory_iterator(folder, ec))
    std::filesystem::permissions(e.path(), std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
  std::filesystem::remove_all(folder, ec);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char tmpl[] = "/tmp/fuzz-zip-open-XXXXXX";
  if (::mkdtemp(tmpl) == nullptr) std::abort();
  g_dir = tmpl;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string archive = g_dir + "/in.zip";
  const std::string out = g_dir + "/out";
  // Entries that climb out of `out` would land in `g_dir`; a sentinel there shows it.
  const std::string escaped = g_dir + "/escaped";
  WriteFile(archive, data, size);

  {
    qx::VxZip zip;
    if (zip.OpenZip(archive.c_str())) {
      int seen = 0;
      for (auto e = zip.FirstEntry(); e != nullptr; e = e->NextEntry()) {
        qx::VxString name;
        e->GetFileName(name);
        e->GetUncompressedSize();
        e->GetCompressedSize();
        e->IsDirectory();
        qx::SYSTEMTIME t;
        e->GetFileTime(t);
        zip.GetEntryByName(name.GetString());
        ++seen;
      }
      if (seen != zip.EntryCount()) std::abort();
      qx::VxString listing;
      zip.GetDirectoryAsXML(listing);
      zip.Extract(out.c_str());
      for (int i = 0; i < zip.EntryCount(); ++i) {
        auto e = zip.GetEntryByIndex(i);
        if (e == nullptr) std::abort();
        e->ExtractInto((out + "/one").c_str());
      }
    }
  }
  std::error_code ec;
  if (std::filesystem::exists(escaped, ec)) std::abort();
  for (const auto& e : std::filesystem::directory_iterator(g_dir, ec)) {
    const std::string leaf = e.path().filename().string();
    if (leaf != "in.zip" && leaf != "out") std::abort();  // written outside the folder
  }
  Clear(out);
  std::filesystem::remove(archive, ec);
  return 0;
}
