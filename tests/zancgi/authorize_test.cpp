#include <gtest/gtest.h>
#include <tov/err.h>
#include <zancgi/testing/child.h>
#include <zancgi/zancgi.h>

#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/backend.h"

namespace {

using support::Backend;
using zan_cgi::Cgi;
using zan_cgi::testing::Answer;
using zan_cgi::testing::AnswerThenReset;
using zan_cgi::testing::Child;
using zan_cgi::testing::CloseSilently;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Refuse;
using zan_cgi::testing::Reset;
using zan_cgi::testing::Step;
using zan_cgi::testing::Told;
using AuthMethod = Cgi::AuthInfo::AuthMethod;

constexpr char kAlice[] = R"(<doc><user name="alice" level="7"/></doc>)";

Child Request() { return Child().Env("REQUEST_METHOD", "GET"); }

void TellSession(const Told& told, const Cgi& cgi) {
  const Cgi::AuthInfo& session = cgi.auth();
  told("auth", session.auth);
  told("name", session.name);
  told("level", std::to_string(session.level));
  told("method", std::to_string(session.method));
  told("lang_word", session.lang_word);
  told("lang_rest", session.lang_rest);
}

Outcome Authorize(const Child& request, AuthMethod method) {
  return request.Run([method](const Told& told) {
    Cgi cgi("/bin/front", "backend");
    cgi.Authorize(method);
    TellSession(told, cgi);
  });
}

/// The error of an authorization that the back end answers like this.
std::string ErrorFor(const std::string& answer) {
  Backend backend;
  backend.Then(Answer(answer));
  const Outcome outcome =
      Authorize(Request().Env("HTTP_COOKIE", "backendses5=s").With(backend),
                Cgi::AuthInfo::AuthAny);
  EXPECT_EQ(outcome.error_type, "std::runtime_error") << outcome.error;
  EXPECT_TRUE(outcome.told.empty());
  return outcome.error;
}

std::string QueryOf(const Backend& backend, std::size_t number = 0) {
  return backend.Queries().at(number)["QUERY_STRING"];
}

TEST(Authorize, TakesTheSessionFromTheCookie) {
  Backend backend;
  backend.Then(Answer(kAlice));
  Outcome outcome =
      Authorize(Request().Env("HTTP_COOKIE", "backendses5=abc").With(backend),
                Cgi::AuthInfo::AuthAny);
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.told["auth"], "abc");
  EXPECT_EQ(outcome.told["method"], "1");
  EXPECT_EQ(outcome.told["name"], "alice");
  EXPECT_EQ(outcome.told["level"], "7");
  EXPECT_EQ(QueryOf(backend), "func=whoami&out=xml");
  ASSERT_EQ(outcome.Logged(9).size(), 2U);
  EXPECT_TRUE(outcome.Logged(9)[1].starts_with("zancgi.cpp:"));
  EXPECT_TRUE(outcome.Logged(9)[1].ends_with(" session cookie found"));
}

TEST(Authorize, TakesTheSessionFromTheParametersWithoutACookie) {
  Backend backend;
  backend.Then(Answer(kAlice));
  Outcome outcome = Authorize(
      Request().Env("QUERY_STRING", "auth=xyz&sfrom=a%26b").With(backend),
      Cgi::AuthInfo::AuthAny);
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.told["auth"], "xyz");
  EXPECT_EQ(outcome.told["method"], "2");
  EXPECT_EQ(QueryOf(backend), "func=whoami&out=xml&auth=xyz&sfrom=a&b");
  ASSERT_EQ(outcome.Logged(9).size(), 2U);
  EXPECT_TRUE(outcome.Logged(9)[1].ends_with(
      " session cookie not found, trying params"));
}

// The parameters are read before the method is noted.
TEST(Authorize, ThatCannotReadTheParametersLeavesTheMethodOpen) {
  Backend backend;
  backend.Then(Answer("<doc/>"));
  const Outcome outcome =
      Child().Env("REQUEST_METHOD", "HEAD").With(backend).Run([](const Told&) {
        Cgi cgi("/bin/front", "backend");
        EXPECT_THROW(cgi.Authorize(Cgi::AuthInfo::AuthParams),
                     std::runtime_error);
        EXPECT_EQ(cgi.Query("func=list"), "<doc/>");
      });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(QueryOf(backend), "func=list&out=xml");
}

