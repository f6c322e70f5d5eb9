#include "archive/XmlWriter.h"

namespace qx::xml {

namespace {

constexpr size_t kFoldAfter = 80;

bool NeedsContentCare(char c) {
  return c == '<' || c == '>' || c == '"' || c == '\'' || c == '&' || c == ' ' || c == '\n';
}

void WriteAttributes(const Attr* a, std::string& out) {
  for (; a != nullptr; a = a->next) {
    out += ' ';
    out += a->name;
    out += "=\"";
    EscapeAttribute(a->value, out);
    out += '"';
  }
}

}  // namespace

void EscapeContent(std::string_view text, std::string& out) {
  size_t count = 0;
  size_t i = 0;
  const size_t n = text.size();
  while (i < n) {
    size_t run = i;
    while (run < n && !NeedsContentCare(text[run])) ++run;
    out.append(text.data() + i, run - i);
    count += run - i;
    i = run;
    if (i >= n) break;
    const char c = text[i++];
    ++count;
    switch (c) {
      case ' ':
      case '\n':
        out += c;
        if (count > kFoldAfter) {
          if (c != '\n') out += "\r\n";
          while (i < n && (text[i] == ' ' || text[i] == '\n')) ++i;
          count = 0;
        }
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default: {  // '&'
        std::string_view rest = text.substr(i - 1);
        bool entity = rest.starts_with("&#") || rest.starts_with("&lt;") ||
                      rest.starts_with("&gt;") || rest.starts_with("&quot;") ||
                      rest.starts_with("&apos;");
        out += entity ? "&" : "&amp;";
        break;
      }
    }
  }
}

void EscapeAttribute(std::string_view text, std::string& out) {
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    switch (c) {
      case '"':
        out += "&quot;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '\'':
        out += "&apos;";
        break;
      case '&':
        out += (i + 1 < text.size() && text[i + 1] == '#') ? "&" : "&amp;";
        break;
      default:
        out += c;
    }
  }
}

void WriteXml(const Node* element, std::string& out) {
  const Document* doc = element->doc;
  if (element == doc->root && doc->hasDeclaration) {
    out += "<?xml";
    for (const auto& [name, value] : doc->declaration) {
      out += ' ';
      out += name;
      out += "=\"";
      EscapeAttribute(value, out);
      out += '"';
    }
    out += " ?>\r\n";
    if (!doc->preamble.empty()) {
      out += doc->preamble;
      out += "\r\n";
    }
  }
  // An element without a tag is written as "nothing", so the text stays well-formed.
  const auto tagOf = [](const Node* n) {
    return n->tag.empty() ? std::string_view("nothing") : n->tag;
  };
  const Node* n = element;
  for (;;) {
    if (n == element || n->prev == nullptr) out += "\r\n";
    out += '<';
    out += tagOf(n);
    WriteAttributes(n->firstAttr, out);
    out += '>';
    if (n->cdata) {
      out += "<![CDATA[";
      out += n->content;
      out += "]]>";
    } else {
      EscapeContent(n->content, out);
    }
    if (n->firstChild != nullptr) {
      n = n->firstChild;
      continue;
    }
    for (;;) {  // close this element and every ancestor it was the last child of
      out += "</";
      out += tagOf(n);
      out += ">\r\n";
      if (n == element) return;
      if (n->next != nullptr) {
        n = n->next;
        break;
      }
      n = n->parent;
    }
  }
}

}  // namespace qx::xml
