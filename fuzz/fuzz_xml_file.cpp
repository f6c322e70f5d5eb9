// LoadXmlFile on arbitrary bytes: byte-order marks, declared character sets, NUL bytes.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "archive/VxXml.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = [] {
    const char* tmp = std::getenv("TMPDIR");
    return std::string(tmp != nullptr ? tmp : "/tmp") + "/fuzz_xml_file." +
           std::to_string(getpid()) + ".xml";
  }();
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  qx::VxXml doc;
  if (doc.LoadXmlFile(path.c_str())) {
    qx::VxString out;
    doc.GetXml(out);
    auto e = doc.FindTagWithContent(nullptr, "r", "*\xE9*");
    if (e) e->GetContent(out);
    doc.AddChild("n \xE9", "\xE9&\xFF")->GetXml(out);
  }
  return 0;
}