TEST(Authorize, WithParamsOnlyDoesNotReadTheCookie) {
  Backend backend;
  backend.Then(Answer(kAlice));
  Outcome outcome = Authorize(Request()
                                  .Env("QUERY_STRING", "auth=xyz")
                                  .Env("HTTP_COOKIE", "backendses5=abc")
                                  .With(backend),
                              Cgi::AuthInfo::AuthParams);
  EXPECT_EQ(outcome.told["auth"], "xyz");
  EXPECT_EQ(outcome.told["method"], "2");
}

TEST(Authorize, WithoutAnySessionFailsBeforeAnythingIsSent) {
  for (const AuthMethod method :
       {Cgi::AuthInfo::AuthAny, Cgi::AuthInfo::AuthParams}) {
    Backend backend;
    Outcome outcome = Request().With(backend).Run([&](const Told& told) {
      Cgi cgi("/bin/front", "backend");
      try {
        cgi.Authorize(method);
      } catch (const tov_err::Value& error) {
        told("what", error.what());
      }
      TellSession(told, cgi);
    });
    EXPECT_EQ(outcome.told["what"], tov_err::Value("auth", "").what());
    EXPECT_EQ(outcome.error, "not authorized");
    EXPECT_EQ(backend.Attempts(), 0U);
    EXPECT_TRUE(outcome.Logged(7).empty());
  }
}

TEST(Authorize, WithCookieOnlyAsksForAnEmptySession) {
  // A value beyond the named ones does not even read the cookie.
  for (const auto method :
       {Cgi::AuthInfo::AuthCookie, static_cast<AuthMethod>(7)}) {
    const bool named = method == Cgi::AuthInfo::AuthCookie;
    Backend backend;
    backend.Then(Answer(kAlice));
    Outcome outcome =
        Authorize(Request()
                      .Env("QUERY_STRING", "auth=xyz")
                      .Env("HTTP_COOKIE", named ? "other=1" : "backendses5=abc")
                      .With(backend),
                  method);
    EXPECT_EQ(outcome.told["auth"], "");
    EXPECT_EQ(outcome.told["method"], "1");
    EXPECT_EQ(QueryOf(backend), "func=whoami&out=xml");
    EXPECT_TRUE(outcome.Logged(9).at(1).ends_with(" session cookie found"));
    // The parameters were not even parsed.
    EXPECT_EQ(outcome.Logged(8).size(), 1U);
  }
}

TEST(Authorize, ASecondTimeTakesAKnownSessionForACookie) {
  Backend backend;
  backend.Times(3, Answer(kAlice));
  const Outcome outcome = Request()
                              .Env("QUERY_STRING", "auth=xyz")
                              .With(backend)
                              .Run([](const Told& told) {
                                Cgi cgi("/bin/front", "backend");
                                cgi.Authorize(Cgi::AuthInfo::AuthParams);
                                cgi.Authorize(Cgi::AuthInfo::AuthParams);
                                TellSession(told, cgi);
                                cgi.Query("func=x");
                              });
  EXPECT_EQ(outcome.told.at("method"), "1");
  EXPECT_EQ(outcome.told.at("auth"), "xyz");
  EXPECT_EQ(QueryOf(backend, 0), "func=whoami&out=xml&auth=xyz");
  EXPECT_EQ(QueryOf(backend, 1), "func=whoami&out=xml");
  EXPECT_EQ(QueryOf(backend, 2), "func=x&out=xml");
}

TEST(Authorize, WithoutABackEndNameChangesNothing) {
  const Outcome outcome =
      Request().Env("HTTP_COOKIE", "ses5=abc").Run([](const Told& told) {
        Cgi cgi("/bin/front", "");
        try {
          cgi.Authorize(Cgi::AuthInfo::AuthAny);
        } catch (const tov_err::Missed& error) {
          told("what", error.what());
        }
      });
  EXPECT_EQ(outcome.told.at("what"), tov_err::Missed("tovname", "").what());
  EXPECT_EQ(outcome.Logged(9).size(), 1U);
}

