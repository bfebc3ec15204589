// What comes of a body, rule by rule: by the plain parser and by the library's,
// which must agree on all that they leave behind and log.

#include <cstring>
#include <iterator>

#include "plain/plain_parser.h"
#include "plain/plain_words.h"
#include "plain/product.h"
#include "support/fast_folder.h"
#include "support/form.h"
#include "support/test.h"

namespace plain {
namespace {

using namespace support;  // NOLINT(google-build-using-namespace)

constexpr std::size_t kChunk = 65536;
constexpr std::size_t kLongestLine = 262144;

/// What is sent, and the account of what must come of it; see AccountOf().
struct Rule {
  Request request;
  std::string account;
};

// What is sent.

/// A body that comes in these pieces, each by a read of its own; an empty one
/// is a read that finds nothing. A single piece comes in chunks as full as can
/// be.
Request Body(const Strings& pieces) {
  Request request;
  request.content_type = kForm;
  for (const std::string& piece : pieces) {
    request.input.bytes += piece;
    if (pieces.size() > 1) request.input.reads.push_back(piece.size());
  }
  request.content_length = std::to_string(request.input.bytes.size());
  return request;
}

/// These parts and the closing boundary line.
Request Form(const std::string& parts) { return Body({parts + kFormEnd}); }

Request OfType(const std::string& content_type, Request request) {
  request.content_type = content_type;
  return request;
}

Request QueryString(const Strings& pieces) {
  return OfType("application/x-www-form-urlencoded", Body(pieces));
}

Request Declaring(const std::string& length, Request request) {
  request.content_length = length;
  return request;
}

/// Whose end is that of a file and no hang-up.
Request EndOfFile(Request request) {
  request.input.hangs_up = false;
  return request;
}

/// Whose reads of nothing have this reason.
Request Because(Nothing nothing, Request request) {
  request.input.nothing = nothing;
  return request;
}

Request WithRoom(std::uint64_t bytes, Request request) {
  request.free_space = bytes;
  return request;
}

Request WithUnknownRoom(Request request) {
  request.free_space_fails = true;
  return request;
}

Request WithFilesUpTo(std::uint64_t bytes, Request request) {
  request.file_limit = bytes;
  return request;
}

Request WithoutFiles(Request request) {
  request.files_open = false;
  return request;
}

// What comes of it.

/// What is logged of every body, with "N" for sizes.
constexpr const char* kUsualLines[] = {
    "8 void zan_cgi::Cgi::Data::ParseInput()",
    "9 zancgi.cpp:# POST boundary detected: true",
    "9 zancgi.cpp:# query size 'N', free space in tmpdir 'N'",
    "8 ParseInput Creating new file FILE",
    "9 zancgi.cpp:# End of stdin parsing, stdin state EOF false, GOOD true, "
    "read "
    "N of N chars"};

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

/// With "N" for each number but the level.
std::string WithoutSizes(const std::string& line) {
  std::string without = line.substr(0, 1);
  for (std::size_t i = 1; i < line.size(); ++i) {
    if (!IsDigit(line[i])) {
      without += line[i];
    } else if (!IsDigit(line[i - 1])) {
      without += 'N';
    }
  }
  return without;
}

bool IsUsual(const std::string& line) {
  return std::find(std::begin(kUsualLines), std::end(kUsualLines),
                   WithoutSizes(line)) != std::end(kUsualLines);
}

/// How an account names the other lines.
const std::pair<const char*, const char*> kNamesOfLines[] = {
    {"9 zancgi.cpp:# Element with empty name found. Ignoring.", "no name"},
    {"9 zancgi.cpp:# Filename not found in Content-Disposition. Ignoring this "
     "part",
     "no file name"},
    {"9 zancgi.cpp:# Ignoring unknown type of Content-Disposition: ", "type "},
    {"9 zancgi.cpp:# no boundaries in POST data, assuming GET format",
     "no boundary"},
    {"9 zancgi.cpp:# POST boundary detected: false", "unannounced"},
    {"9 zancgi.cpp:# CONTENT_LENGTH=0", "no length"},
    {"9 zancgi.cpp:# Reading query before processing thrown exception",
     "drain"},
    {"9 zancgi.cpp:# query bytes read on throw ", "drained "},
    {"9 zancgi_unix.cpp:# poll interrupted, trying again", "signal"},
    {"4 Signal HUP received", "HUP"},
    {"3 error reading stdin, code 14", "EFAULT"},
    {"4 There is not enoght free space on '/spool' to process a query",
     "no room"}};

std::string NameOfLine(const std::string& line) {
  for (const auto& [text, name] : kNamesOfLines) {
    if (line.starts_with(text)) return name + line.substr(std::strlen(text));
  }
  if (WithoutSizes(line) != "9 zancgi.cpp:# appending N chars to buff") {
    return line;
  }
  const std::size_t size = line.find_first_of("0123456789", 1);
  return "+" + line.substr(size, line.find(' ', size) - size);
}

/// "content" when the file is kept and has its size; otherwise with what the
/// entry says of it.
std::string TextOf(const File& file) {
  const std::string size = std::to_string(file.size);
  if (!file.exists) return "none of " + size;
  return size == std::to_string(file.content.size())
             ? file.content
             : file.content + " of " + size;
}

/// Parameters, uploads, log lines in order, the error, and what is unusual:
/// `a=1; [f]=content; HUP; error: Error reading STDIN; unparsed`.
std::string AccountOf(const Outcome& outcome, const Request& request) {
  if (outcome.spins) return "for ever";
  Strings items;
  for (const auto& [name, value] : outcome.params) {
    items.push_back(name + "=" + value);
  }
  for (const auto& [name, file] : outcome.files) {
    items.push_back("[" + name + "]=" + TextOf(file));
  }
  for (const auto& [level, text] : outcome.log) {
    const std::string line = std::to_string(level) + " " + text;
    if (!IsUsual(line)) items.push_back(NameOfLine(line));
  }
  if (!outcome.error.empty()) items.push_back("error: " + outcome.error);
  if (!outcome.parsed) items.push_back("unparsed");
  if (outcome.bytes_read != request.input.bytes.size()) {
    items.push_back("read " + std::to_string(outcome.bytes_read));
  }
  if (outcome.sleeps > 0) {
    items.push_back("slept " + std::to_string(outcome.sleeps));
  }
  std::string account;
  for (const std::string& item : items) {
    account += (account.empty() ? "" : "; ") + item;
  }
  return account;
}

const std::string kHungUp = "HUP; error: Error reading STDIN; unparsed";
const std::string kUploadFailed = "error: error writing temporary file";
const std::string kNoElementName =
    "error: On getting element value element name is empty; unparsed";
const std::string kLineTooLong =
    "error: Element value size must be less than 262144; unparsed";

std::string WithoutFolder(std::string text, const std::string& folder) {
  const std::size_t found = text.find(folder);
  if (found != std::string::npos) text.replace(found, folder.size(), "/spool");
  return text;
}

/// The account of what both parsers make of a request.
std::string AccountOfBoth(Request request, const Scratch& scratch) {
  request.tmp_dir = request.files_open ? scratch.Path() : scratch / "missing";
  Outcome outcome = Parse(request);
  if (outcome.spins) {
    EXPECT_TRUE(ProductSpins(request));
    for (const std::string& left : scratch.List()) {
      fs::remove(scratch / left);
    }
  } else {
    EXPECT_EQ(Difference(outcome, RunProduct(request)), "");
    EXPECT_EQ(scratch.List(), Strings{});
  }
  outcome.error = WithoutFolder(outcome.error, request.tmp_dir);
  for (auto& [level, line] : outcome.log) {
    line = WithoutFolder(line, request.tmp_dir);
  }
  return AccountOf(outcome, request);
}

void Follow(const std::vector<Rule>& rules) {
  const Scratch scratch(FastFolder());
  RunCleanly(Child(), [&](const Reporter&) {
    for (const Rule& rule : rules) {
      EXPECT_EQ(AccountOfBoth(rule.request, scratch), rule.account)
          << Describe(rule.request).substr(0, 1000);
    }
  });
}

TEST(Fields, HaveTheirLinesUpToTheNextBoundary) {
  const std::string inner =
      "--IN\r\nContent-Disposition: file; filename=\"f\"\r\n\r\nx\r\n--IN--";
  std::string bare_line_feeds = Field("a", "1") + Field("b", "2") + kFormEnd;
  std::erase(bare_line_feeds, '\r');
  const std::string line(10'000, 'x');
  Follow({
      {Form(Field("a", "x\r\ny")), "a=x\ny"},
      {Form(Field("a", "1") + Field("a", "2")), "a=1\n2"},
      // A line that ends in a bare LF loses its last byte.
      {Form(Field("a", "xy\nz")), "a=x\nz"},
      {Form(Field("a", "")), "a="},
      {Form(Field("a", Repeated(line + "\r\n", 40))),
       "a=" + Repeated(line + "\n", 40)},
      // A line that only begins with the boundary ends a field, too. The names
      // and the state after the headers are those of the first part.
      {Form(Field("a", "v\r\n--XYtra\r\n\r\nw")), "a=v\nw"},
      {Form(Field("a", "1\r\n--XYZ\r\nlost") + Field("b", "2")), "a=1; b=2"},
      {Form(Field("a", inner)),
       "a=--IN\nContent-Disposition: file; filename=\"f\"\n\nx\n--IN--"},
      // A line that does not end is lost, and a field without a name.
      {Body({FieldHead("a") + "1\r\n2"}), "a=1"},
      {Form(Field("a", "v") + Part("", "w")), "a=v"},
      {Form(Part("filename=\"f\"; name=\"a\"", "x\r\ny")), "a=x\ny"},
      // The second name of one line empties the first, whose state stays.
      {Body({Field("b", "w") + Part("name=\"a\"; name=\"\"", "v")}),
       "b=w; no name; " + kNoElementName},
      // Where all lines end in bare LFs, there are no fields.
      {Body({bare_line_feeds}), ""},
      {Body({Field("a", "1") + kFormEnd + "ignored\r\n\r\nmore\r\n"}),
       "a=1\nmore"},
      // Another disposition has the whole part skipped.
      {Form("--XY\r\nContent-Disposition: attachment; name=\"a\"\r\n\r\nv\r\n" +
            Field("b", "w")),
       "b=w; type attachment"},
      {Form("--XY\r\nContent-Disposition: attachment\r\n"
            "Content-Disposition: form-data; name=\"a\"\r\n\r\nv\r\n"),
       "type attachment"},
      // Other headers have no effect.
      {Form("--XY\r\nContent-Type: text/plain\r\n"
            "content-disposition: form-data; name=\"no\"\r\n"
            "Content-Disposition:  form-data ;name=\"a\"\r\nX: y\r\n\r\nv\r\n"),
       "a=v"},
  });
}

TEST(Fields, MayHaveManyLinesOfALimitedLength) {
  const std::string line(kLongestLine, 'v');
  const std::string endless(400'000, 'v');
  const std::string chunk(kChunk, 'v');
  const std::string head = FieldHead("a");
  const std::string no_name = Head("name=\"a\"; name=\"\"");
  const std::string field = Field("a", "v").substr(6);
  // Four chunks, with the headers in them, hold less than the limit.
  const std::string after_five_chunks = "; read 327680";
  Follow({
      // Each line of a value may have the largest length.
      {Form(Field("a", line + "\r\n" + line + "\r\n" + line)),
       "a=" + line + "\n" + line + "\n" + line},
      {Form(Field("a", line + "v")), kLineTooLong},
      {Body({head + Repeated("line\r\n", 50'000) + line + "v\r\n"}),
       "a=" + Repeated("line\n", 49'999) + "line; " + kLineTooLong},
      // A line above it is refused at the end of any chunk.
      {Body({head + endless}), kLineTooLong + after_five_chunks},
      {Body({head, chunk, chunk, chunk, chunk, "v", "v"}),
       kLineTooLong + "; read " +
           std::to_string(head.size() + kLongestLine + 1)},
      {Body({head + line + "v"}), kLineTooLong},
      {Body({head + line}), ""},
      // The name that is missing comes first.
      {Body({no_name + line + "v\r\n"}), "no name; " + kNoElementName},
      {Body({no_name + endless}),
       "no name; " + kNoElementName + after_five_chunks},
      {Body({no_name + line}), "no name"},
      // Lines of headers have no limit, nor need they end.
      {Form("--XY\r\nX: " + Repeated("x", 400'000) + "\r\n" + field), "a=v"},
      {Form("--XY\r\n" + Repeated("X-y: z\r\n", 50'000) + field), "a=v"},
      {Body({"--XY\r\n" + Repeated("x", 400'000)}), ""},
      {Body({"--XY\r\n" + Repeated("X-y: z\r\n", 50'000)}), ""},
  });
}

TEST(Parts, AreNamedByTheirDisposition) {
  using namespace std::string_literals;
  std::vector<std::pair<std::string, std::string>> parts = {
      // Names given twice.
      {"name=\"u\"; filename=\"f\"; filename=\"g\"", "u=g; z=2; [g]=1"},
      {"name=\"u\"; filename=\"f\"; filename*=\"g\"", "u=g; z=2; [g]=1"},
      {"name=\"a\"; name=\"b\"", "b=1; z=2"},
      {"name=\"a\"; name2=\"b\"", "b=1; z=2"},
      {"name=\"a\"; filename=\"f\"; name=\"b\"", "b=1; z=2"},
      // The extended form, and empty and unquoted file names lose the upload.
      {"name=\"u\"; filename=\"f\"; filename*=UTF-8''g", "z=2; no file name"},
      {"name=\"u\"; filename*=UTF-8''g", "z=2; no file name"},
      {"name=\"u\"; filename=\"\"", "z=2; no file name"},
      {"name=\"u\"; filename=f", "z=2; no file name"},
      {"name=\"u\"; filename", "z=2; no file name"},
      {"name=\"filename\"", "z=2; no file name"},
      {"filename=\"f\"", "z=2; no file name"},
      // A semicolon ends an attribute inside quotes, too; the first quote ends
      // a name.
      {"name=\"u\"; filename=\"a;b.txt\"", "u=a; z=2; [a]=1"},
      {"name=\"a;b\"", "a=1; z=2"},
      {"name=\"u\"; filename=\"x;names.txt\"", "z=2; no name; no file name"},
      {"name=\"u\"; filename=\"a\\\"b\"", "u=a\\; z=2; [a\\]=1"},
      // Whatever begins with "name" is one.
      {"names=\"a\"", "a=1; z=2"},
      {"name*=\"a\"", "a=1; z=2"},
      {"name = \"b\"; name =\"a\"", "a=1; z=2; no name"},
      {"name=x=\"a\"", "a=1; z=2"},
      {"name=\"a", "a=1; z=2"},
      {"name=\"a=\"b\"", "a==1; z=2"},
      {"name=\"a\"\r\nContent-Type: multipart/mixed; boundary=IN", "a=1; z=2"},
      // It wants its quotes, and other spellings are other attributes.
      {"name=a", "z=2; no name"},
      {"name= \"a\"", "z=2; no name"},
      {"name='a'", "z=2; no name"},
      {"Name=\"a\"", "z=2"},
      {"NAME=\"a\"", "z=2"},
      {"x; Filename=\"f\"", "z=2"},
      // An empty attribute ends the list.
      {"; name=\"a\"", "z=2"},
      {"name=\"a\";; name=\"b\"", "a=1; z=2"},
      {"name=\"a\";; x; name=\"b\"", "a=1; z=2"},
      {"name=\"a\"; ; filename=\"f\"", "a=1; z=2"},
      {Repeated(";a", 100'000), "z=2"},
  };
  // Any other file name is taken as it stands.
  for (const std::string& name :
       {"%22.txt"s, "\xc3\xa4\xf0\x9f\x98\x80.txt"s, "../../x"s, "/etc/passwd"s,
        "C:\\dir\\f.txt"s, ".."s, "."s, " "s, "a b"s, "<b>"s, "x\ty"s, "'"s,
        "a\0b"s, std::string(1'000'000, 'n')}) {
    parts.emplace_back("name=\"u\"; filename=\"" + name + "\"",
                       "u=" + name + "; z=2; [" + name + "]=1");
  }
  const std::string header = "Content-Disposition: ";
  const std::pair<std::string, std::string> headers[] = {
      {header + "form-data;name=\"a\"", "a=1; z=2"},
      {header + " form-data ;\t name=\"a\" ;", "a=1; z=2"},
      {"content-disposition: form-data; name=\"a\"", "z=2"},
      {"Content-Disposition:form-data; name=\"a\"", "z=2"},
      {" " + header + "form-data; name=\"a\"", "z=2"},
      {header + "Form-Data; name=\"a\"", "z=2; type Form-Data"},
      {header + "form-data", "z=2"},
      {header + "; name=\"a\"", "z=2; type "},
      // A folded header loses what is on its next line.
      {header + "form-data;\r\n name=\"a\"", "z=2"},
      {header + "form-data; name=\"a\";\r\n filename=\"f\"", "a=1; z=2"},
      // Of two the last counts.
      {header + "form-data; name=\"a\"\r\n" + header + "form-data; name=\"b\"",
       "b=1; z=2"},
      {"Content-Type: text/plain\r\nContent-Transfer-Encoding: base64\r\n" +
           header + "form-data; name=\"a\"",
       "a=1; z=2"},
  };
  std::vector<Rule> rules;
  for (const auto& [attributes, account] : parts) {
    rules.push_back({Form(Part(attributes, "1") + Field("z", "2")), account});
  }
  for (const auto& [lines, account] : headers) {
    const std::string part = "--XY\r\n" + lines + "\r\n\r\n1\r\n";
    rules.push_back({Form(part + Field("z", "2")), account});
  }
  Follow(rules);
}

TEST(Uploads, EndAtTheBoundaryAndReplaceEarlierOnes) {
  std::string bytes("\r\n--X\r--XY\n\0\xff", 13);
  for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  const std::string two_of_one_name =
      Upload("u", "f", "first") + UploadHead("v", "f") + "2nd";
  const std::string head = UploadHead("u", "f");
  const std::string x(100, 'x');
  Follow({
      {Form(Upload("u", "f", bytes)), "u=f; [f]=" + bytes},
      {Form(Upload("u", "f", "")), "u=f; [f]="},
      // An upload ends at the boundary even in the middle of a line.
      {Form(Upload("u", "f", "before\r\n--XY and after")), "u=f; [f]=before"},
      // "cd" is skipped as if it were the line's end.
      {Body({head + "ab\r\n--XYcd\r\n"}), "u=f; [f]=ab"},
      // An upload replaces an earlier one of its file name.
      {Form(two_of_one_name + "\r\n"), "u=f; v=f; [f]=2nd"},
      // Until its part has ended, it has the size of the earlier one.
      {Declaring("1000", Body({two_of_one_name})),
       "u=f; v=f; [f]=2nd of 5; " + kHungUp},
      // What follows the closing boundary replaces it.
      {Body({Upload("u", "f", "content") + kFormEnd + "epilogue"}),
       "u=f; [f]=epilogue"},
      // The possible separator at the end is not.
      {Body({head + "content\r\n--"}), "u=f; [f]=content"},
      {Declaring("1000", Body({head + "content"})),
       "u=f; [f]=content of 0; " + kHungUp},
      // Names stay from one part to the next.
      {Form(Field("a", "1") + Part("filename=\"f\"", "x")), "a=f; [f]=x"},
      {Form(Upload("u", "f", "1") + Part("filename=\"g\"", "2") +
            Part("name=\"filename\"", "3")),
       "filename=g; u=g; [f]=1; [g]=3"},
      {Form(Upload("u", "f", "1") + Upload("v", "", "2") +
            Part("name=\"filename\"", "3")),
       "u=f; [f]=1; no file name; no file name"},
      {Declaring(std::to_string(head.size() + 100), Body({head + x + "more"})),
       "u=f; [f]=" + x + "; read " + std::to_string(head.size() + 100)},
  });
}

TEST(Uploads, MayEndBetweenTwoChunks) {
  const std::string head = UploadHead("u", "f");
  const std::string end = std::string("\r\n") + kFormEnd;
  const std::string separator = Upload("u", "f", "ab") + "--XY";
  const std::string field = Field("a", "v").substr(4) + kFormEnd;
  const std::string disposition =
      "\r\nContent-Disposition: form-data; name=\"a\"\r\n";
  Follow({
      {Body({head, "ab\r", "cd" + end}), "u=f; [f]=ab\rcd"},
      // "ab" counts two, so the CR is taken from offset 2: "--X".
      {Body({head + "ab\r", "cd" + end}), "u=f; [f]=abXcd"},
      {Body({head + "data\r\n-", "x" + end}), "u=f; [f]=data\r\nCx"},
      // The second chunk is the LF alone; the offset 1 still holds the "b".
      {Body({head, "ab\r", "\n", "cd" + end}), "u=f; [f]=ab\rbcd"},
      // The match breaks and begins again, or is complete.
      {Body({head, "ab\r", end}), "u=f; [f]=ab\r"},
      {Body({head, "ab\r\n"}), "u=f; [f]=ab"},
      {Body({head + "ab\r\n-", "-XY" + field}), "a=v; u=f; [f]=ab"},
      // The two bytes after the separator lie in either chunk.
      {Body({separator, field}), "a=v; u=f; [f]=ab"},
      {Body({separator + "\r", field.substr(1)}), "a=v; u=f; [f]=ab"},
      {Body({separator + "\r\n", field.substr(2)}), "a=v; u=f; [f]=ab"},
      {Body({separator}), "u=f; [f]=ab"},
      {Body({separator, "-"}), "u=f; [f]=ab"},
      // A chunk of one byte is shorter than the skip.
      {Body({separator, "-", "-"}), "for ever"},
      {Body({separator, "-", "-\r\n"}), "for ever"},
      // Only a failed upload makes the parser read on after such a read. The
      // skip passes over the line end before the disposition, which would
      // otherwise be an empty line.
      {WithoutFiles(
           Body({head, "1\r\n--XY", "", disposition, "\r\n", "v\r\n"})),
       "a=v; u=f; [f]=none of 0; " + kUploadFailed + "; slept 1"},
  });
}

TEST(Uploads, ThatCannotBeStoredAreRemoved) {
  const std::string head = UploadHead("u", "f");
  const std::string end = std::string("\r\n") + kFormEnd;
  const Request upload = Form(Upload("u", "f", "content"));
  const std::string disposition =
      "Content-Disposition: form-data; name=\"a\"\r\ndropped";
  const std::string failed = "u=f; [f]=none of 0; " + kUploadFailed;
  Follow({
      // The rest of the chunk is dropped, by a pass that has nothing left to
      // read. A hang-up would turn that read into another failure.
      {WithoutFiles(upload), failed + "; slept 1"},
      {EndOfFile(WithoutFiles(upload)), failed + "; slept 1"},
      {WithoutFiles(Form(Upload("u", "f", ""))), failed + "; slept 1"},
      // The body ends with the headers.
      {WithoutFiles(Body({head})), "u=f"},
      {WithFilesUpTo(7, upload), "u=f; [f]=content"},
      {WithFilesUpTo(6, upload), failed + "; slept 1"},
      // The carried bytes alone are too many.
      {WithFilesUpTo(2, Body({head, "ab\r", "c" + end})), failed + "; slept 1"},
      {WithFilesUpTo(1, Form(Upload("u", "f", "1") + Upload("v", "g", "23"))),
       "u=f; v=g; [f]=1; [g]=none of 0; " + kUploadFailed + "; slept 1"},
      {WithFilesUpTo(1, Form(Upload("u", "f", "1") + Upload("u", "f", "23"))),
       "u=f; [f]=none of 1; " + kUploadFailed + "; slept 1"},
      // Each pass takes one line of a new chunk.
      {WithoutFiles(Body({head + "1\r\n--XY\r\n", disposition, "\r\ndropped",
                          "v\r\ndropped", "v\r\ndropped"})),
       "a=v\nv; " + failed + "; slept 1"},
      {WithoutFiles(Body({head + "content", "", "", end})),
       failed + "; slept 3"},
      {WithoutFiles(Body({head, "", "content" + end})), failed + "; slept 2"},
      // The body ends early.
      {Declaring("1000", WithoutFiles(upload)),
       "u=f; [f]=none of 0; " + kHungUp},
      {EndOfFile(Declaring("1000", WithoutFiles(upload))), "for ever"},
  });
}

TEST(Uploads, NeedRoomForTheWholeBody) {
  const std::string field = Field("a", "v") + kFormEnd;
  const std::string field_size = std::to_string(field.size());
  const std::string upload = Upload("u", "f", "data") + kFormEnd;
  const std::size_t data = UploadHead("u", "f").size();
  const std::string unknown = "error: Cannot run statfs on /spool";
  std::vector<Rule> rules = {
      // Fields need no room.
      {WithRoom(field.size() - 1, Body({field})), "a=v; no room"},
      {WithRoom(upload.size(), Body({upload})), "u=f; [f]=data"},
      {WithRoom(0, Body({upload})),
       "u=f; no room; " + kUploadFailed + "; slept 1"},
      // The parser comes to the data only where a chunk begins with them.
      {WithRoom(
           0, Body({upload.substr(0, data - 2), "\r\n", upload.substr(data)})),
       "u=f; no room; " + kUploadFailed + "; slept 1"},
      {Declaring("-2", WithRoom(1000, Body({"a=1"}))),
       "no room; EFAULT; error: Error reading STDIN; unparsed; read 0"},
      // Where the room is unknown, the body is read before the error.
      {WithUnknownRoom(Body({field.substr(0, 10), "", field.substr(10)})),
       "drain; drained '" + field_size + "' of '" + field_size + "'; " +
           unknown + "; slept 1"},
      {WithUnknownRoom(Body({Repeated("x", 200'000)})),
       "drain; drained '200000' of '200000'; " + unknown},
      // Only the low 32 bits are shown.
      {Declaring("-4294967301", WithUnknownRoom(Body({"a=1"}))),
       "drain; drained '0' of '-5'; " + unknown + "; read 0"},
      {Declaring("6", WithUnknownRoom(Body({"12345"}))), "drain; " + kHungUp},
      {EndOfFile(Declaring("6", WithUnknownRoom(Body({"12345"})))), "for ever"},
  };
  for (const std::string attributes :
       {"name=\"u\"; filename=\"\"", "name=\"filename\"", "filename=\"f\""}) {
    rules.push_back({WithRoom(1, Form(Part(attributes, ""))),
                     "no room; no file name; " + kUploadFailed + "; slept 1"});
  }
  Follow(rules);
}

/// The account of a body without plus signs, ampersands and escapes that is
/// taken for a query string. A body with a boundary after all has its chunks
/// kept up to that.
std::string AsQueryString(const std::string& body) {
  std::string chunks;
  for (std::size_t left = body.size(); left > 0;) {
    const std::size_t chunk = std::min(left, kChunk);
    chunks += "; +" + std::to_string(chunk);
    left -= chunk;
  }
  return body + chunks + "; no boundary";
}

TEST(Parts, BeginAfterTheFirstBoundary) {
  const std::string field = Field("a", "v") + kFormEnd;
  const std::string raw = "a=" + std::string(5 * kChunk, 'x');
  const std::string ignored = Field("a", "1") + Upload("u", "", "");
  Follow({
      {Body({"preamble -- \r\n" + field}), "a=v"},
      {Body({"--XY??" + field.substr(6)}), "a=v"},
      // A byte that breaks a match is not compared again. The third dash breaks
      // it; the last two begin it anew.
      {Body({"-" + Field("a", "v")}), AsQueryString("-" + Field("a", "v"))},
      {Body({"--" + Field("a", "v")}), AsQueryString("--" + Field("a", "v"))},
      {Body({"---" + field}), "a=v"},
      {Body({"--", "XY=1&b=2"}), "--XY=1; b=2; +2; +8; no boundary"},
      // What comes before it is kept by chunk, without it all.
      {Body({std::string(2 * kChunk, 'x') + field}), "a=v; +65536; +65536"},
      {Body({raw}), AsQueryString(raw)},
      // Quotes and blanks are part of the boundary.
      {OfType("text/plain;boundary=\"X\";boundary=Y",
              Body({"--\"X\"\r\n" + Field("a", "v").substr(6)})),
       "a=v"},
      {OfType("text/plain; boundary= X ",
              Body({"-- X \r\n" + Field("a", "v").substr(6)})),
       "a=v"},
      {OfType("multipart/form-data; boundary=\"XY\"", Body({field})),
       AsQueryString(field)},
      // It is taken from the first "boundary=" wherever that stands.
      {OfType("x; xboundary=XY; boundary=Z", Body({field})), "a=v"},
      // The body may end with it, or soon after.
      {Body({Head(""), "a=1"}), ""},
      {Body({"--XY"}), ""},
      {Body({"--XY\r"}), ""},
      {Body({"--XY\r\n"}), ""},
      // A chunk that ends with it, or one byte later, is passed.
      {Body({field.substr(0, 4), field.substr(4)}), "for ever"},
      {Body({field.substr(0, 5), field.substr(5)}), "for ever"},
      {Body({field.substr(0, 6), field.substr(6)}), "a=v"},
      // A browser sends such a part for a file input that is left empty.
      {Body({ignored + "--XY", field.substr(4)}), "for ever"},
      {Body({ignored + "--XY\r", field.substr(5)}), "for ever"},
  });
}

TEST(Boundary, FitsIntoAChunk) {
  std::vector<Rule> rules;
  const auto add = [&](std::size_t size, const char* account) {
    const std::string boundary(size, 'b');
    const std::string body = "--" + boundary + Field("a", "1").substr(4) +
                             "--" + boundary + "--\r\n";
    rules.push_back(
        {OfType("multipart/form-data; boundary=" + boundary, Body({body})),
         account == nullptr ? AsQueryString(body) : account});
  };
  for (const std::size_t size : {1U, 70U, 71U, 4091U, 4096U, 65'532U}) {
    add(size, "a=1");
  }
  // It ends in the last two bytes of its chunk.
  for (const std::size_t size : {65'533U, 65'534U}) add(size, "for ever");
  for (const std::size_t size : {65'535U, 65'536U, 65'540U, 100'000U}) {
    add(size, nullptr);
  }
  Follow(rules);
}

TEST(Fields, EndALineByTheByteAfterAChunk) {
  const std::string head = FieldHead("a");
  const std::string first(kChunk - head.size() - 1, 'x');
  const std::string end = std::string("\r\n") + kFormEnd;
  Follow({
      {Body({head + "v\r", "\nw" + end}), "a=v\r\nw"},
      // CR is the first chunk's last byte, LF the second's first.
      {Form(Field("a", first + "\r\nsecond\r\nthird")),
       "a=" + first + "\r\nsecond\nthird"},
      // After the five bytes the LF of the first line still stands, so that the
      // last one is taken for a CR, and the position goes beyond.
      {Body({head, "value"}), "a=valu"},
      {Body({head, "value", "6"}), "for ever"},
  });
}

TEST(ReadsOfNothing, AreWaitedForInVainAfterABoundary) {
  const std::string head = FieldHead("a");
  const std::string file_head = UploadHead("u", "f");
  const std::string end = std::string("\r\n") + kFormEnd;
  const std::string no_name = Head("name=\"a\"; name=\"\"") + "v";
  const Strings pieces = {"", "a=1&", "", "", "b=2"};
  const auto cut = [](const std::string& body) {
    return EndOfFile(Declaring("1000", Body({body})));
  };
  Follow({
      {Body({"", "", "", "a=1"}), "a=1; +3; no boundary; slept 3"},
      // Of several in a row the first leaves an empty chunk; at position 0 it
      // has been consumed already.
      {Because(Nothing::kRead, QueryString(pieces)),
       "a=1; b=2; unannounced; +4; +0; +3; no boundary; slept 3"},
      {Because(Nothing::kWouldBlock, QueryString(pieces)),
       "a=1; b=2; unannounced; +4; +0; +3; no boundary; slept 3"},
      {Because(Nothing::kSignal, QueryString(pieces)),
       "a=1; b=2; unannounced; signal; +4; signal; +0; signal; +3; no "
       "boundary; slept 3"},
      {QueryString({"", "", "a", "", "", "", "=1&b=", "", "2"}),
       "a=1; b=2; unannounced; +1; +0; +5; +0; +1; no boundary; slept 6"},
      {Declaring("4", QueryString({"a=1", ""})),
       "unannounced; +3; +0; " + kHungUp + "; slept 1"},
      {EndOfFile(Declaring("4", QueryString({"a=1"}))), "for ever"},
      {Body({no_name, "", "w"}), "no name; " + kNoElementName + "; read " +
                                     std::to_string(no_name.size()) +
                                     "; slept 1"},
      // With a boundary they are waited for in vain.
      {Body({"a", "", "=1"}), "for ever"},
      {Body({head + "v", "", "w" + end}), "for ever"},
      {Body({head + "v\r\n--XY", "", "--\r\n"}), "for ever"},
      {Body({file_head + "content", "", end}), "for ever"},
      {Body({file_head, "", "content" + end}), "for ever"},
      // The file ends early.
      {cut("preamble"), "for ever"},
      {cut("--XY\r\nHeader"), "for ever"},
      {cut(Field("a", "1")), "for ever"},
      {cut(Upload("u", "f", "x")), "for ever"},
      {cut(""), "for ever"},
  });
}

TEST(QueryStrings, AreBodiesWithoutABoundary) {
  std::map<std::string, std::string> sorted;
  std::string many;
  for (int i = 0; i < 10'000; ++i) {
    const std::string item = "k" + std::to_string(i) + "=" + std::to_string(i);
    many += item + "&";
    sorted[item.substr(0, item.find('='))] = item + "; ";
  }
  std::string many_params;
  for (const auto& [name, item] : sorted) many_params += item;
  const std::pair<std::string, std::string> bodies[] = {
      {"a=%41+b&%62=c%3d", "%62=c=; a=A b; "},
      {"a=1;b=2", "a=1;b=2; "},
      {"a=1&a=2&a", "a=; "},
      {"a&=1&&b=1=2&b=3=4&c=&=&d", "a=; b=3=4; c=; d=; "},
      {"a=%&b=%4&c=%zz%&d=%u0041&e=%4%41&f=%%41",
       "a=%; b=%4; c=%zz%; d=%u0041; e=%4A; f=%A; "},
      {"a=%00&b=+%2b&c=%2541&d=%c0%af%ff",
       std::string("a=\0; b= +; c=%41; d=\xc0\xaf\xff; ", 25)},
      {many, many_params},
  };
  std::vector<Rule> rules;
  for (const auto& [body, params] : bodies) {
    // What comes after the parameters is as for any such body.
    rules.push_back(
        {QueryString({body}),
         params + "unannounced" + AsQueryString(body).substr(body.size())});
  }
  rules.push_back({Body({"a=1&b=2"}), "a=1; b=2; +7; no boundary"});
  Follow(rules);
}

TEST(DeclaredLength, IsTheNumberOfBytesRead) {
  std::vector<Rule> rules;
  for (const std::string length : {"0", "", "x", "12x", "-", "+", "1 2"}) {
    rules.push_back(
        {Declaring(length, Body({"a=1"})), "no length; unparsed; read 0"});
  }
  for (const std::string length : {"3", " +3 ", "03"}) {
    rules.push_back({Declaring(length, QueryString({"a=1&b=2"})),
                     "a=1; unannounced; +3; no boundary; read 3"});
  }
  for (const std::string length :
       {"-1", "-70000", "-9223372036854775808", "-99999999999999999999"}) {
    rules.push_back({Declaring(length, Body({"", "a=1"})),
                     "EFAULT; error: Error reading STDIN; unparsed; read 0; "
                     "slept 1"});
  }
  rules.push_back({Declaring("-1", Body({""})), kHungUp});
  rules.push_back(
      {Declaring("1000", Form(Field("a", "1"))), "a=1; " + kHungUp});
  Follow(rules);
}

}  // namespace
}  // namespace plain
