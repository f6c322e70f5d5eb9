// The lenient, non-validating XML reader behind VxXml::LoadXml.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "archive/XmlDocument.h"

namespace qx::xml {

// Parses `text` into a new document (no handles yet). On failure returns null and sets
// `error` to the message for the log ("Unclosed comment", "Failed to parse DTD", ...).
// Works in place on one arena copy of the text and never recurses, whatever the nesting.
std::unique_ptr<Document> ParseDocument(std::string_view text, std::string& error);

// Entity decoding in place; returns the new length. Content knows &lt; &apos; &gt; &quot;
// &amp;, attribute values the same without &apos;. Numeric references stay as they are.
size_t DecodeContent(char* text, size_t size);
size_t DecodeAttribute(char* text, size_t size);

}  // namespace qx::xml
