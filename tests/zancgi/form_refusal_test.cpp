// With which status and which text a form is refused: the declared length,
// each limit, each rule.

#include <zancgi/form.h>

#include "support/form.h"
#include "support/refusal.h"
#include "support/test.h"
#include "support/unread.h"

namespace support {
namespace {

const Refusal kTaken = {};

/// How standard input is read.
using Reading = std::function<void(const std::string& spool)>;

Reading FormWithin(const Form::Limits& limits) {
  return [limits](const std::string& spool) {
    Cgi cgi = CgiWithSpool(spool);
    const Form form(cgi, limits);
  };
}

/// Expects that a body of these bytes is refused so by this reading, and that
/// nothing is left of it in the folder for uploads.
/// @param unread  how many of the bytes must stay unread
void ExpectRefusal(const Refusal& refusal, Child child, const std::string& sent,
                   const Reading& reading, std::size_t unread = 0) {
  const Scratch spool;
  RunCleanly(child.Env("REQUEST_METHOD", "POST"), Input::File(sent), [&] {
    EXPECT_EQ(RefusalOf([&] { reading(spool.Path()); }), refusal);
    EXPECT_EQ(BytesUnread(), unread);
  });
  EXPECT_EQ(spool.List(), Strings{});
}

const Refusal kNoNumber = {400,
                           "the declared length of the body is not a number"};
const Refusal kNotDeclared = {400, "the length of the body is not declared"};
const Refusal kTooLong = {413, "the body is longer than 10 bytes"};

/// A length as it may be declared, and what comes. After a length that is none
/// all that comes is dropped.
struct LengthRow {
  const char* name;
  const char* declared;  ///< Null for none.
  const char* sent;
  Refusal refusal;
  std::size_t unread = 0;
  const char* transfer_encoding = nullptr;
};

const LengthRow kLengths[] = {
    {"none", nullptr, "", kTaken},
    {"none, yet something comes", nullptr, "a=1", kTaken, 3},
    {"empty", "", "a=1", kTaken, 3},
    {"0", "0", "a=1", kTaken, 3},
    {"exact", "5", "a=123", kTaken},
    {"with leading zeros", "0005", "a=123", kTaken},
    {"the limit", "10", "a=12345678", kTaken},
    {"less than comes", "3", "a=12", kTaken, 1},
    {"more than comes", "5", "a=1", {400, "the body ends after 3 of 5 bytes"}},
    {"more than nothing", "5", "", {400, "the body ends after 0 of 5 bytes"}},
    {"negative", "-1", "a=1", kNoNumber},
    {"with a sign", "+5", "a=123", kNoNumber},
    {"with a letter", "5x", "a=123", kNoNumber},
    {"with a blank before", " 5", "a=123", kNoNumber},
    {"with a blank after", "5 ", "a=123", kNoNumber},
    {"a blank", " ", "a=123", kNoNumber},
    {"hexadecimal", "0x5", "a=123", kNoNumber},
    {"a fraction", "5.0", "a=123", kNoNumber},
    {"above the limit", "11", "a=123456789", kTooLong},
    {"above 31 bits", "2147483648", "a=1", kTooLong},
    {"3 above 32 bits", "4294967299", "a=1", kTooLong},
    {"above 63 bits", "9223372036854775808", "a=1", kTooLong},
    {"3 above 64 bits", "18446744073709551619", "a=1", kTooLong},
    {"of 30 digits", "123456789012345678901234567890", "a=1", kTooLong},
    {"none, chunked", nullptr, "", kNotDeclared, 0, "chunked"},
    {"empty, chunked", "", "", kNotDeclared, 0, "chunked"},
    {"exact, chunked", "3", "a=1", kTaken, 0, "chunked"},
};

void ReadDeclaring(const LengthRow& row, const Reading& reading) {
  SCOPED_TRACE(row.name);
  Child child;
  child.Env("CONTENT_TYPE", kEncoded);
  if (row.declared != nullptr) child.Env("CONTENT_LENGTH", row.declared);
  if (row.transfer_encoding != nullptr) {
    child.Env("HTTP_TRANSFER_ENCODING", row.transfer_encoding);
  }
  ExpectRefusal(row.refusal, child, row.sent, reading, row.unread);
}

TEST(DeclaredLength, OfAFormMustBeExact) {
  Form::Limits limits;
  limits.body = 10;
  for (const LengthRow& row : kLengths) {
    ReadDeclaring(row, FormWithin(limits));
  }
}

TEST(DeclaredLength, OfAnotherBodyMustBeExact) {
  for (const LengthRow& row : kLengths) {
    ReadDeclaring(row, [&](const std::string&) {
      const std::string sent = row.sent;
      EXPECT_EQ(zan_cgi::ReadBody(10),
                sent.substr(0, sent.size() - row.unread));
    });
  }
}

TEST(ReadBody, ReturnsAnyBytesOfAnyTypeAndMethod) {
  const std::string zeros("\0a\0\r\n\xff", 6);
  struct Row {
    const char* name;
    const char* method;
    const char* type;
    std::string body;
  };
  const Row rows[] = {
      {"nothing", "POST", "application/json", ""},
      {"JSON", "PUT", "application/json", R"({"a": 1})"},
      {"zero bytes", "PATCH", "", zeros},
      {"a form", "GET", kForm, Field("a", "1") + kFormEnd},
      {"one buffer", "POST", "text/plain", std::string(65'536, 'x')},
      {"one byte more", "POST", "text/plain", std::string(65'536, 'x') + "y"},
      {"10 MB", "DELETE", "image/png", std::string(10'000'000, '\0') + "end"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    RunCleanly(Child()
                   .Env("REQUEST_METHOD", row.method)
                   .Env("CONTENT_TYPE", row.type)
                   .Env("CONTENT_LENGTH", std::to_string(row.body.size())),
               Input::Pipe(row.body),
               [&] { EXPECT_TRUE(zan_cgi::ReadBody(20'000'000) == row.body); });
  }
}

TEST(ReadBody, ReadsARefusedBodyToItsEnd) {
  const std::string body(1'000'000, 'x');
  ExpectRefusal({413, "the body is longer than 999999 bytes"}, PostOf(body, ""),
                body, [](const std::string&) { zan_cgi::ReadBody(999'999); });
}

/// A form, and the text with which it is refused.
struct Row {
  const char* name;
  std::string body;
  Refusal refusal;
  std::string type = kForm;
};

void ExpectRefused(const std::vector<Row>& rows,
                   const Form::Limits& limits = Form::Limits()) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ExpectRefusal(row.refusal, PostOf(row.body, row.type), row.body,
                  FormWithin(limits));
  }
}

Refusal Malformed(const std::string& text) { return {400, text}; }
Refusal TooLarge(const std::string& text) { return {413, text}; }

/// A form of one part with these header lines.
std::string FormOf(const std::string& lines) {
  return "--XY\r\n" + lines + "\r\n\r\nvalue\r\n--XY--\r\n";
}

const std::string kNamed = "Content-Disposition: form-data; name=a";

TEST(Refusal, NamesTheRuleThatTheTypeBreaks) {
  const Refusal other = {415, "the type of the body is none of a form"};
  const Refusal no_boundary = Malformed("the form announces no valid boundary");
  const Refusal malformed =
      Malformed("the media type of the form is malformed");
  ExpectRefused({
      {"no type", "a=1", other, ""},
      {"another type", "a=1", other, "text/plain"},
      {"another multipart", "a=1", other, "multipart/mixed; boundary=XY"},
      {"no boundary", "a=1", no_boundary, "multipart/form-data"},
      {"empty boundary", "a=1", no_boundary, "multipart/form-data; boundary="},
      {"long boundary", "a=1", no_boundary,
       "multipart/form-data; boundary=" + std::string(71, 'x')},
      {"open quote", "a=1", malformed, "multipart/form-data; boundary=\"XY"},
      {"text after the quote", "a=1", malformed,
       "multipart/form-data; boundary=\"XY\"Z"},
  });
}

TEST(Refusal, NamesTheRuleThatAMarkerBreaks) {
  const Refusal not_closed =
      Malformed("the form ends without its closing boundary");
  const Refusal followed =
      Malformed("a boundary is followed by something else");
  ExpectRefused({
      {"nothing", "", not_closed},
      {"only a preamble", "preamble\r\n", not_closed},
      {"no closing boundary", Field("a", "1"), not_closed},
      {"no part", "--XY\r\n", not_closed},
      {"ends in a value", "--XY\r\n" + kNamed + "\r\n\r\nva", not_closed},
      {"ends in a header", "--XY\r\nContent-Disp", not_closed},
      {"ends in an upload", UploadHead("u", "f") + "da", not_closed},
      {"ends in the closing boundary", Field("a", "1") + "--XY-", followed},
      {"text after a boundary", "--XYz\r\n" + kNamed + "\r\n\r\n1\r\n--XY--",
       followed},
  });
}

TEST(Refusal, NamesTheRuleThatAHeaderBreaks) {
  ExpectRefused({
      {"line end", FormOf(kNamed + "\nX: y"),
       Malformed("a line of the form does not end in CR LF")},
      {"two types", FormOf(kNamed + "\r\nContent-Type: a/b\r\nContent-Type: c"),
       Malformed("a part has two media types")},
      {"no valid name", FormOf(kNamed + "\r\nX Y: z"),
       Malformed("a header of a part has no valid name")},
      {"no disposition", FormOf("Content-Type: a/b"),
       Malformed("a part has no disposition")},
      {"no name", FormOf("Content-Disposition: form-data; filename=f"),
       Malformed("a part has no name")},
      {"encoding of a file name", FormOf(kNamed + "; filename*=UTF-8''%ff"),
       Malformed("a file name is not encoded as it must be")},
      {"two dispositions", FormOf(kNamed + "\r\n" + kNamed),
       Malformed("a part has two dispositions")},
      {"another disposition", FormOf("Content-Disposition: file; name=a"),
       Malformed("the disposition of a part is not form-data")},
      {"malformed disposition", FormOf(kNamed + "; b=\"c"),
       Malformed("the disposition of a part is malformed")},
      {"two names", FormOf(kNamed + "; name=b"),
       Malformed("a parameter of a disposition comes twice")},
      {"two encodings",
       FormOf(kNamed + "\r\nContent-Transfer-Encoding: 7bit" +
              "\r\nContent-Transfer-Encoding: 7bit"),
       Malformed("a part has two transfer encodings")},
      {"encoded", FormOf(kNamed + "\r\nContent-Transfer-Encoding: base64"),
       Malformed("a part is encoded for the transfer")},
      {"indented", FormOf(" X: y\r\n" + kNamed),
       Malformed("the first line of a header is indented")},
      {"boundary", FormOf(kNamed + "\r\n--XY"),
       Malformed("a boundary stands among the headers of a part")},
      {"no colon", FormOf(kNamed + "\r\nheader"),
       Malformed("a header of a part has no colon")},
      {"zero byte", FormOf(kNamed + "\r\nX: " + std::string(1, '\0')),
       Malformed("a header of a part holds a zero byte")},
  });
}

TEST(Refusal, NamesTheLimit) {
  Form::Limits limits;
  limits.parts = 2;
  limits.value = 5;
  limits.values = 12;
  limits.header = 60;
  const Refusal parts = TooLarge("the form has more than 2 fields and uploads");
  const Refusal value = TooLarge("a value of the form is longer than 5 bytes");
  const Refusal values = TooLarge(
      "the names and values of the form together are longer than 12 bytes");
  const Refusal header =
      TooLarge("the headers of a part are longer than 60 bytes");
  const std::string field = "--XY\r\n" + kNamed + "\r\n\r\n";
  ExpectRefused(
      {
          {"parts", field + "\r\n" + field + "\r\n" + field + "\r\n" + kFormEnd,
           parts},
          {"encoded parts", "a&b&c", parts, kEncoded},
          {"value", field + "123456\r\n" + kFormEnd, value},
          {"encoded value", "a=123456", value, kEncoded},
          {"encoded name", "123456=1", value, kEncoded},
          {"escaped value", "a=12345%36", value, kEncoded},
          {"names and values",
           field + "12345\r\n" + "--XY\r\n" + kNamed + "bc\r\n\r\n1234\r\n" +
               kFormEnd,
           values},
          {"encoded names and values", "12345=1234&1=123", values, kEncoded},
          {"header", "--XY\r\n" + kNamed + std::string(30, 'x') + "\r\n\r\n",
           header},
          {"headers", FormOf(kNamed + "\r\nX: 45678901234567890"), header},
      },
      limits);
}

TEST(Limits, MayBeReached) {
  Form::Limits limits;
  limits.parts = 2;
  limits.value = 5;
  limits.values = 12;
  limits.header = kNamed.size() + 4;
  const std::string field = "--XY\r\n" + kNamed + "\r\n\r\n12345\r\n";
  limits.body = static_cast<std::int64_t>((field + field + kFormEnd).size());
  ExpectRefused(
      {{"multipart", field + field + kFormEnd, kTaken},
       {"encoded", "12345=12&2=1234", kTaken, kEncoded},
       {"nothing between separators", "&&&a&&&b&&&", kTaken, kEncoded}},
      limits);
}

TEST(Limits, OfBytesExcludeTheContentsOfUploads) {
  Form::Limits limits;
  limits.value = 5;
  limits.values = 2;
  const Refusal values = TooLarge(
      "the names and values of the form together are longer than 2 bytes");
  ExpectRefused(
      {{"contents", Upload("u", "f", std::string(100'000, 'x')) + kFormEnd,
        kTaken},
       {"names", Upload("u", "fg", "") + kFormEnd, values},
       {"type",
        "--XY\r\nContent-Disposition: form-data; name=u; filename=f\r\n"
        "Content-Type: t\r\n\r\n\r\n--XY--",
        values},
       {"empty file inputs",
        Upload("u", "", "") + Upload("u", "", "") + Upload("u", "", "") +
            kFormEnd,
        kTaken}},
      limits);
}

TEST(Epilogue, IsReadToTheEndOfTheBody) {
  ExpectRefused(
      {{"long", Field("a", "1") + kFormEnd + std::string(200'000, 'x'),
        kTaken}});
}

TEST(QueryStringOfAForm, HasTheSameLimits) {
  Form::Limits limits;
  limits.parts = 2;
  limits.value = 5;
  const std::pair<const char*, Refusal> rows[] = {
      {"a=12345&b", kTaken},
      {"a=123456", TooLarge("a value of the form is longer than 5 bytes")},
      {"a&b&c", TooLarge("the form has more than 2 fields and uploads")},
  };
  for (const char* const method : {"GET", "HEAD"}) {
    for (const auto& [query, refusal] : rows) {
      SCOPED_TRACE(query);
      RunCleanly(
          Child().Env("REQUEST_METHOD", method).Env("QUERY_STRING", query),
          [&, refusal = refusal] {
            EXPECT_EQ(RefusalOf([&] { FormWithin(limits)("/tmp"); }), refusal);
          });
    }
  }
}

}  // namespace
}  // namespace support
