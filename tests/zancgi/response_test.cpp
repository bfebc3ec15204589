#include <zancgi/response.h>
#include <zancgi/testing/response.h>

#include <cstdio>

#include "support/standard_output.h"
#include "support/test.h"

namespace support {
namespace {

using zan_cgi::Response;
using zan_cgi::SetCookie;

void InChild(const std::function<void()>& check) { RunCleanly(Child(), check); }

std::string Sent(Response response, const std::string& body = "") {
  return OutputOf([&] { response.Send(body); });
}

/// What stands in the line of a header that was sent; several by LF.
std::string SentHeader(const Response& response, const std::string& name) {
  std::string values;
  for (const auto& value : ParseResponse(Sent(response)).Headers(name)) {
    values += (values.empty() ? "" : "\n") + value;
  }
  return values;
}

/// All bytes that no line of a header may hold.
Strings ControlBytes() {
  Strings bytes;
  for (int byte = 0; byte < 0x20; ++byte) {
    bytes.emplace_back(1, static_cast<char>(byte));
  }
  bytes.emplace_back("\x7f");
  return bytes;
}

/// This text with something in front, in the middle and at the end.
Strings WithInserted(const std::string& text, const std::string& inserted) {
  Strings results;
  for (const std::size_t place :
       {std::size_t{0}, text.size() / 2, text.size()}) {
    results.push_back(std::string(text).insert(place, inserted));
  }
  return results;
}

TEST(Response, IsSentByteForByte) {
  InChild([] {
    EXPECT_EQ(Sent(Response(), "<p>a"),
              "Status: 200 OK\r\n"
              "Content-Type: text/html; charset=utf-8\r\n"
              "Content-Length: 4\r\n\r\n<p>a");
    EXPECT_EQ(Sent(Response(404)
                       .Header("X-A", "1")
                       .Type("text/plain")
                       .Header("Vary", " \t\xff")),
              "Status: 404 Not Found\r\nContent-Type: text/plain\r\n"
              "X-A: 1\r\nVary:  \t\xff\r\nContent-Length: 0\r\n\r\n");
    const std::string body(3'000'000, '\0');
    EXPECT_TRUE(Sent(Response(), body).ends_with("\r\n\r\n" + body));
  });
}

TEST(Response, HasTheReasonOfItsStatus) {
  const std::pair<int, std::string> rows[] = {
      {200, "OK"},
      {203, "Non-Authoritative Information"},
      {206, "Partial Content"},
      {303, "See Other"},
      {308, "Permanent Redirect"},
      {404, "Not Found"},
      {413, "Content Too Large"},
      {422, "Unprocessable Content"},
      {429, "Too Many Requests"},
      {431, "Request Header Fields Too Large"},
      {451, "Unavailable For Legal Reasons"},
      {505, "HTTP Version Not Supported"},
      {507, "Insufficient Storage"},
      {299, "Other"},
      {306, "Other"},
      {599, "Other"}};
  InChild([&] {
    for (const auto& [status, reason] : rows) {
      EXPECT_EQ(SentHeader(Response(status), "Status"),
                std::to_string(status) + " " + reason);
    }
  });
}

TEST(Response, RefusesAStatusThatIsNotFinal) {
  for (const int status : {-200, 0, 100, 101, 199, 600, 2000}) {
    EXPECT_THROW(Response{status}, std::invalid_argument) << status;
  }
}

TEST(Response, ToAHeadOrWithoutContentHasNoBody) {
  InChild([] {
    EXPECT_EQ(Sent(Response(204).Type("text/plain").Header("X", "y"), "body"),
              "Status: 204 No Content\r\nX: y\r\n\r\n");
    EXPECT_EQ(Sent(Response(304), "body"), "Status: 304 Not Modified\r\n\r\n");
    ::setenv("REQUEST_METHOD", "HEAD", 1);
    EXPECT_EQ(Sent(Response(), "body"),
              "Status: 200 OK\r\n"
              "Content-Type: text/html; charset=utf-8\r\n"
              "Content-Length: 4\r\n\r\n");
  });
}

TEST(Response, IsSentOnceByAllItsCopies) {
  InChild([] {
    Response response;
    Response copy(200);
    copy = response;
    EXPECT_TRUE(Sent(response, "body").ends_with("\r\n\r\nbody"));
    EXPECT_THROW(response.Send(""), std::logic_error);
    EXPECT_THROW(copy.Send(""), std::logic_error);
    EXPECT_THROW(copy.SendFile(STDIN_FILENO, "text/plain"), std::logic_error);
  });
}

TEST(Response, ComesAfterEarlierOutput) {
  InChild([] {
    const std::string output = OutputOf([] {
      std::fputs("X-Early: 1\r\n", stdout);
      Response().Send("late");
    });
    EXPECT_TRUE(output.starts_with("X-Early: 1\r\nStatus: 200 OK\r\n"));
    EXPECT_TRUE(output.ends_with("\r\n\r\nlate"));
  });
}

TEST(Header, IsReplacedByALaterOneUnlessItSetsACookie) {
  InChild([] {
    EXPECT_EQ(
        Sent(Response()
                 .Header("X-A", "1")
                 .Header("content-TYPE", "text/css")
                 .Header("x-a", "2")
                 .Header("set-cookie", "a=1")
                 .Header("Set-Cookie", "a=2")
                 .Header("SET-COOKIE", "a=3")
                 .Header("X-A-B", "")),
        "Status: 200 OK\r\ncontent-TYPE: text/css\r\nx-a: 2\r\n"
        "set-cookie: a=1\r\nSet-Cookie: a=2\r\nSET-COOKIE: a=3\r\nX-A-B: \r\n"
        "Content-Length: 0\r\n\r\n");
  });
}

/// Does this to an answer and expects it to be refused, and the answer to stay
/// what it was. In a child.
void ExpectRefused(const std::function<void(Response&)>& setting,
                   const std::string& what) {
  Response response;
  EXPECT_THROW(setting(response), std::invalid_argument)
      << ::testing::PrintToString(what);
  EXPECT_EQ(Sent(response), Sent(Response())) << what;
}

TEST(Header, IsRefusedUnlessItsNameIsAToken) {
  Strings names = {"",
                   " X",
                   "X ",
                   "X:",
                   "X: y",
                   "(X)",
                   "X\"",
                   "\xC3\x84",
                   "Status",
                   "sTATUS",
                   "Content-Length",
                   "content-length"};
  for (const std::string& byte : ControlBytes()) {
    for (const std::string& name : WithInserted("Name", byte)) {
      names.push_back(name);
    }
  }
  InChild([&] {
    for (const std::string& name : names) {
      ExpectRefused([&](Response& to) { to.Header(name, "a"); }, name);
    }
  });
}

TEST(ControlBytes, AreRefusedInEveryPlace) {
  using Setter = std::function<void(Response&, const std::string&)>;
  const auto in_cookie = [](std::string SetCookie::*member) {
    return [member](Response& response, const std::string& text) {
      SetCookie cookie;
      cookie.name = "name";
      cookie.value = "value";
      cookie.*member = text;
      response.SetCookie(cookie);
    };
  };
  struct Place {
    std::string name;
    std::string text;
    Setter set;
    std::string allowed;
  };
  const Place places[] = {
      {"value", "text",
       [](Response& response, const std::string& text) {
         response.Header("X", text);
       },
       "\t"},
      {"type", "text/html",
       [](Response& response, const std::string& text) { response.Type(text); },
       "\t"},
      {"location", "/path",
       [](Response&, const std::string& text) { Response::Redirect(text); },
       ""},
      {"cookie name", "name", in_cookie(&SetCookie::name), ""},
      {"cookie value", "value", in_cookie(&SetCookie::value), ""},
      {"cookie path", "/path", in_cookie(&SetCookie::path), ""},
      {"cookie site", "Lax", in_cookie(&SetCookie::same_site), ""}};
  InChild([&] {
    for (const Place& place : places) {
      SCOPED_TRACE(place.name);
      Response response;
      place.set(response, place.text);
      for (const std::string& byte : ControlBytes()) {
        if (byte == place.allowed) continue;
        for (const std::string& text : WithInserted(place.text, byte)) {
          ExpectRefused([&](Response& to) { place.set(to, text); }, text);
        }
      }
    }
    EXPECT_EQ(SentHeader(Response().Header("X", "a\tb"), "X"), "a\tb");
  });
}

TEST(Redirect, HasTheGivenLocation) {
  InChild([] {
    EXPECT_EQ(Sent(Response::Redirect("/a b?c=d#\xC3\xA4")),
              "Status: 303 See Other\r\n"
              "Content-Type: text/html; charset=utf-8\r\n"
              "Location: /a b?c=d#\xC3\xA4\r\nContent-Length: 0\r\n\r\n");
    EXPECT_THROW(Response::Redirect(""), std::invalid_argument);
  });
}

SetCookie MakeCookie(const std::function<void(SetCookie&)>& change) {
  SetCookie cookie;
  cookie.name = "ses";
  cookie.value = "1";
  change(cookie);
  return cookie;
}

TEST(Cookie, FollowsRfc6265) {
  const std::pair<std::function<void(SetCookie&)>, std::string> rows[] = {
      {[](SetCookie&) {}, "ses=1; Path=/; HttpOnly; SameSite=Strict"},
      {[](SetCookie& cookie) { cookie.value = ""; },
       "ses=; Path=/; HttpOnly; SameSite=Strict"},
      {[](SetCookie& cookie) { cookie.value = "!#$%&'()*+-./09:<=>?@AZ[]~"; },
       "ses=!#$%&'()*+-./09:<=>?@AZ[]~; Path=/; HttpOnly; SameSite=Strict"},
      {[](SetCookie& cookie) { cookie.path = ""; },
       "ses=1; HttpOnly; SameSite=Strict"},
      {[](SetCookie& cookie) { cookie.path = "/a b,=\"\xC3\xA4"; },
       "ses=1; Path=/a b,=\"\xC3\xA4; HttpOnly; SameSite=Strict"},
      {[](SetCookie& cookie) { cookie.max_age = 0; },
       "ses=1; Path=/; Max-Age=0; HttpOnly; SameSite=Strict"},
      {[](SetCookie& cookie) { cookie.max_age = 86'400'000'000; },
       "ses=1; Path=/; Max-Age=86400000000; HttpOnly; SameSite=Strict"},
      {[](SetCookie& cookie) {
         cookie.secure = true;
         cookie.http_only = false;
         cookie.same_site = "None";
       },
       "ses=1; Path=/; Secure; SameSite=None"},
      {[](SetCookie& cookie) { cookie.same_site = "Lax"; },
       "ses=1; Path=/; HttpOnly; SameSite=Lax"},
      {[](SetCookie& cookie) { cookie.same_site = ""; },
       "ses=1; Path=/; HttpOnly"}};
  InChild([&] {
    for (const auto& [change, line] : rows) {
      EXPECT_EQ(
          SentHeader(Response().SetCookie(MakeCookie(change)), "Set-Cookie"),
          line);
    }
  });
}

TEST(Cookie, IsSecureWhenTheRequestIs) {
  InChild([] {
    EXPECT_FALSE(SetCookie().secure);
    ::setenv("HTTPS", "on", 1);
    EXPECT_TRUE(SetCookie().secure);
  });
}

TEST(Cookie, IsRefusedIfBrowsersWouldReadItDifferently) {
  const std::pair<std::string, std::function<void(SetCookie&)>> rows[] = {
      {"no name", [](SetCookie& cookie) { cookie.name = ""; }},
      {"name", [](SetCookie& cookie) { cookie.name = "a=b"; }},
      {"name with space", [](SetCookie& cookie) { cookie.name = "a b"; }},
      {"space", [](SetCookie& cookie) { cookie.value = "a b"; }},
      {"quote", [](SetCookie& cookie) { cookie.value = "\"a\""; }},
      {"comma", [](SetCookie& cookie) { cookie.value = "a,b"; }},
      {"semicolon", [](SetCookie& cookie) { cookie.value = "a;b"; }},
      {"backslash", [](SetCookie& cookie) { cookie.value = "a\\b"; }},
      {"not ASCII", [](SetCookie& cookie) { cookie.value = "\xC3\xA4"; }},
      {"path", [](SetCookie& cookie) { cookie.path = "/;Domain=a"; }},
      {"max_age", [](SetCookie& cookie) { cookie.max_age = -2; }},
      {"case of site", [](SetCookie& cookie) { cookie.same_site = "lax"; }},
      {"site", [](SetCookie& cookie) { cookie.same_site = "Lax; Secure"; }},
      {"None over HTTP", [](SetCookie& cookie) { cookie.same_site = "None"; }}};
  InChild([&] {
    for (const auto& [name, change] : rows) {
      ExpectRefused(
          [change = change](Response& to) { to.SetCookie(MakeCookie(change)); },
          name);
    }
  });
}

TEST(Attachment, HasAFileNameForEachClient) {
  const std::pair<std::string, std::string> rows[] = {
      {"a.txt", "\"a.txt\""},
      {"", "\"\""},
      {"a b;c=100%.txt", "\"a b;c=100%.txt\""},
      {"a\"b\\c", "\"a\\\"b\\\\c\""},
      {"a\tb\x01\x1f\x7f", "\"a_b___\""},
      {"\xC3\xA4.txt", "\"__.txt\"; filename*=UTF-8''%C3%A4.txt"},
      {"\xE2\x82\xAC\"%' !#$&+-.^_`|~az09/\x01",
       "\"___\\\"%' !#$&+-.^_`|~az09/_\"; "
       "filename*=UTF-8''%E2%82%AC%22%25%27%20!#$&+-.^_`|~az09%2F_"},
      {"\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xF0\x90\x80\x80"
       "\xF4\x8F\xBF\xBF",
       "\"___________________\"; filename*=UTF-8''%DF%BF%E0%A0%80%ED%9F%BF"
       "%EE%80%80%F0%90%80%80%F4%8F%BF%BF"},
      {"\xC3", "\"_\""},
      {"\xA4", "\"_\""},
      {"\xC3z", "\"_z\""},
      {"\xC0\x80", "\"__\""},
      {"\xC1\xBF", "\"__\""},
      {"\xE2\x82", "\"__\""},
      {"\xE2\x82z", "\"__z\""},
      {"\xE0\x9F\xBF", "\"___\""},
      {"\xED\xA0\x80", "\"___\""},
      {"\xF0\x8F\xBF\xBF", "\"____\""},
      {"\xF4\x90\x80\x80", "\"____\""},
      {"\xF5\x80\x80\x80", "\"____\""},
      {"\xF0\x90\x80", "\"___\""},
      {"\xC3\xA4\xFF", "\"___\""}};
  InChild([&] {
    for (const auto& [name, value] : rows) {
      EXPECT_EQ(SentHeader(Response().Attachment(name), "Content-Disposition"),
                "attachment; filename=" + value);
    }
    for (const std::string& bad :
         {std::string("\r"), std::string("\n"), std::string(1, '\0')}) {
      for (const std::string& name : WithInserted("name", bad)) {
        ExpectRefused([&](Response& to) { to.Attachment(name); }, name);
      }
    }
  });
}

TEST(Html, EscapesMarkupCharacters) {
  EXPECT_EQ(zan_cgi::Html("<a href=\"?b&c\" d='&amp;'>"),
            "&lt;a href=&quot;?b&amp;c&quot; d=&#39;&amp;amp;&#39;&gt;");
  const std::string others("a\0\n\t\xC3\xA4`=/", 9);
  EXPECT_EQ(zan_cgi::Html(others), others);
}

}  // namespace
}  // namespace support
