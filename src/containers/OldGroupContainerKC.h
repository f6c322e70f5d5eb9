// Old-style groups of the KA, KC and KDX families: one data section of variable entries, no
// folders, a 16-bit checksum. Member names come from the entries' token names.
#pragma once

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "containers/OldGroupContainer.h"
#include "formats/LayoutKC.h"

namespace qx {

class OldGroupContainerKC final : public OldGroupContainer {
 public:
  OldGroupContainerKC(std::string path, ContainerFactory* factory, std::string family = {});

  int32_t IsValid() override;

 private:
  bool LoadListing(Listing& out) override;
  bool WriteMember(const Listing& listing, size_t index, const std::string& outPath) override;
  std::vector<unsigned char> NewGroupBytes(const std::string& comment) const override;

  bool BeginEdit() override;
  int32_t EditMemberCount() const override;
  bool EditContains(const std::string& name) const override;
  bool EditDelete(const StringList& names) override;
  int32_t EditAddFile(const std::string& file, const std::string& fileFamily, fs::File& opened,
                      const std::string& destFolder, int32_t& state, AddPromptFn prompt,
                      void* context) override;
  bool SerializeEdit(std::vector<unsigned char>& out) const override;

  bool EditReplace(const std::string& name) override;
  bool CommitEdit() override;

  // Indexes the model from its walk; false when a section its entries do not fill cannot be
  // read into memory.
  bool IndexModel(const KCWalk& walk);
  // Marks every entry of one name of where_ as deleted.
  void MarkName(std::unordered_map<std::string, std::vector<std::pair<size_t, size_t>>>::iterator at);

  KCGroup edit_;
  fs::File source_;  // the group file the model's section is left in
  // Lower-case member names of the model, so that duplicate checks stay cheap.
  std::unordered_map<std::string, size_t> names_;
  // While the section's entries fill it exactly (whole_), where each name's entries stand in it
  // (offset, size) and how many entries are left: a replacement marks the old entries instead of
  // rewriting the section and walking it again.
  bool whole_ = false;
  size_t live_ = 0;
  std::unordered_map<std::string, std::vector<std::pair<size_t, size_t>>> where_;
};

}  // namespace qx
