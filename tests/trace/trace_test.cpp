// Calls of the base library whose arguments and order nothing else shows.

#include <signal.h>
#include <sys/resource.h>
#include <tov/err.h>

#include <fstream>
#include <new>

#include "support/files.h"
#include "support/form.h"
#include "support/record.h"
#include "trace/calls.h"

namespace support::trace {
namespace {

using Auth = Cgi::AuthInfo;

template <class Error>
Effect Throw(const Error& error) {
  return [error] { throw error; };
}

Effect Fail(const std::string& text) { return Throw(tov_err::Error(text)); }

TEST(Construction, ChangesToTheFolderAboveTheProgramsFolder) {
  ExpectCalls(
      {}, [](Cgi&) { const Cgi cgi("cgi/front", "panel"); }, R"(
    log 8: void zan_cgi::Cgi::Data::ParseCookies()
    RealPath('cgi/..')
    log 9: zancgi_unix.cpp:# set working directory to '[cgi/..]'
    chdir [cgi/..])");
}

TEST(Construction, WithoutANameContinuesIfTheAssertionReturns) {
  ExpectCalls(
      {}, [](Cgi&) { const Cgi cgi("", "panel"); }, R"(
    log 8: void zan_cgi::Cgi::Data::ParseCookies()
    Raise('zancgi_unix.cpp', 'void zan_cgi::Cgi::Data::SetWorkDir(const string&)', 'passed binary name is empty')
    RealPath('./..')
    log 9: zancgi_unix.cpp:# set working directory to '[./..]'
    chdir [./..])");
}

TEST(TmpDir, IsMadeWithoutAttributesUnlessSomethingIsThere) {
  ExpectCalls(
      {}, [](Cgi& cgi) { cgi.SetTmpDir("new"); },
      "Exists('new')\nMkDir('new', 0)");
  ExpectCalls(
      {}, [](Cgi& cgi) { cgi.SetTmpDir("spool"); },
      "Exists('spool')\nInfo('spool', false)");
}

/// A body with one upload, and the scene of its POST.
const std::string kBody = Upload("u", "f", "content") + kFormEnd;
Scene PostOfUpload() {
  return {.child = PostOf(kBody).Env("TMP", "spool"), .input = kBody};
}

const char kProtecting[] = "SafeSet('spool/zantemp-1', '0700', false)";
const char kRemoving[] = "RemoveFile('spool/zantemp-1')";

/// What its parse begins with, up to the data of the upload.
const std::string kMakingUpload = R"(
    log 8: void zan_cgi::Cgi::Data::ParseQuery()
    log 8: void zan_cgi::Cgi::Data::ParseInput()
    log 9: zancgi.cpp:# POST boundary detected: true
    log 9: zancgi.cpp:# temp dir is empty, new temp dir 'spool'
    statfs spool
    log 9: zancgi.cpp:# query size ')" +
                                  std::to_string(kBody.size()) +
                                  R"(', free space in tmpdir '512000'
    ConcatPath('spool', 'zantemp')
    Tmp('spool/zantemp')
    log 8: ParseInput Creating new file spool/zantemp-1
  )" + kProtecting + "\n";

/// What removes an upload at the end of its request.
std::string Dropping(const std::string& path) {
  return "Exists('" + path + "')\n" +
         "log 9: zancgi.cpp:# dropping temporary file '" + path + "'\n" +
         "RemoveFile('" + path + "')\n";
}

std::string WarningOf(const std::string& path) {
  return "log 4: failed to remove tamporary file '" + path + "'\n";
}

/// Whether the file of the upload exists and is open.
void ReportFile() {
  const fs::path file = fs::absolute("spool/zantemp-1");
  std::string state = IsThere(file) ? "made" : "missing";
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry, gone) == file) state += ", open";
  }
  Result(state);
}

/// Parses, and reports the upload even after an exception.
void ParseAndReport(Cgi& cgi) {
  Try([&] { cgi.ParseQuery(); });
  const auto& record = RecordOf(cgi);
  Result(cgi.File("f") + ", " + std::to_string(record.files.at("f").size) +
         " bytes, " + (record.parsed ? "parsed" : "not parsed"));
}

