// With which status and which text a form is refused: the declared length,
// each limit, each rule. What breaks a rule is in tests/plain/form_rows.h.

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

TEST(DeclaredLength, MustBeExact) {
  Form::Limits limits;
  limits.body = 10;
  for (const LengthRow& row : kLengths) {
    SCOPED_TRACE(row.name);
    Child child;
    child.Env("CONTENT_TYPE", kEncoded);
    if (row.declared != nullptr) child.Env("CONTENT_LENGTH", row.declared);
    if (row.transfer_encoding != nullptr) {
      child.Env("HTTP_TRANSFER_ENCODING", row.transfer_encoding);
    }
    const std::string sent = row.sent;
    const Reading read_body = [&](const std::string&) {
      EXPECT_EQ(zan_cgi::ReadBody(10),
                sent.substr(0, sent.size() - row.unread));
    };
    for (const Reading& reading : {FormWithin(limits), read_body}) {
      ExpectRefusal(row.refusal, child, sent, reading, row.unread);
    }
  }
}

TEST(ReadBody, ReturnsAnyBytesOfAnyTypeAndMethod) {
  const std::string zeros("\0a\0\r\n\xff", 6);
  struct Row {
    const char* method;
    const char* type;
    std::string body;
  };
  const Row rows[] = {
      {"POST", "application/json", ""},
      {"PATCH", "", zeros},
      {"GET", kForm, Field("a", "1") + kFormEnd},
      {"POST", "text/plain", std::string(65'536, 'x')},
      {"PUT", "text/plain", std::string(65'536, 'x') + "y"},
      {"DELETE", "image/png", std::string(10'000'000, '\0') + "end"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.method);
    RunCleanly(Child()
                   .Env("REQUEST_METHOD", row.method)
                   .Env("CONTENT_TYPE", row.type)
                   .Env("CONTENT_LENGTH", std::to_string(row.body.size())),
               Input::Pipe(row.body),
               [&] { EXPECT_TRUE(zan_cgi::ReadBody(20'000'000) == row.body); });
  }
}

/// A form of this type, and how it is refused.
struct Row {
  std::string body;
  Refusal refusal;
  std::string type = kForm;
};

void ExpectRefused(const std::vector<Row>& rows,
                   const Form::Limits& limits = Form::Limits()) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.refusal.text + ": " + row.body);
    ExpectRefusal(row.refusal, PostOf(row.body, row.type), row.body,
                  FormWithin(limits));
  }
}

Refusal Malformed(const std::string& text) { return {400, text}; }
Refusal TooLarge(const std::string& text) { return {413, text}; }

const std::string kNamed = "Content-Disposition: form-data; name=a";

TEST(Refusal, NamesTheRuleThatTheTypeOrAMarkerBreaks) {
  const std::string multipart = "multipart/form-data";
  const Refusal no_boundary = Malformed("the form announces no valid boundary");
  const Refusal not_closed =
      Malformed("the form ends without its closing boundary");
  const Refusal followed =
      Malformed("a boundary is followed by something else");
  ExpectRefused({
      {"a=1", {415, "the type of the body is none of a form"}, ""},
      {"a=1", no_boundary, multipart},
      {"a=1", no_boundary, multipart + "; boundary=" + std::string(71, 'x')},
      {"a=1", Malformed("the media type of the form is malformed"),
       multipart + "; boundary=\"XY"},
      {"", not_closed},
      {FieldHead("a") + "va", not_closed},
      {"--XY\r\nContent-Disp", not_closed},
      {Field("a", "1") + "--XY-", followed},
      {"--XYz\r\n" + kNamed + "\r\n\r\n1\r\n--XY--", followed},
      {"--XY\n" + kNamed,
       Malformed("a line of the form does not end in CR LF")},
  });
}

TEST(Refusal, NamesTheRuleThatAHeaderBreaks) {
  const std::string disposition = "Content-Disposition: ";
  const std::string encoding = "\r\nContent-Transfer-Encoding: ";
  const std::pair<std::string, const char*> headers[] = {
      {kNamed + "\nX: y", "a line of the form does not end in CR LF"},
      {kNamed + "\r\nContent-Type: a/b\r\nContent-Type: c",
       "a part has two media types"},
      {kNamed + "\r\nX Y: z", "a header of a part has no valid name"},
      {"Content-Type: a/b", "a part has no disposition"},
      {disposition + "form-data; filename=f", "a part has no name"},
      {kNamed + "; filename*=UTF-8''%ff",
       "a file name is not encoded as it must be"},
      {kNamed + "\r\n" + kNamed, "a part has two dispositions"},
      {disposition + "file; name=a",
       "the disposition of a part is not form-data"},
      {kNamed + "; b=\"c", "the disposition of a part is malformed"},
      {kNamed + "; name=b", "a parameter of a disposition comes twice"},
      {kNamed + encoding + "7bit" + encoding + "7bit",
       "a part has two transfer encodings"},
      {kNamed + encoding + "base64", "a part is encoded for the transfer"},
      {" X: y\r\n" + kNamed, "the first line of a header is indented"},
      {kNamed + "\r\n--XY", "a boundary stands among the headers of a part"},
      {kNamed + "\r\nheader", "a header of a part has no colon"},
      {kNamed + "\r\nX: " + std::string(1, '\0'),
       "a header of a part holds a zero byte"},
  };
  for (const auto& [lines, text] : headers) {
    ExpectRefused({{"--XY\r\n" + lines + "\r\n\r\nvalue\r\n" + kFormEnd,
                    Malformed(text)}});
  }
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
  ExpectRefused(
      {{Field("a", "") + Field("a", "") + Field("a", "") + kFormEnd, parts},
       {"a&b&c", parts, kEncoded},
       {Field("a", "123456") + kFormEnd, value},
       {"a=123456", value, kEncoded},
       {"123456=1", value, kEncoded},
       {"a=12345%36", value, kEncoded},
       {Field("a", "12345") + Field("abc", "1234") + kFormEnd, values},
       {"12345=1234&1=123", values, kEncoded},
       {FieldHead("a" + std::string(30, 'x')), header},
       {"--XY\r\n" + kNamed + "\r\nX: 45678901234567890\r\n\r\n", header}},
      limits);
}

}  // namespace
}  // namespace support
