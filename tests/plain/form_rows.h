/// @file
/// The expected result of each rule for forms. Every parser must agree.
#ifndef ZANCGI_TESTS_PLAIN_FORM_ROWS_H
#define ZANCGI_TESTS_PLAIN_FORM_ROWS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "plain/form_product.h"
#include "plain/plain_form.h"
#include "plain/plain_words.h"

namespace plain {

struct FormRow {
  FormRequest request;
  PlainForm form;
};

/// The rows of one subject.
struct FormTable {
  using Maker = std::function<FormRequest(const std::string& text)>;

  std::string name;
  std::vector<FormRow> rows;

  /// Adds requests made of these texts, which all give the same form.
  void Add(const PlainForm& form, const Maker& make,
           std::initializer_list<std::string> texts) {
    for (const std::string& text : texts) rows.push_back({make(text), form});
  }
};

inline void PrintTo(const FormTable& table, std::ostream* out) {
  *out << table.name;
}

/// For INSTANTIATE_TEST_SUITE_P.
inline std::string NameOfTable(const testing::TestParamInfo<FormTable>& info) {
  return info.param.name;
}

/// Parses each row's request and compares.
inline void ExpectRows(
    const FormTable& table,
    const std::function<PlainForm(const FormRequest&)>& parse) {
  for (const FormRow& row : table.rows) {
    EXPECT_EQ(parse(row.request), row.form) << Describe(row.request);
  }
}

// The vocabulary of the tables.

inline PlainForm Taken(std::vector<PlainField> fields,
                       std::vector<PlainUpload> uploads = {}) {
  return {0, std::move(fields), std::move(uploads)};
}

inline PlainForm Refused(int status) { return {status, {}, {}}; }

/// The usual results.
inline const PlainForm kOne = Taken({{"a", "1"}});
inline const PlainForm kMalformed = Refused(400);
inline const PlainForm kTooLarge = Refused(413);
inline const PlainForm kWrongType = Refused(415);

inline FormRequest PostOfType(const std::string& content_type,
                              const std::string& body) {
  FormRequest request;
  request.content_type = content_type;
  request.body = body;
  request.declared_length = static_cast<std::int64_t>(body.size());
  return request;
}

inline FormRequest Encoded(const std::string& body) {
  return PostOfType("application/x-www-form-urlencoded", body);
}

/// With the boundary "XY".
inline FormRequest Multipart(const std::string& body) {
  return PostOfType("multipart/form-data; boundary=XY", body);
}

inline FormRequest Query(const std::string& method, const std::string& query) {
  FormRequest request;
  request.method = method;
  request.query = query;
  return request;
}

inline FormRequest Declaring(std::int64_t length, FormRequest request) {
  request.declared_length = length;
  return request;
}

template <class Limit>
FormRequest Within(Limit PlainLimits::*limit, Limit value,
                   FormRequest request) {
  request.limits.*limit = value;
  return request;
}

inline const std::string kDisposition =
    "Content-Disposition: form-data; name=a\r\n";

/// Returns a part with these header lines, up to the next delimiter.
inline std::string PartWith(const std::string& header_lines,
                            const std::string& content) {
  return "--XY\r\n" + header_lines + "\r\n" + content + "\r\n";
}

inline std::string FieldPart(const std::string& name,
                             const std::string& value) {
  return PartWith("Content-Disposition: form-data; name=\"" + name + "\"\r\n",
                  value);
}

inline std::string UploadPart(const std::string& field, const std::string& name,
                              const std::string& content) {
  return PartWith("Content-Disposition: form-data; name=\"" + field +
                      "\"; filename=\"" + name + "\"\r\n",
                  content);
}

/// Returns a form of one part with these header lines and the content "1".
inline FormRequest OnePart(const std::string& header_lines) {
  return Multipart(PartWith(header_lines, "1") + "--XY--\r\n");
}

/// Returns the field a=1 with this line among its headers.
inline FormRequest LineBefore(const std::string& line) {
  return OnePart(line + "\r\n" + kDisposition);
}
inline FormRequest LineAfter(const std::string& line) {
  return OnePart(kDisposition + line + "\r\n");
}

/// Returns a form of one part with this disposition and the content "1".
inline FormRequest Disposed(const std::string& disposition) {
  return OnePart("Content-Disposition: " + disposition + "\r\n");
}

/// The same for the field "a" with these additional parameters.
inline FormRequest DisposedA(const std::string& parameters) {
  return Disposed("form-data; name=a" + parameters);
}

/// The same with this extended file name.
inline FormRequest ExtendedName(const std::string& name) {
  return DisposedA("; filename*=" + name);
}

/// Returns a field a=1 with these bytes after its value, in place of a line
/// break and the closing delimiter.
inline FormRequest FieldAnd(const std::string& rest) {
  return Multipart("--XY\r\n" + kDisposition + "\r\n1" + rest);
}

/// Returns the field a=1 with this boundary. In the content type, these bytes
/// follow "multipart/form-data".
inline FormRequest Announced(const std::string& parameters,
                             const std::string& boundary) {
  return PostOfType("multipart/form-data" + parameters,
                    "--" + boundary + "\r\n" + kDisposition + "\r\n1\r\n--" +
                        boundary + "--\r\n");
}
inline FormRequest AnnouncedXy(const std::string& parameters) {
  return Announced(parameters, "XY");
}

// The tables.

inline FormTable WhereTheFormIs() {
  const std::string encoded = "application/x-www-form-urlencoded";
  const std::string parts = FieldPart("a", "1") + "--XY--";
  FormRequest get_with_body = Multipart(FieldPart("b", "2") + "--XY--");
  get_with_body.method = "GET";
  get_with_body.query = "a=1";
  FormRequest post_with_query = Encoded("a=1");
  post_with_query.query = "b=2";
  FormRequest cut_epilogue = FieldAnd("\r\n--XY--\r\nend");
  cut_epilogue.body.pop_back();
  FormRequest put = Encoded("a=1");
  put.method = "PUT";
  // Methods are case-sensitive.
  FormRequest lower_case_get = post_with_query;
  lower_case_get.method = "get";
  FormTable table = {"WhereTheFormIs",
                     {{Query("GET", "a=1"), kOne},
                      {Query("HEAD", "a=1"), kOne},
                      {Query("GET", ""), Taken({})},
                      {get_with_body, kOne},
                      {post_with_query, kOne},
                      {put, kOne},
                      {lower_case_get, kOne},
                      {PostOfType("", "a=1"), kWrongType},
                      {PostOfType("text/plain", "a=1"), kWrongType},
                      {PostOfType(encoded + ", text/plain", "a=1"), kWrongType},
                      {Encoded(""), Taken({})},
                      {Multipart(""), kMalformed},
                      {Declaring(4, Encoded("a=1")), kMalformed},
                      {Declaring(1, Encoded("")), kMalformed},
                      {Declaring(3, Encoded("a=1&b=2")), kOne},
                      {cut_epilogue, kMalformed}}};
  const auto without_body = [](const std::string& type) {
    return PostOfType(type, "");
  };
  table.Add(Taken({}), without_body, {"", " \t"});
  table.Add(kWrongType, without_body, {"text/plain", "; boundary=XY"});
  // Parameters of this type are ignored.
  table.Add(kOne,
            [](const std::string& type) { return PostOfType(type, "a=1"); },
            {"APPLICATION/X-WWW-Form-URLencoded", " \t" + encoded + "\t ",
             encoded + " ; charset=\"x; ="});
  const auto multipart = [&](const std::string& type) {
    return PostOfType(type, parts);
  };
  table.Add(kOne, multipart,
            {"Multipart/FORM-data; boundary=XY",
             "\t multipart/form-data\t ;boundary=XY"});
  table.Add(
      kWrongType, multipart,
      {"multipart/mixed; boundary=XY", "multipart/form-data boundary=XY"});
  table.rows.push_back(
      {PostOfType("multipart/form-data2; boundary=XY", "--XY--"), kWrongType});
  return table;
}

inline FormTable EncodedForms() {
  using namespace std::string_literals;
  return {
      "EncodedForms",
      {{Encoded("b=2&a=1&b=3"), Taken({{"b", "2"}, {"a", "1"}, {"b", "3"}})},
       {Encoded("&a=1&&&b=2&"), Taken({{"a", "1"}, {"b", "2"}})},
       {Encoded("a=1;b=2"), Taken({{"a", "1;b=2"}})},
       {Encoded("a=1=2=&b=="), Taken({{"a", "1=2="}, {"b", "="}})},
       {Encoded("a&b="), Taken({{"a", ""}, {"b", ""}})},
       {Encoded("=1&="), Taken({{"", "1"}, {"", ""}})},
       {Encoded("a+b=+c++d%2B"), Taken({{"a b", " c  d+"}})},
       {Encoded("%61%3d%26=%4a%4A%2f"), Taken({{"a=&", "JJ/"}})},
       {Encoded("a%=%&b=%4&c=%zz%4g&%=%%41"),
        Taken({{"a%", "%"}, {"b", "%4"}, {"c", "%zz%4g"}, {"%", "%A"}})},
       // Escapes are decoded once.
       {Encoded("a=%2541%252b"), Taken({{"a", "%41%2b"}})},
       {Encoded("a=1%002&%00=3"), Taken({{"a", "1\0002"s}, {"\0"s, "3"}})},
       // Bytes are not converted, and blanks are kept.
       {Encoded("\xe4=\xff%fe\r\n%0d%0A"),
        Taken({{"\xe4", "\xff\xfe\r\n\r\n"}})},
       {Encoded(" a = 1 \t"), Taken({{" a ", " 1 \t"}})},
       {Encoded("a%20=%20&[b]=<c>"), Taken({{"a ", " "}, {"[b]", "<c>"}})},
       {Query("GET", "a=%41+&&b"), Taken({{"a", "A "}, {"b", ""}})}}};
}

inline FormTable Boundaries() {
  const std::string longest = Repeated("x", 70);
  FormTable table = {
      "Boundaries",
      {{Announced(R"(; boundary="X\"\\\Y")", "X\"\\Y"), kOne},
       // Single quotes are part of it.
       {Announced("; boundary='XY'", "'XY'"), kOne},
       {Announced("; boundary=\"a b;c=d\"", "a b;c=d"), kOne},
       {Announced("; boundary=a/b:c=d?(e)@<\\>,\xe4", "a/b:c=d?(e)@<\\>,\xe4"),
        kOne},
       {Announced("; boundary=x", "x"), kOne},
       {Announced("; boundary=--", "--"), kOne},
       {Announced("; boundary=" + longest, longest), kOne},
       {Announced("; boundary=\"" + longest + "\"", longest), kOne},
       {Announced("; boundary=x" + longest, "x" + longest), kMalformed},
       {Announced("; boundary=", ""), kMalformed},
       {Announced("; boundary=\"\"", ""), kMalformed},
       // It ends in a space or contains a control byte.
       {Announced("; boundary=\"XY \"", "XY "), kMalformed},
       {Announced("; boundary=\"X\tY\"", "X\tY"), kMalformed},
       {Announced("; boundary=\"X\\\x01Y\"", "X\x01Y"), kMalformed},
       {Announced("; boundary=\"X\x7fY\"", "X\x7fY"), kMalformed},
       {Announced("; boundary=X\x01Y", "X\x01Y"), kMalformed},
       {Announced("; boundary=X\"Y", "X\"Y"), kMalformed}}};
  table.Add(kOne, AnnouncedXy,
            {"; boundary=XY", "; boundary=\"XY\"",
             " \t; \tboundary\t = \tXY \t; x = y ",
             ";boundary = \"XY\"\t ;charset=x", "; BOUNDary=XY",
             // Empty, and other, parameters.
             ";; ;boundary=XY; ;;", "; boundary=XY;",
             "; charset=\"a; boundary=no\"; boundary=XY; x*=y",
             "; charset=\"\"; boundary=XY", "; x=; boundary=XY"});
  table.Add(
      kMalformed, AnnouncedXy,
      {// The value is case-sensitive.
       "; boundary=xy",
       // None, or two.
       "", "; xboundary=XY", "; x=\"; boundary=XY\"",
       "; boundary=XY; boundary=AB", "; boundary=XY; Boundary=XY",
       // Parameters without an equals sign, or with a bad name.
       "; x; boundary=XY", "; boundary=XY; x", "; =x; boundary=XY",
       "; x y=z; boundary=XY",
       // More after a value.
       "; boundary=X\"Y\"", "; boundary=\"XY\"Z", "; boundary=\"XY\" \"\"",
       "; boundary=XY Z", "; boundary=\"XY\"x=y", "; boundary=XY x=y",
       // Quotes that do not end.
       "; boundary=\"XY", "; boundary=\"XY\\\"", "; boundary=XY; x=\""});
  return table;
}

