// The XML service on arbitrary bytes, loaded from a file (byte-order marks, declared character
// sets, NUL bytes) when the first byte is odd, else as text; then everything a caller does with
// a parsed document: serialise, search with resume points, add, detach and re-append.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "archive/VxXml.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static const std::string path = "/tmp/fuzz_xml." + std::to_string(getpid()) + ".xml";
  qx::VxXml doc;
  if (data[0] & 1) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return 0;
    std::fwrite(data + 1, 1, size - 1, f);
    std::fclose(f);
    if (!doc.LoadXmlFile(path.c_str())) return 0;
  } else if (!doc.LoadXml(std::string(reinterpret_cast<const char*>(data + 1), size - 1).c_str())) {
    return 0;  // LoadXml stops at a NUL
  }
  qx::VxString out, tag;
  doc.GetXml(out);
  if (auto any = doc.FindTagWithContent(nullptr, "*", "*\xE9*")) any->GetContent(out);
  auto child = doc.GetRoot()->FindTag(doc.GetRoot().get(), "");
  for (auto e = doc.GetRoot(); e;) {
    e->GetTag(tag);
    auto next = doc.FindTag(e.get(), tag.GetString());
    if (!next) next = doc.FindTagWithAttribute(e.get(), tag.GetString(), "a", "*x*");
    e = std::move(next);
  }
  doc.AddChild("n \xE9", "\xE9&\xFF")->GetXml(out);
  if (child) {
    child->Detach();
    doc.AppendSubtree(child.get());
    doc.GetXml(out);
  }
  return 0;
}
