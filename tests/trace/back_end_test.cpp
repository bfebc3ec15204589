// Queries and authorization.

#include <tov/err.h>

#include <new>

#include "support/record.h"
#include "support/test.h"
#include "trace/scenario.h"

namespace support::trace {
namespace {

using AuthMethod = Cgi::AuthInfo::AuthMethod;
using Map = std::map<std::string, std::string>;

/// Sends one query; the answer is the result.
Act Ask(const std::string& query) {
  return Serve([query](Cgi& cgi) { Result(cgi.Query(query)); });
}

TEST(Query, SendsWhatConcernsTheBackEndInOrder) {
  Script script{.environment = {{"HTTPS", "on"}, {"REQUEST_METHOD", "POST"}},
                .answers = {"one\n<?xml?>" + std::string(1024, 'x') + "\nend"}};
  for (const std::string name :
       {"AUTH_TYPE", "CONTENT_LENGTH", "CONTENT_TYPE", "GATEWAY_INTERFACE",
        "HTTP", "HTTPS2", "PATH", "PATH_INFO", "QUERY_STRING", "REMOTE",
        "REQUEST", "SERVER", "http_lower", "xHTTP_A"}) {
    script.environment[name] = "not sent";
  }
  script.environment.insert({{"HTTP_", "x"}, {"HTTP_COOKIE", "a=1"}});
  script.environment.insert({{"REMOTE_ADDR", "r"}, {"REQUEST_", "x"}});
  script.environment.insert({{"REQUEST_METHOD2", "x"}, {"SERVER_NAME", ""}});
  script.environment["REQUEST_URI"] = "/u=v";
  ExpectTrace(script, Serve([](Cgi& cgi) {
                Result(std::to_string(cgi.Query("func=a").size()));
              }),
              R"(
    Append('func=a', 'out=xml', '&')
    GetAllEnvs()
    zancgi 7: cgi.Query('func=a&out=xml') tov 'panel'
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
    GetAnswer(1024)
    GetAnswer(1024)
    GetAnswer(1024)
    GetAnswer(1024)
    GetAnswer(1024)
    ~Protocol()
    = 1035)");
}

/// The trace of a query that is answered by one line.
/// @param lines  the environment before it, as it is sent
std::string Asked(const std::string& query, const std::string& lines = "",
                  const std::string& service = "panel") {
  return "GetAllEnvs()\nzancgi 7: cgi.Query('" + query + "') tov '" + service +
         "'\nConnect('" + service + "', false)\n" + lines +
         "SendEnv('QUERY_STRING=" + query + R"(')
    SendEnv('REQUEST_METHOD=GET')
    RequestComplete()
    GetAnswer(1024)
    GetAnswer(1024)
    ~Protocol()
)";
}

TEST(Query, WithAllItsItemsAppendsNone) {
  ExpectTrace({.answers = {"a<?xml?>"}}, Ask("layout=1&auth=2&sfrom=3"),
              Asked("layout=1&auth=2&sfrom=3") + "= a<?xml?>");
}

TEST(Query, AppendsFormatThenSessionThenSender) {
  ExpectTrace({.answers = {"a<?xml?>"}}, Serve([](Cgi& cgi) {
                RecordOf(cgi).auth_info.method = Cgi::AuthInfo::AuthParams;
                RecordOf(cgi).auth_info.auth = "i d";
                RecordOf(cgi).params["sfrom"] = "x&y";
                cgi.SetTovName("other");
                Result(cgi.Query(""));
              }),
              R"(
    Append('', 'out=xml', '&')
    Append('&out=xml', 'auth=i d', '&')
    Append('&out=xml&auth=i d', 'sfrom=x&y', '&')
  )" + Asked("&out=xml&auth=i d&sfrom=x&y", "", "other") +
                  "= <?xml?>");
}

TEST(Query, OfAMapEncodesTheValuesInOrderOfTheNames) {
  ExpectTrace({.answers = {"x"}}, Serve([](Cgi& cgi) {
                Result(cgi.Query(Map{{"b &", "x y"}, {"a", "1&2"}}));
              }),
              R"(
    Encode('1&2')
    Append('', 'a=[1&2]', '&')
    Encode('x y')
    Append('&a=[1&2]&b &=[x y]', 'out=xml', '&')
  )" + Asked("&a=[1&2]&b &=[x y]&out=xml") +
                  "= x");
}

