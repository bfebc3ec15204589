#include <gtest/gtest.h>
#include <tov/xml.h>

#include <string>
#include <vector>

namespace {

using tov_xml::Xml;
using tov_xml::XmlNode;

const std::string kAnswer =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<doc><user name=\"anna\" level=\"7\"/></doc>";

/// A document made of a text.
class Document {
 public:
  explicit Document(const std::string& text) { xml_.LoadFromString(text); }

  bool Has(const std::string& xpath) const { return xml_.GetNode(xpath); }
  bool IsEmpty() const { return !Has("/node()") && !Has("//*"); }
  std::string Prop(const std::string& xpath, const char* name) const {
    return xml_.GetNode(xpath).GetProp(name);
  }

 private:
  Xml xml_;
};

TEST(XmlNode, ReturnsItsAttributes) {
  const Document document(kAnswer);
  EXPECT_EQ(document.Prop("/doc/user", "name"), "anna");
  EXPECT_EQ(document.Prop("/doc/user", "level"), "7");
  EXPECT_EQ(document.Prop("/doc/user", "Name"), "");
  EXPECT_FALSE(XmlNode());
  EXPECT_EQ(XmlNode().GetProp("name"), "");
}

TEST(XmlNode, DecodesTheEntitiesOfXmlItself) {
  EXPECT_EQ(
      Document("<a b='&lt;&amp;&gt;&quot;&apos;&#65;&#x42;'/>").Prop("/a", "b"),
      "<&>\"'AB");
}

TEST(Xml, FindsTheNodesThatAreThere) {
  const Document document(kAnswer);
  EXPECT_TRUE(document.Has("/doc/user"));
  EXPECT_FALSE(document.Has("/doc/error"));
  EXPECT_FALSE(document.Has("/user"));
  const Xml empty;
  EXPECT_FALSE(empty.GetNode("/node()"));
  EXPECT_FALSE(empty.GetNode("/doc"));
}

TEST(Xml, ReturnsTheFirstNodeInDocumentOrder) {
  const Document document("<doc><a n='1'/><b n='2'/><a n='3'/></doc>");
  EXPECT_EQ(document.Prop("//a", "n"), "1");
  EXPECT_EQ(document.Prop("//b | //a", "n"), "1");
  EXPECT_EQ(document.Prop("//a[2] | //b", "n"), "2");
}

TEST(Xml, HasNoNodeForAnExpressionThatSelectsNone) {
  const Document document(kAnswer);
  for (const char* xpath :
       {// What does not compile.
        "", "/doc[", "/doc/", "///", "@", "no-function()", "$variable",
        // What selects no nodes.
        "count(/doc)", "string(/doc/user/@name)", "true()", "1 + 1"}) {
    EXPECT_FALSE(document.Has(xpath)) << xpath;
  }
}

TEST(Xml, ReplacesTheDocumentByTheNextOneEvenIfThatIsBad) {
  Xml xml;
  xml.LoadFromString("<a/>");
  xml.LoadFromString("<b/>");
  EXPECT_FALSE(xml.GetNode("/a"));
  EXPECT_TRUE(xml.GetNode("/b"));
  for (const std::string& bad :
       {std::string("<doc>"), std::string(), std::string("<doc/>\0", 7)}) {
    xml.LoadFromString(kAnswer);
    xml.LoadFromString(bad);
    EXPECT_FALSE(xml.GetNode("/node()")) << bad;
  }
}

TEST(Xml, TakesADocumentWithAllThatMayStandAroundIt) {
  const Document document(
      "<?xml version='1.0'?>\n<!-- c --><!DOCTYPE doc>\n"
      "<?pi x?><doc><a/></doc> \r\n\t<!-- c --><?pi x?>\n");
  EXPECT_TRUE(document.Has("/doc/a"));
  // A byte order mark.
  EXPECT_TRUE(Document("\xEF\xBB\xBF" + kAnswer).Has("/doc/user"));
}

TEST(Xml, KeepsNothingOfADocumentThatWasCut) {
  for (std::size_t size = 0; size < kAnswer.size(); ++size) {
    EXPECT_TRUE(Document(kAnswer.substr(0, size)).IsEmpty()) << size;
  }
  EXPECT_TRUE(Document("<doc><user name='a' level='7'/><err").IsEmpty());
}

TEST(Xml, KeepsNothingOfWhatIsNotOneDocument) {
  for (const std::string& text : std::vector<std::string>{
           // Errors.
           "", " \n", "no XML at all", "<html", "<a></b>", "<a><b></a></b>",
           "</a>", "<a b=c/>", "<a b='c/>", "<a 'b'/>", "<a><!-- </a>",
           "<a><![CDATA[ </a>", "<a/></a>", "<1/>", "<>", "<a/><", "<a/><!--",
           "<a/><?pi", "<!DOCTYPE a [<a/>",
           // No element.
           "<!-- c -->", "<?xml version='1.0'?>",
           // Two documents.
           "<doc/><doc/>", kAnswer + "\n<doc/>", kAnswer + kAnswer,
           // Text outside of the document.
           "x<doc/>", "<doc/>x", "<doc/> x ", "<doc/>\n<!-- c -->x",
           "<doc/>&amp;", "&#32;<doc/>", "<doc/><![CDATA[x]]>",
           "Status: 200\n\n<doc/>"}) {
    EXPECT_TRUE(Document(text).IsEmpty()) << text;
  }
}

TEST(Xml, KeepsNothingWithAZeroByteAnywhere) {
  for (std::size_t at = 0; at <= kAnswer.size(); ++at) {
    std::string text = kAnswer;
    text.insert(at, 1, '\0');
    EXPECT_TRUE(Document(text).IsEmpty()) << at;
  }
}

TEST(Xml, KeepsNothingOfUtf16) {
  std::string little("\xFF\xFE", 2);
  std::string big("\xFE\xFF", 2);
  for (const char character : std::string("<doc/>")) {
    little += {character, '\0'};
    big += {'\0', character};
  }
  EXPECT_TRUE(Document(little).IsEmpty());
  EXPECT_TRUE(Document(big).IsEmpty());
}

TEST(Xml, DoesNotExpandEntitiesOfADocumentType) {
  const Document document(
      "<!DOCTYPE doc [<!ENTITY e SYSTEM 'file:///etc/passwd'>"
      "<!ENTITY f 'expanded'>]><doc a='&e;' b='&f;'/>");
  EXPECT_EQ(document.Prop("/doc", "a"), "&e;");
  EXPECT_EQ(document.Prop("/doc", "b"), "&f;");
}

TEST(Xml, SurvivesAMillionNestedElements) {
  std::string text;
  for (int i = 0; i < 1'000'000; ++i) text += "<a>";
  EXPECT_TRUE(Document(text).IsEmpty());
  for (int i = 0; i < 1'000'000; ++i) text += "</a>";
  EXPECT_TRUE(Document(text).Has("/a/a"));
}

}  // namespace
