// Construction, and requests without uploads.

#include "support/form.h"
#include "support/new_operator.h"
#include "support/record.h"
#include "support/test.h"
#include "trace/scenario.h"

namespace support::trace {
namespace {

/// The trace of a construction that enters this folder.
std::string Constructing(const std::string& folder) {
  return "zancgi 8: void zan_cgi::Cgi::Data::ParseCookies()\nRealPath('" +
         folder +
         "')\nunix 9: [zancgi_unix.cpp]:# set working directory to '[" +
         folder + "]'\nchdir [" + folder + "]\n";
}

/// The construction itself; the addresses and cookies are results.
Act Construct(const std::string& program) {
  return [program] {
    Start();
    Try([&] {
      Cgi cgi(program, "panel");
      for (const auto& [name, value] : RecordOf(cgi).cookies) {
        Result(name + ": " + value);
      }
      Result("from '" + RecordOf(cgi).remote_addr + "' to '" +
             RecordOf(cgi).server_addr + "'");
    });
  };
}

TEST(Construction, ReadsTheEnvironmentThenChangesTheDirectory) {
  ExpectTrace({.environment = {{"HTTP_COOKIE", "a=1;; b=x=%41 ;c"},
                               {"HTTP_X_FORWARDED_FOR", "p, q"},
                               {"REMOTE_ADDR", "r"},
                               {"SERVER_ADDR", "s"}}},
              Construct("cgi/front"), Constructing("cgi/..") + R"(
    = a: 1
    = b: x=%41
    = c: 
    = from 'p, q' to 's')");
}

TEST(Construction, WithoutCookiesIsTheSame) {
  ExpectTrace({.environment = {{"REMOTE_ADDR", "r"}}}, Construct("/a/b/front"),
              Constructing("/a/b/..") + "= from 'r' to ''");
}

TEST(Construction, ResolvesTheFolderAboveTheProgramsFolder) {
  for (const auto& [program, folder] : {std::pair("front", "./.."),
                                        {"/front", "/.."},
                                        {"a/b/", "a/b/.."},
                                        {"a\\b", "./.."}}) {
    ExpectTrace({}, Construct(program),
                Constructing(folder) + "= from '' to ''");
  }
}

TEST(Construction, WithoutANameContinuesIfTheAssertionReturns) {
  ExpectTrace({}, Construct(""), R"(
    zancgi 8: void zan_cgi::Cgi::Data::ParseCookies()
    Raise('zancgi_unix.cpp', 'void zan_cgi::Cgi::Data::SetWorkDir(const string&)', 'passed binary name is empty')
    RealPath('./..')
    unix 9: [zancgi_unix.cpp]:# set working directory to '[./..]'
    chdir [./..]
    = from '' to '')");
}

/// Throws, after it has given the record that is being constructed an upload by
/// which its destructor shows. Its service is a result.
Effect PlantAnUploadAndThrow() {
  support::LastAllocationOf(sizeof(Cgi::Data));
  return [] {
    void* const memory = support::LastAllocationOf(sizeof(Cgi::Data));
    auto& record = *static_cast<Cgi::Data*>(memory);
    Result(record.tov_name);
    record.files["f"].path = "spool/f";
    throw std::logic_error("no");
  };
}

TEST(Construction, ThatFailsReleasesTheRecord) {
  ExpectTrace({.effects = {{"Raise", {PlantAnUploadAndThrow()}}}},
              Construct(""), R"(
    zancgi 8: void zan_cgi::Cgi::Data::ParseCookies()
    Raise('zancgi_unix.cpp', 'void zan_cgi::Cgi::Data::SetWorkDir(const string&)', 'passed binary name is empty')
    = panel
    Exists('spool/f')
    throws std::logic_error: no)");
  ExpectTrace({.effects = {{"RealPath", {PlantAnUploadAndThrow()}}}},
              Construct("cgi/front"), R"(
    zancgi 8: void zan_cgi::Cgi::Data::ParseCookies()
    RealPath('cgi/..')
    = panel
    Exists('spool/f')
    throws std::logic_error: no)");
}

TEST(Get, IsParsedOnceAndJoinsWhatIsRepeated) {
  ExpectTrace(Get("&a=1&b=x=y&a=&a=3&&c%3D=%26"), Serve([](Cgi& cgi) {
                ReportParams(cgi);
                cgi.ParseQuery();
                Result(std::to_string(cgi.GetFileSize()) + cgi.File("a"));
              }),
              R"(
    zancgi 8: void zan_cgi::Cgi::Data::ParseQuery()
    zancgi 8: void zan_cgi::Cgi::Data::ParseQueryString(std::string)
    = [c%3D]: [%26]
    = a: 1, , 3
    = b: x=y
    zancgi 4: CGI already parsed input
    = 0)");
}

TEST(Get, WarnsOfAValueWithoutAName) {
  ExpectTrace(Get("=5%25&=&=%s&&a"), Serve(ReportParams), R"(
    zancgi 8: void zan_cgi::Cgi::Data::ParseQuery()
    zancgi 8: void zan_cgi::Cgi::Data::ParseQueryString(std::string)
    zancgi 4: Key name is empty, value = '5%25'
    zancgi 4: Key name is empty, value = '%s'
    = a: )");
}

TEST(Get, KeepsWhatWasDecodedBeforeAnError) {
  Script script = Get("a=1&b=2&c=+&d=4");
  script.effects["Decode"] = {Fail("no code")};
  ExpectTrace(script, Serve([](Cgi& cgi) {
                Try([&] { cgi.Param("a"); });
                for (const auto& [name, value] : RecordOf(cgi).params) {
                  Result(name + ": " + value);
                }
                ReportParams(cgi);
              }),
              R"(
    zancgi 8: void zan_cgi::Cgi::Data::ParseQuery()
    zancgi 8: void zan_cgi::Cgi::Data::ParseQueryString(std::string)
    throws tov_err::Error: no code
    = a: 1
    = b: 2
    zancgi 8: void zan_cgi::Cgi::Data::ParseQuery()
    zancgi 8: void zan_cgi::Cgi::Data::ParseQueryString(std::string)
    = a: 1, 1
    = b: 2, 2
    = c: [+]
    = d: 4)");
}

TEST(OtherMethod, IsRefusedEachTime) {
  ExpectTrace({.environment = {{"REQUEST_METHOD", "HEAD"}}},
              Serve([](Cgi& cgi) {
                Try([&] { cgi.Param("a"); });
                cgi.ParseQuery();
              }),
              R"(
    zancgi 8: void zan_cgi::Cgi::Data::ParseQuery()
    throws std::runtime_error: bad request method 'HEAD'
    zancgi 8: void zan_cgi::Cgi::Data::ParseQuery()
    throws std::runtime_error: bad request method 'HEAD')");
}

TEST(PostWithoutABoundary, IsAQueryStringWhoseNamesStayAsSent) {
  const std::string body = "a+b=1+2&=x&c=3&c=4&d";
  ExpectTrace(Post(body, "text/plain"), Serve(ReportParams),
              Admission(body, {.is_multipart = false}) + R"(
    zancgi 9: [zancgi.cpp]:# appending 20 chars to buff
    zancgi 9: [zancgi.cpp]:# no boundaries in POST data, assuming GET format
  )" + End(body) + R"(
    = a+b: [1+2]
    = c: 4
    = d: )");
}

TEST(EmptyPost, StaysUnparsed) {
  ExpectTrace(Post(""), Serve([](Cgi& cgi) {
                cgi.ParseQuery();
                cgi.ParseQuery();
              }),
              R"(
    zancgi 8: void zan_cgi::Cgi::Data::ParseQuery()
    zancgi 8: void zan_cgi::Cgi::Data::ParseInput()
    Int64('0')
    zancgi 9: [zancgi.cpp]:# CONTENT_LENGTH=0
    zancgi 8: void zan_cgi::Cgi::Data::ParseQuery()
    zancgi 8: void zan_cgi::Cgi::Data::ParseInput()
    Int64('0')
    zancgi 9: [zancgi.cpp]:# CONTENT_LENGTH=0)");
}

TEST(PostOfFields, MakesNoCallForOne) {
  const std::string body =
      Field("a", "x\r\ny") + Field("a", "z") + Part("name=b", "dropped") +
      Field("filename", "dropped") +
      "--XY\r\nContent-Disposition: attachment; name=\"c\"\r\n\r\nd\r\n" +
      Field("e", "f") + kFormEnd;
  ExpectTrace(Post(body), Serve(ReportParams), Admission(body) + R"(
    zancgi 9: [zancgi.cpp]:# Element with empty name found. Ignoring.
    zancgi 9: [zancgi.cpp]:# Filename not found in Content-Disposition. Ignoring this part
    zancgi 9: [zancgi.cpp]:# Ignoring unknown type of Content-Disposition: attachment
  )" + End(body) + "= a: x\\ny\\nz\n= e: f");
}

TEST(PostOfALongLine, IsRefused) {
  const std::string body = Field("a", std::string(262'145, 'x')) + kFormEnd;
  ExpectTrace(Post(body), Serve([](Cgi& cgi) { cgi.ParseQuery(); }),
              Admission(body) + R"(
    throws std::runtime_error: Element value size must be less than [262144])");
}

/// Puts an empty file in the place of standard input; as an effect, fills it.
struct LateInput {
  std::string body;

  void Begin() const {
    const int file = ::open("input", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ::dup2(file, STDIN_FILENO);
    ::close(file);
  }
  void operator()() const {
    EXPECT_EQ(::pwrite(STDIN_FILENO, body.data(), body.size(), 0),
              static_cast<ssize_t>(body.size()));
  }
};

TEST(LatePost, IsAwaitedInSleepsOf100Milliseconds) {
  const LateInput input{Field("a", "b") + kFormEnd};
  Script script = Post(input.body);
  script.effects["Sleep"] = {nullptr, input};
  ExpectTrace(script, Serve([&](Cgi& cgi) {
                input.Begin();
                ReportParams(cgi);
              }),
              Admission(input.body) + "Sleep(100)\nSleep(100)\n" +
                  End(input.body) + "= a: b");
}

TEST(PostWithoutASpool, IsReadToItsEndAndFails) {
  const LateInput input{"a=1&b=2"};
  Script script = Post(input.body);
  script.environment["TMP"] = "missing";
  script.effects["Sleep"] = {nullptr, input};
  ExpectTrace(
      script, Serve([&](Cgi& cgi) {
        input.Begin();
        Try([&] { cgi.ParseQuery(); });
        cgi.ParseQuery();
        Result(cgi.Param("a"));
      }),
      Admission(input.body, {.spool = "missing", .free_space = ""}) + R"(
    zancgi 9: [zancgi.cpp]:# Reading query before processing thrown exception
    Sleep(100)
    Sleep(100)
    zancgi 9: [zancgi.cpp]:# query bytes read on throw '7' of '7'
    throws std::runtime_error: Cannot run statfs on missing
    zancgi 4: CGI already parsed input
    = )");
}

/// Puts a pipe without bytes or a writer in the place of standard input.
void HangUp() {
  int ends[2];
  EXPECT_EQ(::pipe(ends), 0);
  ::dup2(ends[0], STDIN_FILENO);
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(PostThatEndsEarly, IsAnError) {
  const std::string body = Field("a", "b");
  Script script = Post(body);
  script.environment["CONTENT_LENGTH"] = std::to_string(body.size() + 1);
  script.input = "";
  const std::string begin = Admission(body + "x");
  ExpectTrace(script, Serve([](Cgi& cgi) {
                HangUp();
                cgi.ParseQuery();
              }),
              begin +
                  "unix 4: Signal HUP received\n"
                  "throws std::runtime_error: Error reading STDIN");
}

TEST(TmpDir, ThatExistsMustBeADirectory) {
  ExpectTrace({}, Serve([](Cgi& cgi) { cgi.SetTmpDir("spool"); }),
              "Exists('spool')\nInfo('spool', false)");
  ExpectTrace({}, Serve([](Cgi& cgi) {
                ::close(::open("file", O_CREAT | O_WRONLY, 0600));
                cgi.SetTmpDir("file");
              }),
              R"(
    Exists('file')
    Info('file', false)
    throws std::runtime_error: temp dir 'file' is not a directory)");
}

TEST(TmpDir, ThatIsMissingIsMadeWithoutAttributes) {
  ExpectTrace({}, Serve([](Cgi& cgi) { cgi.SetTmpDir(""); }),
              "Exists('tmp')\nMkDir('tmp', nullptr)");
  ExpectTrace({.environment = {{"TMP", "new"}},
               .effects = {{"MkDir", {Fail("no room")}}}},
              Serve([](Cgi& cgi) { cgi.SetTmpDir(""); }), R"(
    Exists('new')
    MkDir('new', nullptr)
    throws tov_err::Error: no room)");
}

TEST(ContentLength, IsReadAsAnInt) {
  Script script = Post(std::string(2049, 'x'));
  ExpectTrace(script, Serve([](Cgi& cgi) {
                cgi.CheckContentLength(2049);
                cgi.CheckContentLength(2048);
              }),
              R"(
    Int('2049')
    Int('2049')
    throws std::runtime_error: Post data too large. Max allowed length is [2]KB)");
  script.environment["REQUEST_METHOD"] = "GET";
  ExpectTrace(script, Serve([](Cgi& cgi) { cgi.CheckContentLength(1); }), "");
}

}  // namespace
}  // namespace support::trace
