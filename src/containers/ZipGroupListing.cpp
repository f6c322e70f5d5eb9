// The contents listing of a zip-based group: folders as nested "dir" elements, members as
// "file" elements, meta information from the entries, and nested groups listed in place.
#include <charconv>
#include <iterator>
#include <unordered_map>

#include "archive/VxXml.h"
#include "archive/XmlDocument.h"
#include "containers/NestedGroup.h"
#include "containers/ZipGroupContainer.h"
#include "platform/Diagnostic.h"

namespace qx {

namespace {

constexpr char kSep = '\\';
constexpr const char* kDefaultSubGroups = "*.qxg;*.qxp;*.kdg;*.kag;*.nbg;*.mag;*.rag";

// The directory skeleton, one node per element, with what finding an entry's element needs:
// the first element in breadth-first order for each file text and each folder name.
//
// Looking an entry's path up part by part takes, for each part, the first element of the whole
// document (breadth-first) that carries that text, and accepts it only one level below the
// element reached so far. Finding those first elements by a map built here, instead of a
// search of the document per part, gives the same element in constant time.
class Skeleton {
 public:
  explicit Skeleton(VxXml& root) { nodes_.push_back(Node{-1, 0, false, {}, nullptr, {}});
    root_ = &root; }

  bool AddEntry(const std::string& entryName, bool directory) {
    std::string name = entryName;
    if (!name.empty() && name.back() == kSep) name.pop_back();
    std::vector<std::string> parts;
    for (size_t start = 0;;) {
      const size_t cut = name.find(kSep, start);
      parts.push_back(name.substr(start, cut - start));
      if (cut == std::string::npos) break;
      start = cut + 1;
    }
    const size_t folderParts = directory ? parts.size() : parts.size() - 1;
    int parent = 0;
    std::string key;
    for (size_t i = 0; i < folderParts; ++i) {
      key += parts[i];
      key += kSep;
      auto [it, fresh] = folders_.try_emplace(key, 0);
      if (fresh) {
        it->second = NewNode(parent, true, parts[i]);
        if (it->second < 0) return false;
      }
      parent = it->second;
    }
    return folderParts == parts.size() || NewNode(parent, false, parts.back()) >= 0;
  }

  // Orders the nodes breadth-first and records the first file and folder of each text.
  void Finish() {
    std::vector<int> order{0};
    for (size_t i = 0; i < order.size(); ++i)
      for (int c : nodes_[static_cast<size_t>(order[i])].children) order.push_back(c);
    for (int n : order) {
      const Node& node = nodes_[static_cast<size_t>(n)];
      if (n != 0) (node.dir ? firstDir_ : firstFile_).try_emplace(node.text, n);
    }
    bfs_ = std::move(order);
  }

  // The element that lists the entry of stored path `path`, or null.
  VxXml* FindNodeForPath(const std::string& path) {
    int cur = 0;
    for (size_t start = 0; start < path.size();) {
      size_t cut = path.find(kSep, start);
      if (cut == std::string::npos) cut = path.size();
      const std::string part = path.substr(start, cut - start);
      start = cut + 1;
      const int want = nodes_[static_cast<size_t>(cur)].depth + 1;
      int next = First(false, part);
      if (next < 0 || nodes_[static_cast<size_t>(next)].depth != want) next = First(true, part);
      if (next < 0 || nodes_[static_cast<size_t>(next)].depth != want) return nullptr;
      cur = next;
    }
    return cur == 0 ? root_ : nodes_[static_cast<size_t>(cur)].xml.get();
  }

 private:
  struct Node {
    int parent;
    int depth;
    bool dir;
    std::string text;  // folder name or file text
    std::unique_ptr<VxXml> xml;
    std::vector<int> children;
  };

  int NewNode(int parent, bool dir, const std::string& text) {
    Node& p = nodes_[static_cast<size_t>(parent)];
    VxXml& parentXml = parent == 0 ? *root_ : *p.xml;
    std::unique_ptr<VxXml> x = parentXml.AddChild(dir ? "dir" : "file", dir ? nullptr : text.c_str());
    if (x == nullptr || (dir && !x->AddAttribute("name", text.c_str()))) return -1;
    const int id = static_cast<int>(nodes_.size());
    const int depth = p.depth + 1;
    nodes_[static_cast<size_t>(parent)].children.push_back(id);
    nodes_.push_back(Node{parent, depth, dir, text, std::move(x), {}});
    return id;
  }

