// What a client or a back end sends costs in proportion to its size, whatever
// its shape.
//
// The libraries are compiled into this program so that their work is counted
// and not timed: each basic block that runs, each byte that the C library
// copies, compares or searches for them, and each byte of memory that they ask
// for. Neither the machine nor its load changes these numbers.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zancgi/form.h>
#include <zancgi/testing/backend.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/clean_run.h"
#include "support/fast_folder.h"
#include "support/form.h"
#include "support/slow_content.h"

namespace {

using support::Field;
using support::kForm;
using support::kFormEnd;
using support::Part;
using support::RunCleanly;
using support::SlowContents;
using support::Upload;
using support::UploadBehindAChunk;
using zan_cgi::Cgi;
using zan_cgi::Form;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Reporter;
using zan_cgi::testing::Scratch;

struct Work {
  std::uint64_t blocks = 0;
  std::uint64_t handled_bytes = 0;
  std::uint64_t allocated_bytes = 0;
};

constinit Work work;
constinit bool counting = false;

void CountBytes(std::size_t count) {
  if (counting) work.handled_bytes += count;
}

/// What standard input still gives.
constinit std::string_view unread;
/// Whether each of the bytes "x" in a row comes alone.
constinit bool reads_single_bytes = false;

std::size_t SizeOfRead(std::size_t wanted) {
  if (!reads_single_bytes) return std::min(wanted, unread.size());
  const std::size_t end = unread.starts_with("xx") ? 1 : unread.find("xx");
  return std::min({wanted, unread.size(), end});
}

/// A text again and again, as long as this or a little longer.
std::string Repeated(const std::string& text, std::size_t size) {
  std::string result;
  while (result.size() < size) result += text;
  return result;
}

/// So many texts, each made of its number.
std::string Numbered(
    std::size_t count,
    const std::function<std::string(const std::string& number)>& make) {
  std::string result;
  for (std::size_t i = 0; i < count; ++i) result += make(std::to_string(i));
  return result;
}

/// The work of a body that runs in a child process.
Work CountIn(Child child, const std::function<void()>& body) {
  const Outcome outcome =
      RunCleanly(child.LogLevel(0), [&](const Reporter& report) {
        work = {};
        counting = true;
        body();
        counting = false;
        report("blocks", std::to_string(work.blocks));
        report("handled", std::to_string(work.handled_bytes));
        report("allocated", std::to_string(work.allocated_bytes));
      });
  if (!outcome.reported.contains("allocated")) return {};
  return {std::stoull(outcome.reported.at("blocks")),
          std::stoull(outcome.reported.at("handled")),
          std::stoull(outcome.reported.at("allocated"))};
}

/// Counts what a text of the client or the back end costs.
using Taker = std::function<Work(const std::string& text)>;

Work TakeBody(const std::string& body, const std::string& content_type) {
  const Scratch scratch(support::FastFolder());
  return CountIn(Child()
                     .Env("CONTENT_TYPE", content_type)
                     .Env("CONTENT_LENGTH", std::to_string(body.size())),
                 [&] {
                   unread = body;
                   Cgi::Data record;
                   record.tmp_dir = scratch.Path();
                   record.ParseInput();
                   EXPECT_TRUE(record.parsed);
                 });
}

Work TakeForm(const std::string& body) { return TakeBody(body, kForm); }

Work TakeFormByteByByte(const std::string& body) {
  reads_single_bytes = true;
  const Work counted = TakeForm(body);
  reads_single_bytes = false;
  return counted;
}

Taker TakeFormWith(const std::string& boundary) {
  return [boundary](const std::string& body) {
    return TakeBody(body, "multipart/form-data; boundary=" + boundary);
  };
}

/// The boundary is what the body begins with.
Work TakeFormWithItsBoundary(const std::string& body) {
  return TakeFormWith(body.substr(2, body.find('\r') - 2))(body);
}

/// Nothing is refused for its size.
Form::Limits Unlimited() {
  Form::Limits limits;
  limits.body = std::numeric_limits<std::int64_t>::max();
  limits.value = limits.values = limits.parts = limits.header =
      std::numeric_limits<std::size_t>::max();
  return limits;
}

/// Counts what zan_cgi::Form, and the first question to the Cgi, cost.
Taker TakeExactly(Child child, const std::string& content_type) {
  return [=](const std::string& body) mutable {
    const Scratch scratch(support::FastFolder());
    return CountIn(child.Env("CONTENT_TYPE", content_type)
                       .Env("CONTENT_LENGTH", std::to_string(body.size())),
                   [&] {
                     unread = body;
                     Cgi cgi("/bin/front", "");
                     cgi.SetTmpDir(scratch.Path());
                     try {
                       const Form form(cgi, Unlimited());
                       cgi.Param("a");
                     } catch (const zan_cgi::FormError& error) {
                       EXPECT_EQ(error.status(), 400);
                     }
                     EXPECT_EQ(unread.size(), 0U);
                   });
  };
}

Work TakeExactForm(const std::string& body) {
  return TakeExactly(Child().Env("REQUEST_METHOD", "POST"), kForm)(body);
}

Work TakeExactFormByteByByte(const std::string& body) {
  reads_single_bytes = true;
  const Work counted = TakeExactForm(body);
  reads_single_bytes = false;
  return counted;
}

Taker TakeExactFormWith(const std::string& boundary) {
  return TakeExactly(Child().Env("REQUEST_METHOD", "POST"),
                     "multipart/form-data; boundary=" + boundary);
}

Work TakeExactEncoded(const std::string& body) {
  return TakeExactly(Child().Env("REQUEST_METHOD", "POST"),
                     "application/x-www-form-urlencoded")(body);
}

Work TakeExactQuery(const std::string& query) {
  return CountIn(
      Child().Env("REQUEST_METHOD", "GET").Env("QUERY_STRING", query), [] {
        Cgi cgi("/bin/front", "");
        const Form form(cgi, Unlimited());
        cgi.Param("a");
      });
}

Work TakeExactBody(const std::string& body) {
  return CountIn(Child().Env("CONTENT_LENGTH", std::to_string(body.size())),
                 [&] {
                   unread = body;
                   zan_cgi::ReadBody(std::numeric_limits<std::int64_t>::max());
                 });
}

Work TakeRawBody(const std::string& body) {
  return TakeBody(body, "application/x-www-form-urlencoded");
}

Work TakeQueryString(const std::string& query) {
  return CountIn(
      Child().Env("REQUEST_METHOD", "GET").Env("QUERY_STRING", query),
      [] { Cgi::Data().ParseQuery(); });
}

Work TakeCookies(const std::string& cookies) {
  return CountIn(Child().Env("HTTP_COOKIE", cookies), [] { Cgi::Data(); });
}

/// The work of a question and its answer.
Work Ask(const std::function<void(Cgi& cgi)>& ask, const std::string& answer) {
  zan_cgi::testing::Backend backend;
  backend.Then(zan_cgi::testing::Answer(answer));
  const Work counted =
      CountIn(Child().Env("REQUEST_METHOD", "GET").With(backend), [&] {
        Cgi cgi("/bin/front", "backend");
        ask(cgi);
      });
  EXPECT_EQ(backend.Queries().size(), 1U);
  return counted;
}

Work TakeQuery(const std::string& query) {
  return Ask([&](Cgi& cgi) { cgi.Query(query); }, "x");
}

Work TakeAnswer(const std::string& answer) {
  return Ask([](Cgi& cgi) { cgi.Query("func=a"); }, answer);
}

/// Takes the items of a query as a map.
Work TakeMap(const std::string& query) {
  std::map<std::string, std::string> items;
  std::size_t begin = 0;
  while (begin < query.size()) {
    const std::size_t equals = query.find('=', begin);
    const std::size_t end = query.find('&', equals);
    items[query.substr(begin, equals - begin)] =
        query.substr(equals + 1, end - equals - 1);
    begin = end + 1;
  }
  return Ask([&](Cgi& cgi) { cgi.Query(items); }, "x");
}

struct Shape {
  std::string name;
  Taker take;
  /// Large enough to outweigh what every request costs. It is the length of the
  /// text, about, or the number of its items.
  std::size_t size;
  std::function<std::string(std::size_t size)> make;
};

void PrintTo(const Shape& shape, std::ostream* out) { *out << shape.name; }

/// A field whose value is this text again and again.
std::function<std::string(std::size_t)> FieldOf(const std::string& text) {
  return [text](std::size_t size) {
    return Field("a", Repeated(text, size)) + kFormEnd;
  };
}

/// What shapes are repeated of, by their names.
using Texts = std::map<std::string, std::string>;

/// Text again and again between two others.
std::function<std::string(std::size_t)> Many(const std::string& text,
                                             const std::string& begin = "",
                                             const std::string& end = "") {
  return [=](std::size_t size) { return begin + Repeated(text, size) + end; };
}

/// So many texts with "#" replaced by their numbers, between two others.
std::function<std::string(std::size_t)> Distinct(const std::string& text,
                                                 const std::string& end = "") {
  return [=](std::size_t size) {
    const std::size_t hole = text.find('#');
    return Numbered(size,
                    [&](const std::string& number) {
                      return text.substr(0, hole) + number +
                             text.substr(hole + 1);
                    }) +
           end;
  };
}

/// A form that begins with a field or an upload of a very long name, which
/// stays the name of later parts that give none.
std::function<std::string(std::size_t)> AfterLongName(const std::string& text) {
  return [text](std::size_t size) {
    return Field(std::string(size, 'n'), "") + Repeated(text, size) + kFormEnd;
  };
}

std::function<std::string(std::size_t)> AfterLongFileName(
    const std::string& text) {
  return [text](std::size_t size) {
    return Upload("u", std::string(size, 'n'), "") + Repeated(text, size) +
           kFormEnd;
  };
}

const std::string kFieldWithHeader =
    "Content-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--XY--\r\n";
const std::string kNextName = "Content-Disposition: form-data; name=\"a\"\r\n";

/// Names of one part outlive it, however long they are.
std::vector<Shape> LongNames() {
  // The larger ones have 320 KB and more, which no limit of a line refuses.
  return {
      {"LinesOfALongName", TakeForm, 50'000,
       [](std::size_t size) {
         return Field(std::string(size, 'n'), Repeated("\r\n", size / 4)) +
                kFormEnd;
       }},
      {"PartsWithoutHeadersAfterALongName", TakeForm, 50'000,
       AfterLongName("--XY\r\n\r\nv\r\n")},
      {"HeadersOfUploadsAfterALongName", TakeForm, 50'000,
       [](std::size_t size) {
         return Field(std::string(size, 'n'), "") + "--XY\r\n" +
                Repeated("Content-Disposition: form-data; filename=\"f\"\r\n",
                         size) +
                "\r\n" + kFormEnd;
       }},
      {"UploadsWithoutANameAfterALongName", TakeForm, 40'000,
       AfterLongName(Part("filename=\"f\"", ""))},
      {"UploadsWithoutHeadersAfterALongFileName", TakeForm, 40'000,
       AfterLongFileName("--XY\r\n\r\n" + std::string(50, 'v') + "\r\n")},
      {"PartsNamedFilenameAfterALongFileName", TakeForm, 40'000,
       AfterLongFileName(Part("name=\"filename\"", ""))},
      {"HeadersNamedFilenameAfterALongFileName", TakeForm, 40'000,
       [](std::size_t size) {
         return Upload("u", std::string(size, 'n'), "") + "--XY\r\n" +
                Repeated(
                    "Content-Disposition: form-data; name=\"filename\"\r\n",
                    size) +
                "\r\n" + kFormEnd;
       }},
      {"AttributesAfterALongName", TakeForm, 100'000,
       [](std::size_t size) {
         return Part("name=\"" + std::string(size, 'n') + "\"" +
                         Repeated("; filename=\"f\"", size),
                     "") +
                kFormEnd;
       }},
  };
}

/// A part that is ignored, filled up so that every chunk begins with such a
/// part. A boundary at the end of a chunk would be another matter: after an
/// ignored part it is parsed for ever.
std::string Ignored(const std::string& disposition) {
  const std::string part =
      "--XY\r\nContent-Disposition: " + disposition + "\r\n\r\n";
  return part + std::string(128 - part.size() - 2, 'x') + "\r\n";
}

std::vector<Shape> Fields() {
  return {
      {"Fields", TakeForm, 12'500, Distinct(Field("#", "1"), kFormEnd)},
      {"FieldsOfOneName", TakeForm, 500'000,
       Many(Field("a", "1"), "", kFormEnd)},
      {"FieldsWithoutAName", TakeForm, 200'000,
       Many(Ignored("form-data; name=\"\""), "", kFormEnd)},
      {"FieldsWithoutQuotes", TakeForm, 200'000,
       Many(Ignored("form-data; name=a"), "", kFormEnd)},
      {"PartsOfAnotherDisposition", TakeForm, 200'000,
       Many(Ignored("attachment"), "", kFormEnd)},
      {"FieldOfEmptyLines", TakeForm, 200'000, FieldOf("\r\n")},
      {"FieldOfShortLines", TakeForm, 200'000, FieldOf("1234567\r\n")},
      {"FieldOfBoundaryLines", TakeForm, 200'000, FieldOf("--X\r\n")},
      {"FieldOfBareLineFeeds", TakeForm, 200'000, FieldOf("\n")},
      {"FieldOfLongLines", TakeForm, 400'000,
       FieldOf(std::string(100'000, 'x') + "\r\n")},
      {"FieldOfCarriageReturns", TakeForm, 200'000,
       FieldOf(std::string(1000, '\r') + "\r\n")},
      {"FieldByteByByte", TakeFormByteByByte, 20'000, FieldOf("x")},
  };
}

std::vector<Shape> Headers() {
  std::vector<Shape> shapes = {
      {"LongHeaderLine", TakeForm, 400'000,
       Many("x", "--XY\r\nX: ", "\r\n" + kFieldWithHeader)},
      {"HeaderLineOfCarriageReturns", TakeForm, 400'000,
       Many("\r", "--XY\r\nX: ", "\r\n" + kFieldWithHeader)},
      {"HeaderLines", TakeForm, 400'000,
       Many("X:\r\n", "--XY\r\n", kFieldWithHeader)},
      {"HeaderLinesThatNeverEnd", TakeForm, 400'000,
       Many("X-y: z\r\n", "--XY\r\n")},
      {"HeaderLineThatNeverEnds", TakeForm, 400'000, Many("x", "--XY\r\n")},
      {"HeaderLineByteByByte", TakeFormByteByByte, 20'000,
       Many("x", "--XY\r\nX: ", "\r\n" + kFieldWithHeader)},
      {"Dispositions", TakeForm, 200'000,
       Many(kNextName, "--XY\r\n", kFieldWithHeader)},
  };
  const Texts attributes = {
      {"Unknown", "; x"},
      {"Name", "; name=\"a\""},
      {"FileName", "; filename=\"f\""},
      {"UnquotedName", "; name="},
  };
  for (const auto& [name, text] : attributes) {
    shapes.push_back({"Attributes" + name, TakeForm, 120'000,
                      Many(text, "--XY\r\nContent-Disposition: form-data",
                           "\r\n\r\n--XY--\r\n")});
  }
  const Texts texts = {
      {"EqualsSigns", "="}, {"Quotes", "\""}, {"EqualsSignsAndQuotes", "=\""},
      {"Blanks", " "},      {"Letters", "a"},
  };
  for (const auto& [name, text] : texts) {
    shapes.push_back(
        {"AttributeOf" + name, TakeForm, 200'000,
         Many(text,
              "--XY\r\nContent-Disposition: form-data; name=\"a\"; filename",
              "\r\n\r\n1\r\n--XY--\r\n")});
  }
  return shapes;
}

std::vector<Shape> AroundTheParts() {
  std::vector<Shape> shapes;
  const Texts texts = {
      {"Dashes", "-"},      {"Boundaries", "--X"}, {"BoundaryLines", "--X\r\n"},
      {"LineEnds", "\r\n"}, {"Letters", "x"},
  };
  for (const auto& [name, text] : texts) {
    shapes.push_back({"PreambleOf" + name, TakeForm, 400'000,
                      Many(text, "", "\r\n" + Field("a", "1") + kFormEnd)});
    shapes.push_back({"EpilogueAfterAFieldOf" + name, TakeForm, 400'000,
                      Many(text, Field("a", "1") + kFormEnd + "x")});
    shapes.push_back({"EpilogueAfterAnUploadOf" + name, TakeForm, 400'000,
                      Many(text, Upload("u", "f", "1") + kFormEnd)});
  }
  return shapes;
}

void AddSlowContents(const std::string& name, const std::string& boundary,
                     std::vector<Shape>& shapes) {
  int number = 0;
  for (const std::string& text : SlowContents(boundary)) {
    shapes.push_back({"UploadOfLookAlikes" + std::to_string(number++) +
                          "WithBoundary" + name,
                      TakeFormWith(boundary), 400'000, [=](std::size_t size) {
                        return UploadBehindAChunk(boundary,
                                                  Repeated(text, size));
                      }});
  }
}

std::vector<Shape> Uploads() {
  std::vector<Shape> shapes = {
      {"Uploads", TakeForm, 500, Distinct(Upload("u", "f#", "1"), kFormEnd)},
      {"UploadsOfOneFileName", TakeForm, 50'000,
       Many(Upload("u", "f", "1"), "", kFormEnd)},
      {"EmptyFileInputs", TakeForm, 200'000,
       Many(Ignored("form-data; name=\"u\"; filename=\"\""), "", kFormEnd)},
      {"UploadByteByByte", TakeFormByteByByte, 20'000,
       Many("x", support::UploadHead("u", "f"), "\r\n--XY--\r\n")},
      {"LongBoundary", TakeFormWithItsBoundary, 7'000,
       [](std::size_t size) {
         const std::string boundary(size, 'b');
         const std::string line = "--" + boundary + "\r\n";
         return line + kNextName + "\r\n" + Repeated("--bbb\r\n", 2 * size) +
                line +
                "Content-Disposition: form-data; name=\"u\"; filename=\"f\""
                "\r\n\r\n" +
                Repeated("\r\n--bbb", 2 * size) + "\r\n" + line;
       }},
  };
  for (const auto& [name, boundary] : support::SlowBoundaries()) {
    AddSlowContents(name, boundary, shapes);
  }
  const Texts begins = {
      {"CarriageReturn", "\r"}, {"LineFeed", "\n"}, {"LineEnd", "\r\n"}};
  for (const auto& [name, begin] : begins) {
    shapes.push_back({"UploadBeginningWith" + name, TakeForm, 400'000,
                      [begin = begin](std::size_t size) {
                        return UploadBehindAChunk(
                            "XY", begin + std::string(size, 'x'));
                      }});
  }
  return shapes;
}

/// What is a query string, or a body that is taken for one.
std::vector<Shape> QueryStrings(const std::string& prefix, const Taker& take) {
  std::vector<Shape> shapes = {
      {prefix + "OfParameters", take, 12'500, Distinct("k#=#&")},
      {prefix + "OfOneLongValue", take, 200'000, Many("x", "a=")},
      {prefix + "OfOneLongName", take, 200'000, Many("k", "", "=1")},
  };
  const Texts texts = {
      {"EmptyValues", "a=&"},      {"OneName", "name=value&"},
      {"ItemsWithoutName", "=x&"}, {"Separators", "&"},
      {"EqualsSigns", "="},        {"Escapes", "%41"},
      {"PercentSigns", "%"},       {"Blanks", "+"},
      {"Flags", "flag&"},
  };
  for (const auto& [name, text] : texts) {
    shapes.push_back({prefix + "Of" + name, take, 200'000, Many(text)});
    shapes.push_back(
        {prefix + "OfAValueOf" + name, take, 200'000, Many(text, "a=")});
  }
  return shapes;
}

std::vector<Shape> Cookies() {
  std::vector<Shape> shapes = {
      {"CookiesOfManyNames", TakeCookies, 12'500, Distinct("c#=#; ")}};
  const Texts texts = {
      {"OneName", "a=1;"}, {"Separators", ";"},  {"SeparatorsAndBlanks", "; "},
      {"Blanks", " "},     {"EqualsSigns", "="}, {"EmptyNames", "=x;"},
      {"OneValue", "x"},
  };
  for (const auto& [name, text] : texts) {
    shapes.push_back(
        {"CookiesOf" + name, TakeCookies, 200'000, Many(text, "first=")});
  }
  return shapes;
}

std::vector<Shape> Queries() {
  return {
      {"QueryOfItems", TakeMap, 10'000, Distinct("k#=v&")},
      {"QueryOfOneLongItem", TakeMap, 200'000, Many("x", "a=", "&")},
      {"QueryOfAnItemToEncode", TakeMap, 200'000, Many("%", "a=", "&")},
      {"QueryOfOneLongName", TakeMap, 200'000, Many("k", "", "=1&")},
      {"QueryAlmostOfAFormat", TakeQuery, 200'000, Many("out")},
  };
}

std::vector<Shape> Answers() {
  return {
      {"LongAnswer", TakeAnswer, 400'000, Many("x")},
      {"AnswerOfLines", TakeAnswer, 400'000, Many("\n")},
      {"AnswerOfLookAlikes", TakeAnswer, 400'000, Many("<?xm")},
      {"AnswerWithHeaderLines", TakeAnswer, 400'000,
       Many("A: b\r\n", "", "\r\n<?xml?>")},
      {"AnswerWithALongHeaderLine", TakeAnswer, 400'000,
       Many("x", "A: ", "\r\n\r\n<?xml?>")},
      {"AnswerWithALongHeaderName", TakeAnswer, 400'000,
       Many("x", "", ": 1\r\n\r\n<?xml?>")},
      {"LongAnswerInXml", TakeAnswer, 400'000, Many("x", "A: b\r\n\r\n<?xml")},
  };
}

/// What zan_cgi::Form may meet in a part's headers.
std::vector<Shape> ExactHeaders() {
  const std::string part = "\r\n" + kFieldWithHeader;
  const std::string begin = "--XY\r\n";
  const std::string disposition =
      "--XY\r\nContent-Disposition: form-data; name=a";
  const std::string end = "\r\n\r\n1\r\n--XY--\r\n";
  std::vector<Shape> shapes = {
      {"ExactHeaderLines", TakeExactForm, 50'000,
       Many("X:\r\n", begin, kFieldWithHeader)},
      {"ExactHeaderLinesThatNeverEnd", TakeExactForm, 50'000,
       Many("X-y: z\r\n", begin)},
      {"ExactHeaderLineThatNeverEnds", TakeExactForm, 400'000,
       Many("x", begin)},
      {"ExactHeaderLineOfCarriageReturns", TakeExactForm, 400'000,
       Many("\r", begin + "X: ", part)},
      {"ExactHeaderLineByteByByte", TakeExactFormByteByByte, 20'000,
       Many("x", begin + "X: ", part)},
      {"ExactHeaderLinesByteByByte", TakeExactFormByteByByte, 20'000,
       Many("xxxxxxx: \r\n", begin, kFieldWithHeader)},
      {"ExactFoldedHeader", TakeExactForm, 50'000,
       Many("\r\n x", begin + "X: ", part)},
      {"ExactFoldedHeaderOfBlanks", TakeExactForm, 50'000,
       Many("\r\n ", begin + "X: ", part)},
      {"ExactFoldedHeaderByteByByte", TakeExactFormByteByByte, 20'000,
       Many("\r\n xxxxx", begin + "X: ", part)},
      {"ExactBlanksInAHeader", TakeExactForm, 50'000,
       Many(" \t", begin + "X: y", "z" + part)},
      {"ExactLongName", TakeExactForm, 50'000, Many("n", disposition, end)},
      {"ExactManyPartsOfALongName", TakeExactForm, 400,
       [](std::size_t size) {
         return Repeated(Field(std::string(1000, 'n'), ""), 1000 * size) +
                kFormEnd;
       }},
      {"ExactLongFileName", TakeExactForm, 50'000,
       Many("n", disposition + "; filename=", end)},
  };
  const Texts parameters = {
      {"Unknown", "; x=y"},
      {"Quoted", "; x=\"y\""},
      {"Semicolons", ";"},
      {"Blanks", "; "},
      {"Extended", "; x*=UTF-8''%41"},
      {"OfNames", "; nam=e"},
  };
  for (const auto& [name, text] : parameters) {
    shapes.push_back({"ExactParameters" + name, TakeExactForm, 50'000,
                      Many(text, disposition, end)});
  }
  const Texts quoted = {{"Letters", "x"},
                        {"Escapes", "\\\""},
                        {"Backslashes", "\\\\"},
                        {"Blanks", " "}};
  for (const auto& [name, text] : quoted) {
    shapes.push_back({"ExactQuotedOf" + name, TakeExactForm, 50'000,
                      Many(text, disposition + "; filename=\"", "\"" + end)});
    shapes.push_back({"ExactOpenQuoteOf" + name, TakeExactForm, 50'000,
                      Many(text, disposition + "; filename=\"", end)});
  }
  shapes.push_back(
      {"ExactExtendedFileName", TakeExactForm, 50'000,
       Many("%e2%82%ac", disposition + "; filename*=UTF-8''", end)});
  shapes.push_back(
      {"ExactExtendedFileNameOfLatin1", TakeExactForm, 50'000,
       Many("%e4", disposition + "; filename*=ISO-8859-1''", end)});
  return shapes;
}

/// Whether such texts in a row hold the boundary at the beginning of a line.
bool HoldsMarker(const std::string& text, const std::string& boundary) {
  const std::string begin = "\r\n" + Repeated(text, 3 * boundary.size() + 9);
  return begin.find("\n--" + boundary) != std::string::npos ||
         begin.find("\r--" + boundary) != std::string::npos;
}

/// What it may meet as fields and uploads, and around them.
std::vector<Shape> ExactParts() {
  std::vector<Shape> shapes = {
      {"ExactFields", TakeExactForm, 12'500,
       Distinct(Field("#", "1"), kFormEnd)},
      {"ExactFieldsOfOneName", TakeExactForm, 50'000,
       Many(Field("a", "1"), "", kFormEnd)},
      {"ExactFieldsWithoutAName", TakeExactForm, 50'000,
       Many(Field("", "1"), "", kFormEnd)},
      {"ExactUploads", TakeExactForm, 500,
       Distinct(Upload("u", "f#", "1"), kFormEnd)},
      {"ExactUploadsOfOneFileName", TakeExactForm, 50'000,
       Many(Upload("u", "f", "1"), "", kFormEnd)},
      // Each of them takes the name that the next would be given.
      {"ExactUploadsOfGivenNames", TakeExactForm, 250,
       [](std::size_t size) {
         return Numbered(size,
                         [](const std::string& number) {
                           return Upload("u", "f (" + number + ")", "") +
                                  Upload("u", "f", "");
                         }) +
                kFormEnd;
       }},
      {"ExactEmptyFileInputs", TakeExactForm, 50'000,
       Many(Upload("u", "", ""), "", kFormEnd)},
      {"ExactFieldByteByByte", TakeExactFormByteByByte, 20'000, FieldOf("x")},
      {"ExactUploadByteByByte", TakeExactFormByteByByte, 20'000,
       Many("x", support::UploadHead("u", "f"), "\r\n--XY--\r\n")},
      {"ExactPaddingByteByByte", TakeExactFormByteByByte, 20'000,
       Many("xx ", "--XY", "\r\n" + kFieldWithHeader)},
      {"ExactBody", TakeExactBody, 400'000, Many("x")},
  };
  const Texts contents = {
      {"EmptyLines", "\r\n"},    {"BoundaryLines", "--X\r\n"},
      {"LookAlikes", "\r\n--X"}, {"LineFeeds", "\n"},
      {"CarriageReturns", "\r"}, {"Dashes", "-"},
      {"Letters", "x"},
  };
  for (const auto& [name, text] : contents) {
    shapes.push_back(
        {"ExactFieldOf" + name, TakeExactForm, 50'000, FieldOf(text)});
    shapes.push_back({"ExactUploadOf" + name, TakeExactForm, 50'000,
                      Many(text, support::UploadHead("u", "f"),
                           std::string("\r\n") + kFormEnd)});
    shapes.push_back({"ExactPreambleOf" + name, TakeExactForm, 50'000,
                      Many(text, "", "\r\n" + Field("a", "1") + kFormEnd)});
  }
  const Texts paddings = {{"Blanks", " "}, {"Tabs", "\t"}};
  for (const auto& [name, text] : paddings) {
    shapes.push_back({"ExactPaddingOf" + name, TakeExactForm, 50'000,
                      Many(text, "--XY", "\r\n" + kFieldWithHeader)});
    shapes.push_back({"ExactPaddingAtTheEndOf" + name, TakeExactForm, 50'000,
                      Many(text, Field("a", "1") + "--XY--", "\r\n")});
    shapes.push_back({"ExactPaddingThatNeverEndsOf" + name, TakeExactForm,
                      50'000, Many(text, "--XY")});
  }
  for (const auto& [name, boundary] : support::SlowBoundaries()) {
    int number = 0;
    for (const std::string& text : SlowContents(boundary)) {
      if (HoldsMarker(text, boundary)) continue;
      shapes.push_back(
          {"ExactLookAlikes" + std::to_string(number++) + "WithBoundary" + name,
           TakeExactFormWith(boundary), 50'000,
           [text, boundary = boundary](std::size_t size) {
             return "--" + boundary + "\r\n" + kNextName + "\r\n" +
                    Repeated(text, size) + "\r\n--" + boundary + "--\r\n";
           }});
    }
  }
  return shapes;
}

std::vector<Shape> AllShapes() {
  std::vector<Shape> all;
  for (const std::vector<Shape>& shapes :
       {LongNames(), Fields(), Headers(), AroundTheParts(), Uploads(),
        QueryStrings("RawBody", TakeRawBody),
        QueryStrings("QueryString", TakeQueryString), ExactHeaders(),
        ExactParts(), QueryStrings("ExactEncoded", TakeExactEncoded),
        QueryStrings("ExactQueryString", TakeExactQuery), Cookies(), Queries(),
        Answers()}) {
    all.insert(all.end(), shapes.begin(), shapes.end());
  }
  return all;
}

constexpr unsigned kTimes = 8;

/// Half as much again as in proportion, for the depth of maps: what grows with
/// the square of the size takes 64 times as much.
void ExpectInProportion(const char* what, std::uint64_t small,
                        std::uint64_t large) {
  EXPECT_LT(large, small * kTimes * 3 / 2)
      << what << ": " << small << " for an eighth of it";
}

std::string NameOf(const testing::TestParamInfo<Shape>& info) {
  return info.param.name;
}

class Growth : public testing::TestWithParam<Shape> {};

TEST_P(Growth, IsInProportionToTheSize) {
  const Shape& shape = GetParam();
  const Work small = shape.take(shape.make(shape.size));
  const Work large = shape.take(shape.make(kTimes * shape.size));
  ExpectInProportion("basic blocks", small.blocks, large.blocks);
  ExpectInProportion("bytes handled", small.handled_bytes, large.handled_bytes);
  ExpectInProportion("bytes allocated", small.allocated_bytes,
                     large.allocated_bytes);
  // Otherwise the shape is too small to show its growth.
  EXPECT_TRUE(large.blocks > small.blocks * kTimes / 2 ||
              large.handled_bytes > small.handled_bytes * kTimes / 2)
      << large.blocks << " after " << small.blocks << " basic blocks, "
      << large.handled_bytes << " after " << small.handled_bytes << " bytes";
}

INSTANTIATE_TEST_SUITE_P(, Growth, testing::ValuesIn(AllShapes()), NameOf);

}  // namespace

// Called at the beginning of each basic block of the libraries.
extern "C" void CountBlock() __asm__("__sanitizer_cov_trace_pc");
extern "C" void CountBlock() {
  if (counting) ++work.blocks;
}

// The linker leads the calls to these functions, and gives the C library's own
// ones another name. What a search or comparison does not reach is not counted.
extern "C" {
void* CountedMemcpy(void* to, const void* from,
                    std::size_t size) __asm__("__wrap_memcpy");
void* RealMemcpy(void* to, const void* from,
                 std::size_t size) __asm__("__real_memcpy");
void* CountedMemmove(void* to, const void* from,
                     std::size_t size) __asm__("__wrap_memmove");
void* RealMemmove(void* to, const void* from,
                  std::size_t size) __asm__("__real_memmove");
void* CountedMemset(void* to, int byte,
                    std::size_t size) __asm__("__wrap_memset");
void* RealMemset(void* to, int byte, std::size_t size) __asm__("__real_memset");
int CountedMemcmp(const void* one, const void* other,
                  std::size_t size) __asm__("__wrap_memcmp");
int CountedBcmp(const void* one, const void* other,
                std::size_t size) __asm__("__wrap_bcmp");
int RealMemcmp(const void* one, const void* other,
               std::size_t size) __asm__("__real_memcmp");
void* CountedMemchr(const void* text, int byte,
                    std::size_t size) __asm__("__wrap_memchr");
void* RealMemchr(const void* text, int byte,
                 std::size_t size) __asm__("__real_memchr");
std::size_t CountedStrlen(const char* text) __asm__("__wrap_strlen");
std::size_t RealStrlen(const char* text) __asm__("__real_strlen");
// operator new, also of arrays, which calls the other one.
void* CountedNew(std::size_t size) __asm__("__wrap__Znwm");
void* RealNew(std::size_t size) __asm__("__real__Znwm");
}

void* CountedMemcpy(void* to, const void* from, std::size_t size) {
  CountBytes(size);
  return RealMemcpy(to, from, size);
}

void* CountedMemmove(void* to, const void* from, std::size_t size) {
  CountBytes(size);
  return RealMemmove(to, from, size);
}

void* CountedMemset(void* to, int byte, std::size_t size) {
  CountBytes(size);
  return RealMemset(to, byte, size);
}

int CountedMemcmp(const void* one, const void* other, std::size_t size) {
  const int result = RealMemcmp(one, other, size);
  if (counting && result != 0) {
    const char* const begin = static_cast<const char*>(one);
    size = static_cast<std::size_t>(
        std::mismatch(begin, begin + size, static_cast<const char*>(other))
            .first -
        begin);
  }
  CountBytes(size);
  return result;
}

int CountedBcmp(const void* one, const void* other, std::size_t size) {
  return CountedMemcmp(one, other, size);
}

void* CountedMemchr(const void* text, int byte, std::size_t size) {
  void* const found = RealMemchr(text, byte, size);
  CountBytes(found == nullptr
                 ? size
                 : static_cast<std::size_t>(static_cast<const char*>(found) -
                                            static_cast<const char*>(text)));
  return found;
}

std::size_t CountedStrlen(const char* text) {
  const std::size_t size = RealStrlen(text);
  CountBytes(size);
  return size;
}

void* CountedNew(std::size_t size) {
  if (counting) work.allocated_bytes += size;
  return RealNew(size);
}

// Under a name of its own, since its header declares that it does not look into
// the buffer.
extern "C" ssize_t ReadUnread(int fd, void* buf,
                              std::size_t nbytes) __asm__("read");

extern "C" ssize_t ReadUnread(int fd, void* buf, std::size_t nbytes) {
  if (fd != STDIN_FILENO) return ::syscall(SYS_read, fd, buf, nbytes);
  const std::size_t count = SizeOfRead(nbytes);
  RealMemcpy(buf, unread.data(), count);
  unread.remove_prefix(count);
  return static_cast<ssize_t>(count);
}
