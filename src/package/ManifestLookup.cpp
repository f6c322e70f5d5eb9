#include "package/ManifestLookup.h"

namespace qx::manifest {

namespace {

void ReplaceAll(std::string& text, std::string_view from, std::string_view to) {
  std::string out;
  size_t start = 0;
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, start)) {
    out.append(text, start, at - start);
    out += to;
    start = at + from.size();
  }
  if (start == 0) return;
  out.append(text, start);
  text = std::move(out);
}

std::string ContentOf(const VxXml& element) {
  VxString content;
  element.GetContent(content);
  return ReplaceAngleReferences(std::string(content.View()));
}

}  // namespace

std::string ReplaceAngleReferences(std::string text) {
  ReplaceAll(text, "&#60;", "<");
  ReplaceAll(text, "&#62;", ">");
  return text;
}

std::string LookupPath(const VxXml& document, std::span<const char* const> tags, bool& found) {
  found = false;
  std::unique_ptr<VxXml> current = document.GetRoot();
  for (const char* tag : tags) {
    if (current == nullptr) return {};
    current = current->FindTag(nullptr, tag);
  }
  if (current == nullptr) return {};
  found = true;
  return ContentOf(*current);
}

HRESULT LookupRequirement(const VxXml& document, std::string_view label, std::string& out) {
  out.clear();
  const std::string pattern = std::string(label) + "*";
  std::unique_ptr<VxXml> at = document.GetRoot();
  if (at != nullptr) at = at->FindTag(nullptr, "imsmd:technical");
  if (at != nullptr) at = at->FindTagWithContent(nullptr, "imsmd:langstring", pattern.c_str());
  // langstring -> value -> type -> the requirement that holds the type and its name.
  for (int up = 0; up < 3 && at != nullptr; ++up) at = at->GetParent();
  for (const char* tag : {"imsmd:name", "imsmd:value", "imsmd:langstring"})
    if (at != nullptr) at = at->FindTag(nullptr, tag);
  if (at == nullptr) return S_FALSE;
  out = ContentOf(*at);
  return S_OK;
}

}  // namespace qx::manifest
