#include "containers/ContentsXml.h"

#include "archive/VxXml.h"
#include "platform/codepage.h"

namespace qx {

bool WriteOldStyleListing(const std::string& groupFileName,
                          const std::vector<ListedMember>& members, std::string& xml) {
  // The document has no declared encoding, so its text is UTF-8; names come in 1252.
  VxXml root;
  root.SetTag("group");
  root.AddAttribute("name", codepage::AnsiToUtf8(groupFileName).c_str());
  for (const ListedMember& m : members) {
    std::unique_ptr<VxXml> file = root.AddChild("file", codepage::AnsiToUtf8(m.name).c_str());
    if (file == nullptr) return false;
    file->AddAttribute("Size", std::to_string(m.size).c_str());
  }
  VxString text;
  if (!root.GetXml(text)) return false;
  xml = std::string(text.View());
  return true;
}

}  // namespace qx
