// Requests and forms, as a browser and a web server would make them.

#include <gtest/gtest.h>
#include <zancgi/testing/form.h>
#include <zancgi/testing/request.h>

#include <map>
#include <string>

namespace {

using zan_cgi::testing::Form;
using zan_cgi::testing::FromUrlEncoded;
using zan_cgi::testing::Items;
using zan_cgi::testing::Post;
using zan_cgi::testing::UrlEncoded;

TEST(UrlEncoded, IsWhatBrowsersSend) {
  EXPECT_EQ(UrlEncoded({{"a b", "1&2=3"}, {"c", "\xc3\xbc~-._*"}}),
            "a+b=1%262%3D3&c=%C3%BC%7E-._*");
  EXPECT_EQ(UrlEncoded({}), "");
}

TEST(FromUrlEncoded, IsTheWayBack) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  const Items items{{all, all}, {"", "x"}, {"x", ""}};
  EXPECT_EQ(FromUrlEncoded(UrlEncoded(items)), items);
}

TEST(FromUrlEncoded, TakesOddItems) {
  EXPECT_EQ(FromUrlEncoded("a&&b=1=2&%4&%zz=%"),
            (Items{{"a", ""}, {"b", "1=2"}, {"%4", ""}, {"%zz", "%"}}));
}

TEST(Request, DeclaresTheLengthOfItsBodyUnlessToldAnother) {
  EXPECT_EQ(Post("/").Environment().count("CONTENT_LENGTH"), 0U);
  EXPECT_EQ(Post("/").Body("abc", "a/b").Environment()["CONTENT_LENGTH"], "3");
  EXPECT_EQ(Post("/").Body("abc", "a/b").Environment()["CONTENT_TYPE"], "a/b");
  EXPECT_EQ(Post("/")
                .Header("content-length", "9")
                .Body("abc", "a/b")
                .Environment()["CONTENT_LENGTH"],
            "9");
}

TEST(Form, IsWhatBrowsersSend) {
  const Form form = Form().Field("a", "1").File("b\"", "c\r\n.txt", "2", "d/e");
  EXPECT_EQ(form.ContentType(),
            "multipart/form-data; boundary=----ZancgiTesting");
  EXPECT_EQ(form.Body(),
            "------ZancgiTesting\r\n"
            "Content-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n"
            "------ZancgiTesting\r\n"
            "Content-Disposition: form-data; name=\"b%22\"; "
            "filename=\"c%0D%0A.txt\"\r\n"
            "Content-Type: d/e\r\n\r\n2\r\n"
            "------ZancgiTesting--\r\n");
}

TEST(Form, HasABoundaryThatIsInNoPart) {
  const std::string boundary = Form().Boundary();
  const Form form =
      Form().Field("a", "--" + boundary).Field("b", boundary + "X");
  EXPECT_EQ(form.Boundary(), boundary + "XX");
}

}  // namespace