  // The first element breadth-first of that kind whose text matches `pattern` ('*' = any run).
  int First(bool dir, const std::string& pattern) {
    if (pattern.find('*') == std::string::npos) {
      const auto& map = dir ? firstDir_ : firstFile_;
      const auto it = map.find(pattern);
      return it == map.end() ? -1 : it->second;
    }
    auto& cache = dir ? wildDir_ : wildFile_;
    if (const auto it = cache.find(pattern); it != cache.end()) return it->second;
    int found = -1;
    for (int n : bfs_) {
      const Node& node = nodes_[static_cast<size_t>(n)];
      if (n != 0 && node.dir == dir && xml::WildcardMatch(pattern, node.text)) {
        found = n;
        break;
      }
    }
    cache.emplace(pattern, found);
    return found;
  }

  VxXml* root_;
  std::vector<Node> nodes_;
  std::vector<int> bfs_;
  std::unordered_map<std::string, int> folders_;
  std::unordered_map<std::string, int> firstFile_, firstDir_, wildFile_, wildDir_;
};

std::string Content(const VxXml& x) {
  VxString s;
  x.GetContent(s);
  return std::string(s.View());
}

// True when the element lies inside a nested group's listing (below a "group" other than the
// root). Its own container has already tried its members as groups.
bool InsideNestedListing(const VxXml& x) {
  for (std::unique_ptr<VxXml> p = x.GetParent(); p != nullptr;) {
    std::unique_ptr<VxXml> up = p->GetParent();
    if (up == nullptr) return false;
    VxString tag;
    p->GetTag(tag);
    if (tag.View() == "group") return true;
    p = std::move(up);
  }
  return false;
}

int Depth(const VxXml& x) {
  int d = 0;
  for (std::unique_ptr<VxXml> p = x.GetParent(); p != nullptr; p = p->GetParent()) ++d;
  return d;
}

// The stored member path an element stands for: folder names and file texts from the top
// down; "group" elements add nothing. dir a / file b.kdp => "a\b.kdp".
std::string PathOfNode(const VxXml& element) {
  std::vector<std::string> names;
  std::unique_ptr<VxXml> hold;
  for (const VxXml* x = &element; x != nullptr;) {
    VxString tag;
    x->GetTag(tag);
    std::string name;
    if (tag.View() == "dir") {
      VxString value;
      x->GetAttribute("name", value);
      name = std::string(value.View());
    } else {
      name = Content(*x);
    }
    if (!name.empty()) names.push_back(std::move(name));
    hold = x->GetParent();
    x = hold.get();
  }
  std::string path;
  for (auto it = names.rbegin(); it != names.rend(); ++it) {
    if (!path.empty()) path += kSep;
    path += *it;
  }
  return path;
}

// True when the member name's extension is listed in the (upper-cased) pattern: its first
// occurrence there is followed by ";" or the end.  ".KDG" in "*.QXG;*.KDG" => true.
bool ExtensionMatches(const std::string& text, const std::string& pattern) {
  const size_t dot = text.find_last_of('.');
  std::string ext = dot == std::string::npos ? std::string() : text.substr(dot);
  for (char& c : ext)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  const size_t at = pattern.find(ext);
  return at != std::string::npos &&
         (at + ext.size() == pattern.size() || pattern[at + ext.size()] == ';');
}

// Decimal text of `value` at `at`, NUL-terminated; returns the NUL's position. (Called for every
// entry: printf's format parsing was a seventh of a 10,000-member listing.)
char* PutNumber(char* at, char* end, uint64_t value) {
  at = std::to_chars(at, end - 1, value).ptr;
  *at = '\0';
  return at;
}

void AddMeta(VxXml& element, VxZipEntry& entry) {
  SYSTEMTIME t{};
  entry.GetFileTime(t);
  char date[64];
  char* at = date;
  for (const uint16_t part : {t.wYear, t.wMonth, t.wDayOfWeek, t.wDay, t.wHour, t.wMinute, t.wSecond,
                          t.wMilliseconds}) {
    if (at != date) *at++ = '.';
    at = PutNumber(at, std::end(date), part);
  }
  char number[24];
  PutNumber(number, std::end(number), entry.GetUncompressedSize());
  element.AddAttribute("Size", number);
  PutNumber(number, std::end(number), entry.GetCompressedSize());
  element.AddAttribute("CompSize", number);
  element.AddAttribute("Date", date);
}

}  // namespace

int32_t ZipGroupContainer::WriteContentsXml(std::string& xml, int32_t includeMetaInfo,
                                            std::string subGroupPattern) {
  nested::CallScope call;
  if (subGroupPattern == "*") subGroupPattern = kDefaultSubGroups;
  for (char& c : subGroupPattern)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');

  // The document declares no encoding, so 1252 names pass through to the caller unchanged.
  VxXml root;
  root.SetTag("group");
  root.AddAttribute("name", GetGroupFileName().c_str());
  {
    Skeleton skeleton(root);
    std::vector<std::string> names;  // kept for the meta pass, which needs each name again
    for (std::unique_ptr<VxZipEntry> e = zip_.FirstEntry(); e != nullptr; e = e->NextEntry()) {
      std::string name = EntryName(*e);
      if (!skeleton.AddEntry(name, IsDirectoryEntry(*e, name))) return 0;
      if (includeMetaInfo != 0) names.push_back(std::move(name));
    }
    skeleton.Finish();
    if (includeMetaInfo != 0) {
      size_t i = 0;
      for (std::unique_ptr<VxZipEntry> e = zip_.FirstEntry(); e != nullptr; e = e->NextEntry(), ++i)
        if (VxXml* element = skeleton.FindNodeForPath(names[i])) AddMeta(*element, *e);
    }
  }

  if (!subGroupPattern.empty() && factory_ != nullptr) {
    // Each "file" element whose extension the pattern names is tried as a nested group; one
    // that lists is put in its place as a "group" element. The walk goes breadth-first and
    // resumes right after the element it replaced. What a replacement brings in is not walked
    // again: the nested container has tried its own members, and a path through it would name
    // members of this archive (group elements add no path part), so an archive holding itself
    // would be opened again and again.
    std::unique_ptr<VxXml> x = root.FindTagWithContent(nullptr, "file", "*");
    bool workChecked = false;
    while (x != nullptr) {
      const std::string text = Content(*x);
      if (!ExtensionMatches(text, subGroupPattern) || InsideNestedListing(*x)) {
        x = root.FindTagWithContent(x.get(), "file", "*");
        continue;
      }
      const std::string path = PathOfNode(*x);
      std::unique_ptr<VxZipEntry> member = FindMember(path);
      if (member == nullptr) break;  // listing what was expanded so far
      // Nested groups are opened from copies in the private temporary folder: when that folder
      // is refused, the listing fails with why instead of showing each group as a plain file.
      if (!workChecked && nested::Depth() == 0) {
        workChecked = true;
        if (!fs::TempWorkFolder().IsOpen()) return 0;
      }
      std::string sub;
      bool listed = false;
      {
        diag::DiagnosticScope probe;  // a member that does not list stays a plain file
        nested::MemberCopy copy(std::move(member), text);
        listed = copy.ok() && copy.Run(*factory_, [&](GroupContainer& inner) {
          return inner.WriteContentsXml(sub, includeMetaInfo, subGroupPattern);
        }) > 0;
      }
      VxXml nestedDoc;
      if (!listed || !nestedDoc.LoadXml(sub.c_str())) {
        x = root.FindTagWithContent(x.get(), "file", "*");
        continue;
      }
      std::unique_ptr<VxXml> before = x->GetPreviousSibling();
      std::unique_ptr<VxXml> parent = x->GetParent();
      x->Detach();
      std::unique_ptr<VxXml> group = nestedDoc.GetRoot();
      parent->AppendSubtree(group.get());
      if (before != nullptr) {
        x = root.FindTagWithContent(before.get(), "file", "*");
        continue;
      }
      // It was the first child: the next file is the parent's first remaining file child,
      // else whatever follows the new group.
      x = parent->FindTagWithContent(nullptr, "file", "*");
      if (x == nullptr || Depth(*x) != Depth(*parent) + 1)
        x = root.FindTagWithContent(group.get(), "file", "*");
    }
  }

  VxString text;
  if (!root.GetXml(text)) {
    diag::Record("xml-failed", GetGroupFileName(), "the listing cannot be written as XML");
    return 0;
  }
  xml = std::string(text.View());
  return 1;
}

}  // namespace qx
