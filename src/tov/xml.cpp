#include <tov/xml.h>

#include <pugixml.hpp>

#include <cstdlib>

/// Replaces pugixml's calls of streams and files, see embed_pugixml.sh. It is
/// never called.
extern "C" [[noreturn]] __attribute__((visibility("hidden"), used)) void
tov_internal_absent() {
  std::abort();
}

namespace tov_xml {
namespace {

/// pugixml accepts several document elements and ignores text around them. With
/// parse_fragment both are in the tree, so that they can be refused.
bool HasOneElementAndNoText(const pugi::xml_document& document) {
  int elements = 0;
  for (const pugi::xml_node child : document.children()) {
    switch (child.type()) {
      case pugi::node_element:
        ++elements;
        break;
      case pugi::node_pcdata:
      case pugi::node_cdata:
        return false;
      default:
        break;
    }
  }
  return elements == 1;
}

}  // namespace

struct Xml::Document {
  pugi::xml_document tree;
};

XmlNode::XmlNode() : node_(nullptr) {}

XmlNode::XmlNode(void* node) : node_(node) {}

XmlNode::operator bool() const { return node_ != nullptr; }

std::string XmlNode::GetProp(const char* name) const {
  const pugi::xml_node node(static_cast<pugi::xml_node_struct*>(node_));
  return node.attribute(name).value();
}

Xml::Xml() : document_(new Document) {}

Xml::~Xml() = default;

void Xml::LoadFromString(const std::string& text) {
  pugi::xml_document& tree = document_->tree;
  tree.reset();
  // pugixml would end the text at a zero byte.
  if (text.find('\0') != std::string::npos) return;
  const pugi::xml_parse_result result = tree.load_buffer(
      text.data(), text.size(), pugi::parse_default | pugi::parse_fragment);
  // After an error pugixml keeps what it has parsed so far.
  if (!result || !HasOneElementAndNoText(tree)) tree.reset();
}

XmlNode Xml::GetNode(const std::string& xpath) const {
  try {
    const pugi::xpath_node found = document_->tree.select_node(xpath.c_str());
    return XmlNode(found.node().internal_object());
  } catch (const pugi::xpath_exception&) {
    return {};
  }
}

}  // namespace tov_xml
