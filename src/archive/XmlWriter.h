// Serialisation of a subtree as VxXml::GetXml hands it out: CR LF line breaks, no
// indentation, never the empty-element form, content folded after 80 characters.
#pragma once

#include <string>
#include <string_view>

#include "archive/XmlDocument.h"

namespace qx::xml {

// Appends the serialised subtree of `element` (with the declaration and preamble when it is
// its document's root). Iterative, so any depth is fine.
void WriteXml(const Node* element, std::string& out);

// Content: < > " ' become entities; '&' stays when it begins "&#", "&lt;", "&gt;", "&quot;"
// or "&apos;", else "&amp;". Folds at a space or line feed once more than 80 characters
// have been counted since the start or the last fold.
//   "a & b"      => "a &amp; b"
//   "&lt;&amp;"  => "&lt;&amp;amp;"
void EscapeContent(std::string_view text, std::string& out);
// Attribute values: " < > ' become entities; '&' becomes "&amp;" unless '#' follows. No folding.
void EscapeAttribute(std::string_view text, std::string& out);

}  // namespace qx::xml