TEST(Query, WithoutANameOrSessionMakesNoCall) {
  ExpectTrace({}, Serve([](Cgi& cgi) {
                cgi.SetTovName("");
                cgi.Query("func=a");
              }),
              "throws tov_err::Missed: Missed(\"tovname\", \"\")");
  ExpectTrace({}, Serve([](Cgi& cgi) {
                RecordOf(cgi).auth_info.method = Cgi::AuthInfo::AuthParams;
                cgi.Query("out=json");
              }),
              "throws tov_err::Value: Value(\"auth\", \"\")");
}

/// The calls of one attempt to ask "out=" in an empty environment.
const std::vector<std::string> kAttempt = {"Connect('panel', false)",
                                           "SendEnv('QUERY_STRING=out=')",
                                           "SendEnv('REQUEST_METHOD=GET')",
                                           "RequestComplete()",
                                           "GetAnswer(1024)",
                                           "GetAnswer(1024)",
                                           "GetAnswer(1024)"};

const std::string kBeforeAttempts =
    "GetAllEnvs()\nzancgi 7: cgi.Query('out=') tov 'panel'\n";

/// The trace of an attempt that fails at its call of this number.
std::string AttemptUpTo(std::size_t last) {
  std::string text;
  for (std::size_t i = 0; i <= last; ++i) text += kAttempt[i] + "\n";
  return text + (last == 0 ? "" : "~Protocol()\n");
}

/// A script in which some attempts fail at the call of this number, the last of
/// them with this effect, and a whole one is answered by two lines.
Script FailingAt(std::size_t call, std::size_t count, const Effect& last) {
  const std::string line = kAttempt[call];
  const std::string function = line.substr(0, line.find('('));
  std::size_t before = 0;
  std::size_t all = 0;
  for (std::size_t i = 0; i < kAttempt.size(); ++i) {
    const bool is_same = kAttempt[i].starts_with(function + "(");
    if (is_same && i < call) ++before;
    if (is_same) ++all;
  }
  Script script{.answers = std::vector<std::string>(5, "a\nb")};
  std::vector<Effect>& effects = script.effects[function];
  for (std::size_t attempt = 1; attempt <= count; ++attempt) {
    effects.resize(effects.size() + before);
    effects.push_back(attempt < count ? Fail("early") : last);
  }
  return script;
}

TEST(Attempts, AreFourWhateverCallFails) {
  for (std::size_t call = 0; call < kAttempt.size(); ++call) {
    SCOPED_TRACE(kAttempt[call] + ", call " + std::to_string(call));
    std::string trace = kBeforeAttempts;
    for (int attempt = 0; attempt < 3; ++attempt) trace += AttemptUpTo(call);
    ExpectTrace(FailingAt(call, 3, Fail()), Ask("out="),
                trace + AttemptUpTo(kAttempt.size() - 1) + "= a\\nb");
    ExpectTrace(FailingAt(call, 4, Throw(tov_err::Value("v", "last"))),
                Ask("out="),
                trace + AttemptUpTo(call) +
                    "throws tov_err::Value: Value(\"v\", \"last\")");
  }
}

TEST(Attempts, EndWithAnErrorOfAnotherType) {
  for (std::size_t call = 0; call < kAttempt.size(); ++call) {
    SCOPED_TRACE(kAttempt[call]);
    ExpectTrace(FailingAt(call, 1, Throw(std::runtime_error("other"))),
                Ask("out="),
                kBeforeAttempts + AttemptUpTo(call) +
                    "throws std::runtime_error: other");
    ExpectTrace(FailingAt(call, 2, Throw(std::bad_alloc())), Ask("out="),
                kBeforeAttempts + AttemptUpTo(call) + AttemptUpTo(call) +
                    "throws std::bad_alloc: std::bad_alloc");
  }
}

const char kCookies[] = "panelses5=s; panellang5=a:b:c";
const char kAlice[] = R"(<doc><user name="alice" level="7"/></doc>)";

