#include "containers/ContentsXml.h"

#include "archive/VxXml.h"

namespace qx {

bool WriteOldStyleListing(const std::string& groupFileName,
                          const std::vector<ListedMember>& members, std::string& xml) {
  // The document declares no encoding, so names pass through in the ANSI code page they came in
  // and reach the caller's string unchanged.
  VxXml root;
  root.SetTag("group");
  root.AddAttribute("name", groupFileName.c_str());
  for (const ListedMember& m : members) {
    std::unique_ptr<VxXml> file = root.AddChild("file", m.name.c_str());
    if (file == nullptr) return false;
    file->AddAttribute("Size", std::to_string(m.size).c_str());
  }
  VxString text;
  if (!root.GetXml(text)) return false;
  xml = std::string(text.View());
  return true;
}

}  // namespace qx
