// What a client or a back end sends costs in proportion to its size, whatever
// its shape.
//
// The libraries are compiled into this program so that their work is counted
// and not timed. Neither the machine nor its load changes these numbers.

#include <sys/syscall.h>
#include <zancgi/form.h>
#include <zancgi/testing/backend.h>

#include <limits>
#include <ostream>
#include <string_view>

#include "support/fast_folder.h"
#include "support/form.h"
#include "support/slow_content.h"
#include "support/test.h"
#include "zancgi/counted_work.h"

namespace support {
namespace {

using zan_cgi::Form;

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
  std::string result = text;
  while (result.size() < size) result += result;
  result.resize((size + text.size() - 1) / text.size() * text.size());
  return result;
}

/// The work of a body that runs in a child process.
Work CountIn(Child child, const std::function<void()>& body) {
  const Outcome outcome =
      RunCleanly(child.LogLevel(0), [&](const Reporter& report) {
        const Work before = work;
        body();
        const Work after = work;
        report("blocks", std::to_string(after.blocks - before.blocks));
        report("handled",
               std::to_string(after.handled_bytes - before.handled_bytes));
        report("allocated",
               std::to_string(after.allocated_bytes - before.allocated_bytes));
      });
  if (!outcome.reported.contains("allocated")) return {};
  return {std::stoull(outcome.reported.at("blocks")),
          std::stoull(outcome.reported.at("handled")),
          std::stoull(outcome.reported.at("allocated"))};
}

/// Counts what a text of the client or the back end costs.
using Taker = std::function<Work(const std::string& text)>;

Work TakeBody(const std::string& body, const std::string& content_type) {
  const Scratch scratch(FastFolder());
  return CountIn(PostOf(body, content_type), [&] {
    unread = body;
    Cgi::Data record;
    record.tmp_dir = scratch.Path();
    record.ParseInput();
    EXPECT_TRUE(record.parsed);
  });
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

Taker ByteByByte(const Taker& take) {
  return [take](const std::string& body) {
    reads_single_bytes = true;
    const Work counted = take(body);
    reads_single_bytes = false;
    return counted;
  };
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
Taker TakeExactly(const std::string& content_type) {
  return [=](const std::string& body) {
    const Scratch scratch(FastFolder());
    return CountIn(PostOf(body, content_type), [&] {
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

const Taker kForms = TakeFormWith("XY");
const Taker kExact = TakeExactly(kForm);

Child Get(const std::string& query) {
  return Child().Env("REQUEST_METHOD", "GET").Env("QUERY_STRING", query);
}

Work TakeExactQuery(const std::string& query) {
  return CountIn(Get(query), [] {
    Cgi cgi("/bin/front", "");
    const Form form(cgi, Unlimited());
    cgi.Param("a");
  });
}

Work TakeExactBody(const std::string& body) {
  return CountIn(PostOf(body), [&] {
    unread = body;
    zan_cgi::ReadBody(std::numeric_limits<std::int64_t>::max());
  });
}

Work TakeRawBody(const std::string& body) { return TakeBody(body, kEncoded); }

Work TakeQueryString(const std::string& query) {
  return CountIn(Get(query), [] { Cgi::Data().ParseQuery(); });
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

using Maker = std::function<std::string(std::size_t size)>;

struct Shape {
  std::string name;
  Taker take;
  /// Large enough to outweigh what every request costs. It is the length of the
  /// text, about, or the number of its items.
  std::size_t size;
  Maker make;
};
using Shapes = std::vector<Shape>;

void PrintTo(const Shape& shape, std::ostream* out) { *out << shape.name; }

/// Text again and again between two others.
Maker Many(const std::string& text, const std::string& begin = "",
           const std::string& end = "") {
  return [=](std::size_t size) { return begin + Repeated(text, size) + end; };
}

/// A shape for each of these texts, by the ends of their names.
void AddMany(Shapes& shapes, const std::string& name, const Taker& take,
             std::size_t size, const Texts& texts,
             const std::string& begin = "", const std::string& end = "") {
  for (const auto& [of, text] : texts) {
    shapes.push_back({name + of, take, size, Many(text, begin, end)});
  }
}

const std::string kEnd = std::string("\r\n") + kFormEnd;

/// A field whose value is this text again and again.
Maker FieldOf(const std::string& text) {
  return Many(text, FieldHead("a"), kEnd);
}

/// So many texts with "#" replaced by their numbers, and an end.
Maker Distinct(const std::string& text, const std::string& end = "") {
  return [=](std::size_t size) {
    const std::size_t hole = text.find('#');
    std::string result;
    for (std::size_t i = 0; i < size; ++i) {
      result +=
          text.substr(0, hole) + std::to_string(i) + text.substr(hole + 1);
    }
    return result + end;
  };
}

/// A form that begins with a field or an upload of a very long name, which
/// stays the name of later parts that give none.
Maker AfterLong(const std::string& attribute, const std::string& text,
                const std::string& begin = "", const std::string& end = "") {
  return [=](std::size_t size) {
    return Part(attribute + "=\"" + std::string(size, 'n') + "\"", "") + begin +
           Repeated(text, size) + end + kFormEnd;
  };
}

const std::string kBoundary = "--XY\r\n";
const std::string kFormData = "Content-Disposition: form-data; ";
const std::string kNextName = kFormData + "name=\"a\"\r\n";
const std::string kValue = "\r\n\r\n1\r\n--XY--\r\n";
const std::string kRestOfField = kFormData + "name=\"a\"" + kValue;
/// A header line may stand between these.
const std::string kBegin = kBoundary + "X: ";
const std::string kRest = "\r\n" + kRestOfField;
const std::string kOneField = Field("a", "1");

/// Names of one part outlive it, however long they are. The larger ones have
/// 320 KB and more, which no limit of a line refuses.
Shapes LongNames() {
  const std::string long_file = "name=\"u\"; filename";
  return {
      {"LinesOfALongName", kForms, 100'000,
       [](std::size_t size) {
         return Field(std::string(size, 'n'), Repeated("\r\n", size / 4)) +
                kFormEnd;
       }},
      {"PartsWithoutHeadersAfterALongName", kForms, 100'000,
       AfterLong("name", kBoundary + "\r\nv\r\n")},
      {"HeadersOfUploadsAfterALongName", kForms, 100'000,
       AfterLong("name", kFormData + "filename=\"f\"\r\n", kBoundary, "\r\n")},
      {"UploadsWithoutANameAfterALongName", kForms, 80'000,
       AfterLong("name", Part("filename=\"f\"", ""))},
      {"UploadsWithoutHeadersAfterALongFileName", kForms, 80'000,
       AfterLong(long_file,
                 kBoundary + "\r\n" + std::string(50, 'v') + "\r\n")},
      {"PartsNamedFilenameAfterALongFileName", kForms, 80'000,
       AfterLong(long_file, Part("name=\"filename\"", ""))},
      {"HeadersNamedFilenameAfterALongFileName", kForms, 80'000,
       AfterLong(long_file, kFormData + "name=\"filename\"\r\n", kBoundary,
                 "\r\n")},
      {"AttributesAfterALongName", kForms, 100'000,
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
      kBoundary + "Content-Disposition: " + disposition + "\r\n\r\n";
  return part + std::string(128 - part.size() - 2, 'x') + "\r\n";
}

Shapes Fields() {
  return {
      {"Fields", kForms, 12'500, Distinct(Field("#", "1"), kFormEnd)},
      {"FieldsOfOneName", kForms, 500'000, Many(kOneField, "", kFormEnd)},
      {"FieldsWithoutAName", kForms, 200'000,
       Many(Ignored("form-data; name=\"\""), "", kFormEnd)},
      {"FieldsWithoutQuotes", kForms, 200'000,
       Many(Ignored("form-data; name=a"), "", kFormEnd)},
      {"PartsOfAnotherDisposition", kForms, 200'000,
       Many(Ignored("attachment"), "", kFormEnd)},
      {"FieldOfEmptyLines", kForms, 200'000, FieldOf("\r\n")},
      {"FieldOfShortLines", kForms, 200'000, FieldOf("1234567\r\n")},
      {"FieldOfBoundaryLines", kForms, 200'000, FieldOf("--X\r\n")},
      {"FieldOfBareLineFeeds", kForms, 200'000, FieldOf("\n")},
      {"FieldOfLongLines", kForms, 400'000,
       FieldOf(std::string(100'000, 'x') + "\r\n")},
      {"FieldOfCarriageReturns", kForms, 200'000,
       FieldOf(std::string(1000, '\r') + "\r\n")},
      {"FieldByteByByte", ByteByByte(kForms), 20'000, FieldOf("x")},
  };
}

Shapes Headers() {
  Shapes shapes = {
      {"LongHeaderLine", kForms, 400'000, Many("x", kBegin, kRest)},
      {"HeaderLineOfCarriageReturns", kForms, 400'000,
       Many("\r", kBegin, kRest)},
      {"HeaderLines", kForms, 400'000, Many("X:\r\n", kBoundary, kRestOfField)},
      {"HeaderLinesThatNeverEnd", kForms, 400'000,
       Many("X-y: z\r\n", kBoundary)},
      {"HeaderLineThatNeverEnds", kForms, 400'000, Many("x", kBoundary)},
      {"HeaderLineByteByByte", ByteByByte(kForms), 20'000,
       Many("x", kBegin, kRest)},
      {"Dispositions", kForms, 200'000,
       Many(kNextName, kBoundary, kRestOfField)},
  };
  AddMany(shapes, "Attributes", kForms, 120'000,
          {{"Unknown", "; x"},
           {"Name", "; name=\"a\""},
           {"FileName", "; filename=\"f\""},
           {"UnquotedName", "; name="}},
          kBoundary + "Content-Disposition: form-data", "\r\n\r\n--XY--\r\n");
  AddMany(shapes, "AttributeOf", kForms, 200'000,
          {{"EqualsSigns", "="},
           {"Quotes", "\""},
           {"EqualsSignsAndQuotes", "=\""},
           {"Blanks", " "},
           {"Letters", "a"}},
          kBoundary + kFormData + "name=\"a\"; filename", kValue);
  return shapes;
}

Shapes AroundTheParts() {
  Shapes shapes;
  const Texts texts = {{"Dashes", "-"},
                       {"Boundaries", "--X"},
                       {"BoundaryLines", "--X\r\n"},
                       {"LineEnds", "\r\n"},
                       {"Letters", "x"}};
  AddMany(shapes, "PreambleOf", kForms, 400'000, texts, "",
          "\r\n" + kOneField + kFormEnd);
  AddMany(shapes, "EpilogueAfterAFieldOf", kForms, 400'000, texts,
          kOneField + kFormEnd + "x");
  AddMany(shapes, "EpilogueAfterAnUploadOf", kForms, 400'000, texts,
          Upload("u", "f", "1") + kFormEnd);
  return shapes;
}

Shapes Uploads() {
  Shapes shapes = {
      {"Uploads", kForms, 500, Distinct(Upload("u", "f#", "1"), kFormEnd)},
      {"UploadsOfOneFileName", kForms, 50'000,
       Many(Upload("u", "f", "1"), "", kFormEnd)},
      {"EmptyFileInputs", kForms, 200'000,
       Many(Ignored("form-data; name=\"u\"; filename=\"\""), "", kFormEnd)},
      {"UploadByteByByte", ByteByByte(kForms), 20'000,
       Many("x", UploadHead("u", "f"), kEnd)},
      {"LongBoundary", TakeFormWithItsBoundary, 7'000,
       [](std::size_t size) {
         const std::string line = "--" + std::string(size, 'b') + "\r\n";
         return line + kNextName + "\r\n" + Repeated("--bbb\r\n", 2 * size) +
                line + kFormData + "name=\"u\"; filename=\"f\"\r\n\r\n" +
                Repeated("\r\n--bbb", 2 * size) + "\r\n" + line;
       }},
  };
  for (const auto& [name, boundary] : SlowBoundaries()) {
    int number = 0;
    for (const std::string& text : SlowContents(boundary)) {
      shapes.push_back({"UploadOfLookAlikes" + std::to_string(number++) +
                            "WithBoundary" + name,
                        TakeFormWith(boundary), 400'000,
                        [text, boundary = boundary](std::size_t size) {
                          return UploadBehindAChunk(boundary,
                                                    Repeated(text, size));
                        }});
    }
  }
  const Texts begins = {
      {"CarriageReturn", "\r"}, {"LineFeed", "\n"}, {"LineEnd", "\r\n"}};
  for (const auto& [name, begin] : begins) {
    shapes.push_back({"UploadBeginningWith" + name, kForms, 400'000,
                      [begin = begin](std::size_t size) {
                        return UploadBehindAChunk(
                            "XY", begin + std::string(size, 'x'));
                      }});
  }
  return shapes;
}

/// What is a query string, or a body that is taken for one.
Shapes QueryStrings(const std::string& prefix, const Taker& take) {
  Shapes shapes = {
      {prefix + "OfParameters", take, 12'500, Distinct("k#=#&")},
      {prefix + "OfOneLongValue", take, 100'000, Many("x", "a=")},
      {prefix + "OfOneLongName", take, 100'000, Many("k", "", "=1")},
  };
  const Texts texts = {{"EmptyValues", "a=&"},      {"OneName", "name=value&"},
                       {"ItemsWithoutName", "=x&"}, {"Separators", "&"},
                       {"EqualsSigns", "="},        {"Escapes", "%41"},
                       {"PercentSigns", "%"},       {"Blanks", "+"},
                       {"Flags", "flag&"}};
  AddMany(shapes, prefix + "Of", take, 100'000, texts);
  AddMany(shapes, prefix + "OfAValueOf", take, 100'000, texts, "a=");
  return shapes;
}

Shapes Cookies() {
  Shapes shapes = {
      {"CookiesOfManyNames", TakeCookies, 12'500, Distinct("c#=#; ")}};
  AddMany(shapes, "CookiesOf", TakeCookies, 100'000,
          {{"OneName", "a=1;"},
           {"Separators", ";"},
           {"SeparatorsAndBlanks", "; "},
           {"Blanks", " "},
           {"EqualsSigns", "="},
           {"EmptyNames", "=x;"},
           {"OneValue", "x"}},
          "first=");
  return shapes;
}

Shapes QueriesAndAnswers() {
  const std::string xml = "\r\n\r\n<?xml?>";
  return {
      {"QueryOfItems", TakeMap, 10'000, Distinct("k#=v&")},
      {"QueryOfOneLongItem", TakeMap, 200'000, Many("x", "a=", "&")},
      {"QueryOfAnItemToEncode", TakeMap, 200'000, Many("%", "a=", "&")},
      {"QueryOfOneLongName", TakeMap, 200'000, Many("k", "", "=1&")},
      {"QueryAlmostOfAFormat", TakeQuery, 200'000, Many("out")},
      {"LongAnswer", TakeAnswer, 400'000, Many("x")},
      {"AnswerOfLines", TakeAnswer, 400'000, Many("\n")},
      {"AnswerOfLookAlikes", TakeAnswer, 400'000, Many("<?xm")},
      {"AnswerWithHeaderLines", TakeAnswer, 400'000,
       Many("A: b\r\n", "", "\r\n<?xml?>")},
      {"AnswerWithALongHeaderLine", TakeAnswer, 400'000, Many("x", "A: ", xml)},
      {"AnswerWithALongHeaderName", TakeAnswer, 400'000,
       Many("x", "", ": 1" + xml)},
      {"LongAnswerInXml", TakeAnswer, 400'000, Many("x", "A: b\r\n\r\n<?xml")},
  };
}

/// What zan_cgi::Form may meet in a part's headers.
Shapes ExactHeaders() {
  const Taker slowly = ByteByByte(kExact);
  const std::string named = kBoundary + kFormData + "name=a";
  const std::string quoted = named + "; filename=\"";
  Shapes shapes = {
      {"ExactHeaderLines", kExact, 100'000,
       Many("X:\r\n", kBoundary, kRestOfField)},
      {"ExactHeaderLinesThatNeverEnd", kExact, 100'000,
       Many("X-y: z\r\n", kBoundary)},
      {"ExactHeaderLineThatNeverEnds", kExact, 400'000, Many("x", kBoundary)},
      {"ExactHeaderLineOfCarriageReturns", kExact, 400'000,
       Many("\r", kBegin, kRest)},
      {"ExactHeaderLineByteByByte", slowly, 20'000, Many("x", kBegin, kRest)},
      {"ExactHeaderLinesByteByByte", slowly, 20'000,
       Many("xxxxxxx: \r\n", kBoundary, kRestOfField)},
      {"ExactFoldedHeader", kExact, 100'000, Many("\r\n x", kBegin, kRest)},
      {"ExactFoldedHeaderOfBlanks", kExact, 100'000,
       Many("\r\n ", kBegin, kRest)},
      {"ExactFoldedHeaderByteByByte", slowly, 20'000,
       Many("\r\n xxxxx", kBegin, kRest)},
      {"ExactBlanksInAHeader", kExact, 100'000,
       Many(" \t", kBegin + "y", "z" + kRest)},
      {"ExactLongName", kExact, 100'000, Many("n", named, kValue)},
      {"ExactManyPartsOfALongName", kExact, 400,
       [](std::size_t size) {
         return Repeated(Field(std::string(1000, 'n'), ""), 1000 * size) +
                kFormEnd;
       }},
      {"ExactLongFileName", kExact, 100'000,
       Many("n", named + "; filename=", kValue)},
      {"ExactExtendedFileName", kExact, 100'000,
       Many("%e2%82%ac", named + "; filename*=UTF-8''", kValue)},
      {"ExactExtendedFileNameOfLatin1", kExact, 100'000,
       Many("%e4", named + "; filename*=ISO-8859-1''", kValue)},
  };
  AddMany(shapes, "ExactParameters", kExact, 100'000,
          {{"Unknown", "; x=y"},
           {"Quoted", "; x=\"y\""},
           {"Semicolons", ";"},
           {"Blanks", "; "},
           {"Extended", "; x*=UTF-8''%41"},
           {"OfNames", "; nam=e"}},
          named, kValue);
  const Texts texts = {{"Letters", "x"},
                       {"Escapes", "\\\""},
                       {"Backslashes", "\\\\"},
                       {"Blanks", " "}};
  AddMany(shapes, "ExactQuotedOf", kExact, 100'000, texts, quoted,
          "\"" + kValue);
  AddMany(shapes, "ExactOpenQuoteOf", kExact, 100'000, texts, quoted, kValue);
  return shapes;
}

/// Whether such texts in a row hold the boundary at the beginning of a line.
bool HoldsMarker(const std::string& text, const std::string& boundary) {
  const std::string begin = "\r\n" + Repeated(text, 3 * boundary.size() + 9);
  return begin.find("\n--" + boundary) != std::string::npos ||
         begin.find("\r--" + boundary) != std::string::npos;
}

/// What it may meet as fields and uploads, and around them.
Shapes ExactParts() {
  const Taker slowly = ByteByByte(kExact);
  Shapes shapes = {
      {"ExactFields", kExact, 12'500, Distinct(Field("#", "1"), kFormEnd)},
      {"ExactFieldsOfOneName", kExact, 50'000, Many(kOneField, "", kFormEnd)},
      {"ExactFieldsWithoutAName", kExact, 50'000,
       Many(Field("", "1"), "", kFormEnd)},
      {"ExactUploads", kExact, 500, Distinct(Upload("u", "f#", "1"), kFormEnd)},
      {"ExactUploadsOfOneFileName", kExact, 50'000,
       Many(Upload("u", "f", "1"), "", kFormEnd)},
      // Each of them takes the name that the next would be given.
      {"ExactUploadsOfGivenNames", kExact, 250,
       Distinct(Upload("u", "f (#)", "") + Upload("u", "f", ""), kFormEnd)},
      {"ExactEmptyFileInputs", kExact, 50'000,
       Many(Upload("u", "", ""), "", kFormEnd)},
      {"ExactFieldByteByByte", slowly, 20'000, FieldOf("x")},
      {"ExactUploadByteByByte", slowly, 20'000,
       Many("x", UploadHead("u", "f"), kEnd)},
      {"ExactPaddingByteByByte", slowly, 20'000,
       Many("xx ", "--XY", "\r\n" + kRestOfField)},
      {"ExactBody", TakeExactBody, 400'000, Many("x")},
  };
  const Texts contents = {
      {"EmptyLines", "\r\n"},    {"BoundaryLines", "--X\r\n"},
      {"LookAlikes", "\r\n--X"}, {"LineFeeds", "\n"},
      {"CarriageReturns", "\r"}, {"Dashes", "-"},
      {"Letters", "x"},
  };
  AddMany(shapes, "ExactFieldOf", kExact, 50'000, contents, FieldHead("a"),
          kEnd);
  AddMany(shapes, "ExactUploadOf", kExact, 50'000, contents,
          UploadHead("u", "f"), kEnd);
  AddMany(shapes, "ExactPreambleOf", kExact, 50'000, contents, "",
          "\r\n" + kOneField + kFormEnd);
  const Texts paddings = {{"Blanks", " "}, {"Tabs", "\t"}};
  AddMany(shapes, "ExactPaddingOf", kExact, 50'000, paddings, "--XY",
          "\r\n" + kRestOfField);
  AddMany(shapes, "ExactPaddingAtTheEndOf", kExact, 50'000, paddings,
          kOneField + "--XY--", "\r\n");
  AddMany(shapes, "ExactPaddingThatNeverEndsOf", kExact, 50'000, paddings,
          "--XY");
  for (const auto& [name, boundary] : SlowBoundaries()) {
    int number = 0;
    for (const std::string& text : SlowContents(boundary)) {
      if (HoldsMarker(text, boundary)) continue;
      shapes.push_back(
          {"ExactLookAlikes" + std::to_string(number++) + "WithBoundary" + name,
           TakeExactly("multipart/form-data; boundary=" + boundary), 50'000,
           Many(text, "--" + boundary + "\r\n" + kNextName + "\r\n",
                "\r\n--" + boundary + "--\r\n")});
    }
  }
  return shapes;
}

Shapes AllShapes() {
  Shapes all;
  for (const Shapes& shapes :
       {LongNames(), Fields(), Headers(), AroundTheParts(), Uploads(),
        QueryStrings("RawBody", TakeRawBody),
        QueryStrings("QueryString", TakeQueryString), ExactHeaders(),
        ExactParts(), QueryStrings("ExactEncoded", TakeExactly(kEncoded)),
        QueryStrings("ExactQueryString", TakeExactQuery), Cookies(),
        QueriesAndAnswers()}) {
    all.insert(all.end(), shapes.begin(), shapes.end());
  }
  return all;
}

constexpr unsigned kTimes = 4;

/// Half as much again as in proportion, for the depth of maps: what grows with
/// the square of the size takes 16 times as much.
void ExpectInProportion(const char* what, std::uint64_t small,
                        std::uint64_t large) {
  EXPECT_LT(large, small * kTimes * 3 / 2)
      << what << ": " << small << " for a quarter of it";
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

// Under a name of its own, since its header declares that it does not look into
// the buffer.
extern "C" ssize_t ReadUnread(int fd, void* buf,
                              std::size_t nbytes) __asm__("read");

extern "C" ssize_t ReadUnread(int fd, void* buf, std::size_t nbytes) {
  if (fd != STDIN_FILENO) return ::syscall(SYS_read, fd, buf, nbytes);
  const std::size_t count = SizeOfRead(nbytes);
  CopyUncounted(buf, unread.data(), count);
  unread.remove_prefix(count);
  return static_cast<ssize_t>(count);
}

}  // namespace support
