#include "archive/XmlDocument.h"

#include <cstring>
#include <mutex>
#include <new>

#include "platform/ProcessState.h"

namespace qx::xml {

namespace {
constexpr size_t kBlockSize = 64 * 1024;

bool IEquals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]);
    unsigned char y = static_cast<unsigned char>(b[i]);
    if (x >= 'A' && x <= 'Z') x = static_cast<unsigned char>(x + 32);
    if (y >= 'A' && y <= 'Z') y = static_cast<unsigned char>(y + 32);
    if (x != y) return false;
  }
  return true;
}

// Next element in document order within the subtree of `top`, or null.
Node* NextPreorder(Node* n, const Node* top) {
  if (n->firstChild != nullptr) return n->firstChild;
  while (n != top) {
    if (n->next != nullptr) return n->next;
    n = n->parent;
  }
  return nullptr;
}
}  // namespace

// Standard-size blocks of freed documents are kept for the next ones (up to kPoolLimit
// blocks): documents come and go in bursts (listings, nested groups, manifests), and handing
// the memory back to the system each time means faulting it in again page by page.
namespace {
constexpr size_t kPoolLimit = 1024;  // 64 MB

struct BlockPool {
  std::mutex lock;
  std::vector<char*> blocks;
  ~BlockPool() {
    for (char* b : blocks) delete[] b;
  }
};

// Freed by ReleasePooledBlocks; documents held by static objects may still come and go later.
ProcessState<BlockPool> gPool;

BlockPool& Pool() { return gPool.Get(); }

char* TakeBlock() {
  BlockPool& pool = Pool();
  {
    std::lock_guard<std::mutex> guard(pool.lock);
    if (!pool.blocks.empty()) {
      char* b = pool.blocks.back();
      pool.blocks.pop_back();
      return b;
    }
  }
  return new char[kBlockSize];  // not zeroed
}

void GiveBlock(char* block) {
  BlockPool& pool = Pool();
  {
    std::lock_guard<std::mutex> guard(pool.lock);
    if (pool.blocks.size() < kPoolLimit) {
      pool.blocks.push_back(block);
      return;
    }
  }
  delete[] block;
}
}  // namespace

void ReleasePooledBlocks() { gPool.Release(); }

Arena::~Arena() {
  for (const Block& b : blocks_) {
    if (b.size == kBlockSize) {
      GiveBlock(b.data);
    } else {
      delete[] b.data;
    }
  }
}

void* Arena::AllocateSlow(size_t size, size_t align) {
  blocks_.reserve(blocks_.size() + 1);
  Block block{nullptr, kBlockSize};
  if (size + align > kBlockSize) {
    block.size = size + align;
    block.data = new char[block.size];
  } else {
    block.data = TakeBlock();
  }
  blocks_.push_back(block);
  cursor_ = block.data;
  end_ = block.data + block.size;
  return Allocate(size, align);
}

std::string_view Arena::Copy(std::string_view text) {
  if (text.empty()) return {};
  char* p = AllocateText(text.size());
  std::memcpy(p, text.data(), text.size());
  return {p, text.size()};
}

Document::Document() { arenas.push_back(std::make_shared<Arena>()); }

Node* Document::NewNode(std::string_view tag) {
  Node* n = arena().New<Node>();
  n->doc = this;
  n->tag = arena().Copy(tag);
  return n;
}

void Document::AddAttribute(Node* node, std::string_view name, std::string_view value) {
  Attr* a = arena().New<Attr>();
  a->name = arena().Copy(name);
  a->value = arena().Copy(value);
  if (node->lastAttr != nullptr) {
    node->lastAttr->next = a;
  } else {
    node->firstAttr = a;
  }
  node->lastAttr = a;
}

void Document::ShareArenas(const Document& other) {
  for (const auto& a : other.arenas) {
    bool held = false;
    for (const auto& mine : arenas) held = held || mine == a;
    // Keep arenas.back() as this document's own allocation arena.
    if (!held) arenas.insert(arenas.begin(), a);
  }
}

void Document::BuildIndex() {
  if (indexValid) return;
  bfs.clear();
  levelStart.clear();
  std::vector<uint32_t> perDepth;
  uint32_t pre = 0;
  uint32_t depth = 0;
  Node* n = root;
  while (n != nullptr) {
    n->pre = pre++;
    n->depth = depth;
    if (perDepth.size() <= depth) perDepth.push_back(0);
    ++perDepth[depth];
    if (n->firstChild != nullptr) {
      n = n->firstChild;
      ++depth;
      continue;
    }
    for (;;) {  // close this leaf and every ancestor whose last child it ends
      n->end = pre;
      if (n == root) {
        n = nullptr;
        break;
      }
      if (n->next != nullptr) {
        n = n->next;
        break;
      }
      n = n->parent;
      --depth;
    }
  }
  levelStart.resize(perDepth.size() + 1);
  uint32_t total = 0;
  for (size_t d = 0; d < perDepth.size(); ++d) {
    levelStart[d] = total;
    total += perDepth[d];
  }
  levelStart[perDepth.size()] = total;
  bfs.resize(total);
  std::vector<uint32_t> fill(levelStart.begin(), levelStart.end() - 1);
  for (n = root; n != nullptr; n = NextPreorder(n, root)) {
    n->bfsPos = fill[n->depth]++;
    bfs[n->bfsPos] = n;
  }
  indexValid = true;
}

std::string_view Document::DeclaredEncoding() const {
  for (const auto& [name, value] : declaration) {
    if (name == "encoding") return value;
  }
  return {};
}

void LinkLastChild(Node* parent, Node* child) {
  child->parent = parent;
  child->prev = parent->lastChild;
  child->next = nullptr;
  if (parent->lastChild != nullptr) {
    parent->lastChild->next = child;
  } else {
    parent->firstChild = child;
  }
  parent->lastChild = child;
  parent->doc->indexValid = false;
}

void Unlink(Node* node) {
  Node* parent = node->parent;
  if (parent == nullptr) return;
  (node->prev != nullptr ? node->prev->next : parent->firstChild) = node->next;
  (node->next != nullptr ? node->next->prev : parent->lastChild) = node->prev;
  node->parent = node->prev = node->next = nullptr;
  node->doc->indexValid = false;
}

void MoveSubtree(Node* top, Document* from, Document* to) {
  size_t moved = 0;
  for (Node* n = top; n != nullptr; n = NextPreorder(n, top)) {
    n->doc = to;
    moved += n->handles;
  }
  to->ShareArenas(*from);
  to->handles += moved;
  from->handles -= moved;
  if (from->root == top) from->root = nullptr;
  from->indexValid = false;
  to->indexValid = false;
  if (from->handles == 0) delete from;
}

void Retain(Node* node) {
  ++node->handles;
  ++node->doc->handles;
}

void ReleaseHandle(Node* node) {
  Document* doc = node->doc;
  --node->handles;
  if (--doc->handles == 0) delete doc;
}

bool WildcardMatch(std::string_view pattern, std::string_view text) {
  // Greedy with backtracking to the last star: O(|pattern| * |text|) at worst, no recursion.
  size_t p = 0;
  size_t t = 0;
  size_t starP = std::string_view::npos;
  size_t starT = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      starP = p++;
      starT = t;
    } else if (p < pattern.size() && pattern[p] == text[t]) {
      ++p;
      ++t;
    } else if (starP != std::string_view::npos) {
      p = starP + 1;
      t = ++starT;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

bool EqualsIgnoreCase(std::string_view a, std::string_view b) { return IEquals(a, b); }

bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && IEquals(text.substr(0, prefix.size()), prefix);
}

}  // namespace qx::xml
