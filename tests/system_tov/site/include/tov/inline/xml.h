#include <tov/site.h>

namespace tov_xml {

SITE_FUNCTION XmlNode::operator bool() const { return !tag_.empty(); }

SITE_FUNCTION Xml::Xml() : text_("nothing yet") {}
SITE_FUNCTION Xml::~Xml() { text_.clear(); }

}  // namespace tov_xml