TEST(Upload, IsMadeProtectedWrittenAndRemoved) {
  Scene scene = PostOfUpload();
  scene.effects = {{kProtecting, {ReportFile}}, {kRemoving, {ReportFile}}};
  const std::string size = std::to_string(kBody.size());
  ExpectCalls(scene, ParseAndReport,
              kMakingUpload + R"(
    = made, open
    log 9: zancgi.cpp:# End of stdin parsing, stdin state EOF false, GOOD true, read )" +
                  size + " of " + size + R"( chars
    = spool/zantemp-1, 7 bytes, parsed
  )" + Dropping("spool/zantemp-1") +
                  "= made");
}

TEST(Upload, ThatCannotBeProtectedEndsTheParse) {
  Scene scene = PostOfUpload();
  scene.effects = {{kProtecting, {Fail("not permitted")}},
                   {kRemoving, {ReportFile}}};
  ExpectCalls(scene, ParseAndReport, kMakingUpload + R"(
    throws tov_err::Error: not permitted
    = spool/zantemp-1, 0 bytes, not parsed
  )" + Dropping("spool/zantemp-1") + "= made");
}

TEST(Upload, ThatCannotBeMadeFailsAtItsFirstWriteWhateverItsRemovalDoes) {
  Scene scene = PostOfUpload();
  scene.effects = {{"Tmp('spool/zantemp')", {[] { fs::remove("spool"); }}},
                   {kProtecting, {Fail("missing")}},
                   {kRemoving, {Fail("missing")}}};
  // The rest of the body is dropped by a further read of nothing.
  ExpectCalls(scene, ParseAndReport, kMakingUpload + kRemoving + R"(
    Sleep(100)
    throws std::runtime_error: error writing temporary file
    = spool/zantemp-1, 0 bytes, parsed
    Exists('spool/zantemp-1'))");
}

/// Makes the file of the upload as large as a file may be.
void FillTheDisk() {
  constexpr rlimit kLimit{1 << 20, 1 << 20};
  ::signal(SIGXFSZ, SIG_IGN);
  EXPECT_EQ(::truncate("spool/zantemp-1", 1 << 20), 0);
  EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &kLimit), 0);
}

TEST(Upload, ThatCanNeitherBeWrittenNorRemovedEndsTheParse) {
  Scene scene = PostOfUpload();
  scene.effects = {{kProtecting, {FillTheDisk}},
                   {kRemoving, {Fail("busy"), Fail("still busy")}}};
  ExpectCalls(scene, ParseAndReport, kMakingUpload + kRemoving + R"(
    throws tov_err::Error: busy
    = spool/zantemp-1, 0 bytes, not parsed
  )" + Dropping("spool/zantemp-1") + WarningOf("spool/zantemp-1"));
}

TEST(TearDown, RemovesWhatIsThereAndGoesOnAfterAFailureOfAnyType) {
  Scene scene;
  scene.effects = {{"RemoveFile('spool/1')", {Fail("no")}},
                   {"Exists('spool/2')", {Throw(1)}}};
  ExpectCalls(
      scene,
      [](Cgi& cgi) {
        auto& files = RecordOf(cgi).files;
        files["d"].path = "spool/4";
        files["a"].path = "spool/2";
        files["c"].path = "spool/3";
        files["B"].path = "spool/1";
        for (const char* path : {"spool/1", "spool/2", "spool/4"}) {
          std::ofstream(path).put('x');
        }
      },
      Dropping("spool/1") + WarningOf("spool/1") + "Exists('spool/2')\n" +
          WarningOf("spool/2") + "Exists('spool/3')\n" + Dropping("spool/4"));
}

/// Becomes the account with two uploads, whose files do not exist.
void BecomeAlice(Cgi& cgi) {
  RecordOf(cgi).files["a"].path = "spool/2";
  RecordOf(cgi).files["B"].path = "spool/1";
  cgi.Su("alice", "", false, false);
}

const std::string kHandOver = R"(
    getpwnam alice
    ConcatPath('.', '1')
    SafeSet('spool/1', '0644 1001:1002', false)
    log 9: zancgi_unix.cpp:# moving file 'B' stored as 'spool/1' to './1'
    Move('spool/1', './1')
    ConcatPath('.', '2')
    SafeSet('spool/2', '0644 1001:1002', false)
    log 9: zancgi_unix.cpp:# moving file 'a' stored as 'spool/2' to './2'
    Move('spool/2', './2')
)";

