// What a web server makes of the answers of CGI programs.

#include <gtest/gtest.h>
#include <zancgi/testing/response.h>

#include <string>
#include <vector>

namespace {

using zan_cgi::testing::ParseResponse;
using zan_cgi::testing::Response;

TEST(ParseResponse, FindsHeaderAndBody) {
  const Response response = ParseResponse(
      "Content-Type: text/html\r\nX-A:  b \r\nx-a: c\r\n\r\n<p>\r\n\r\n");
  EXPECT_EQ(response.malformed, "");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.Header("content-type"), "text/html");
  EXPECT_EQ(response.Headers("X-a"), (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(response.Header("X-B"), "");
  EXPECT_EQ(response.body, "<p>\r\n\r\n");
}

TEST(ParseResponse, TakesLinesThatEndWithoutReturn) {
  const Response response = ParseResponse("Content-Type: a\nX-B: c\n\nbody");
  EXPECT_EQ(response.Header("x-b"), "c");
  EXPECT_EQ(response.body, "body");
}

TEST(ParseResponse, FindsTheStatus) {
  const Response response =
      ParseResponse("status: 404 Not Found\nContent-Type: a\n\n");
  EXPECT_EQ(response.status, 404);
  EXPECT_EQ(response.reason, "Not Found");
  EXPECT_EQ(ParseResponse("Status: 204\n\n").status, 204);
  EXPECT_EQ(ParseResponse("Location: /elsewhere\n\n").status, 302);
}

TEST(ParseResponse, FindsCookies) {
  const Response response = ParseResponse(
      "Content-Type: a\nSet-Cookie: a=1; Path=/\nSet-Cookie: b=2\n\n");
  EXPECT_EQ(response.Cookie("a"), "1");
  EXPECT_EQ(response.Cookie("b"), "2");
  EXPECT_EQ(response.Cookie("c"), "");
}

TEST(ParseResponse, SaysWhatIsNoAnswer) {
  EXPECT_EQ(ParseResponse("").malformed, "no empty line behind the header");
  EXPECT_EQ(ParseResponse("Content-Type: a\r\n").malformed,
            "no empty line behind the header");
  EXPECT_EQ(ParseResponse("hello\n\n").malformed, "no header field: 'hello'");
  EXPECT_EQ(ParseResponse("a b: c\n\n").malformed, "no header field: 'a b: c'");
  EXPECT_EQ(ParseResponse("X: y\n\n").malformed,
            "neither Content-Type nor Location");
  EXPECT_EQ(ParseResponse("Status: 200\n\nbody").malformed,
            "neither Content-Type nor Location");
  EXPECT_EQ(ParseResponse("Status: 20\nContent-Type: a\n\n").malformed,
            "no status: '20'");
  EXPECT_EQ(ParseResponse("Status: 2000\nContent-Type: a\n\n").malformed,
            "no status: '2000'");
  EXPECT_EQ(ParseResponse("Status: OK\nContent-Type: a\n\n").malformed,
            "no status: 'OK'");
  EXPECT_EQ(ParseResponse("Content-Type: a\nContent-Type: a\n\n").malformed,
            "more than one field Content-Type");
  EXPECT_EQ(ParseResponse("hello\n\n").status, 0);
}

}  // namespace
