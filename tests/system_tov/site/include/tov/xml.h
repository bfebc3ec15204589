#pragma once

#include <string>
#include <utility>

#include <tov/site.h>

namespace tov_xml {

/// A copy of an element's tag.
class XmlNode {
 public:
  operator bool() const;
  std::string GetProp(const char* name) const;

 private:
  friend class Xml;
  explicit XmlNode(std::string tag) : tag_(std::move(tag)) {}

  site::Room room_;
  std::string tag_;
};

/// The text of a document.
class Xml {
 public:
  Xml();
  ~Xml();
  bool LoadFromString(const std::string& text);
  XmlNode GetNode(const std::string& path) const;

 private:
  site::Room room_;
  std::string text_;
};

#ifdef SITE_DEFINES_SMALL
SITE_FUNCTION XmlNode::operator bool() const { return !tag_.empty(); }

SITE_FUNCTION Xml::Xml() : text_("nothing yet") {}
SITE_FUNCTION Xml::~Xml() { text_.clear(); }
#endif

}  // namespace tov_xml
