#include "archive/XmlParser.h"

#include <cstring>
#include <vector>

namespace qx::xml {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Bytes that end a tag name: blanks, '/' and '>'.
struct TagEnds {
  bool at[256] = {};
  constexpr TagEnds() {
    for (unsigned char c : {' ', '\t', '\r', '\n', '/', '>'}) at[c] = true;
  }
};
constexpr TagEnds kTagEnds;

struct Entity {
  std::string_view name;  // after '&', with ';'
  char value;
};

// Decoding the five entities one after another ("&lt;" first, "&amp;" last) equals one
// left-to-right pass that does not rescan what it wrote: no replacement can complete another
// entity, and the '&' that "&amp;" yields is produced by the last pass. So "&amp;lt;" gives
// "&lt;", one level removed.
template <size_t N>
size_t Decode(const char* in, size_t size, char* out, const Entity (&entities)[N]) {
  const char* amp = static_cast<const char*>(std::memchr(in, '&', size));
  size_t i = amp == nullptr ? size : static_cast<size_t>(amp - in);
  if (out != in) std::memmove(out, in, i);
  size_t o = i;
  while (i < size) {
    char c = in[i];
    if (c == '&') {
      std::string_view rest(in + i + 1, size - i - 1);
      bool replaced = false;
      for (const Entity& e : entities) {
        if (rest.substr(0, e.name.size()) == e.name) {
          out[o++] = e.value;
          i += 1 + e.name.size();
          replaced = true;
          break;
        }
      }
      if (replaced) continue;
    }
    out[o++] = c;
    ++i;
  }
  return o;
}

constexpr Entity kContentEntities[] = {
    {"lt;", '<'}, {"apos;", '\''}, {"gt;", '>'}, {"quot;", '"'}, {"amp;", '&'}};
constexpr Entity kAttributeEntities[] = {{"lt;", '<'}, {"gt;", '>'}, {"quot;", '"'}, {"amp;", '&'}};

class Parser {
 public:
  Parser(Document& doc, const char* text, size_t size) : doc_(doc), s_(text), n_(size) {}

  bool Run(std::string& error);

 private:
  struct Open {
    Node* node;
    std::string joined;  // content while an element has two or more text pieces
    uint32_t pieces = 0;
  };

  // "?>" or "/>" (as `first`) at `at`: checked per character in the hot loops.
  bool PairAt(size_t at, char first) const {
    return s_[at] == first && at + 1 < n_ && s_[at + 1] == '>';
  }
  bool StartsWith(size_t at, std::string_view what) const {
    return n_ - at >= what.size() && std::memcmp(s_ + at, what.data(), what.size()) == 0;
  }
  // Position of `what` at or after `from`, or npos.
  size_t Find(size_t from, std::string_view what) const {
    std::string_view all(s_, n_);
    return all.find(what, from);
  }
  // Tags and attribute names repeat all through a document: a small direct-mapped cache
  // lets most of them share one arena copy.
  std::string_view Intern(std::string_view name) {
    if (name.empty()) return {};
    size_t slot = (name.size() * 31 + static_cast<unsigned char>(name.front()) * 7 +
                   static_cast<unsigned char>(name.back())) % kNameSlots;
    std::string_view& cached = names_[slot];
    if (cached != name) cached = doc_.arena().Copy(name);
    return cached;
  }
  template <size_t N>
  std::string_view CopyDecoded(size_t begin, size_t size, const Entity (&entities)[N]) {
    if (size == 0) return {};
    Arena& arena = doc_.arena();
    char* out = arena.AllocateText(size);
    size_t used = Decode(s_ + begin, size, out, entities);
    arena.Shrink(out, used);
    return {out, used};
  }
  void SkipBlanks() {
    while (i_ < n_ && IsBlank(s_[i_])) ++i_;
  }

  void AddText(size_t begin, size_t end);
  void AddPiece(std::string_view piece);
  void Close();
  bool ParseDeclaration(std::string& error);
  bool ParseStartTag(std::string& error);
  // Attributes up to the end of a tag; `declaration` selects "?>" as the end and no decoding.
  bool ParseAttributes(Node* node, bool declaration, bool& emptyElement);
  bool ParseDoctype(std::string& error);

