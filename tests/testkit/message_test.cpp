// Requests and forms, as a browser and a web server would make them, and what a
// web server makes of the answers of CGI programs.

#include <gtest/gtest.h>
#include <zancgi/testing/form.h>
#include <zancgi/testing/request.h>
#include <zancgi/testing/response.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zan_cgi::testing {
namespace {

TEST(UrlEncoded, IsWhatBrowsersSend) {
  EXPECT_EQ(UrlEncoded({{"a b", "1&2=3"}, {"c", "\xc3\xbc~-._*"}}),
            "a+b=1%262%3D3&c=%C3%BC%7E-._*");
  EXPECT_EQ(UrlEncoded({}), "");
}

TEST(FromUrlEncoded, ReversesUrlEncoded) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  const Items items{{all, all}, {"", "x"}, {"x", ""}};
  EXPECT_EQ(FromUrlEncoded(UrlEncoded(items)), items);
}

TEST(FromUrlEncoded, TakesOddItems) {
  EXPECT_EQ(FromUrlEncoded("a&&b=1=2&%4&%zz=%"),
            (Items{{"a", ""}, {"b", "1=2"}, {"%4", ""}, {"%zz", "%"}}));
}

TEST(Request, DeclaresTheLengthOfItsBodyByDefault) {
  EXPECT_EQ(Post("/").Environment().count("CONTENT_LENGTH"), 0U);
  auto environment = Post("/").Body("abc", "a/b").Environment();
  EXPECT_EQ(environment["CONTENT_LENGTH"], "3");
  EXPECT_EQ(environment["CONTENT_TYPE"], "a/b");
  environment =
      Post("/").Header("content-length", "9").Body("abc", "a/b").Environment();
  EXPECT_EQ(environment["CONTENT_LENGTH"], "9");
}

TEST(Form, IsWhatBrowsersSend) {
  const Form form = Form()
                        .Field("a\nb", "1\n2\r3\r\n4\n\r")
                        .File("f\"", "c\r\n.txt", "1\n2\r", "d/e")
                        .Field("a\nb", "2")
                        .File("f\"", "b\nc", "x")
                        .EmptyFile("g");
  EXPECT_EQ(form.ContentType(),
            "multipart/form-data; boundary=----ZancgiTesting");
  EXPECT_EQ(form.Body(),
            "------ZancgiTesting\r\n"
            "Content-Disposition: form-data; name=\"a%0D%0Ab\"\r\n\r\n"
            "1\r\n2\r\n3\r\n4\r\n\r\n\r\n"
            "------ZancgiTesting\r\n"
            "Content-Disposition: form-data; name=\"f%22\"; "
            "filename=\"c%0D%0A.txt\"\r\n"
            "Content-Type: d/e\r\n\r\n1\n2\r\r\n"
            "------ZancgiTesting\r\n"
            "Content-Disposition: form-data; name=\"a%0D%0Ab\"\r\n\r\n2\r\n"
            "------ZancgiTesting\r\n"
            "Content-Disposition: form-data; name=\"f%22\"; "
            "filename=\"b%0Ac\"\r\n"
            "Content-Type: application/octet-stream\r\n\r\nx\r\n"
            "------ZancgiTesting\r\n"
            "Content-Disposition: form-data; name=\"g\"; filename=\"\"\r\n"
            "Content-Type: application/octet-stream\r\n\r\n\r\n"
            "------ZancgiTesting--\r\n");
  EXPECT_EQ(form.UrlEncodedItems(),
            (Items{{"a\r\nb", "1\r\n2\r\n3\r\n4\r\n\r\n"},
                   {"f\"", "c\r\n.txt"},
                   {"a\r\nb", "2"},
                   {"f\"", "b\r\nc"},
                   {"g", ""}}));
}

TEST(Form, CannotUrlEncodeAPartThatIsGivenAsItIs) {
  EXPECT_THROW(Form().Part("X: y\r\n\r\nz").UrlEncodedItems(),
               std::logic_error);
}

