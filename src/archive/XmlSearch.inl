// Breadth-first search over a subtree, included by XmlDocument.h.
//
// Without an "after" element and without a current index the search is a plain queue walk,
// costing what it visits. With an "after" element the document's breadth-first index is
// used: the descendants of `scope` at one depth form a contiguous run of the index (found by
// binary search on preorder numbers), so resuming after a match costs O(log n) plus the
// candidates actually looked at, and walking all matches of a tag costs about O(n) in total.
#pragma once

#include <algorithm>
#include <deque>

namespace qx::xml {

template <class Pred>
Node* FindBreadthFirst(Node* scope, const Node* after, Pred&& match) {
  Document* doc = scope->doc;
  if (after == nullptr && !doc->indexValid) {
    std::deque<Node*> queue{scope};
    while (!queue.empty()) {
      Node* n = queue.front();
      queue.pop_front();
      if (match(n)) return n;
      for (Node* c = n->firstChild; c != nullptr; c = c->next) queue.push_back(c);
    }
    return nullptr;
  }
  if (after != nullptr && after->doc != doc) return nullptr;
  doc->BuildIndex();
  const uint32_t lo = scope->pre;
  const uint32_t hi = scope->end;
  size_t depth = scope->depth;
  size_t pos = scope->bfsPos;
  if (after != nullptr) {
    if (after->pre < lo || after->pre >= hi) return nullptr;
    depth = after->depth;
    pos = after->bfsPos + 1;
  }
  const auto byPre = [](const Node* n, uint32_t pre) { return n->pre < pre; };
  for (; depth + 1 < doc->levelStart.size(); ++depth) {
    auto first = doc->bfs.begin() + doc->levelStart[depth];
    auto last = doc->bfs.begin() + doc->levelStart[depth + 1];
    auto runBegin = std::lower_bound(first, last, lo, byPre);
    auto runEnd = std::lower_bound(runBegin, last, hi, byPre);
    if (runBegin == runEnd) return nullptr;  // no descendants this deep, nor deeper
    auto it = std::max(runBegin, doc->bfs.begin() + static_cast<std::ptrdiff_t>(pos));
    for (; it < runEnd; ++it) {
      if (match(*it)) return *it;
    }
    pos = 0;
  }
  return nullptr;
}

}  // namespace qx::xml
