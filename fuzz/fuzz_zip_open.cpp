// The zip reader over arbitrary bytes: open, walk the entries, list them as XML, extract
// everything and then each entry on its own, then rewrite the archive and open it again.
// Nothing may read past the file, allocate what a header merely claims, crash, write outside
// the extraction folder or leave a temporary file behind.
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

// Write permission back first: extraction may have made files read-only.
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
  // libFuzzer ends with exit(); the working folder goes with the process.
  std::atexit([] { Clear(g_dir); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string archive = g_dir + "/in.zip";
  const std::string out = g_dir + "/out";
  WriteFile(archive, data, size);

  {
    qx::VxZip zip;
    if (zip.OpenZip(archive.c_str())) {
      int seen = 0;
      for (auto e = zip.FirstEntry(); e != nullptr; e = e->NextEntry(), ++seen) {
        qx::VxString name;
        qx::SYSTEMTIME t;
        e->GetFileName(name);
        e->GetFileTime(t);
        zip.GetEntryByName(name.GetString());
        (void)(e->GetUncompressedSize() + e->GetCompressedSize() + e->IsDirectory());
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
      // Members taken over are copied as they stand: one deleted and one appended keep the count.
      const int before = zip.EntryCount();
      if (auto first = zip.FirstEntry()) zip.DeleteEntry(first.get());
      zip.AppendData("added.txt", qx::VxByteData("added", 5));
      if (zip.WriteZip() && zip.EntryCount() != (before > 0 ? before : 1)) std::abort();
    }
  }
  // Entries that climbed out of `out`, or a temporary file left by WriteZip, would show here.
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(g_dir, ec)) {
    const std::string leaf = e.path().filename().string();
    if (leaf != "in.zip" && leaf != "out") std::abort();
  }
  Clear(out);
  std::filesystem::remove(archive, ec);
  return 0;
}