TEST(Su, HandsTheUploadsOverBeforeTheSwitch) {
  ExpectCalls({}, BecomeAlice, kHandOver + R"(
    getpwnam alice
    chdir .
    initgroups alice 1001
    setgid 1002
    setuid 1001
    Exists('./1')
    Exists('./2'))");
}

TEST(Su, IsNotTriedAfterAHandOverThatFails) {
  Scene scene;
  scene.effects = {{"Move('spool/2', './2')", {Fail("no room")}}};
  ExpectCalls(scene, BecomeAlice, kHandOver + R"(
    throws tov_err::Error: no room
    Exists('./1')
    Exists('spool/2'))");
}

/// The calls of a query to which the back end answers with one line.
/// @param lines  the environment before it, as it is sent
std::string Asked(const std::string& query, const std::string& lines = "",
                  const std::string& service = "panel") {
  return "log 7: cgi.Query('" + query + "') tov '" + service + "'\nConnect('" +
         service + "', false)\n" + lines + "SendEnv('QUERY_STRING=" + query +
         R"(')
    SendEnv('REQUEST_METHOD=GET')
    RequestComplete()
    GetAnswer(1024) 1
    GetAnswer(1024) 2
    ~Protocol()
)";
}

/// A GET of this query string with these cookies, and with one answer for each
/// query.
Scene Get(const std::string& query, const std::string& cookies = "",
          const Strings& answers = {"a<?xml?>"}) {
  Child child;
  child.Env("REQUEST_METHOD", "GET").Env("QUERY_STRING", query);
  if (!cookies.empty()) child.Env("HTTP_COOKIE", cookies);
  return {.child = child, .answers = answers};
}

TEST(Query, SendsWhatConcernsTheBackEndInOrder) {
  Scene scene = Get("not sent", "a=1",
                    {"one\n<?xml?>" + std::string(1024, 'x') + "\nend"});
  for (const char* name :
       {"AUTH_TYPE", "CONTENT_LENGTH", "CONTENT_TYPE", "GATEWAY_INTERFACE",
        "HTTP", "HTTPS2", "PATH", "PATH_INFO", "REMOTE", "REQUEST", "SERVER",
        "http_lower", "xHTTP_A"}) {
    scene.child.Env(name, "not sent");
  }
  scene.child.Env("REQUEST_METHOD", "POST").Env("REQUEST_METHOD2", "x");
  scene.child.Env("REQUEST_URI", "/u=v").Env("REQUEST_", "x").Env("HTTP_", "x");
  scene.child.Env("HTTPS", "on").Env("REMOTE_ADDR", "r").Env("SERVER_NAME", "");
  ExpectCalls(
      scene,
      [](Cgi& cgi) { Result(std::to_string(cgi.Query("func=a").size())); },
      R"(
    Append('func=a', 'out=xml', '&')
    log 7: cgi.Query('func=a&out=xml') tov 'panel'
    Connect('panel', false)
    SendEnv('HTTPS=on')
    SendEnv('HTTP_=x')
    SendEnv('HTTP_COOKIE=a=1')
    SendEnv('QUERY_STRING=func=a&out=xml')
    SendEnv('REMOTE_ADDR=r')
    SendEnv('REQUEST_=x')
    SendEnv('REQUEST_METHOD=GET')
    SendEnv('REQUEST_METHOD2=x')
    SendEnv('REQUEST_URI=/u=v')
    SendEnv('SERVER_NAME=')
    RequestComplete()
    GetAnswer(1024) 1
    GetAnswer(1024) 2
    GetAnswer(1024) 3
    GetAnswer(1024) 4
    GetAnswer(1024) 5
    ~Protocol()
    = 1035)");
}