TEST(Authorize, NamesTheRefusal) {
  EXPECT_EQ(ErrorFor(R"(<doc><error type="access"/></doc>)"),
            "You do not authorized for this operation");
  EXPECT_EQ(ErrorFor(R"(<doc><user name="a" level="7"/>)"
                     R"(<error type="access"/></doc>)"),
            "You do not authorized for this operation");
  EXPECT_EQ(ErrorFor(R"(<doc><error type="other"/></doc>)"),
            "unknown authorization error");
  EXPECT_EQ(ErrorFor("<doc><error/></doc>"), "unknown authorization error");
}

/// What auth() says after an authorization that fails.
std::string AuthAfterFailure(const Child& request, AuthMethod method,
                             const std::string& tov_name = "backend") {
  const Outcome outcome = request.Run([&](const Told& told) {
    Cgi cgi("/bin/front", tov_name);
    try {
      cgi.Authorize(method);
    } catch (const std::exception& error) {
      told("failed", error.what());
    }
    try {
      told("name", cgi.auth().name);
    } catch (const std::runtime_error& error) {
      told("auth", error.what());
    }
  });
  EXPECT_TRUE(outcome.told.contains("failed"));
  EXPECT_FALSE(outcome.told.contains("name"));
  return outcome.told.at("auth");
}

TEST(Authorize, ThatTheBackEndRefusesAuthorizesNobody) {
  for (const Step& step :
       {Answer(R"(<doc><error type="access"/></doc>)"),
        Answer(R"(<doc><error type="other"/></doc>)"),
        Answer(
            R"(<doc><user name="a" level="7"/><error type="access"/></doc>)"),
        Answer("<doc/>"), Answer("no xml"), Answer(""), Refuse(), Reset(),
        CloseSilently(), AnswerThenReset(kAlice)}) {
    Backend backend;
    backend.Times(4, step);
    EXPECT_EQ(AuthAfterFailure(
                  Request().Env("HTTP_COOKIE", "backendses5=s").With(backend),
                  Cgi::AuthInfo::AuthAny),
              "not authorized")
        << step.answer;
  }
}

TEST(Authorize, ThatAsksNoBackEndAuthorizesNobody) {
  EXPECT_EQ(AuthAfterFailure(Request().Env("HTTP_COOKIE", "ses5=s"),
                             Cgi::AuthInfo::AuthAny, ""),
            "not authorized");
  for (const AuthMethod method :
       {Cgi::AuthInfo::AuthAny, Cgi::AuthInfo::AuthParams}) {
    EXPECT_EQ(AuthAfterFailure(Request(), method), "not authorized");
  }
}

TEST(Authorize, NamesABadAnswer) {
  for (const std::string answer :
       {"<doc/>", "no xml", R"(<other><user name="a" level="7"/></other>)",
        R"(<doc><user name="a" level="7"/><err)",
        R"(<doc><user name="a" level="7"/></doc><doc/>)",
        R"(<doc><user name="a" level="7"/></doc>junk)", "\n"}) {
    EXPECT_EQ(ErrorFor(answer), "bad answer from 'backend'") << answer;
  }
}

TEST(Authorize, TakesALevelForWhatItIs) {
  const std::vector<std::pair<std::string, std::string>> levels = {
      {"7", "7"},
      {"", "0"},
      {"abc", "0"},
      {"-2", "-2"},
      {"99999999999", "2147483647"}};
  for (const auto& [written, expected] : levels) {
    Backend backend;
    backend.Then(
        Answer("<doc><user name=\"a\" level=\"" + written + "\"/></doc>"));
    Outcome outcome =
        Authorize(Request().Env("HTTP_COOKIE", "backendses5=s").With(backend),
                  Cgi::AuthInfo::AuthAny);
    EXPECT_EQ(outcome.told["level"], expected);
  }
}