inline FormTable Delimiters() {
  using namespace std::string_literals;
  const std::string field = FieldPart("a", "1");
  const std::string fits = field + "--XY--\r\n";
  const std::string headers = "--XY\r\n" + kDisposition;
  const std::string line = kDisposition + "\r\n1\r\n--XY--\r\n";
  const std::string second = kDisposition + "\r\n2\r\n--XY--\r\n";
  const std::string halves = Repeated("\r\n--X", 40'000);
  const auto value = [](const std::string& bytes) {
    return Taken({{"a", bytes}});
  };
  FormTable table = {
      "Delimiters",
      {{Multipart("--XY--\r\n"), Taken({})},
       {Multipart(field + FieldPart("a", "2") + "--XY--\r\n"),
        Taken({{"a", "1"}, {"a", "2"}})},
       {FieldAnd("\r\r\n--XY--\r\n"), value("1\r")},
       {FieldAnd("\r\n\r\n--XY--\r\n"), value("1\r\n")},
       // Not in the middle of a line, not half of it, not another one.
       {FieldAnd("--XY--\n \r--\r\n--XY--\r\n"), value("1--XY--\n \r--")},
       {FieldAnd("\r\n--X\r\n--\r\n-\r\n\r\r\n--XY--\r\n"),
        value("1\r\n--X\r\n--\r\n-\r\n\r")},
       {FieldAnd("\r\n--X\r\n--XY--\r\n"), value("1\r\n--X")},
       {FieldAnd("\r\n---XY\r\n--XY--\r\n"), value("1\r\n---XY")},
       {FieldAnd("\r\n--AXY\r\n--AXY--\r\n--XY--\r\n"),
        value("1\r\n--AXY\r\n--AXY--")},
       {PostOfType("multipart/form-data; boundary=XY--",
                   "--XY--\r\n" + kDisposition + "\r\n1\r\n--XY----\r\n"),
        kOne},
       {PostOfType("multipart/form-data; boundary=\"X Y\"",
                   "--X Y\r\n" + kDisposition + "\r\n1\r\n--X\r\n--X Y--\r\n"),
        value("1\r\n--X")},
       // A preamble without a line break hides the part.
       {Multipart("x" + fits), Taken({})},
       // The empty line belongs to the delimiter.
       {Multipart(headers + "\r\n--XY--\r\n"), value("")},
       {Multipart(headers + "\r\n" + fits), Taken({{"a", ""}, {"a", "1"}})},
       {Multipart(headers + "\r\n\r\n--XY--\r\n"), value("")},
       {Multipart(headers + "\r\n\r\n\r\n--XY--\r\n"), value("\r\n")},
       {PostOfType(
            "multipart/form-data; boundary=\"X:Y\"",
            "--X:Y\r\n--X:Y\r\n" + kDisposition + "\r\n1\r\n--X:Y--\r\n"),
        kMalformed},
       // Any other byte is kept.
       {FieldAnd("\n2\r3\r\n4\n\r\n--XY--"), value("1\n2\r3\r\n4\n")},
       {FieldAnd(halves + "\r\n--XY--\r\n"), value("1" + halves)},
       {FieldAnd("\0\xff\x1a\r\n--XY--"s), value("1\0\xff\x1a"s)}}};
  table.Add(kOne, FieldAnd,
            {"\r\n--XY--", "\r\n--XY-- \t",
             // Epilogues.
             "\r\n--XY--\r\nignored\r\n", "\r\n--XY-- \r\n\r\n",
             "\r\n--XY--\r\n--XYZ\n--XY\r--XY\r\n--XY--x" + field});
  table.Add(kMalformed, FieldAnd,
            {// No closing delimiter.
             "\r\n", "\r\n--XY\r\n", "\r\n--XY --\r\n", "\r\n--xy--\r\n",
             "\r\n-XY--\r\n", "\r\n --XY--\r\n",
             // The closing delimiter is cut.
             "\r\n--XY", "\r\n--XY-", "\r\n--XY--\r", "\r\n--XY--\n",
             // More text in its line.
             "\r\n--XYZ\r\n\r\n--XY--\r\n", "\r\n--XY \tx\r\n--XY--\r\n",
             "\r\n--XYX: y\r\n" + second, "\r\n--XY " + second,
             "\r\n--XY--X: y\r\n" + second, "\r\n--XY-\r\n--XY--\r\n",
             "\r\n--XY---\r\n--XY--\r\n", "\r\n--XY--x\r\n",
             // After a line break of another kind.
             "\n--XY--\r\n", "\r--XY--\r\n", "\n--XYZ\r\n--XY--\r\n",
             "\r--XYZ\r\n--XY--\r\n", "\r\n\n--XYZ\r\n--XY--\r\n",
             "\n\r--XYZ\r\n--XY--\r\n", " --XY--\r\n--XYZ",
             // A nested form whose boundary begins with this one.
             "\r\n--XYXY\r\n--XYXY--\r\n--XY--\r\n"});
  table.Add(kOne, Multipart,
            {"--XY \t \r\n" + kDisposition + "\r\n1\r\n--XY--\t \r\n",
             // Preambles.
             "ignored\n\r\n\r\n" + fits, "\r\n" + fits, "\0\r\n"s + fits,
             "--X\r\n-\r\n" + fits, "x--XY\r\n" + fits});
  table.Add(kMalformed, Multipart,
            {"a=1", "--XY\n" + line, "--XY\r" + line,
             FieldPart("a", "\n--XY") + "--XY--\r\n",
             // Preambles.
             "x\n" + fits, "\n" + fits, "\r" + fits, "--XYZ\r\n" + fits,
             "x\n--XYZ\r\n" + fits,
             // Among the headers, or instead of them.
             headers + "--XY--\r\n", headers + fits, "--XY\r\n--XY--\r\n"});
  return table;
}

inline FormTable PartHeaders() {
  const std::string zero(1, '\0');
  const std::string upload =
      "Content-Disposition: form-data; name=a; filename=f\r\n";
  const auto of_upload = [&](const std::string& line) {
    return OnePart(upload + line + "\r\n");
  };
  const auto typed = [](const std::string& type) {
    return Taken({}, {{"a", "f", type, "1"}});
  };
  const std::string encoding = "Content-Transfer-Encoding: ";
  FormTable table = {
      "PartHeaders",
      {{Disposed("form-data; name=\"a\r\n \t  b\""), Taken({{"a b", "1"}})},
       {Disposed("form-data; name=\"a \r\n b\""), Taken({{"a  b", "1"}})},
       // The type is not checked.
       {of_upload("Content-Type: \t Text/Plain; charset=\"x\" \t"),
        typed("Text/Plain; charset=\"x\"")},
       {OnePart("content-TYPE:image/png\r\n" + upload), typed("image/png")},
       {of_upload("Content-Type: text/plain;\r\n\t charset=x"),
        typed("text/plain; charset=x")},
       {of_upload("Content-Type: "), typed("")},
       {OnePart(upload), typed("")},
       {of_upload("Content-Type: \"x;;="), typed("\"x;;=")},
       {of_upload(encoding + "Binary"), typed("")}}};
  table.Add(kOne, OnePart,
            {"CONTENT-disposition: form-data; name=a\r\n",
             "Content-Disposition \t: form-data; name=a\r\n",
             "Content-Disposition:form-data; name=a\r\n",
             "Content-Disposition: form-data; name=a \t\r\n",
             "X-Y: z\r\n" + kDisposition +
                 "Content-Length: 5\r\nX-Y: z\r\nEmpty:\r\n",
             // Folded headers.
             "Content-Disposition: form-data;\r\n name=a\r\n",
             "Content-Disposition:\r\n\tform-data;\r\n\tname=a\r\n",
             "Content-Disposition: form-data;\r\n \r\n name=a\r\n"});
  table.Add(
      kOne, LineAfter,
      {"X: \x01\xff\x7f\"; =", "Content-Type: text/plain", encoding + "7BIT"});
  table.Add(kOne, LineBefore,
            {"X: y\r\n z: 1", "!#$%&'*+-.^_`|~09: z", "{X}: z",
             // Like a delimiter.
             "--X: y", "X: --XY", "X: y\r\n --XY",
             "content-transfer-encoding:\t8bit "});
  table.Add(kMalformed, LineBefore,
            {" X: y", "X: \n y", "X: \r y", "X: y\r", "X: " + zero, "X",
             // Bad names.
             ": x", "X Y: z", "X(Y): z", "X\x01: z", "X\xe4: z", "X\x7f: z"});
  table.Add(kMalformed, OnePart,
            {"Content-Disposition: form-data; name=a\nX: y\r\n",
             "Content-Disposition: form-data; name=\"a" + zero + "\"\r\n",
             "Content-Disposition\r\n : form-data; name=a\r\n",
             "Content-Type: text/plain\r\n",
             // Twice.
             kDisposition + kDisposition,
             kDisposition + "content-disposition: form-data; name=b\r\n"});
  table.Add(kMalformed, LineAfter,
            {"Content-Type: a/b\r\nContent-Type: a/b",
             encoding + "quoted-printable", "Content-Transfer-Encoding:",
             encoding + "7bit;", encoding + "7bit\r\n" + encoding + "7bit"});
  table.Add(kMalformed, of_upload,
            {"Content-Type: a/b\r\ncontent-type: a/b", encoding + "base64"});
  table.Add(kMalformed, Multipart,
            {// Neither a line of blanks nor bare line feeds end them.
             "--XY\r\n" + kDisposition + " \r\n1\r\n--XY--",
             "--XY\r\nContent-Disposition: form-data; name=a\n\n1\r\n"
             "--XY--\r\n",
             "--XY\r\n\r\n1\r\n--XY--\r\n",
             FieldPart("a", "1") + PartWith("X: y\r\n", "2") + "--XY--"});
  return table;
}

inline FormTable Dispositions() {
  const auto named = [](const std::string& name) {
    return Taken({{name, "1"}});
  };
  const auto file = [](const std::string& name) {
    return Taken({}, {{"a", name, "", "1"}});
  };
  FormTable table = {
      "Dispositions",
      {{Disposed("form-data; name=\"\""), named("")},
       {Disposed("form-data; name=; x=y"), named("")},
       {Disposed("form-data; name=A"), named("A")},
       {DisposedA("\\b[c]=(d)'\xe4,"), named("a\\b[c]=(d)'\xe4,")},
       {Disposed("form-data; name=\"a; filename=b\""), named("a; filename=b")},
       {Disposed("form-data; name=\" \ta \""), named(" \ta ")},
       {Disposed("form-data; name=\"\x01\x7f\""), named("\x01\x7f")},
       // Percent signs are no escapes; a backslash escapes two characters.
       {Disposed("form-data; name=\"%22%0D%0A\""), named("%22%0D%0A")},
       {Disposed(R"(form-data; name="\"\\\\\"")"), named(R"("\\")")},
       {DisposedA(R"(; filename="C:\dir\new.txt")"), file(R"(C:\dir\new.txt)")},
       {DisposedA(R"(; filename=\\b)"), file(R"(\\b)")},
       {Disposed("form-data; filename=\"../\xe4\xc3\xa4/f\"; name=a"),
        file("../\xe4\xc3\xa4/f")},
       {DisposedA("; FileName=f"), file("f")},
       // An empty file name with content is an upload.
       {DisposedA("; filename=\"\""), file("")},
       {Multipart(UploadPart("a", "", "") + "--XY--"), Taken({})},
       {Multipart(UploadPart("a", "f", "") + "--XY--"),
        Taken({}, {{"a", "f", "", ""}})},
       {Multipart(UploadPart("a", "f", "1") + FieldPart("a", "2") +
                  UploadPart("a", "f", "3") + "--XY--"),
        Taken({{"a", "2"}}, {{"a", "f", "", "1"}, {"a", "f", "", "3"}})},
       {Disposed("form-data; name=\"\"; filename=f"),
        Taken({}, {{"", "f", "", "1"}})},
       {ExtendedName("UTF-8''%e2%82%aC%20x"), file("\xe2\x82\xac x")},
       {DisposedA("; FILENAME*=utf-8'de-x'f"), file("f")},
       {ExtendedName("Iso-8859-1'en'%A3%e4x"), file("\xc2\xa3\xc3\xa4x")},
       {ExtendedName("UTF-8''aZ09!#$&+-.^_`|~"), file("aZ09!#$&+-.^_`|~")},
       {ExtendedName("UTF-8''"), file("")},
       {Multipart(PartWith("Content-Disposition: form-data; name=a; "
                           "filename*=UTF-8''\r\n",
                           "") +
                  "--XY--"),
        Taken({})},
       // A plain name takes precedence over an extended one.
       {DisposedA("; filename*=UTF-8''e; filename=f"), file("f")},
       {DisposedA("; filename=f; filename*=KOI8-R''%00%"), file("f")},
       {ExtendedName("UTF-8''%f0%90%80%80"), file("\xf0\x90\x80\x80")},
       // Before the surrogates, and the last character.
       {ExtendedName("UTF-8''%ed%9f%bf"), file("\xed\x9f\xbf")},
       {ExtendedName("UTF-8''%f4%8f%bf%bf"), file("\xf4\x8f\xbf\xbf")}}};
  table.Add(kOne, Disposed,
            {"Form-DATA; name=a", " \tform-data \t;name=a",
             "form-data; name=\"a\"", "form-data; NAME=a",
             // Other parameters, or empty ones.
             "form-data; name=a; x=1; X=2",
             "form-data; x=\"name=b\"; name=a; name*=b; y=2",
             "form-data;; ;name=a; ;", "form-data; name \t= \ta\t ; x=y"});
  table.Add(kMalformed, Disposed,
            {// Other types.
             "attachment; name=a", "form-data2; name=a",
             "\"form-data\"; name=a", "; name=a", "form-data name=a",
             // No name.
             "form-data", "form-data; filename=f", "form-data; name*=UTF-8''a",
             "form-data; names=a",
             // More after a value, or quotes that do not end.
             "form-data; name=\"a\"b", "form-data; name=\"a\" b",
             "form-data; name=\"a\"x=y", "form-data; name=\"a"});
  table.Add(
      kMalformed, DisposedA,
      {"; name=b", "; Name=a", "; filename", "; =x", " filename=f",
       "; filename=\"C:\\\"", " b", "\"b\"", "\x7f", "; filename=f; filename=f",
       "; filename*=UTF-8''e; filename*=UTF-8''e"});
  table.Add(kMalformed, ExtendedName,
            {"UTF-16''f", "''f", "UTF-8'f", "f", "UTF-8''a'b", "\"UTF-8''f\"",
             // Characters that need an escape, and invalid escapes.
             "UTF-8''a/b", "UTF-8''\xc3\xa4", "UTF-8''%zz", "UTF-8''a%4",
             "UTF-8''a%00", "ISO-8859-1''%00",
             // Invalid or incomplete UTF-8.
             "UTF-8''%e4", "UTF-8''%e2%82", "UTF-8''%c3x", "UTF-8''%e2%82x",
             "UTF-8''%f0%90%80x",
             // Overlong forms.
             "UTF-8''%c0%af", "UTF-8''%e0%9f%bf", "UTF-8''%f0%8f%bf%bf",
             // A surrogate, and beyond the last character.
             "UTF-8''%ed%a0%80", "UTF-8''%f4%90%80%80"});
  return table;
}

/// A request at its limit and the expected form. With a limit less by one it is
/// refused.
template <class Limit>
void AddLimit(FormTable& table, Limit PlainLimits::*limit, Limit value,
              const FormRequest& request, const PlainForm& form) {
  table.rows.push_back({Within(limit, value, request), form});
  table.rows.push_back({Within(limit, value - 1, request), kTooLarge});
}

inline FormTable Limits() {
  const auto body = &PlainLimits::body;
  const auto value = &PlainLimits::value;
  const auto values = &PlainLimits::values;
  const auto parts = &PlainLimits::parts;
  const auto header = &PlainLimits::header;
  const auto size = [](std::size_t bytes) { return bytes; };
  const FormRequest field =
      Multipart(FieldPart("name", "12345") + "--XY--\r\n");
  const PlainForm field_taken = Taken({{"name", "12345"}});
  const FormRequest upload = Multipart(
      PartWith("Content-Disposition: form-data; name=abc; filename=\"f\\\"g\""
               "\r\nContent-Type:  text/x \r\n",
               "123456789") +
      "--XY--\r\n");
  const PlainForm upload_taken =
      Taken({}, {{"abc", "f\"g", "text/x", "123456789"}});
  const FormRequest three =
      Multipart(FieldPart("a", "1") + UploadPart("b", "", "") +
                UploadPart("c", "f", "") + "--XY--\r\n");
  const PlainForm three_taken = Taken({{"a", "1"}}, {{"c", "f", "", ""}});
  const std::string disposed = "--XY\r\n" + kDisposition;
  const std::string hundred = Repeated("1", 100);
  // "Content-Disposition: form-data; name=a", two line breaks.
  const std::size_t headers_length = 38 + 2 + 2;
  const FormRow within_header[] = {
      {Multipart(PartWith(kDisposition, "1") + PartWith(kDisposition, "2") +
                 "--XY--"),
       Taken({{"a", "1"}, {"a", "2"}})},
      {Multipart(disposed + "\r\n--XY--"), Taken({{"a", ""}})},
      // Delimiters and contents do not count.
      {Multipart(Repeated("p", 100) + "\r\n--XY" + Repeated(" ", 100) + "\r\n" +
                 kDisposition + "\r\n" + hundred + "\r\n--XY--"),
       Taken({{"a", hundred}})}};
  FormTable table = {
      "Limits",
      {{Within(body, std::int64_t{2}, PostOfType("text/plain", "a=1")),
        kTooLarge},
       {Within(body, std::int64_t{2}, Declaring(3, Encoded("a="))), kTooLarge},
       {Within(body, std::int64_t{0}, Query("GET", "a=1")), kOne},
       {Within(value, size(3), Query("GET", "a=1234")), kTooLarge},
       // The limit of a value applies neither to names of parts nor to uploads.
       {Within(value, size(1), Multipart(FieldPart("name", "1") + "--XY--")),
        Taken({{"name", "1"}})},
       {Within(value, size(0), upload), upload_taken},
       {Within(value, size(3), Encoded("a=%41+cd")), kTooLarge},
       {Within(value, size(3), Encoded("%41%42%43%44=1")), kTooLarge},
       {Within(parts, size(0), Multipart("--XY--")), Taken({})},
       {Within(header, headers_length + 5, LineBefore("X: y")), kTooLarge}}};
  for (const auto& [request, form] : within_header) {
    table.rows.push_back({Within(header, headers_length, request), form});
  }
  AddLimit(table, body, std::int64_t{3}, Encoded("a=1"), kOne);
  AddLimit(table, body, std::int64_t{15}, Multipart("x\r\n--XY--\r\nabcd"),
           Taken({}));
  AddLimit(table, value, size(3), Encoded("a=%41+c"), Taken({{"a", "A c"}}));
  AddLimit(table, value, size(3), Encoded("%41%42%43=1"),
           Taken({{"ABC", "1"}}));
  AddLimit(table, value, size(5), field, field_taken);
  AddLimit(table, values, size(6), Encoded("a=%31&b&cd=+"),
           Taken({{"a", "1"}, {"b", ""}, {"cd", " "}}));
  AddLimit(table, values, size(9), field, field_taken);
  AddLimit(table, values, size(12), upload, upload_taken);
  // Names of empty file inputs do not count, but their parts do.
  AddLimit(table, values, size(4), three, three_taken);
  AddLimit(table, parts, size(3), three, three_taken);
  AddLimit(table, parts, size(2), Encoded("&a=1&&b&"),
           Taken({{"a", "1"}, {"b", ""}}));
  AddLimit(table, header, headers_length, OnePart(kDisposition), kOne);
  return table;
}

inline std::vector<FormTable> FormTables() {
  return {WhereTheFormIs(), EncodedForms(), Boundaries(), Delimiters(),
          PartHeaders(),    Dispositions(), Limits()};
}

}  // namespace plain

#endif