TEST(Query, AppendsFormatThenSessionThenSenderUnlessTheyAreThere) {
  const auto ask = [](Cgi& cgi, const std::string& query) {
    RecordOf(cgi).auth_info.method = Auth::AuthParams;
    RecordOf(cgi).auth_info.auth = "i d";
    RecordOf(cgi).params["sfrom"] = "x&y";
    cgi.SetTovName("other");
    Result(cgi.Query(query));
  };
  ExpectCalls(
      Get(""), [&](Cgi& cgi) { ask(cgi, ""); },
      R"(
    Append('', 'out=xml', '&')
    Append('&out=xml', 'auth=i d', '&')
    Append('&out=xml&auth=i d', 'sfrom=x&y', '&')
  )" + Asked("&out=xml&auth=i d&sfrom=x&y", "", "other") +
          "= <?xml?>");
  ExpectCalls(
      Get(""), [&](Cgi& cgi) { ask(cgi, "layout=1&auth=2&sfrom=3"); },
      Asked("layout=1&auth=2&sfrom=3", "", "other") + "= a<?xml?>");
}

TEST(Query, OfAMapAppendsItsFirstItemAndTheFormat) {
  ExpectCalls(
      Get(""),
      [](Cgi& cgi) {
        cgi.Query({{"b &", "x y"}, {"a", "1&2"}});
      },
      R"(
    Append('', 'a=1%262', '&')
    Append('&a=1%262&b &=x%20y', 'out=xml', '&')
  )" + Asked("&a=1%262&b &=x%20y&out=xml"));
}

TEST(Query, WithoutANameOrSessionMakesNoCall) {
  ExpectCalls(
      {},
      [](Cgi& cgi) {
        cgi.SetTovName("");
        Try([&] { cgi.Query("func=a"); });
        Try([&] { cgi.Authorize(Auth::AuthAny); });
        cgi.SetTovName("panel");
        RecordOf(cgi).auth_info.method = Auth::AuthParams;
        cgi.Query("out=json");
      },
      "throws tov_err::Missed: " +
          std::string(tov_err::Missed("tovname", "").what()) +
          "\nthrows tov_err::Missed: " + tov_err::Missed("tovname", "").what() +
          "\nthrows tov_err::Value: " + tov_err::Value("auth", "").what());
}

/// The calls of one attempt to ask "out=" in an empty environment.
const Strings kAttempt = {"Connect('panel', false)",
                          "SendEnv('QUERY_STRING=out=')",
                          "SendEnv('REQUEST_METHOD=GET')",
                          "RequestComplete()",
                          "GetAnswer(1024) 1",
                          "GetAnswer(1024) 2",
                          "GetAnswer(1024) 3"};

/// Expects so many attempts that fail at the call of this index.
/// @param errors  what is thrown in each
/// @param end     what comes after them
void ExpectAttempts(std::size_t last, const std::vector<Effect>& errors,
                    const std::string& end) {
  std::string calls = "log 7: cgi.Query('out=') tov 'panel'\n";
  for (std::size_t attempt = 0; attempt < errors.size(); ++attempt) {
    for (std::size_t i = 0; i <= last; ++i) calls += kAttempt[i] + "\n";
    if (last > 0) calls += "~Protocol()\n";
  }
  const Scene scene{.answers = Strings(4, "a\nb"),
                    .effects = {{kAttempt[last], errors}}};
  ExpectCalls(
      scene, [](Cgi& cgi) { Result(cgi.Query("out=")); }, calls + end);
}

TEST(Attempts, AreFourWhateverCallFailsUnlessTheErrorIsOfAnotherType) {
  std::string whole;
  for (const std::string& call : kAttempt) whole += call + "\n";
  whole += "~Protocol()\n= a\\nb";
  const Effect fail = Fail("early");
  for (std::size_t call = 0; call < kAttempt.size(); ++call) {
    SCOPED_TRACE(kAttempt[call]);
    ExpectAttempts(call, {fail, fail, fail}, whole);
    ExpectAttempts(call, {fail, fail, fail, Throw(tov_err::Value("v", "last"))},
                   std::string("throws tov_err::Value: ") +
                       tov_err::Value("v", "last").what());
    ExpectAttempts(call, {Throw(std::runtime_error("other"))},
                   "throws std::runtime_error: other");
    ExpectAttempts(call, {fail, Throw(std::bad_alloc())},
                   "throws std::bad_alloc: std::bad_alloc");
  }
}

const char kAlice[] = R"(<doc><user name="alice" level="7"/></doc>)";

