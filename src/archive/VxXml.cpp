#include "archive/VxXml.h"

#include <exception>
#include <memory>
#include <string_view>

#include "archive/XmlDocument.h"
#include "archive/XmlEncoding.h"
#include "archive/XmlParser.h"
#include "archive/XmlWriter.h"
#include "platform/fs.h"

namespace qx {

namespace {

// Files larger than this are not XML documents this component meets.
constexpr uint64_t kMaxFileSize = uint64_t{1} << 30;

std::string_view Arg(const char* text) {
  return text != nullptr ? std::string_view(text) : std::string_view();
}

xml::TextCodec CodecOf(const xml::Node* node) {
  return xml::TextCodec(node->doc->DeclaredEncoding());
}

// Runs `body`, turning a standard-library exception into `failure` and a log line.
template <class Body, class Result>
Result Guarded(const VxXml& self, void (VxXml::*record)(std::string) const, Body&& body,
               Result failure) {
  try {
    return body();
  } catch (const std::exception& e) {
    (self.*record)(e.what());
    return failure;
  }
}

}  // namespace

VxXml::VxXml() : node_(nullptr) {
  // Owned here until its root node holds it, so a failed allocation on the way frees it.
  auto doc = std::make_unique<xml::Document>();
  doc->root = doc->NewNode("unnamed");
  node_ = doc->root;
  xml::Retain(node_);
  doc.release();
}

VxXml::VxXml(xml::Node* node) : node_(node) { xml::Retain(node_); }

VxXml::VxXml(const VxXml& other) : node_(other.node_) { xml::Retain(node_); }

VxXml& VxXml::operator=(const VxXml& other) {
  Rebind(other.node_);
  return *this;
}

VxXml::~VxXml() { xml::ReleaseHandle(node_); }

std::unique_ptr<VxXml> VxXml::Wrap(xml::Node* node) {
  return node != nullptr ? std::unique_ptr<VxXml>(new VxXml(node)) : nullptr;
}

void VxXml::Rebind(xml::Node* node) {
  xml::Retain(node);
  xml::ReleaseHandle(node_);
  node_ = node;
}

void VxXml::ReleaseProcessState() { xml::ReleasePooledBlocks(); }

void VxXml::Record(std::string message) const { log_.push_back(std::move(message)); }

bool VxXml::LoadXml(const char* text) {
  if (text == nullptr) {
    Record("null parameter");
    return false;
  }
  return Guarded(*this, &VxXml::Record, [&] {
    std::string error;
    std::unique_ptr<xml::Document> doc = xml::ParseDocument(text, error);
    if (!doc) {
      Record(error);
      return false;
    }
    Rebind(doc.release()->root);
    return true;
  }, false);
}

bool VxXml::LoadXmlFile(const char* path) {
  if (path == nullptr) {
    Record("null parameter");
    return false;
  }
  return Guarded(*this, &VxXml::Record, [&] {
    std::vector<unsigned char> bytes;
    if (!fs::ReadWholeFile(path, bytes, kMaxFileSize)) {
      Record("Failed to read file");
      return false;
    }
    std::string text;
    std::string error;
    if (!xml::PrepareFileText(bytes, text, error)) {
      Record(error);
      return false;
    }
    bytes = {};
    std::unique_ptr<xml::Document> doc = xml::ParseDocument(text, error);
    if (!doc) {
      Record(error);
      return false;
    }
    xml::NormaliseDeclaredEncoding(*doc);
    Rebind(doc.release()->root);
    return true;
  }, false);
}

std::unique_ptr<VxXml> VxXml::GetRoot() const { return Wrap(node_->doc->root); }

std::unique_ptr<VxXml> VxXml::GetParent() const { return Wrap(node_->parent); }

std::unique_ptr<VxXml> VxXml::GetPreviousSibling() const { return Wrap(node_->prev); }

std::unique_ptr<VxXml> VxXml::FindTag(const VxXml* after, const char* tag) const {
  return Guarded(*this, &VxXml::Record, [&] {
    xml::TextCodec codec = CodecOf(node_);
    std::string buffer;
    std::string_view wanted = codec.ToUtf8(Arg(tag), buffer);
    return Wrap(xml::FindBreadthFirst(node_, after != nullptr ? after->node_ : nullptr,
                                      [&](const xml::Node* n) { return n->tag == wanted; }));
  }, std::unique_ptr<VxXml>());
}

std::unique_ptr<VxXml> VxXml::FindTagWithContent(const VxXml* after, const char* tag,
                                                 const char* contentPattern) const {
  return Guarded(*this, &VxXml::Record, [&] {
    xml::TextCodec codec = CodecOf(node_);
    std::string tagBuffer;
    std::string patternBuffer;
    std::string_view wanted = codec.ToUtf8(Arg(tag), tagBuffer);
    std::string_view pattern = codec.ToUtf8(Arg(contentPattern), patternBuffer);
    return Wrap(xml::FindBreadthFirst(
        node_, after != nullptr ? after->node_ : nullptr, [&](const xml::Node* n) {
          return n->tag == wanted && xml::WildcardMatch(pattern, n->content);
        }));
  }, std::unique_ptr<VxXml>());
}

std::unique_ptr<VxXml> VxXml::FindTagWithAttribute(const VxXml* after, const char* tag,
                                                   const char* name,
                                                   const char* valuePattern) const {
  return Guarded(*this, &VxXml::Record, [&] {
    xml::TextCodec codec = CodecOf(node_);
    std::string tagBuffer;
    std::string nameBuffer;
    std::string patternBuffer;
    std::string_view wanted = codec.ToUtf8(Arg(tag), tagBuffer);
    std::string_view attrName = codec.ToUtf8(Arg(name), nameBuffer);
    std::string_view pattern = codec.ToUtf8(Arg(valuePattern), patternBuffer);
    return Wrap(xml::FindBreadthFirst(
        node_, after != nullptr ? after->node_ : nullptr, [&](const xml::Node* n) {
          if (n->tag != wanted) return false;
          for (const xml::Attr* a = n->firstAttr; a != nullptr; a = a->next) {
            if (a->name == attrName && xml::WildcardMatch(pattern, a->value)) return true;
          }
          return false;
        }));
  }, std::unique_ptr<VxXml>());
}

std::unique_ptr<VxXml> VxXml::AddChild(const char* tag, const char* content) {
  return Guarded(*this, &VxXml::Record, [&] {
    xml::TextCodec codec = CodecOf(node_);
    std::string tagBuffer;
    std::string contentBuffer;
    std::string name(codec.ToUtf8(Arg(tag), tagBuffer));
    for (char& c : name) {
      if (c == ' ') c = '_';
    }
    xml::Document* doc = node_->doc;
    xml::Node* child = doc->NewNode(name);
    child->content = doc->arena().Copy(codec.ToUtf8(Arg(content), contentBuffer));
    xml::LinkLastChild(node_, child);
    return Wrap(child);
  }, std::unique_ptr<VxXml>());
}

bool VxXml::AppendSubtree(VxXml* other) {
  if (other == nullptr) return false;
  xml::Node* moving = other->node_;
  for (const xml::Node* n = node_; n != nullptr; n = n->parent) {
    if (n == moving) {
      Record("Cannot append an element into its own subtree");
      return false;
    }
  }
  return Guarded(*this, &VxXml::Record, [&] {
    xml::Document* from = moving->doc;
    xml::Document* to = node_->doc;
    xml::Unlink(moving);
    if (from != to) xml::MoveSubtree(moving, from, to);  // may delete `from`
    xml::LinkLastChild(node_, moving);
    return true;
  }, false);
}

void VxXml::Detach() {
  if (node_->parent == nullptr) return;
  Guarded(*this, &VxXml::Record, [&] {
    auto fresh = std::make_unique<xml::Document>();
    xml::Document* from = node_->doc;
    xml::Unlink(node_);
    fresh->root = node_;
    xml::MoveSubtree(node_, from, fresh.release());  // may delete `from`
    return true;
  }, false);
}

bool VxXml::AddAttribute(const char* name, const char* value) {
  if (name == nullptr || *name == '\0') return true;
  return Guarded(*this, &VxXml::Record, [&] {
    xml::TextCodec codec = CodecOf(node_);
    std::string nameBuffer;
    std::string valueBuffer;
    node_->doc->AddAttribute(node_, codec.ToUtf8(name, nameBuffer),
                             codec.ToUtf8(Arg(value), valueBuffer));
    return true;
  }, true);
}

bool VxXml::GetAttribute(const char* name, VxString& value) const {
  return Guarded(*this, &VxXml::Record, [&] {
    xml::TextCodec codec = CodecOf(node_);
    std::string buffer;
    std::string_view wanted = codec.ToUtf8(Arg(name), buffer);
    for (const xml::Attr* a = node_->firstAttr; a != nullptr; a = a->next) {
      if (a->name == wanted) {
        codec.FromUtf8(a->value, value.Buffer());
        return true;
      }
    }
    value.Assign({});
    return false;
  }, false);
}

bool VxXml::GetXml(VxString& out) const {
  return Guarded(*this, &VxXml::Record, [&] {
    xml::TextCodec codec = CodecOf(node_);
    std::string& text = out.Buffer();
    text.clear();
    if (codec.IsIdentity()) {
      xml::WriteXml(node_, text);
    } else {
      std::string utf8;
      xml::WriteXml(node_, utf8);
      codec.FromUtf8(utf8, text);
    }
    return true;
  }, false);
}

bool VxXml::GetContent(VxString& out) const {
  return Guarded(*this, &VxXml::Record, [&] {
    CodecOf(node_).FromUtf8(node_->content, out.Buffer());
    return true;
  }, false);
}

bool VxXml::GetTag(VxString& out) const {
  return Guarded(*this, &VxXml::Record, [&] {
    CodecOf(node_).FromUtf8(node_->tag, out.Buffer());
    return true;
  }, false);
}

bool VxXml::SetTag(const char* tag) {
  return Guarded(*this, &VxXml::Record, [&] {
    xml::TextCodec codec = CodecOf(node_);
    std::string buffer;
    node_->tag = node_->doc->arena().Copy(codec.ToUtf8(Arg(tag), buffer));
    return true;
  }, false);
}

}  // namespace qx