  Document& doc_;
  const char* s_;
  size_t n_;
  size_t i_ = 0;
  std::vector<Open> open_;
  bool rootClosed_ = false;
  static constexpr size_t kNameSlots = 256;
  std::string_view names_[kNameSlots];
};

void Parser::AddText(size_t begin, size_t end) {
  while (begin < end && IsBlank(s_[begin])) ++begin;
  while (end > begin && IsBlank(s_[end - 1])) --end;
  if (begin == end || open_.empty()) return;  // text outside the root is dropped
  AddPiece(CopyDecoded(begin, end - begin, kContentEntities));
}

void Parser::AddPiece(std::string_view piece) {
  Open& top = open_.back();
  if (top.pieces == 0) {
    top.node->content = piece;
  } else {
    if (top.pieces == 1) top.joined.assign(top.node->content);
    top.joined += ' ';
    top.joined += piece;
  }
  ++top.pieces;
}

void Parser::Close() {
  Open& top = open_.back();
  if (top.pieces >= 2) top.node->content = doc_.arena().Copy(top.joined);
  open_.pop_back();
  if (open_.empty()) rootClosed_ = true;
}

bool Parser::Run(std::string& error) {
  while (i_ < n_ && !rootClosed_) {
    const char* lt = static_cast<const char*>(std::memchr(s_ + i_, '<', n_ - i_));
    size_t at = lt != nullptr ? static_cast<size_t>(lt - s_) : n_;
    if (at > i_) AddText(i_, at);
    i_ = at;
    if (i_ >= n_) break;

    const char kind = i_ + 1 < n_ ? s_[i_ + 1] : '\0';
    if (kind != '?' && kind != '!' && kind != '/') {
      if (!ParseStartTag(error)) return false;
    } else if (StartsWith(i_, "<?xml ")) {
      if (!ParseDeclaration(error)) return false;
    } else if (StartsWith(i_, "<?")) {
      size_t end = Find(i_ + 2, "?>");
      if (end == std::string_view::npos) {
        error = "Unclosed processing instruction";
        return false;
      }
      doc_.preamble.append(s_ + i_, end + 2 - i_);
      doc_.preamble += '\n';
      i_ = end + 2;
    } else if (StartsWith(i_, "<!--")) {
      size_t end = Find(i_ + 4, "-->");
      if (end == std::string_view::npos) {
        error = "Unclosed comment";
        return false;
      }
      i_ = end + 3;
    } else if (StartsWith(i_, "<!DOCTYPE")) {
      if (!ParseDoctype(error)) return false;
    } else if (StartsWith(i_, "<![CDATA[")) {
      size_t end = Find(i_ + 9, "]]>");
      if (end == std::string_view::npos) {
        error = "Unclosed CDATA section";
        return false;
      }
      if (!open_.empty()) {
        open_.back().node->cdata = true;
        AddPiece(doc_.arena().Copy(std::string_view(s_ + i_ + 9, end - i_ - 9)));
      }
      i_ = end + 3;
    } else if (StartsWith(i_, "<!")) {
      const void* gt = std::memchr(s_ + i_, '>', n_ - i_);
      if (gt == nullptr) {
        error = "Unclosed markup declaration";
        return false;
      }
      i_ = static_cast<size_t>(static_cast<const char*>(gt) - s_) + 1;
    } else if (StartsWith(i_, "</")) {
      const void* gt = std::memchr(s_ + i_, '>', n_ - i_);
      if (gt == nullptr) {
        error = "Error in closing tag";
        return false;
      }
      i_ = static_cast<size_t>(static_cast<const char*>(gt) - s_) + 1;
      if (!open_.empty()) Close();  // a stray end tag before the root is ignored
    }
  }
  if (doc_.root == nullptr) {
    error = "No root element";
    return false;
  }
  // Elements still open at the end are kept as they stand.
  while (!open_.empty()) Close();
  return true;
}

bool Parser::ParseDeclaration(std::string& error) {
  i_ += 6;  // "<?xml "
  doc_.hasDeclaration = true;
  doc_.declaration.clear();
  bool unused = false;
  if (!ParseAttributes(nullptr, true, unused)) {
    error = "Error in XML declaration";
    return false;
  }
  return true;
}

bool Parser::ParseDoctype(std::string& error) {
  size_t depth = 0;
  for (size_t j = i_; j < n_; ++j) {
    if (s_[j] == '<') {
      ++depth;
    } else if (s_[j] == '>' && --depth == 0) {
      doc_.preamble.append(s_ + i_, j + 1 - i_);
      doc_.preamble += '\n';
      i_ = j + 1;
      return true;
    }
  }
  error = "Failed to parse DTD";
  return false;
}

bool Parser::ParseStartTag(std::string& error) {
  size_t begin = ++i_;
  while (i_ < n_ && !kTagEnds.at[static_cast<unsigned char>(s_[i_])]) ++i_;
  Node* node = doc_.arena().New<Node>();
  node->doc = &doc_;
  node->tag = Intern(std::string_view(s_ + begin, i_ - begin));
  bool emptyElement = false;
  if (!ParseAttributes(node, false, emptyElement)) {
    error = "Error in start tag";
    return false;
  }
  if (doc_.root == nullptr) {
    doc_.root = node;
  } else {
    LinkLastChild(open_.back().node, node);
  }
  open_.push_back(Open{node, {}, 0});
  if (emptyElement) Close();
  return true;
}

bool Parser::ParseAttributes(Node* node, bool declaration, bool& emptyElement) {
  for (;;) {
    SkipBlanks();
    if (i_ >= n_) return false;
    if (declaration && PairAt(i_, '?')) {
      i_ += 2;
      return true;
    }
    if (!declaration && s_[i_] == '>') {
      ++i_;
      return true;
    }
    if (!declaration && PairAt(i_, '/')) {
      i_ += 2;
      emptyElement = true;
      return true;
    }
    size_t nameBegin = i_;
    const char pairStart = declaration ? '?' : '/';
    while (i_ < n_ && !IsBlank(s_[i_]) && s_[i_] != '=' && s_[i_] != '>' &&
           !PairAt(i_, pairStart)) {
      ++i_;
    }
    std::string_view name(s_ + nameBegin, i_ - nameBegin);
    if (name.empty() && i_ < n_ && s_[i_] != '=') {
      ++i_;  // a stray '>' inside a declaration, or similar: step over it
      continue;
    }
    SkipBlanks();
    std::string_view value;
    if (i_ < n_ && s_[i_] == '=') {
      ++i_;
      SkipBlanks();
      if (i_ >= n_) return false;
      char quote = s_[i_];
      size_t valueBegin;
      size_t valueEnd;
      if (quote == '"' || quote == '\'') {
        valueBegin = i_ + 1;
        const void* close = std::memchr(s_ + valueBegin, quote, n_ - valueBegin);
        if (close == nullptr) return false;
        valueEnd = static_cast<size_t>(static_cast<const char*>(close) - s_);
        i_ = valueEnd + 1;
      } else {
        valueBegin = i_;
        while (i_ < n_ && !IsBlank(s_[i_]) && !PairAt(i_, pairStart) &&
               (declaration || s_[i_] != '>')) {
          ++i_;
        }
        valueEnd = i_;
      }
      value = declaration ? std::string_view(s_ + valueBegin, valueEnd - valueBegin)
                          : CopyDecoded(valueBegin, valueEnd - valueBegin, kAttributeEntities);
    }
    if (declaration) {
      doc_.declaration.emplace_back(std::string(name), std::string(value));
    } else {
      Attr* a = doc_.arena().New<Attr>();
      a->name = Intern(name);
      a->value = value;
      (node->lastAttr != nullptr ? node->lastAttr->next : node->firstAttr) = a;
      node->lastAttr = a;
    }
  }
}

}  // namespace

size_t DecodeContent(const char* in, size_t size, char* out) {
  return Decode(in, size, out, kContentEntities);
}
size_t DecodeAttribute(const char* in, size_t size, char* out) {
  return Decode(in, size, out, kAttributeEntities);
}

std::unique_ptr<Document> ParseDocument(std::string_view text, std::string& error) {
  auto doc = std::make_unique<Document>();
  Parser parser(*doc, text.data(), text.size());
  if (!parser.Run(error)) return nullptr;
  doc->indexValid = false;
  return doc;
}

}  // namespace qx::xml
