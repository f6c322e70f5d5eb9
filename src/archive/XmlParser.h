// The lenient, non-validating XML reader behind VxXml::LoadXml.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "archive/XmlDocument.h"

namespace qx::xml {

// Parses `text` into a new document (no handles yet). On failure returns null and sets
// `error` to the message for the log ("Unclosed comment", "Failed to parse DTD", ...).
// Copies out only what the tree keeps (tags and attribute names interned once per document)
// and never recurses, whatever the nesting.
std::unique_ptr<Document> ParseDocument(std::string_view text, std::string& error);

// Entity decoding from `in` to `out` (which may be `in` itself); returns the length written,
// never more than `size`. Content knows &lt; &apos; &gt; &quot; &amp;, attribute values the
// same without &apos;. Numeric references stay as they are.
size_t DecodeContent(const char* in, size_t size, char* out);
size_t DecodeAttribute(const char* in, size_t size, char* out);

}  // namespace qx::xml
