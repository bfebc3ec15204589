#include <gtest/gtest.h>
#include <zancgi/testing/child.h>
#include <zancgi/zancgi.h>

#include <map>
#include <string>

namespace {

using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Told;
using Cookies = std::map<std::string, std::string>;

Outcome Construct(const Child& child) {
  return child.Run([](const Told& told) {
    Cgi::Data request;
    for (const auto& [name, value] : request.cookies) told(name, value);
  });
}

Cookies Parse(const std::string& cookies) {
  return Construct(Child().Env("HTTP_COOKIE", cookies)).told;
}

TEST(Cookies, OfNoHeaderAreNone) {
  EXPECT_EQ(Construct(Child()).told, Cookies{});
  EXPECT_EQ(Parse(""), Cookies{});
}

TEST(Cookies, AreSeparatedBySemicolonsOnly) {
  EXPECT_EQ(Parse("a=1; b=2"), (Cookies{{"a", "1"}, {"b", "2"}}));
  EXPECT_EQ(Parse("a=1,b=2"), (Cookies{{"a", "1,b=2"}}));
}

TEST(Cookies, WithOneNameLeaveTheLast) {
  EXPECT_EQ(Parse("a=1;;a=2"), (Cookies{{"a", "2"}}));
}

TEST(Cookies, AreSplitAtTheFirstEqualsSign) {
  EXPECT_EQ(Parse("sid=x=y"), (Cookies{{"sid", "x=y"}}));
  EXPECT_EQ(Parse("flag"), (Cookies{{"flag", ""}}));
}

TEST(Cookies, StayAsTheyWereSent) {
  EXPECT_EQ(Parse("a=%41; b=\"x\"; c=1+2"),
            (Cookies{{"a", "%41"}, {"b", "\"x\""}, {"c", "1+2"}}));
}

TEST(Cookies, AreTrimmedAsAWhole) {
  EXPECT_EQ(Parse("\t a = 1 \t;b=2"), (Cookies{{"a ", " 1"}, {"b", "2"}}));
}

// A browser protects the cookie of that very name from other hosts, but not one
// whose name begins with another byte.
TEST(Cookies, WithAVerticalTabOrAFormFeedInFrontHaveAnotherName) {
  for (const std::string byte : {"\v", "\f"}) {
    const std::string name = byte + "__Host-panelses5";
    EXPECT_EQ(Parse(name + "=1; " + name + "x=2"),
              (Cookies{{name, "1"}, {name + "x", "2"}}));
  }
}

TEST(Cookies, KeepTheEmptyName) {
  EXPECT_EQ(Parse("=x"), (Cookies{{"", "x"}}));
  EXPECT_EQ(Parse("; ;"), (Cookies{{"", ""}}));
}

TEST(Cookies, AreTracedAndNothingElseIsLogged) {
  const Outcome outcome = Construct(Child().Env("HTTP_COOKIE", "=x; ;a"));
  ASSERT_EQ(outcome.log.size(), 1U);
  EXPECT_EQ(outcome.log[0], (zan_cgi::testing::LogLine{
                                8, "void zan_cgi::Cgi::Data::ParseCookies()"}));
}

}  // namespace
