#include <gtest/gtest.h>
#include <zancgi/testing/child.h>
#include <zancgi/zancgi.h>

#include <map>
#include <string>
#include <utility>

#include "support/clean_run.h"

namespace {

using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Log;
using zan_cgi::testing::Reporter;
using Cookies = std::map<std::string, std::string>;

TEST(Cookies, AreTakenFromTheirHeaderAndOnlyTraced) {
  const std::pair<std::string, Cookies> headers[] = {
      {"", {}},
      // Separated by semicolons only.
      {"a=1; b=2", {{"a", "1"}, {"b", "2"}}},
      {"a=1,b=2", {{"a", "1,b=2"}}},
      // Of one name the last.
      {"a=1;;a=2", {{"a", "2"}}},
      // Split at the first equals sign.
      {"sid=x=y", {{"sid", "x=y"}}},
      {"flag", {{"flag", ""}}},
      // As they were sent.
      {"a=%41; b=\"x\"; c=1+2", {{"a", "%41"}, {"b", "\"x\""}, {"c", "1+2"}}},
      // Trimmed as a whole.
      {"\t a = 1 \t;b=2", {{"a ", " 1"}, {"b", "2"}}},
      // A browser protects the cookie of that very name from other hosts, but
      // not one whose name begins with another byte.
      {"\v__Host-x=1; \v__Host-y=2",
       {{"\v__Host-x", "1"}, {"\v__Host-y", "2"}}},
      {"\f__Host-x=1; \f__Host-y=2",
       {{"\f__Host-x", "1"}, {"\f__Host-y", "2"}}},
      // The empty name is one.
      {"=x; ;a", {{"", ""}, {"a", ""}}},
      {"=x", {{"", "x"}}},
      {"; ;", {{"", ""}}}};
  for (const auto& row : headers) {
    const auto outcome = support::RunCleanly(
        Child().Env("HTTP_COOKIE", row.first), [&](const Reporter&) {
          EXPECT_EQ(Cgi::Data().cookies, row.second) << row.first;
        });
    EXPECT_EQ(outcome.log,
              (Log{{8, "void zan_cgi::Cgi::Data::ParseCookies()"}}));
  }
}

TEST(Cookies, OfNoHeaderAreNone) {
  support::RunCleanly(Child(), [](const Reporter&) {
    EXPECT_EQ(Cgi::Data().cookies, Cookies{});
  });
}

TEST(Cookies, MayBeLargeAndMany) {
  Cookies expected{{"large", std::string(65'536, 'x')}};
  std::string header = "large=" + expected["large"];
  for (int i = 0; i < 5'000; ++i) {
    const std::string number = std::to_string(i);
    header += "; c" + number + "=" + number;
    expected["c" + number] = number;
  }
  expected["c0"] = "last";
  support::RunCleanly(
      Child().Env("HTTP_COOKIE", header + "; c0=last"),
      [&](const Reporter&) { EXPECT_TRUE(Cgi::Data().cookies == expected); });
}

}  // namespace