TEST(Authorize, SplitsTheLanguageCookieAtItsLastColon) {
  struct Case {
    std::string cookie, word, rest;
  };
  for (const Case& language : {Case{"x:y", "y", "x"}, Case{"a:b:c", "c", "a:b"},
                               Case{":", "", ""}, Case{"en", "", ""}}) {
    Backend backend;
    backend.Then(Answer(kAlice));
    Outcome outcome =
        Authorize(Request()
                      .Env("HTTP_COOKIE",
                           "backendses5=s; backendlang5=" + language.cookie)
                      .With(backend),
                  Cgi::AuthInfo::AuthAny);
    EXPECT_EQ(outcome.told["lang_word"], language.word) << language.cookie;
    EXPECT_EQ(outcome.told["lang_rest"], language.rest) << language.cookie;
  }
}

TEST(Authorize, KeepsSessionAndMethodWhenTheBackEndFails) {
  Backend backend;
  const Outcome outcome = Request()
                              .Env("QUERY_STRING", "auth=xyz")
                              .With(backend)
                              .Run([&](const Told& told) {
                                zan_cgi::Cgi cgi("/bin/front", "backend");
                                try {
                                  cgi.Authorize(Cgi::AuthInfo::AuthAny);
                                } catch (const tov_err::Error&) {
                                  told("failed", "yes");
                                }
                                cgi.Query("func=x");
                              });
  EXPECT_EQ(outcome.told.at("failed"), "yes");
  EXPECT_EQ(backend.Attempts(), 8U);
  // The next query carries the session.
  EXPECT_EQ(outcome.Logged(7).at(1),
            "cgi.Query('func=x&out=xml&auth=xyz') tov 'backend'");
}

TEST(Authorize, LeavesAnEarlierSuccessStanding) {
  Backend backend;
  backend.Then(Answer(kAlice)).Then(Answer("<doc/>"));
  const Outcome outcome = Request()
                              .Env("HTTP_COOKIE", "backendses5=s")
                              .With(backend)
                              .Run([](const Told& told) {
                                Cgi cgi("/bin/front", "backend");
                                cgi.Authorize(Cgi::AuthInfo::AuthAny);
                                try {
                                  cgi.Authorize(Cgi::AuthInfo::AuthAny);
                                } catch (const std::runtime_error& error) {
                                  told("second", error.what());
                                }
                                TellSession(told, Cgi(cgi));
                              });
  EXPECT_EQ(outcome.told.at("second"), "bad answer from 'backend'");
  EXPECT_EQ(outcome.told.at("name"), "alice");
}

TEST(Auth, OfAFreshObjectIsRefused) {
  const Outcome outcome = Request().Run([](const Told& told) {
    TellSession(told, Cgi("/bin/front", "backend"));
  });
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "not authorized");
}

TEST(Authorize, WithAnEmptyCookieTakesTheSessionFromTheParameters) {
  Backend backend;
  backend.Then(Answer(kAlice));
  Outcome outcome = Authorize(Request()
                                  .Env("QUERY_STRING", "auth=xyz")
                                  .Env("HTTP_COOKIE", "backendses5=; a=b")
                                  .With(backend),
                              Cgi::AuthInfo::AuthAny);
  EXPECT_EQ(outcome.told["auth"], "xyz");
  EXPECT_EQ(outcome.told["method"], "2");
  EXPECT_EQ(QueryOf(backend), "func=whoami&out=xml&auth=xyz");
}

TEST(Authorize, LeavesAnEarlierLanguageWithoutAColon) {
  Backend backend;
  backend.Times(3, Answer(kAlice));
  // The back end under other names, which other cookies are named after.
  for (const std::string name : {"one", "none"}) {
    std::filesystem::create_symlink(backend.SocketPath(),
                                    backend.RunDir() + "/" + name + ".sock");
  }
  const Outcome outcome =
      Request()
          .Env("HTTP_COOKIE", "backendses5=s; backendlang5=x:y; onelang5=en")
          .With(backend)
          .Run([](const Told& told) {
            Cgi cgi("/bin/front", "backend");
            cgi.Authorize(Cgi::AuthInfo::AuthAny);
            for (const char* const name : {"one", "none"}) {
              cgi.SetTovName(name);
              cgi.Authorize(Cgi::AuthInfo::AuthAny);
              told(name, cgi.auth().lang_word + " " + cgi.auth().lang_rest);
            }
          });
  EXPECT_EQ(outcome.told.at("one"), "y x");
  EXPECT_EQ(outcome.told.at("none"), "y x");
}

}  // namespace
