// A visitor's cookies.

#include <gtest/gtest.h>
#include <zancgi/testing/program.h>
#include <zancgi/testing/request.h>
#include <zancgi/testing/response.h>
#include <zancgi/testing/visit.h>

#include <chrono>
#include <string>
#include <vector>

namespace zan_cgi::testing {
namespace {

using std::chrono::seconds;

Request Secure(Request request) { return request.Variable("HTTPS", "on"); }

class Cookies : public ::testing::Test {
 protected:
  /// The cookies that come with this request.
  std::string Sent(const Request& request = Get("/panel", "cookies")) {
    return visit_.Send(request).body;
  }

  Program front_{ODD_FRONT};
  Visit visit_{front_};
};

TEST_F(Cookies, AreSentBackWithTheNextRequest) {
  const auto setting = [](const std::string& cookie) {
    return Get("/panel", "cookies").Header("X-Set", cookie);
  };
  EXPECT_EQ(Sent(setting("a=1; Path=/; HttpOnly; SameSite=Strict")), "");
  EXPECT_EQ(Sent(Get("/", "cookies").Header("X-Set", "b=2")), "a=1");
  EXPECT_EQ(Sent(Get("/panel", "cookies").Cookie("own", "0")),
            "own=0; a=1; b=2");
  EXPECT_EQ(Sent(setting("a=3; Path=/")), "a=1; b=2");
  EXPECT_EQ(Sent(), "a=3; b=2");
  EXPECT_EQ(visit_.Send(setting("a=; Path=/; Max-Age=0")).Cookie("a"), "");
  EXPECT_EQ(Sent(), "b=2");
}

struct Row {
  std::string set_cookie;
  std::string request_path;
  /// Paths to which the cookie is sent, and to which it is not.
  std::vector<std::string> to;
  std::vector<std::string> not_to;
};

TEST_F(Cookies, AreSentToTheirPath) {
  for (const Row& row : std::vector<Row>{
           {"a=1; Path=/", "/x/y", {"/", "/x", "/z/z"}, {}},
           {"a=1; Path=/x", "/", {"/x", "/x/", "/x/y"}, {"/", "/xy", "/y/x"}},
           {"a=1; Path=/x/", "/", {"/x/", "/x/y"}, {"/x", "/"}},
           {"a=1", "/x/y", {"/x", "/x/z"}, {"/", "/xy"}},
           {"a=1; Path=x", "/x/y", {"/x"}, {"/"}},
           {"a=1; Path=", "/x/y", {"/x"}, {"/"}},
           {"a=1", "/x", {"/", "/y"}, {}},
           {"a=1; path=/y; PATH=/x", "/", {"/x"}, {"/y"}}}) {
    SCOPED_TRACE(row.set_cookie + " at " + row.request_path);
    Visit visit(front_);
    visit.Take(row.set_cookie, Get(row.request_path, "q=/a/b/c"));
    for (const std::string& path : row.to) {
      EXPECT_EQ(visit.Cookie("a", Get(path, "q")), "1") << path;
    }
    for (const std::string& path : row.not_to) {
      EXPECT_EQ(visit.Cookie("a", Get(path, "q")), "") << path;
    }
  }
}

TEST_F(Cookies, OfLongerPathsComeFirst) {
  visit_.Take("a=1; Path=/", Get("/"));
  visit_.Take("a=2; Path=/x", Get("/"));
  visit_.Take("b=3; Path=/", Get("/"));
  EXPECT_EQ(Sent(Get("/x", "cookies")), "a=2; a=1; b=3");
}

TEST_F(Cookies, ThatAreNotForTheRequestAreNotTaken) {
  for (const char* set_cookie :
       {"a", "=1", "; Path=/", "a=1; Secure", "a=1; Domain=elsewhere.example",
        "a=1; Domain=ocalhost", "__Secure-a=1", "__Host-a=1"}) {
    Visit visit(front_);
    visit.Take(set_cookie, Get("/"));
    EXPECT_EQ(visit.Send(Secure(Get("/", "cookies"))).body, "") << set_cookie;
  }
  for (const char* set_cookie :
       {"__Secure-a=1", "__Host-a=1; Secure", "__Host-a=1; Secure; Path=/x",
        "__Host-a=1; Secure; Path=/; Domain=localhost"}) {
    Visit visit(front_);
    visit.Take(set_cookie, Secure(Get("/x")));
    EXPECT_EQ(visit.Send(Secure(Get("/x", "cookies"))).body, "") << set_cookie;
  }
  for (const char* set_cookie :
       {"a=1; Domain=localhost", "a=1; Domain=.localhost", "a=1; Domain="}) {
    Visit visit(front_);
    visit.Take(set_cookie, Get("/"));
    EXPECT_EQ(visit.Cookie("a", Get("/")), "1") << set_cookie;
  }
}

TEST_F(Cookies, ThatAreSecureAreSentByHttpsOnly) {
  visit_.Take("a=1; Secure; Path=/", Secure(Get("/")));
  visit_.Take("__Host-b=2; Secure; Path=/", Secure(Get("/")));
  EXPECT_EQ(visit_.Cookie("a", Get("/")), "");
  EXPECT_EQ(visit_.Cookie("a", Get("/").Variable("HTTPS", "off")), "");
  EXPECT_EQ(visit_.Cookie("a", Secure(Get("/"))), "1");
  EXPECT_EQ(visit_.Cookie("__Host-b", Secure(Get("/"))), "2");
}

TEST_F(Cookies, ExpireWhenTheirTimeIsUp) {
  visit_.Take("a=1; Max-Age=60", Get("/"));
  visit_.Take("b=1; Max-Age=3600; Expires=Thu, 01 Jan 1970 00:00:00 GMT",
              Get("/"));
  visit_.Take("c=1; Max-Age=never; Expires=Thu, 01 Jan 1970 00:00:01 GMT",
              Get("/"));
  visit_.Take("d=1; Expires=Fri, 01 Jan 2199 00:00:00 GMT", Get("/"));
  visit_.Take("e=1; Expires=tomorrow", Get("/"));
  visit_.Take("f=1; Max-Age=99999999999999999999", Get("/"));
  visit_.Take("g=1; Max-Age=-1", Get("/"));
  EXPECT_EQ(Sent(Get("/", "cookies")), "a=1; b=1; d=1; e=1; f=1");
  visit_.Wait(seconds(50));
  EXPECT_EQ(visit_.Cookie("a", Get("/")), "1");
  visit_.Wait(seconds(10));
  EXPECT_EQ(Sent(Get("/", "cookies")), "b=1; d=1; e=1; f=1");
  visit_.Take("e=; Expires=Thu, 01 Jan 1970 00:00:00 GMT", Get("/"));
  visit_.Take("e=2", Get("/"));
  EXPECT_EQ(Sent(Get("/", "cookies")), "b=1; d=1; f=1; e=2");
}

}  // namespace
}  // namespace zan_cgi::testing
