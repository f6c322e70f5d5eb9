// The contents listing of an old-style group: a "group" root named after the group file and one
// "file" element per member, with the member name as text and its size as "Size".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qx {

struct ListedMember {
  std::string name;  // 1252
  uint32_t size = 0;
};

// Builds the document and serialises it into `xml`. False when serialising fails.
bool WriteOldStyleListing(const std::string& groupFileName,
                          const std::vector<ListedMember>& members, std::string& xml);

}  // namespace qx
