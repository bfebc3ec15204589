// Bodies, names and files that are made to do harm. What is kept for
// compatibility stays what it is.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/form.h"
#include "support/piece_input.h"
#include "support/slow_content.h"
#include "support/system_calls.h"

namespace {

namespace fs = std::filesystem;
using support::CutInto;
using support::Field;
using support::kForm;
using support::kFormEnd;
using support::Part;
using support::PieceInput;
using support::Post;
using support::Replace;
using support::Upload;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Input;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Scratch;
using zan_cgi::testing::Told;
using Params = std::map<std::string, std::string>;
using Strings = std::vector<std::string>;
using Event = PieceInput::Event;

constexpr std::size_t kChunk = 65536;

/// A text again and again, up to this size.
std::string Repeated(const std::string& text, std::size_t size) {
  std::string result;
  result.reserve(size + text.size());
  while (result.size() < size) result += text;
  result.resize(size);
  return result;
}

/// Makes standard input give these bytes, a full chunk at each read, and then a
/// hang-up. The text must live as long as the input is used.
void GiveFromMemory(const std::string& bytes) {
  ::setenv("CONTENT_LENGTH", std::to_string(bytes.size()).c_str(), 1);
  Replace({.poll =
               [&bytes, asked = std::size_t{0}](pollfd* entries, nfds_t,
                                                int) mutable {
                 entries->revents = asked < bytes.size() ? POLLIN : POLLHUP;
                 asked += kChunk;
                 return 1;
               },
           .read =
               [&bytes, at = std::size_t{0}](void* buffer,
                                             std::size_t size) mutable {
                 const std::size_t count = std::min(size, bytes.size() - at);
                 std::memcpy(buffer, bytes.data() + at, count);
                 at += count;
                 return static_cast<ssize_t>(count);
               }});
}

/// A child whose every expectation holds, and which ends without an exception.
Outcome RunCleanly(const Child& child, const Child::Body& body) {
  const Outcome outcome = child.Run(body);
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error.substr(0, 10'000);
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.leaked_descriptors, Strings{});
  return outcome;
}

/// A place where many small files cost little.
std::string FastFolder() {
  const char* const memory = "/dev/shm";
  return ::access(memory, W_OK) == 0 ? memory
                                     : fs::temp_directory_path().string();
}

using Check = std::function<void(const Cgi::Data& record)>;

/// Parses the body in chunks that are as full as can be, in a folder that must
/// be empty afterwards.
Outcome Parse(const std::string& body, const Check& check, Child child = {}) {
  const Scratch scratch(FastFolder());
  Outcome outcome =
      RunCleanly(child.Env("CONTENT_TYPE", kForm), [&](const Told&) {
        GiveFromMemory(body);
        Cgi::Data record;
        record.tmp_dir = scratch.Path();
        record.ParseInput();
        EXPECT_TRUE(record.parsed);
        check(record);
      });
  EXPECT_EQ(scratch.List(), Strings{});
  return outcome;
}

Outcome ParseQuietly(const std::string& body, const Check& check) {
  return Parse(body, check, Child().LogLevel(0));
}

void ExpectParams(const std::string& body, const Params& params) {
  ParseQuietly(
      body, [&](const Cgi::Data& record) { EXPECT_EQ(record.params, params); });
}

std::string ManyUploads(std::size_t count) {
  std::string body;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    body += Upload("u" + number, "f" + number, number);
  }
  return body + kFormEnd;
}

TEST(ManyUploads, AreAsManyFilesAndAreAllRemoved) {
  static constexpr std::size_t kCount = 15'000;
  ParseQuietly(ManyUploads(kCount), [](const Cgi::Data& record) {
    EXPECT_EQ(record.params.size(), kCount);
    ASSERT_EQ(record.files.size(), kCount);
    std::map<std::string, int> paths;
    for (const auto& [name, file] : record.files) {
      ++paths[file.path];
      EXPECT_EQ("f" + zan_cgi::testing::ReadFile(file.path), name);
    }
    EXPECT_EQ(paths.size(), kCount);
  });
}

TEST(ManyUploads, LogTwoLinesEach) {
  const Outcome one = Parse(ManyUploads(1), [](const Cgi::Data&) {});
  const Outcome many = Parse(ManyUploads(201), [](const Cgi::Data&) {});
  EXPECT_EQ(many.log.size(), one.log.size() + 400);
}

