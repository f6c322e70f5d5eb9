// The tree behind VxXml handles: documents, elements, their memory, and the breadth-first
// search index. Internal to the archive subsystem; callers use VxXml.
//
// Memory: every element, attribute and string of a document lives in arenas (bump allocators)
// that the document shares through shared_ptr. Elements are trivially destructible, so a
// document of any depth is freed by dropping its arenas, never by walking the tree. When a
// subtree moves to another document, the receiving document takes a share of the sender's
// arenas, so the moved elements stay alive for as long as either document needs them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qx::xml {

class Arena {
 public:
  Arena() = default;
  ~Arena();
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;

  void* Allocate(size_t size, size_t align) {
    uintptr_t at = (reinterpret_cast<uintptr_t>(cursor_) + align - 1) & ~(uintptr_t{align} - 1);
    if (cursor_ != nullptr && size <= reinterpret_cast<uintptr_t>(end_) - at) {
      cursor_ = reinterpret_cast<char*>(at + size);
      return reinterpret_cast<char*>(at);
    }
    return AllocateSlow(size, align);
  }
  // Copies the bytes into the arena; the view stays valid as long as the arena.
  std::string_view Copy(std::string_view text);
  // An uninitialised buffer of `size` bytes (for text that is built in place).
  char* AllocateText(size_t size) { return static_cast<char*>(Allocate(size, 1)); }
  // Gives back the unused end of the most recent allocation, which started at `p`.
  void Shrink(char* p, size_t used) {
    if (p + used <= cursor_) cursor_ = p + used;
  }
  template <class T>
  T* New() {
    return new (Allocate(sizeof(T), alignof(T))) T();
  }

 private:
  void* AllocateSlow(size_t size, size_t align);

  struct Block {
    char* data;
    size_t size;
  };
  std::vector<Block> blocks_;
  char* cursor_ = nullptr;
  char* end_ = nullptr;
};

// Frees the arena blocks kept for reuse by later documents.
void ReleasePooledBlocks();

struct Attr {
  std::string_view name;
  std::string_view value;
  Attr* next = nullptr;
};

struct Document;

struct Node {
  Document* doc = nullptr;
  Node* parent = nullptr;
  Node* firstChild = nullptr;
  Node* lastChild = nullptr;
  Node* prev = nullptr;
  Node* next = nullptr;
  std::string_view tag;
  std::string_view content;
  Attr* firstAttr = nullptr;
  Attr* lastAttr = nullptr;
  // Handles (VxXml objects) that refer to this element.
  uint32_t handles = 0;
  bool cdata = false;
  // Search index, meaningful while doc->indexValid: depth, preorder number, one past the
  // preorder number of the last descendant, and position in doc->bfs.
  uint32_t depth = 0;
  uint32_t pre = 0;
  uint32_t end = 0;
  uint32_t bfsPos = 0;
};

using AttrList = std::vector<std::pair<std::string, std::string>>;

struct Document {
  Document();

  // arenas.back() receives everything this document allocates from now on.
  std::vector<std::shared_ptr<Arena>> arenas;
  Node* root = nullptr;
  bool hasDeclaration = false;
  AttrList declaration;
  std::string preamble;
  // Handles referring to any element of this document; the document dies with the last one.
  size_t handles = 0;

  // Breadth-first index: all elements ordered by (depth, document order); the elements of
  // depth d are bfs[levelStart[d] .. levelStart[d + 1]).
  bool indexValid = false;
  std::vector<Node*> bfs;
  std::vector<uint32_t> levelStart;

  Arena& arena() { return *arenas.back(); }
  Node* NewNode(std::string_view tag);
  void AddAttribute(Node* node, std::string_view name, std::string_view value);
  // Takes a share of every arena of `other` not yet held.
  void ShareArenas(const Document& other);
  void BuildIndex();
  // The declaration's "encoding" value, or empty.
  std::string_view DeclaredEncoding() const;
};

// Appends `child` (which has no parent) as the last child of `parent`, in the same document.
void LinkLastChild(Node* parent, Node* child);
// Unlinks `node` from its parent and siblings.
void Unlink(Node* node);
// Moves the subtree of `top` (already unlinked, or the root of `from`) into document `to`:
// element ownership, arena shares and handle counts follow. Deletes `from` when no handle
// is left on it.
void MoveSubtree(Node* top, Document* from, Document* to);

// Handle bookkeeping.
void Retain(Node* node);
// Deletes the document when its last handle goes.
void ReleaseHandle(Node* node);

// ASCII case-blind comparison, for character-set names.
bool EqualsIgnoreCase(std::string_view a, std::string_view b);
bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix);

// Wildcard match: '*' stands for any run of bytes, everything else for itself.
bool WildcardMatch(std::string_view pattern, std::string_view text);

// Breadth-first search over `scope` and its descendants, starting after `after` (or at
// `scope` itself when `after` is null). `match` is called per candidate.
template <class Pred>
Node* FindBreadthFirst(Node* scope, const Node* after, Pred&& match);

}  // namespace qx::xml

#include "archive/XmlSearch.inl"