/// Authorizes; the session in the record is the result.
Act Authorize(AuthMethod method) {
  return Serve([method](Cgi& cgi) {
    Try([&] { cgi.Authorize(method); });
    const Cgi::AuthInfo& session = RecordOf(cgi).auth_info;
    Result("session '" + session.auth + "' by " +
           std::to_string(session.method));
    Result(cgi.auth().name + " " + std::to_string(session.level) + " " +
           session.lang_word + " " + session.lang_rest);
  });
}

/// The trace of the query for a session, up to the first look at its answer.
std::string Whoami(const std::string& query, const std::string& lines,
                   const std::string& answer) {
  return Asked(query, lines) + "LoadFromString('" + answer +
         "')\nGetNode('/doc/error')\n";
}

/// The same of a session in the cookie.
std::string WhoamiByCookie(const std::string& answer) {
  return "zancgi 9: [zancgi.cpp]:# session cookie found\n" +
         Whoami("func=whoami&out=xml",
                std::string("SendEnv('HTTP_COOKIE=") + kCookies + "')\n",
                answer);
}

/// Of the user's attributes either may be read first.
const char kUser[] = R"(
    GetNode('/doc/user')
    | /doc/user.GetProp('name')
    | /doc/user.GetProp('level')
    | Int('7')
)";

TEST(Authorize, ByTheCookieAlsoReadsTheLanguage) {
  for (const AuthMethod method :
       {Cgi::AuthInfo::AuthAny, Cgi::AuthInfo::AuthCookie}) {
    ExpectTrace(
        {.environment = {{"HTTP_COOKIE", kCookies}}, .answers = {kAlice}},
        Authorize(method), WhoamiByCookie(kAlice) + kUser + R"(
    RGetWord('a:b:c', ':')
    = session 's' by 1
    = alice 7 c a:b)");
  }
}

TEST(Authorize, ByAParameterParsesTheRequestFirst) {
  struct Case {
    AuthMethod method;
    /// None that counts.
    std::string cookies;
  };
  for (const Case& by : {Case{Cgi::AuthInfo::AuthAny, ""},
                         {Cgi::AuthInfo::AuthAny, "panelses5=; a=b"},
                         {Cgi::AuthInfo::AuthParams, "panelses5=s"}}) {
    Script script = Get("auth=p&sfrom=x");
    script.answers = {kAlice};
    std::string lines;
    if (!by.cookies.empty()) {
      script.environment["HTTP_COOKIE"] = by.cookies;
      lines = "SendEnv('HTTP_COOKIE=" + by.cookies + "')\n";
    }
    ExpectTrace(script, Authorize(by.method),
                R"(
    zancgi 9: [zancgi.cpp]:# session cookie not found, trying params
    zancgi 8: void zan_cgi::Cgi::Data::ParseQuery()
    zancgi 8: void zan_cgi::Cgi::Data::ParseQueryString(std::string)
    Append('func=whoami&out=xml', 'auth=p', '&')
    Append('func=whoami&out=xml&auth=p', 'sfrom=x', '&')
  )" + Whoami("func=whoami&out=xml&auth=p&sfrom=x", lines, kAlice) +
                    kUser + "= session 'p' by 2\n= alice 7  ");
  }
}

TEST(Authorize, WithoutASessionSendsNothing) {
  for (const AuthMethod method :
       {Cgi::AuthInfo::AuthAny, Cgi::AuthInfo::AuthParams}) {
    ExpectTrace(Get(""), Authorize(method), R"(
    zancgi 9: [zancgi.cpp]:# session cookie not found, trying params
    zancgi 8: void zan_cgi::Cgi::Data::ParseQuery()
    zancgi 8: void zan_cgi::Cgi::Data::ParseQueryString(std::string)
    throws tov_err::Value: Value("auth", "")
    = session '' by 2
    throws std::runtime_error: not authorized)");
  }
}