/// Authorizes; the session in the record is the result.
void Authorize(Cgi& cgi, Auth::AuthMethod method) {
  Try([&] { cgi.Authorize(method); });
  const Auth& session = RecordOf(cgi).auth_info;
  Result("session '" + session.auth + "' by " + std::to_string(session.method));
  Result(cgi.auth().name + " " + std::to_string(session.level) + " " +
         session.lang_word + " " + session.lang_rest);
}

/// Looking for a session in the cookie, and then in the parameters.
const std::string kByCookie = "log 9: zancgi.cpp:# session cookie found\n";
const std::string kByParameter = R"(
    log 9: zancgi.cpp:# session cookie not found, trying params
    log 8: void zan_cgi::Cgi::Data::ParseQuery()
    log 8: void zan_cgi::Cgi::Data::ParseQueryString(std::string)
)";

TEST(Authorize, FindsTheSessionByItsMethod) {
  // What is beyond the named ones does not even read the cookie.
  const auto beyond = static_cast<Auth::AuthMethod>(3);
  const std::string whoami = "func=whoami&out=xml";
  const std::string by_id = "&auth=p&sfrom=x";
  const std::string appending = R"(
    Append('func=whoami&out=xml', 'auth=p', '&')
    Append('func=whoami&out=xml&auth=p', 'sfrom=x', '&')
)";
  const std::string of_cookie = "= session 's' by 1\n= alice 7  ";
  const std::string of_nobody = "= session '' by 1\n= alice 7  ";
  const std::string of_parameter = "= session 'p' by 2\n= alice 7  ";
  struct Row {
    std::vector<Auth::AuthMethod> methods;
    std::string cookies;
    /// Before the query, in the query, and after it.
    std::string search, items, result;
  };
  for (const Row& row : std::vector<Row>{
           {{Auth::AuthAny, Auth::AuthCookie},
            "panelses5=s",
            kByCookie,
            "",
            of_cookie},
           {{Auth::AuthAny},
            "panelses5=s; panellang5=a:b:c",
            kByCookie,
            "",
            "= session 's' by 1\n= alice 7 c a:b"},
           {{Auth::AuthAny, Auth::AuthParams},
            "panelses5=; a=b",
            kByParameter + appending,
            by_id,
            of_parameter},
           {{Auth::AuthAny, Auth::AuthParams},
            "",
            kByParameter + appending,
            by_id,
            of_parameter},
           {{Auth::AuthParams},
            "panelses5=s",
            kByParameter + appending,
            by_id,
            of_parameter},
           {{Auth::AuthCookie, beyond}, "other=s", kByCookie, "", of_nobody},
           {{beyond}, "panelses5=s", kByCookie, "", of_nobody}}) {
    const std::string line = "SendEnv('HTTP_COOKIE=" + row.cookies + "')\n";
    for (const Auth::AuthMethod method : row.methods) {
      SCOPED_TRACE(row.cookies + " " + std::to_string(method));
      ExpectCalls(
          Get("auth=p&sfrom=x", row.cookies, {kAlice}),
          [&](Cgi& cgi) { Authorize(cgi, method); },
          row.search +
              Asked(whoami + row.items, row.cookies.empty() ? "" : line) +
              row.result);
    }
  }
}

TEST(Authorize, WithoutASessionSendsNothing) {
  for (const Auth::AuthMethod method : {Auth::AuthAny, Auth::AuthParams}) {
    ExpectCalls(
        Get(""), [&](Cgi& cgi) { Authorize(cgi, method); },
        kByParameter +
            "throws tov_err::Value: " + tov_err::Value("auth", "").what() + R"(
    = session '' by 2
    throws std::runtime_error: not authorized)");
  }
}

TEST(Authorize, ASecondTimeTakesTheSessionForACookie) {
  const std::string refusal =
      "throws std::runtime_error: bad answer from 'panel'\n";
  ExpectCalls(
      Get("auth=p", "", {"<doc/>", "<doc/>"}),
      [](Cgi& cgi) {
        Try([&] { cgi.Authorize(Auth::AuthParams); });
        Try([&] { cgi.Authorize(Auth::AuthParams); });
      },
      kByParameter + "Append('func=whoami&out=xml', 'auth=p', '&')\n" +
          Asked("func=whoami&out=xml&auth=p") + refusal + kByCookie +
          Asked("func=whoami&out=xml") + refusal);
}

}  // namespace
}  // namespace support::trace
