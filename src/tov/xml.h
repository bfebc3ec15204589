/// @file
/// Reading XML documents with XPath 1.0.
#ifndef TOV_XML_H
#define TOV_XML_H

#include <memory>
#include <string>

#include <tov/api.h>

namespace tov_xml {

/// A node of an Xml document, or none. Valid until its document is destroyed or
/// loaded again.
class TOV_API XmlNode {
 public:
  /// Makes an object without a node.
  XmlNode();

  /// Whether there is a node.
  operator bool() const;

  /// Returns the value of an attribute; empty without such an attribute or
  /// without a node.
  std::string GetProp(const char* name) const;

 private:
  friend class Xml;
  TOV_INTERNAL explicit XmlNode(void* node);

  void* node_;
};

/// An XML document.
class TOV_API Xml {
 public:
  /// Makes an empty document.
  Xml();
  ~Xml();
  Xml(const Xml&) = delete;
  Xml& operator=(const Xml&) = delete;

  /// Replaces the document by the one in @p text.
  ///
  /// Text that is not one complete XML document leaves the document empty, so
  /// that a truncated answer is not mistaken for a whole one. This holds for
  /// every parse error, for more than one document element, for text outside of
  /// it, and for a zero byte anywhere (hence for UTF-16). Entities defined by a
  /// document type declaration are not expanded.
  void LoadFromString(const std::string& text);

  /// Returns the first node, in document order, that an XPath expression
  /// selects. Returns no node if nothing matches, the expression does not
  /// compile, or it does not select nodes.
  XmlNode GetNode(const std::string& xpath) const;

 private:
  struct Document;
  std::unique_ptr<Document> document_;
};

}  // namespace tov_xml

#endif
