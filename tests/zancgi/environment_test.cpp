#include <zancgi/request.h>

#include "support/test.h"

namespace support {
namespace {

using Variables = std::map<std::string, std::string>;

void With(const Variables& variables, const std::function<void()>& check) {
  Child child;
  for (const auto& [name, value] : variables) child.Env(name, value);
  RunCleanly(child, [&] { check(); });
}

TEST(Environment, IsEmptyWithoutAWebServer) {
  With({}, [] {
    EXPECT_EQ(zan_cgi::Method(), "");
    EXPECT_EQ(zan_cgi::PathInfo(), "");
    EXPECT_EQ(zan_cgi::Header("Host"), "");
    EXPECT_TRUE(zan_cgi::QueryFields().empty());
    EXPECT_FALSE(zan_cgi::IsHttps());
    EXPECT_FALSE(zan_cgi::IsSameSite());
  });
}

TEST(Environment, IsReturnedUnchanged) {
  With({{"REQUEST_METHOD", "pUt"}, {"PATH_INFO", "/a/../b c\xff"}}, [] {
    EXPECT_EQ(zan_cgi::Method(), "pUt");
    EXPECT_EQ(zan_cgi::PathInfo(), "/a/../b c\xff");
  });
}

TEST(Header, IsFoundInAnyCase) {
  const Variables variables = {{"HTTP_X_TOKEN", "token"},
                               {"CONTENT_TYPE", "type"},
                               {"CONTENT_LENGTH", "length"},
                               {"HTTP_CONTENT_TYPE", "other type"},
                               {"HTTP_CONTENT_LENGTH", "other length"},
                               {"HTTP_", "empty"},
                               {"HTTP_A B", "space"},
                               {"HTTP_A:", "colon"},
                               {"HTTP_\xC3\x84", "not ASCII"},
                               {"HTTP_Z~", "tilde"}};
  const std::pair<std::string, std::string> rows[] = {
      {"X-Token", "token"},
      {"x-tOKEN", "token"},
      {"X-Token-", ""},
      {"Content-Type", "type"},
      {"content-length", "length"},
      {"", ""},
      {"A B", ""},
      {"A:", ""},
      {"\xC3\x84", ""},
      {"z~", "tilde"},
      {std::string("X-Token\0", 8), ""}};
  With(variables, [&] {
    for (const auto& [name, value] : rows) {
      EXPECT_EQ(zan_cgi::Header(name), value) << "of '" << name << "'";
    }
  });
}

TEST(IsHttps, FollowsTheVariableOfTheWebServer) {
  const std::pair<std::string, bool> rows[] = {
      {"on", true},   {"1", true},    {"", false},  {"off", false},
      {"OFF", false}, {"oFf", false}, {"0", false}, {"offline", true},
      {"of", true},   {"00", true}};
  for (const auto& [https, expected] : rows) {
    SCOPED_TRACE(https);
    With({{"HTTPS", https}},
         [&, expected = expected] { EXPECT_EQ(zan_cgi::IsHttps(), expected); });
  }
}

TEST(IsHttps, IgnoresTheHeadersOfTheClient) {
  With({{"HTTP_HTTPS", "on"},
        {"HTTP_X_FORWARDED_PROTO", "https"},
        {"HTTP_FORWARDED", "proto=https"},
        {"HTTP_X_FORWARDED_SSL", "on"}},
       [] { EXPECT_FALSE(zan_cgi::IsHttps()); });
}

// The rules are in EncodedForms() of tests/plain/form_rows.h.
TEST(QueryFields, FollowTheUrlStandard) {
  using Fields = std::vector<std::pair<std::string, std::string>>;
  const std::pair<std::string, Fields> rows[] = {
      {"", {}},
      {"&a=1&&b==2&a=3", {{"a", "1"}, {"b", "=2"}, {"a", "3"}}},
      {"a", {{"a", ""}}},
      {"=", {{"", ""}}},
      {"a;b+c=%61%3D;%zz%4", {{"a;b c", "a=;%zz%4"}}},
      {"a=%00%ff\xfe", {{"a", std::string("\0\xff\xfe", 3)}}}};
  for (const auto& [query, expected] : rows) {
    SCOPED_TRACE(query);
    With({{"QUERY_STRING", query}, {"REQUEST_METHOD", "POST"}},
         [&, expected = expected] {
           Fields fields;
           for (const auto& field : zan_cgi::QueryFields()) {
             fields.emplace_back(field.name, field.value);
           }
           EXPECT_EQ(fields, expected);
         });
  }
}

TEST(IsSameSite, IsDecidedByFetchMetadataThenByTheOrigin) {
  const char* const kSite = "HTTP_SEC_FETCH_SITE";
  const char* const kOrigin = "HTTP_ORIGIN";
  const char* const kHost = "HTTP_HOST";
  const std::pair<Variables, bool> rows[] = {
      {{{kSite, "same-origin"}}, true},
      {{{kSite, "same-site"}}, true},
      {{{kSite, "none"}}, true},
      {{{kSite, "cross-site"}}, false},
      {{{kSite, "None"}}, false},
      {{{kSite, ""}}, false},
      {{{kSite, "same-origin, same-origin"}}, false},
      {{{kSite, "cross-site"}, {kOrigin, "http://a"}, {kHost, "a"}}, false},
      {{{kSite, ""}, {kOrigin, "http://a"}, {kHost, "a"}}, false},
      {{{kSite, "none"}, {kOrigin, "http://b"}, {kHost, "a"}}, true},
      {{{kOrigin, "http://a"}, {kHost, "a"}}, true},
      {{{kOrigin, "HTTP://A.Example"}, {kHost, "a.eXample"}}, true},
      {{{kOrigin, "http://a.b"}, {kHost, "a"}}, false},
      {{{kOrigin, "http://a"}, {kHost, "a.b"}}, false},
      {{{kOrigin, "http://a@b"}, {kHost, "b"}}, false},
      {{{kOrigin, "http://a/"}, {kHost, "a"}}, false},
      {{{kOrigin, "http://b http://a"}, {kHost, "a"}}, false},
      {{{kOrigin, "http://a:8080"}, {kHost, "a:8080"}}, true},
      {{{kOrigin, "http://a:8080"}, {kHost, "a"}}, false},
      {{{kOrigin, "http://a"}, {kHost, "a:8080"}}, false},
      {{{kOrigin, "http://a:80"}, {kHost, "a"}}, true},
      {{{kOrigin, "http://a"}, {kHost, "a:80"}}, true},
      {{{kOrigin, "https://a:443"}, {kHost, "a"}}, true},
      {{{kOrigin, "https://a"}, {kHost, "a:443"}}, true},
      {{{kOrigin, "http://a"}, {kHost, "a:443"}}, false},
      {{{kOrigin, "https://a:80"}, {kHost, "a"}}, false},
      {{{kOrigin, "https://[::1]:443"}, {kHost, "[::1]"}}, true},
      {{{kOrigin, "https://[::443]"}, {kHost, "[::443]"}}, true},
      {{{kOrigin, "https://[::1]:8443"}, {kHost, "[::1]:8443"}}, true},
      {{{kOrigin, "null"}, {kHost, "null"}}, false},
      {{{kOrigin, "http://null"}, {kHost, "null"}}, true},
      {{{kOrigin, "moz-extension://a"}, {kHost, "a"}}, false},
      {{{kOrigin, "//a"}, {kHost, "a"}}, false},
      {{{kOrigin, "a"}, {kHost, "a"}}, false},
      {{{kOrigin, "http://"}, {kHost, ""}}, false},
      {{{kOrigin, "http://"}}, false},
      {{{kOrigin, "http://:80"}, {kHost, ":80"}}, false},
      {{{kOrigin, ""}, {kHost, ""}}, false},
      {{{kOrigin, "http://a"}}, false},
      {{{kHost, "a"}}, false},
      {{{kHost, "a"}, {"HTTP_REFERER", "http://a/"}}, false}};
  for (const auto& [variables, expected] : rows) {
    With(variables, [&, variables = variables, expected = expected] {
      EXPECT_EQ(zan_cgi::IsSameSite(), expected)
          << ::testing::PrintToString(variables);
    });
  }
}

}  // namespace
}  // namespace support
