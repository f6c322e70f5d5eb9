// LoadXml on arbitrary text, then everything a caller does with a parsed document:
// serialise, search with resume points, detach and re-append.
#include <cstddef>
#include <cstdint>
#include <string>

#include "archive/VxXml.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);  // LoadXml stops at a NUL
  qx::VxXml doc;
  if (!doc.LoadXml(text.c_str())) return 0;
  qx::VxString out;
  doc.GetXml(out);

  qx::VxString tag;
  if (auto any = doc.FindTagWithContent(nullptr, "*", "*")) any->GetContent(out);
  auto child = doc.GetRoot()->FindTag(doc.GetRoot().get(), "");
  for (auto e = doc.GetRoot(); e; ) {
    e->GetTag(tag);
    auto next = doc.FindTag(e.get(), tag.GetString());
    if (!next) {
      next = doc.FindTagWithAttribute(e.get(), tag.GetString(), "a", "*x*");
      if (!next) break;
    }
    e = std::move(next);
  }
  if (child) {
    child->GetXml(out);
    child->Detach();
    doc.AppendSubtree(child.get());
    doc.GetXml(out);
  }
  return 0;
}
