// VxXml: a handle on one element of an XML document tree. Parses, searches, builds and
// serialises the small documents of the component (package manifests, archive and group
// listings). Every handle returned by an operation is new and owned by the caller; a null
// pointer means "none". A document lives while any handle refers to any of its elements.
// Text arguments and results are in the document's declared encoding (UTF-8 when none).
// Nothing throws: failures are a false or null result plus a message in Log().
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "archive/VxString.h"

namespace qx {

namespace xml {
struct Node;
}

class VxXml {
 public:
  // A handle on the root of a new document: root tag "unnamed", no declaration.
  VxXml();
  ~VxXml();
  // Another handle on the same element (the log is not copied).
  VxXml(const VxXml& other);
  VxXml& operator=(const VxXml& other);

  // False (handle unchanged, message logged) when the text does not parse; on success the
  // handle refers to the root of the new document.
  bool LoadXml(const char* text);
  // As LoadXml for the contents of a file (path in the ANSI code page), after byte-order
  // marks and declared character sets are turned into UTF-8. False when unreadable.
  bool LoadXmlFile(const char* path);

  std::unique_ptr<VxXml> GetRoot() const;
  // Null for a root.
  std::unique_ptr<VxXml> GetParent() const;
  // Null for a first child.
  std::unique_ptr<VxXml> GetPreviousSibling() const;

  // Breadth-first over this element and its descendants; with `after` the search resumes
  // right after that element (null when `after` is not among the candidates).
  std::unique_ptr<VxXml> FindTag(const VxXml* after, const char* tag) const;
  // Content matched against a wildcard pattern ('*' = any run).
  std::unique_ptr<VxXml> FindTagWithContent(const VxXml* after, const char* tag,
                                            const char* contentPattern) const;
  // Some attribute called `name` has a value matching the wildcard pattern.
  std::unique_ptr<VxXml> FindTagWithAttribute(const VxXml* after, const char* tag,
                                              const char* name,
                                              const char* valuePattern) const;

  // A new last child; blanks in the tag become '_'. Null content means none.
  std::unique_ptr<VxXml> AddChild(const char* tag, const char* content);
  // Moves `other`'s element, with its subtree, to be this element's last child; handles on
  // the moved elements follow. False for null, or when `other` is this element or one of
  // its ancestors.
  bool AppendSubtree(VxXml* other);
  // This element and its subtree become a document of their own; a root stays as it is.
  void Detach();

  // Appends the pair (duplicates allowed); an empty or null name adds nothing. True.
  bool AddAttribute(const char* name, const char* value);
  // True when an attribute of that name exists; `value` gets the first one's value, or
  // empty text when there is none.
  bool GetAttribute(const char* name, VxString& value) const;
  // The serialised subtree (with declaration and preamble for a document root).
  bool GetXml(VxString& out) const;
  // Empty text when there is no content.
  bool GetContent(VxString& out) const;
  bool GetTag(VxString& out) const;
  bool SetTag(const char* tag);

  // Returns the memory that freed documents keep for later ones to the system; for module
  // unload. Documents still alive are not affected.
  static void ReleaseProcessState();

  // Diagnostic messages of failed operations, oldest first.
  const std::vector<std::string>& Log() const { return log_; }

 private:
  explicit VxXml(xml::Node* node);
  static std::unique_ptr<VxXml> Wrap(xml::Node* node);
  // Moves this handle onto `node` (retained first, so the old document may go safely).
  void Rebind(xml::Node* node);
  void Record(std::string message) const;

  xml::Node* node_;
  mutable std::vector<std::string> log_;
};

}  // namespace qx
