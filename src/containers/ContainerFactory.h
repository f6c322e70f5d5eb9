// Which container class serves which group file: the selection table, keyed by the signature
// that DetectFileSignature gives for the file's first bytes.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "containers/GroupContainer.h"

namespace qx {

enum class ContainerKind {
  None,      // no container class serves the signature
  Zip,       // ZipGroupContainer
  OldKC,     // OldGroupContainerKC
  OldMA,     // OldGroupContainerMA
};

// One row of the selection table. Signatures are compared whole: same length, same bytes.
struct ContainerRow {
  std::string_view signature;
  ContainerKind kind;
};

// The rows, in the order they are tried.
std::span<const ContainerRow> ContainerSelectionTable();

// The kind of the first row whose signature equals `signature`, or None:
//   "PK\x03\x04" => Zip;  "**QXKC**\x1A\x0A" => OldKC;  "**QXHWL*" => OldMA;  "**QXFL**" => None
ContainerKind ContainerKindForSignature(std::string_view signature);

// The kind CreateGrpFile builds for a new group at `groupPath` from `firstFileSignature` (the
// signature of the first file of the sorted list, kSigUnknown for none): the extension
// ".qxg"/".qxp" (any case) forces a zip-based group; otherwise the first file's row decides, and
// anything no old-style class takes goes into a zip-based group too.
//   ("a.QXG", kSigMA) => Zip;  ("a.mag", kSigMA) => OldMA;  ("a.zip", kSigKC) => OldKC;
//   ("a.mag", kSigFlash) => Zip
ContainerKind ContainerKindForCreate(std::string_view groupPath, std::string_view firstFileSignature);

// Constructs a container of that kind for the path (without asking IsValid). Null for None and
// for a kind whose class is not part of this build.
// `signature`: the file's, when the caller has read it (old-style containers then do not again).
std::unique_ptr<GroupContainer> ConstructContainer(ContainerKind kind, const std::string& path,
                                                   ContainerFactory* factory,
                                                   const std::string& signature = {});

// Makes containers for group files. FileManager and QXPackageInfo derive from it; containers keep
// a pointer to their factory to open groups stored inside them.
class ContainerFactory {
 public:
  virtual ~ContainerFactory() = default;
  // A container for the file at `path` whose IsValid accepts it, or null (unknown or unreadable
  // file, no class for its signature, or not valid for that class; the diagnostic "not-a-group"
  // says which, e.g. "notes.txt: not a group file (unknown signature)"). The caller owns it.
  virtual std::unique_ptr<GroupContainer> CreateContainer(const std::string& path);
};

}  // namespace qx