TEST(Submit, SendsTheOriginOfTheForm) {
  const Form form = Form().Field("a", "1 2").File("f", "x", "y");
  auto environment = Post("/").Submit(form).Environment();
  EXPECT_EQ(environment["CONTENT_TYPE"], form.ContentType());
  EXPECT_EQ(environment["CONTENT_LENGTH"], std::to_string(form.Body().size()));
  EXPECT_EQ(environment["HTTP_ORIGIN"], "http://localhost");
  EXPECT_EQ(environment["HTTP_SEC_FETCH_SITE"], "same-origin");

  environment = Post("/")
                    .Submit(form, Encoding::UrlEncoded)
                    .Header("Host", "panel.example:8443")
                    .Variable("HTTPS", "on")
                    .Environment();
  EXPECT_EQ(environment["CONTENT_TYPE"], "application/x-www-form-urlencoded");
  EXPECT_EQ(environment["CONTENT_LENGTH"], "9");
  EXPECT_EQ(environment["HTTP_ORIGIN"], "https://panel.example:8443");

  environment = Post("/")
                    .Header("Origin", "http://elsewhere.example")
                    .Header("Sec-Fetch-Site", "cross-site")
                    .Submit(form)
                    .Environment();
  EXPECT_EQ(environment["HTTP_ORIGIN"], "http://elsewhere.example");
  EXPECT_EQ(environment["HTTP_SEC_FETCH_SITE"], "cross-site");
}

TEST(Form, HasABoundaryThatIsInNoPart) {
  const std::string boundary = Form().Boundary();
  const Form form =
      Form().Field("a", "--" + boundary).Field("b", boundary + "X");
  EXPECT_EQ(form.Boundary(), boundary + "XX");
}

TEST(ParseResponse, FindsHeaderAndBody) {
  Response response = ParseResponse(
      "Content-Type: text/html\r\nX-A:  b \r\nx-a: c\r\n\r\n<p>\r\n\r\n");
  EXPECT_EQ(response.malformed, "");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.Header("content-type"), "text/html");
  EXPECT_EQ(response.Headers("X-a"), (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(response.Header("X-B"), "");
  EXPECT_EQ(response.body, "<p>\r\n\r\n");
  // Lines may end without a return.
  response = ParseResponse("Content-Type: a\nX-B: c\n\nbody");
  EXPECT_EQ(response.Header("x-b"), "c");
  EXPECT_EQ(response.body, "body");
}

TEST(ParseResponse, FindsStatusAndCookies) {
  const Response response = ParseResponse(
      "status: 404 Not Found\nContent-Type: a\nSet-Cookie: a=1; Path=/\n"
      "Set-Cookie: b=2\n\n");
  EXPECT_EQ(response.status, 404);
  EXPECT_EQ(response.reason, "Not Found");
  EXPECT_EQ(ParseResponse("Status: 204\n\n").status, 204);
  EXPECT_EQ(ParseResponse("Location: /elsewhere\n\n").status, 302);
  EXPECT_EQ(response.Cookie("a"), "1");
  EXPECT_EQ(response.Cookie("b"), "2");
  EXPECT_EQ(response.Cookie("c"), "");
}

TEST(ParseResponse, ReportsWhatIsNoAnswer) {
  for (const auto& [answer, complaint] :
       {std::pair("", "no empty line after the header"),
        {"Content-Type: a\r\n", "no empty line after the header"},
        {"hello\n\n", "no header field: 'hello'"},
        {"a b: c\n\n", "no header field: 'a b: c'"},
        {"X: y\n\n", "neither Content-Type nor Location"},
        {"Status: 200\n\nbody", "neither Content-Type nor Location"},
        {"Status: 20\nContent-Type: a\n\n", "no status: '20'"},
        {"Status: 2000\nContent-Type: a\n\n", "no status: '2000'"},
        {"Status: OK\nContent-Type: a\n\n", "no status: 'OK'"},
        {"Content-Type: a\nContent-Type: a\n\n",
         "more than one field Content-Type"}}) {
    EXPECT_EQ(ParseResponse(answer).malformed, complaint) << answer;
  }
  EXPECT_EQ(ParseResponse("hello\n\n").status, 0);
}

}  // namespace
}  // namespace zan_cgi::testing