TEST(Authorize, ByAMissingCookieAsksForAnEmptySession) {
  // A method beyond the named ones does not even read the cookie.
  for (const auto& [method, cookie] :
       {std::pair(Cgi::AuthInfo::AuthCookie, "other=s"),
        std::pair(static_cast<AuthMethod>(3), "panelses5=s")}) {
    Script script = Get("auth=p");
    script.environment["HTTP_COOKIE"] = cookie;
    script.answers = {kAlice};
    const std::string line =
        std::string("SendEnv('HTTP_COOKIE=") + cookie + "')\n";
    ExpectTrace(script, Authorize(method),
                "zancgi 9: [zancgi.cpp]:# session cookie found\n" +
                    Whoami("func=whoami&out=xml", line, kAlice) + kUser +
                    "= session '' by 1\n= alice 7  ");
  }
}

TEST(Authorize, WithoutAServiceMakesNoCall) {
  ExpectTrace({.environment = {{"HTTP_COOKIE", "ses5=s"}}}, Serve([](Cgi& cgi) {
                cgi.SetTovName("");
                Try([&] { cgi.Authorize(Cgi::AuthInfo::AuthAny); });
                cgi.auth();
              }),
              "throws tov_err::Missed: Missed(\"tovname\", \"\")\n"
              "throws std::runtime_error: not authorized");
}

TEST(Authorize, NamesTheRefusalBeforeItLooksForTheUser) {
  struct Case {
    const char* answer;
    const char* calls;
    const char* error;
  };
  const char kType[] = "/doc/error.GetProp('type')\n";
  for (const Case& refused :
       {Case{R"(<doc><user name="a" level="9"/><error type="access"/></doc>)",
             kType, "You do not authorized for this operation"},
        Case{R"(<doc><error type="other"/></doc>)", kType,
             "unknown authorization error"},
        Case{R"(<doc><error code="access"/></doc>)", kType,
             "unknown authorization error"},
        Case{"<doc/>", "GetNode('/doc/user')\n", "bad answer from 'panel'"}}) {
    ExpectTrace({.environment = {{"HTTP_COOKIE", kCookies}},
                 .answers = {refused.answer}},
                Authorize(Cgi::AuthInfo::AuthAny),
                WhoamiByCookie(refused.answer) + refused.calls +
                    "throws std::runtime_error: " + refused.error +
                    "\n= session 's' by 1\n"
                    "throws std::runtime_error: not authorized");
  }
}

TEST(Authorize, FailsWhereAnAnswerCannotBeRead) {
  for (const auto& [function, calls] : {std::pair("Int", std::string(kUser)),
                                        std::pair("GetNode", std::string())}) {
    Script script{.environment = {{"HTTP_COOKIE", kCookies}},
                  .answers = {kAlice}};
    script.effects[function] = {Fail("unreadable")};
    ExpectTrace(script, Authorize(Cgi::AuthInfo::AuthAny),
                WhoamiByCookie(kAlice) + calls + R"(
    throws tov_err::Error: unreadable
    = session 's' by 1
    throws std::runtime_error: not authorized)");
  }
}

TEST(Authorize, ASecondTimeTakesTheSessionForACookie) {
  Script script = Get("auth=p");
  script.answers = {"<doc/>", "<doc/>"};
  const std::string refusal =
      "GetNode('/doc/user')\n"
      "throws std::runtime_error: bad answer from 'panel'\n";
  ExpectTrace(script, Serve([](Cgi& cgi) {
                Try([&] { cgi.Authorize(Cgi::AuthInfo::AuthParams); });
                Try([&] { cgi.Authorize(Cgi::AuthInfo::AuthParams); });
              }),
              R"(
    zancgi 9: [zancgi.cpp]:# session cookie not found, trying params
    zancgi 8: void zan_cgi::Cgi::Data::ParseQuery()
    zancgi 8: void zan_cgi::Cgi::Data::ParseQueryString(std::string)
    Append('func=whoami&out=xml', 'auth=p', '&')
  )" + Whoami("func=whoami&out=xml&auth=p", "", "<doc/>") +
                  refusal + "zancgi 9: [zancgi.cpp]:# session cookie found\n" +
                  Whoami("func=whoami&out=xml", "", "<doc/>") + refusal);
}

}  // namespace
}  // namespace support::trace
