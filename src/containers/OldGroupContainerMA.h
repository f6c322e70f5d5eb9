// Old-style groups of the MA, NA, NBX and ra families: variables in named folders, their names
// made file-name safe by the device name translator.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "containers/OldGroupContainer.h"
#include "formats/LayoutMA.h"
#include "formats/NameTranslator.h"

namespace qx {

class OldGroupContainerMA final : public OldGroupContainer {
 public:
  // Activates the device name translator; without one, nothing that needs a member name works.
  OldGroupContainerMA(std::string path, ContainerFactory* factory, std::string family = {});
  ~OldGroupContainerMA() override;

  int32_t IsValid() override;

 private:
  bool LoadListing(Listing& out) override;
  bool WriteMember(const Listing& listing, size_t index, const std::string& outPath) override;
  std::vector<unsigned char> NewGroupBytes(const std::string& comment) const override;

  bool BeginEdit() override;
  int32_t EditMemberCount() const override;
  bool EditContains(const std::string& name) const override;
  bool EditDelete(const StringList& names) override;
  bool EditReplace(const std::string& name) override;
  int32_t EditAddFile(const std::string& file, const std::string& fileFamily, fs::File& opened,
                      const std::string& destFolder, int32_t& state, AddPromptFn prompt,
                      void* context) override;
  bool SerializeEdit(std::vector<unsigned char>& out) const override;
  // Streams the members left in the group file from it to the new file.
  bool CommitEdit() override;

  // "folder.name.ext" for a variable of `family`; false when the translator gives no name.
  bool MemberName(const NameField& folder, const MAEntryFields& fields, std::string_view family,
                  std::string& out) const;
  // Every member of the model has a type letter in the group's family (or the family has none).
  bool ModelTypesHaveExtensions() const;
  bool HasExtension(uint8_t type) const;
  // Rebuilds the name index and the type check from the model.
  void IndexModel();
  void IndexMember(size_t folder, MAVariable& member);
  // The first folder named `lowerName` that is not gone; the folder count when there is none.
  size_t FindFolder(const std::string& lowerName) const;

  mutable std::unique_ptr<DeviceNameTranslator> translator_;
  mutable bool translatorMade_ = false;
  MAGroup edit_;
  fs::File source_;  // the group file the model's data is left in, while a change runs
  // Lower-case member names of the model, so that duplicate checks stay cheap as a call adds
  // thousands of files. Not usable when a name could not be read.
  std::unordered_map<std::string, size_t> names_;
  bool namesIndexed_ = false;
  // Where the member of each name stands; right for the names counted once in names_.
  std::unordered_map<std::string, std::pair<size_t, MAVariable*>> where_;
  // Lower-case folder name -> index of the first folder of that name.
  std::unordered_map<std::string, size_t> folderAt_;
  size_t liveMembers_ = 0;  // members of the model, kept as it changes
  bool typesHaveExtensions_ = true;
};

}  // namespace qx
