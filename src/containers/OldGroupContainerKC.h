// Old-style groups of the KA, KC and KDX families: one data section of variable entries, no
// folders, a 16-bit checksum. Member names come from the entries' token names.
#pragma once

#include <string>
#include <unordered_map>

#include "containers/OldGroupContainer.h"
#include "formats/LayoutKC.h"

namespace qx {

class OldGroupContainerKC final : public OldGroupContainer {
 public:
  OldGroupContainerKC(std::string path, ContainerFactory* factory);

  int32_t IsValid() override;

 private:
  bool LoadListing(Listing& out) override;
  bool WriteMember(const Listing& listing, size_t index, const std::string& outPath) override;
  std::vector<unsigned char> NewGroupBytes(const std::string& comment) const override;

  bool BeginEdit() override;
  int32_t EditMemberCount() const override;
  bool EditContains(const std::string& name) const override;
  bool EditDelete(const StringList& names) override;
  int32_t EditAddFile(const std::string& file, const std::string& destFolder, int32_t& state,
                      AddPromptFn prompt, void* context) override;
  bool SerializeEdit(std::vector<unsigned char>& out) const override;

  void IndexModel();

  KCGroup edit_;
  // Lower-case member names of the model, so that duplicate checks stay cheap.
  std::unordered_map<std::string, size_t> names_;
};

}  // namespace qx
