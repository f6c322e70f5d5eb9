#include "containers/ContainerFactory.h"

#include "containers/OldGroupContainerKC.h"
#include "containers/OldGroupContainerMA.h"
#include "containers/ZipGroupContainer.h"
#include "formats/DeviceFamily.h"

namespace qx {

namespace {

// Tried in this order; the first row whose signature equals the file's wins.
constexpr ContainerRow kSelectionTable[] = {
    {kSigZip, ContainerKind::Zip},
    {kSigKA, ContainerKind::OldKC},
    {kSigKC, ContainerKind::OldKC},
    {kSigKDX, ContainerKind::OldKC},
    {kSigMA, ContainerKind::OldMA},
    {kSigNA, ContainerKind::OldMA},
    {kSigNBX, ContainerKind::OldMA},
    {kSigRa, ContainerKind::OldMA},
    {kSigHWL, ContainerKind::OldMA},
};

}  // namespace

std::span<const ContainerRow> ContainerSelectionTable() { return kSelectionTable; }

ContainerKind ContainerKindForSignature(std::string_view signature) {
  for (const ContainerRow& row : kSelectionTable)
    if (row.signature == signature) return row.kind;
  return ContainerKind::None;
}

std::unique_ptr<GroupContainer> ConstructContainer(ContainerKind kind, const std::string& path,
                                                   ContainerFactory* factory) {
  switch (kind) {
    case ContainerKind::OldKC: return std::make_unique<OldGroupContainerKC>(path, factory);
    case ContainerKind::OldMA: return std::make_unique<OldGroupContainerMA>(path, factory);
    case ContainerKind::Zip: return std::make_unique<ZipGroupContainer>(path, factory);
    case ContainerKind::None:
      return nullptr;
  }
  return nullptr;
}

std::unique_ptr<GroupContainer> ContainerFactory::CreateContainer(const std::string& path) {
  const ContainerKind kind = ContainerKindForSignature(DetectFileSignature(path));
  std::unique_ptr<GroupContainer> container = ConstructContainer(kind, path, this);
  if (container != nullptr && container->IsValid() == 0) container.reset();
  return container;
}

}  // namespace qx
