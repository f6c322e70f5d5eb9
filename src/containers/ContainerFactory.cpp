#include "containers/ContainerFactory.h"

#include <mutex>

#include "containers/OldGroupContainerKC.h"
#include "containers/OldGroupContainerMA.h"
#include "containers/ZipGroupContainer.h"
#include "formats/DeviceFamily.h"
#include "platform/Diagnostic.h"
#include "platform/ReuseScope.h"
#include "platform/codepage.h"
#include "platform/fs.h"
#include "platform/path.h"

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

ContainerKind ContainerKindForCreate(std::string_view groupPath,
                                     std::string_view firstFileSignature) {
  const std::string ext = codepage::ToUpper1252(path::Extension(groupPath));
  if (ext == ".QXG" || ext == ".QXP") return ContainerKind::Zip;
  const ContainerKind kind = ContainerKindForSignature(firstFileSignature);
  return kind == ContainerKind::None ? ContainerKind::Zip : kind;
}

std::unique_ptr<GroupContainer> ConstructContainer(ContainerKind kind, const std::string& path,
                                                   ContainerFactory* factory,
                                                   const std::string& signature) {
  switch (kind) {
    case ContainerKind::OldKC: return std::make_unique<OldGroupContainerKC>(path, factory, signature);
    case ContainerKind::OldMA: return std::make_unique<OldGroupContainerMA>(path, factory, signature);
    case ContainerKind::Zip: return std::make_unique<ZipGroupContainer>(path, factory);
    case ContainerKind::None:
      return nullptr;
  }
  return nullptr;
}

namespace {

// Why no container took the file at `path` whose signature is `sig`, in a few words.
std::string WhyNotAGroup(const std::string& path, const std::string& sig, ContainerKind kind,
                         bool constructed) {
  const uint32_t attrs = fs::GetAttributes(path);
  if (attrs == fs::kInvalidAttributes) return "no such file";
  if (attrs & fs::kAttrDirectory) return "is a folder";
  fs::File probe = fs::File::OpenRead(path);
  if (!probe.IsOpen()) return "cannot be read";
  if (probe.Size() == 0) return "empty file";
  if (sig == kSigUnknown) return "unknown signature";
  if (sig == kSigFlash) return "a flash file";
  const FamilyInfo* family = FindFamilyBySignature(sig);
  if (kind == ContainerKind::None)
    return family == nullptr ? std::string("unknown signature")
                             : "the " + std::string(family->name) + " device family has no group files";
  if (!constructed)
    return kind == ContainerKind::Zip ? "zip-based groups are not supported by this build"
                                      : "old-style groups are not supported by this build";
  if (kind == ContainerKind::Zip) return "not a readable zip archive";
  if (family != nullptr && family->name == "HWL") return "HWL-family groups cannot be opened";
  return "a single-variable file, not a group";
}

}  // namespace

namespace {

// The old-style group last found valid while ReuseScopes live: the calls of one run that take
// its members out one at a time read its signature and header once, while its stamp holds.
struct KnownGroup {
  std::mutex lock;
  uint64_t run = 0;
  std::string path;
  fs::FileStamp stamp;
  std::string sig;
  ContainerKind kind = ContainerKind::None;
};

KnownGroup& Known() {
  static KnownGroup known;
  return known;
}

}  // namespace

std::unique_ptr<GroupContainer> ContainerFactory::CreateContainer(const std::string& path) {
  const uint64_t run = ReuseScope::Current();
  fs::FileStamp stamp;
  const bool reusable = run != 0 && fs::StampOf(path, stamp);
  KnownGroup& known = Known();
  if (reusable) {
    std::lock_guard<std::mutex> guard(known.lock);
    if (known.run == run && known.path == path && known.stamp == stamp)
      return ConstructContainer(known.kind, path, this, known.sig);
  }
  const std::string sig = DetectFileSignature(path);
  const ContainerKind kind = ContainerKindForSignature(sig);
  std::unique_ptr<GroupContainer> container = ConstructContainer(kind, path, this, sig);
  const bool constructed = container != nullptr;
  if (container != nullptr) {
    // IsValid is a question: what it notes on the way is not the reason given below.
    diag::DiagnosticScope probe;
    if (container->IsValid() == 0) container.reset();
  }
  if (container == nullptr) {
    diag::Record("not-a-group", path,
                 "not a group file (" + WhyNotAGroup(path, sig, kind, constructed) + ")");
    return container;
  }
  fs::FileStamp after;
  if (reusable && kind != ContainerKind::Zip && fs::StampOf(path, after) && after == stamp) {
    std::lock_guard<std::mutex> guard(known.lock);
    known.run = run;
    known.path = path;
    known.stamp = stamp;
    known.sig = sig;
    known.kind = kind;
  }
  return container;
}

}  // namespace qx