int OpenUploads() {
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const auto target = fs::read_symlink(entry.path(), gone);
    if (target.string().find("/zantemp") != std::string::npos) ++count;
  }
  return count;
}

TEST(ManyUploads, AreOpenOneAtATime) {
  const Scratch scratch;
  // Pieces end in every part of an upload, but not between CR and LF.
  std::string body;
  Strings pieces;
  for (int i = 0; i < 100; ++i) {
    const std::string upload =
        Upload("u", "f" + std::to_string(i), "first, second");
    const std::size_t second = upload.find("second");
    pieces.push_back(upload.substr(0, second));
    pieces.push_back(upload.substr(second));
    body += upload;
  }
  pieces.emplace_back(kFormEnd);
  RunCleanly(Post(std::to_string(body.size() + pieces.back().size())),
             [&](const Told&) {
               int most = 0;
               const PieceInput input(pieces, [&](std::size_t) {
                 most = std::max(most, OpenUploads());
                 return Event::Piece;
               });
               Cgi::Data record;
               record.tmp_dir = scratch.Path();
               record.ParseInput();
               EXPECT_EQ(record.files.size(), 100U);
               EXPECT_EQ(most, 1);
             });
}

TEST(SameFileName, LeavesOneFileAtATime) {
  const Scratch scratch;
  Strings pieces;
  std::size_t size = 0;
  for (int i = 0; i < 200; ++i) {
    pieces.push_back(Upload("u", "f", std::to_string(i)));
    size += pieces.back().size();
  }
  pieces.emplace_back(kFormEnd);
  RunCleanly(
      Post(std::to_string(size + pieces.back().size())), [&](const Told&) {
        const PieceInput input(pieces, [&](std::size_t wait) {
          EXPECT_EQ(scratch.List().size(), wait > 0 ? 1U : 0U);
          return Event::Piece;
        });
        Cgi::Data record;
        record.tmp_dir = scratch.Path();
        record.ParseInput();
        EXPECT_EQ(record.files.size(), 1U);
        EXPECT_EQ(zan_cgi::testing::ReadFile(record.files.at("f").path), "199");
        EXPECT_EQ(record.files.at("f").size, 3);
      });
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(SameFileName, SwallowsAFailureToRemoveTheEarlierFile) {
  const Scratch scratch;
  const Strings pieces{Upload("u", "f", "first"),
                       Upload("v", "f", "second") + kFormEnd};
  const Outcome outcome = RunCleanly(
      Post(std::to_string(pieces[0].size() + pieces[1].size())),
      [&](const Told& told) {
        Cgi::Data record;
        record.tmp_dir = scratch.Path();
        const PieceInput input(pieces, [&](std::size_t wait) {
          if (wait != 1) return Event::Piece;
          const std::string path = record.files.at("f").path;
          fs::remove(path);
          fs::create_directory(path);
          told("directory", fs::path(path).filename());
          return Event::Piece;
        });
        record.ParseInput();
        EXPECT_EQ(zan_cgi::testing::ReadFile(record.files.at("f").path),
                  "second");
      });
  EXPECT_EQ(outcome.Logged(4), Strings{});
  EXPECT_EQ(outcome.Logged(3), Strings{});
  EXPECT_EQ(scratch.List(), Strings{outcome.told.at("directory")});
}

/// A part with more header lines, then an ordinary field.
std::string FormWithHeaders(const std::string& headers) {
  return "--XY\r\n" + headers +
         "Content-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n" +
         Field("b", "2") + kFormEnd;
}

const Params kBothFields{{"a", "1"}, {"b", "2"}};

TEST(HeaderLines, MayBeLong) {
  ExpectParams(FormWithHeaders("X: " + std::string(4'000'000, 'x') + "\r\n"),
               kBothFields);
}

TEST(HeaderLines, MayBeMany) {
  ExpectParams(FormWithHeaders(Repeated("X-y: z\r\n", 800'000)), kBothFields);
}

TEST(HeaderLines, NeedNotEnd) {
  ExpectParams("--XY\r\n" + Repeated("X-y: z\r\n", 4'000'000), {});
  ExpectParams("--XY\r\n" + std::string(4'000'000, 'x'), {});
}

Strings LinesWith(const Outcome& outcome, const std::string& part) {
  Strings found;
  for (const std::string& line : outcome.Logged(9)) {
    if (line.find(part) != std::string::npos) {
      found.push_back(line.substr(line.find(' ') + 1));
    }
  }
  return found;
}

TEST(Preamble, WithoutABoundaryIsAQueryStringAndALogLineForEachChunk) {
  const std::string body = "a=" + std::string(5 * kChunk, 'x');
  const Outcome outcome = Parse(body, [&](const Cgi::Data& record) {
    EXPECT_EQ(record.params, (Params{{"a", body.substr(2)}}));
  });
  Strings lines(5, "appending 65536 chars to buff");
  lines.emplace_back("appending 2 chars to buff");
  EXPECT_EQ(LinesWith(outcome, "appending"), lines);
}

TEST(Preamble, BeforeABoundaryIsLoggedByChunkAndDropped) {
  const std::string body =
      std::string(2 * kChunk, 'x') + Field("a", "1") + kFormEnd;
  const Outcome outcome = Parse(body, [](const Cgi::Data& record) {
    EXPECT_EQ(record.params, (Params{{"a", "1"}}));
  });
  EXPECT_EQ(LinesWith(outcome, "appending"),
            Strings(2, "appending 65536 chars to buff"));
}

TEST(Epilogue, WithAnEmptyLineContinuesTheLastField) {
  ExpectParams(Field("a", "1") + kFormEnd + "ignored\r\n\r\nmore\r\n",
               {{"a", "1\nmore"}});
}

TEST(Epilogue, ReplacesTheLastUpload) {
  ParseQuietly(Upload("u", "f", "upload") + kFormEnd + "epilogue",
               [](const Cgi::Data& record) {
                 const auto& file = record.files.at("f");
                 EXPECT_EQ(zan_cgi::testing::ReadFile(file.path), "epilogue");
                 EXPECT_EQ(file.size, 8);
               });
}

TEST(FieldLines, MayEachHave262144Bytes) {
  const std::string line(262'144, 'x');
  const std::string value = line + "\n" + line + "\n" + line;
  std::string sent = line;
  sent += "\r\n" + line + "\r\n" + line;
  // None of these lines' ends falls between two chunks.
  ExpectParams(Field("a", sent) + kFormEnd, {{"a", value}});
}

TEST(FieldLines, AboveThatAreRefusedHoweverManyCameBefore) {
  const Scratch scratch;
  const std::string body =
      Field("a", Repeated("line\r\n", 600'000) + std::string(262'145, 'x')) +
      kFormEnd;
  RunCleanly(Child().LogLevel(0).Env("CONTENT_TYPE", kForm), [&](const Told&) {
    GiveFromMemory(body);
    Cgi::Data record;
    record.tmp_dir = scratch.Path();
    EXPECT_THROW(record.ParseInput(), std::runtime_error);
    EXPECT_FALSE(record.parsed);
    EXPECT_GE(record.params.at("a").size(), 499'000U);
  });
}

void ExpectExactUpload(const std::string& boundary,
                       const std::string& content) {
  const std::string body = support::UploadBehindAChunk(boundary, content);
  const Scratch scratch;
  RunCleanly(Child().LogLevel(0).Env("CONTENT_TYPE", "boundary=" + boundary),
             [&](const Told&) {
               GiveFromMemory(body);
               Cgi::Data record;
               record.tmp_dir = scratch.Path();
               record.ParseInput();
               const auto& file = record.files.at("f");
               EXPECT_EQ(file.size, static_cast<std::int64_t>(content.size()));
               EXPECT_TRUE(zan_cgi::testing::ReadFile(file.path) == content);
             });
}

TEST(SlowContent, IsStoredByteForByte) {
  for (const auto& [name, boundary] : support::SlowBoundaries()) {
    for (const std::string& text : support::SlowContents(boundary)) {
      SCOPED_TRACE(testing::Message() << testing::PrintToString(text)
                                      << ", boundary " << boundary);
      const std::string content = Repeated(text, 140'000);
      for (const std::string begin : {"", "\r"}) {
        const std::string whole = begin + content + "x";
        // What ends the content early is another matter.
        if (whole.find("\r\n--" + boundary) == std::string::npos) {
          ExpectExactUpload(boundary, whole);
        }
      }
    }
  }
}

TEST(Upload, BeginningWithALineEndIsExact) {
  for (const std::string begin : {"\r", "\n", "\r\n"}) {
    ExpectExactUpload("XY", begin + std::string(2'000'000, 'x'));
  }
}

TEST(LookAhead, BehindAFullChunkSeesNoLineEnd) {
  // CR is the first chunk's last byte, LF the second's first.
  const std::string head = Field("a", "").substr(0, Field("a", "").size() - 2);
  const std::string first(kChunk - head.size() - 1, 'x');
  ExpectParams(head + first + "\r\nsecond\r\nthird\r\n" + kFormEnd,
               {{"a", first + "\r\nsecond\nthird"}});
}

TEST(LookAhead, BehindAShortChunkSeesWhatStoodThereBefore) {
  const Scratch scratch;
  const std::string head = Field("a", "").substr(0, Field("a", "").size() - 2);
  ASSERT_EQ(head[5], '\n');
  // Five bytes, behind which the sixth of the chunk before still stands.
  const Strings pieces{head, "value"};
  RunCleanly(Post(std::to_string(head.size() + 5)), [&](const Told&) {
    const PieceInput input(pieces);
    Cgi::Data record;
    record.tmp_dir = scratch.Path();
    record.ParseInput();
    EXPECT_EQ(record.params, (Params{{"a", "valu"}}));
  });
}

/// The parameters and client file names that a part with these attributes
/// gives; the part has the content "1", and a field "z" follows.
void ExpectPart(const std::string& attributes, const Params& params,
                const Strings& files) {
  SCOPED_TRACE(attributes.substr(0, 100));
  ParseQuietly(
      Part(attributes, "1") + Field("z", "2") + kFormEnd,
      [&](const Cgi::Data& record) {
        Params expected = params;
        expected["z"] = "2";
        EXPECT_EQ(record.params, expected);
        Strings names;
        for (const auto& [name, file] : record.files) {
          names.push_back(name);
          EXPECT_EQ(zan_cgi::testing::ReadFile(file.path), "1");
          EXPECT_TRUE(
              fs::path(file.path).filename().string().starts_with("zantemp"));
          EXPECT_EQ(fs::path(file.path).parent_path(), record.tmp_dir);
        }
        EXPECT_EQ(names, files);
      });
}

TEST(FileName, IsTakenAsItStands) {
  for (const std::string name :
       {"%22.txt", "\xc3\xa4\xf0\x9f\x98\x80.txt", "../../x", "/etc/passwd",
        "C:\\dir\\f.txt", "..", ".", " ", "a b", "<b>", "x\ty", "'"}) {
    ExpectPart("name=\"u\"; filename=\"" + name + "\"", {{"u", name}}, {name});
  }
}

TEST(FileName, MayHoldAZeroByte) {
  const std::string name("a\0b", 3);
  ExpectPart("name=\"u\"; filename=\"" + name + "\"", {{"u", name}}, {name});
}

TEST(FileName, MayBeAMegabyteLong) {
  const std::string name(1'000'000, 'n');
  ExpectPart("name=\"u\"; filename=\"" + name + "\"", {{"u", name}}, {name});
}

TEST(FileName, GivenTwiceIsTheLast) {
  ExpectPart("name=\"u\"; filename=\"f\"; filename=\"g\"", {{"u", "g"}}, {"g"});
  ExpectPart("name=\"u\"; filename=\"f\"; filename*=\"g\"", {{"u", "g"}},
             {"g"});
}

TEST(FileName, InTheExtendedFormLosesTheUpload) {
  ExpectPart("name=\"u\"; filename=\"f\"; filename*=UTF-8''g", {}, {});
  ExpectPart("name=\"u\"; filename*=UTF-8''g", {}, {});
}

TEST(FileName, ThatIsEmptyOrUnquotedLosesTheUpload) {
  ExpectPart("name=\"u\"; filename=\"\"", {}, {});
  ExpectPart("name=\"u\"; filename=f", {}, {});
  ExpectPart("name=\"u\"; filename", {}, {});
}

TEST(ElementName, GivenTwiceIsTheLast) {
  ExpectPart("name=\"a\"; name=\"b\"", {{"b", "1"}}, {});
  ExpectPart("name=\"a\"; filename=\"f\"; name=\"b\"", {{"b", "1"}}, {});
}

TEST(ElementName, IsTakenFromWhateverBeginsWithIt) {
  ExpectPart("names=\"a\"", {{"a", "1"}}, {});
  ExpectPart("name*=\"a\"", {{"a", "1"}}, {});
  ExpectPart("name = \"b\"; name =\"a\"", {{"a", "1"}}, {});
  ExpectPart("name=x=\"a\"", {{"a", "1"}}, {});
  ExpectPart("name=\"a", {{"a", "1"}}, {});
  ExpectPart("name=\"a=\"b\"", {{"a=", "1"}}, {});
}

TEST(ElementName, IsNotFoundInOtherSpellings) {
  ExpectPart("Name=\"a\"", {}, {});
  ExpectPart("NAME=\"a\"", {}, {});
  ExpectPart("x; Filename=\"f\"", {}, {});
  ExpectPart("name= \"a\"", {}, {});
  ExpectPart("name='a'", {}, {});
}

TEST(ElementName, BehindAnEmptyAttributeIsNotSeen) {
  ExpectPart("; name=\"a\"", {}, {});
  ExpectPart("name=\"a\"; ; filename=\"f\"", {{"a", "1"}}, {});
}

/// The parameters of a body of one part with these headers and the content "1",
/// and a field "z" behind.
void ExpectHeaders(const std::string& headers, const Params& params) {
  SCOPED_TRACE(headers);
  Params expected = params;
  expected["z"] = "2";
  ExpectParams(
      "--XY\r\n" + headers + "\r\n\r\n1\r\n" + Field("z", "2") + kFormEnd,
      expected);
}

TEST(Disposition, NeedsNoBlanksBetweenItsAttributes) {
  ExpectHeaders("Content-Disposition: form-data;name=\"a\"", {{"a", "1"}});
  ExpectHeaders("Content-Disposition:  form-data ;\t name=\"a\" ;",
                {{"a", "1"}});
}

TEST(Disposition, OfAnotherSpellingIsIgnored) {
  ExpectHeaders("content-disposition: form-data; name=\"a\"", {});
  ExpectHeaders("Content-Disposition:form-data; name=\"a\"", {});
  ExpectHeaders(" Content-Disposition: form-data; name=\"a\"", {});
  ExpectHeaders("Content-Disposition: Form-Data; name=\"a\"", {});
  ExpectHeaders("Content-Disposition: form-data", {});
  ExpectHeaders("Content-Disposition: ; name=\"a\"", {});
}

TEST(Disposition, ThatIsFoldedLosesWhatIsOnItsNextLine) {
  ExpectHeaders("Content-Disposition: form-data;\r\n name=\"a\"", {});
  ExpectHeaders(
      "Content-Disposition: form-data; name=\"a\";\r\n filename=\"f\"",
      {{"a", "1"}});
}

TEST(Disposition, GivenTwiceIsTheLast) {
  ExpectHeaders(
      "Content-Disposition: form-data; name=\"a\"\r\n"
      "Content-Disposition: form-data; name=\"b\"",
      {{"b", "1"}});
}

TEST(Disposition, MayComeBehindOtherHeaders) {
  ExpectHeaders(
      "Content-Type: text/plain\r\nContent-Transfer-Encoding: base64\r\n"
      "Content-Disposition: form-data; name=\"a\"",
      {{"a", "1"}});
}

TEST(BareLineFeeds, MakeNoForm) {
  std::string body = Field("a", "1") + Field("b", "2") + kFormEnd;
  body.erase(std::remove(body.begin(), body.end(), '\r'), body.end());
  ExpectParams(body, {});
}

TEST(NestedForm, IsTheValueOfItsField) {
  const std::string inner =
      "--IN\r\nContent-Disposition: file; filename=\"f\"\r\n\r\nx\r\n--IN--";
  ExpectPart("name=\"a\"\r\nContent-Type: multipart/mixed; boundary=IN",
             {{"a", "1"}}, {});
  ExpectParams(
      Field("a", inner) + kFormEnd,
      {{"a", "--IN\nContent-Disposition: file; filename=\"f\"\n\nx\n--IN--"}});
}

TEST(NestedForm, WhoseBoundaryBeginsLikeTheOuterOneEndsItsField) {
  ExpectParams(Field("a", "1\r\n--XYZ\r\nlost") + Field("b", "2") + kFormEnd,
               {{"a", "1"}, {"b", "2"}});
}

TEST(MoreThanDeclared, StaysUnreadBehindAnUpload) {
  const Scratch scratch;
  const std::string body =
      Upload("u", "f", std::string(100'000, 'x')) + kFormEnd;
  Strings pieces = CutInto(body, kChunk);
  pieces.back() += "GET / HTTP/1.1";
  RunCleanly(Post(std::to_string(body.size())), [&](const Told&) {
    const PieceInput input(pieces);
    Cgi::Data record;
    record.tmp_dir = scratch.Path();
    record.ParseInput();
    EXPECT_EQ(record.files.at("f").size, 100'000);
    EXPECT_EQ(input.BytesUnread(), 14U);
  });
}

TEST(WithoutContentLength, EveryAccessTriesAgainAndReadsNothing) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      RunCleanly(Child().Env("REQUEST_METHOD", "POST").StandardInput(input),
                 [](const Told&) {
                   Cgi cgi("/bin/front", "panel");
                   Strings names{"old"};
                   EXPECT_EQ(cgi.Param("a"), "");
                   EXPECT_EQ(cgi.GetFileSize(), 0);
                   cgi.GetParams(names);
                   EXPECT_EQ(names, Strings{});
                   cgi.GetFileNames(names);
                   EXPECT_EQ(names, Strings{});
                   cgi.ParseQuery();
                   char body[4];
                   EXPECT_EQ(::read(STDIN_FILENO, body, sizeof(body)), 3);
                 });
  EXPECT_EQ(LinesWith(outcome, "CONTENT_LENGTH=0").size(), 5U);
  EXPECT_EQ(outcome.Logged(4), Strings{});
}

/// The parameters of a body that is no form.
void ExpectQueryString(const std::string& body, const Params& params) {
  RunCleanly(Child().LogLevel(0), [&](const Told&) {
    GiveFromMemory(body);
    Cgi::Data record;
    record.tmp_dir = "/tmp";
    record.ParseInput();
    EXPECT_EQ(record.params, params);
  });
}

TEST(QueryStringBody, KeepsMalformedEscapesAsTheyStand) {
  ExpectQueryString(
      "a=%&b=%4&c=%zz&d=%u0041&e=%4%41",
      {{"a", "%"}, {"b", "%4"}, {"c", "%zz"}, {"d", "%u0041"}, {"e", "%4A"}});
}

TEST(QueryStringBody, DecodesEachByteOnce) {
  ExpectQueryString("a=%00&b=+%2b&c=%2541&d=%c0%af%ff",
                    {{"a", std::string(1, '\0')},
                     {"b", " +"},
                     {"c", "%41"},
                     {"d", "\xc0\xaf\xff"}});
}

TEST(QueryStringBody, TakesASemicolonForData) {
  ExpectQueryString("a=1;b=2", {{"a", "1;b=2"}});
}

TEST(QueryStringBody, KeepsTheLastValueOfAKey) {
  ExpectQueryString("a=1&a=2&a", {{"a", ""}});
}

/// A way in which a wait for the body or a read of it gives nothing.
struct Nothing {
  const char* name;
  int poll_error;
  int read_error;
  const char* line;  ///< What is logged of it.
};

class ReadOfNothing : public testing::TestWithParam<Nothing> {};

INSTANTIATE_TEST_SUITE_P(
    All, ReadOfNothing,
    testing::Values(Nothing{"Signal", EINTR, 0,
                            " poll interrupted, trying again"},
                    Nothing{"WouldBlock", 0, EAGAIN, nullptr},
                    Nothing{"EndOfFile", 0, 0, nullptr}),
    [](const auto& nothing) { return nothing.param.name; });

// With an announced boundary nothing would ever be read again.
TEST_P(ReadOfNothing, DoesNotEndABodyWithoutABoundary) {
  const Nothing& nothing = GetParam();
  const Strings pieces = {"", "a=1&", "", "", "b=2"};
  std::size_t at = 0;
  const Outcome outcome =
      RunCleanly(Child().Env("CONTENT_LENGTH", "7"), [&](const Told& /*told*/) {
        const itimerval soon{{0, 0}, {1, 0}};
        ::setitimer(ITIMER_PROF, &soon, nullptr);
        Replace({.poll =
                     [&](pollfd* entries, nfds_t, int) {
                       entries->revents = POLLIN;
                       if (nothing.poll_error == 0 || !pieces[at].empty()) {
                         return 1;
                       }
                       ++at;
                       errno = nothing.poll_error;
                       return -1;
                     },
                 .read = [&](void* buffer, std::size_t size) -> ssize_t {
                   const std::string& piece = pieces[at++];
                   if (piece.empty() && nothing.read_error != 0) {
                     errno = nothing.read_error;
                     return -1;
                   }
                   return static_cast<ssize_t>(
                       piece.copy(static_cast<char*>(buffer), size));
                 }});
        Cgi::Data record;
        record.tmp_dir = "/tmp";
        record.ParseInput();
        EXPECT_EQ(record.params, (Params{{"a", "1"}, {"b", "2"}}));
        EXPECT_TRUE(record.parsed);
      });
  // Of several reads of nothing in a row the first leaves an empty chunk.
  Strings expected = {" appending 4 chars to buff",
                      " appending 0 chars to buff",
                      " appending 3 chars to buff"};
  if (nothing.line != nullptr) {
    for (const std::ptrdiff_t read : {0, 2, 4}) {
      expected.insert(expected.begin() + read, nothing.line);
    }
  }
  Strings lines;
  for (const std::string& line : outcome.Logged(9)) {
    if (line.find(" appending ") != std::string::npos ||
        line.find(" poll interrupted") != std::string::npos) {
      lines.push_back(line.substr(line.find(' ')));
    }
  }
  EXPECT_EQ(lines, expected);
}

TEST(QueryStringBody, MayHaveAHundredThousandParameters) {
  std::string body;
  for (int i = 0; i < 100'000; ++i) {
    body += "k" + std::to_string(i) + "=" + std::to_string(i) + "&";
  }
  RunCleanly(Child().LogLevel(0), [&](const Told&) {
    GiveFromMemory(body);
    Cgi::Data record;
    record.tmp_dir = "/tmp";
    record.ParseInput();
    EXPECT_EQ(record.params.size(), 100'000U);
    EXPECT_EQ(record.params.at("k99999"), "99999");
  });
}

TEST(Cookies, MayBeLargeAndMany) {
  std::string many = "large=" + std::string(65'536, 'x');
  for (int i = 0; i < 5'000; ++i) {
    const std::string number = std::to_string(i);
    many += "; c" + number + "=" + number;
  }
  RunCleanly(Child().Env("HTTP_COOKIE", many + "; c0=last"), [](const Told&) {
    const Cgi::Data record;
    EXPECT_EQ(record.cookies.size(), 5'001U);
    EXPECT_EQ(record.cookies.at("large").size(), 65'536U);
    EXPECT_EQ(record.cookies.at("c4999"), "4999");
    EXPECT_EQ(record.cookies.at("c0"), "last");
  });
}

/// Parses one upload while somebody puts something in the place of its file as
/// soon as that is made, and tells the error.
Outcome ParseWhileFileIsReplaced(
    const std::string& folder,
    const std::function<void(const std::string& path)>& replace) {
  const std::string body = Upload("u", "f", "content") + kFormEnd;
  const Input input = Input::Pipe(body);
  return RunCleanly(
      Post(std::to_string(body.size())).StandardInput(input),
      [&](const Told& told) {
        Replace({.mkostemp = [&](char* name, int flags) {
          const int descriptor = support::RealMkostemp(name, flags);
          ::unlink(name);
          replace(name);
          return descriptor;
        }});
        Cgi::Data record;
        record.tmp_dir = folder;
        try {
          record.ParseInput();
        } catch (const std::runtime_error& error) {
          told("error", error.what());
        }
        char next;
        told("unread", std::to_string(::read(STDIN_FILENO, &next, 1)));
      });
}

TEST(TemporaryFile, ReplacedByALinkIsNotFollowed) {
  const Scratch scratch;
  const Scratch other;
  const std::string target = other.MakeFile("target", "kept");
  ASSERT_EQ(::chmod(target.c_str(), 0644), 0);
  const Outcome outcome = ParseWhileFileIsReplaced(
      scratch.Path(),
      [&](const std::string& path) { fs::create_symlink(target, path); });
  EXPECT_TRUE(outcome.told.contains("error"));
  EXPECT_EQ(zan_cgi::testing::ReadFile(target), "kept");
  struct stat found {};
  ASSERT_EQ(::stat(target.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777U, 0644U);
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(TemporaryFile, ReplacedByADanglingLinkMakesNoFile) {
  const Scratch scratch;
  const Scratch other;
  const Outcome outcome =
      ParseWhileFileIsReplaced(scratch.Path(), [&](const std::string& path) {
        fs::create_symlink(other / "new", path);
      });
  EXPECT_TRUE(outcome.told.contains("error"));
  EXPECT_EQ(other.List(), Strings{});
}

TEST(TemporaryFile, ReplacedByAFifoIsNotWaitedFor) {
  const Scratch scratch;
  const Outcome outcome =
      ParseWhileFileIsReplaced(scratch.Path(), [](const std::string& path) {
        ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
      });
  EXPECT_EQ(outcome.told.at("error"), "error writing temporary file");
  EXPECT_EQ(outcome.told.at("unread"), "0");
}

TEST(TemporaryFile, ReplacedByADirectoryIsAnError) {
  const Scratch scratch;
  const Outcome outcome = ParseWhileFileIsReplaced(
      scratch.Path(),
      [](const std::string& path) { fs::create_directory(path); });
  EXPECT_TRUE(outcome.told.contains("error"));
  ASSERT_EQ(scratch.List().size(), 1U);
  EXPECT_TRUE(fs::is_directory(scratch / scratch.List()[0]));
}

constexpr char kUnknownType[] =
    "Ignoring unknown type of Content-Disposition: ";

/// What is logged of a disposition type.
std::string LoggedType(const std::string& type) {
  const Outcome outcome = Parse(
      "--XY\r\nContent-Disposition: " + type + "; name=\"a\"\r\n\r\n1\r\n" +
          kFormEnd,
      [](const Cgi::Data& record) { EXPECT_TRUE(record.params.empty()); });
  const Strings lines = LinesWith(outcome, kUnknownType);
  EXPECT_EQ(lines.size(), 1U);
  return lines.empty() ? "" : lines[0].substr(sizeof(kUnknownType) - 1);
}

TEST(Log, HasControlCharactersOfTheClientEscaped) {
  EXPECT_EQ(LoggedType("a\rb\x1b[31m\x07\x7f"), "a\\x0db\\x1b[31m\\x07\\x7f");
}

TEST(Log, TakesNoFormatFromTheClient) {
  EXPECT_EQ(LoggedType("%n%s%1000000d%%"), "%n%s%1000000d%%");
}

TEST(Log, EndsATextOfTheClientAtAZeroByte) {
  EXPECT_EQ(LoggedType(std::string("a\0b", 3)), "a");
}

TEST(Log, CutsALongTextOfTheClient) {
  const std::string logged = LoggedType(std::string(1'000'000, 'x'));
  EXPECT_LT(logged.size(), 4096U);
  EXPECT_GT(logged.size(), 3900U);
  EXPECT_TRUE(logged.ends_with("x..."));
}

TEST(Log, CannotBeForgedByALineEndBetweenTwoReads) {
  const Scratch scratch;
  const Strings pieces{
      "--XY\r\nContent-Disposition: a\r",
      std::string("\nzancgi[1] core error: forged\r\n\r\n1\r\n") + kFormEnd};
  const Outcome outcome =
      RunCleanly(Post(std::to_string(pieces[0].size() + pieces[1].size())),
                 [&](const Told&) {
                   const PieceInput input(pieces);
                   Cgi::Data record;
                   record.tmp_dir = scratch.Path();
                   record.ParseInput();
                 });
  EXPECT_EQ(LinesWith(outcome, kUnknownType),
            Strings{std::string(kUnknownType) +
                    "a\\x0d\\x0azancgi[1] core error: forged"});
  EXPECT_EQ(outcome.Logged(3), Strings{});
}

}  // namespace
