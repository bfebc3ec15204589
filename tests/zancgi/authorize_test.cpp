#include <gtest/gtest.h>
#include <tov/err.h>
#include <zancgi/testing/child.h>
#include <zancgi/zancgi.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
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
using zan_cgi::testing::Reporter;
using zan_cgi::testing::Reset;
using zan_cgi::testing::Step;
using Pair = std::pair<std::string, std::string>;

constexpr char kAlice[] = R"(<doc><user name="alice" level="7"/></doc>)";

Child Request() { return Child().Env("REQUEST_METHOD", "GET"); }

void TellSession(const Reporter& report, const Cgi& cgi) {
  const Cgi::AuthInfo& session = cgi.auth();
  report("name", session.name);
  report("level", std::to_string(session.level));
  report("language", session.lang_word + " " + session.lang_rest);
}

/// Authorizes by the cookie of a session, which the back end answers like this
/// at each attempt.
/// @param cookies  further ones
Outcome Authorize(const Step& step, const std::string& cookies = "") {
  Backend backend;
  backend.Times(4, step);
  return Request()
      .Env("HTTP_COOKIE", "backendses5=s" + cookies)
      .With(backend)
      .Run([](const Reporter& report) {
        Cgi cgi("/bin/front", "backend");
        try {
          cgi.Authorize(Cgi::AuthInfo::AuthAny);
        } catch (...) {
          EXPECT_THROW(cgi.auth(), std::runtime_error);
          throw;
        }
        TellSession(report, cgi);
      });
}

// The parameters are read before the method is noted.
TEST(Authorize, ThatCannotReadTheParametersLeavesTheMethodOpen) {
  Backend backend;
  backend.Then(Answer("<doc/>"));
  const Outcome outcome =
      Child()
          .Env("REQUEST_METHOD", "HEAD")
          .With(backend)
          .Run([](const Reporter&) {
            Cgi cgi("/bin/front", "backend");
            EXPECT_THROW(cgi.Authorize(Cgi::AuthInfo::AuthParams),
                         std::runtime_error);
            EXPECT_EQ(cgi.Query("func=list"), "<doc/>");
          });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(backend.Queries().at(0)["QUERY_STRING"], "func=list&out=xml");
}

TEST(Authorize, ThatTheBackEndRefusesNamesTheReasonAndAuthorizesNobody) {
  const std::string refused = "You do not authorized for this operation";
  const std::string unknown = "unknown authorization error";
  const std::string bad = "bad answer from 'backend'";
  for (const auto& [answer, error] : std::vector<Pair>{
           {R"(<doc><error type="access"/></doc>)", refused},
           {R"(<doc><user name="a" level="7"/><error type="access"/></doc>)",
            refused},
           {R"(<doc><error type="other"/></doc>)", unknown},
           {"<doc><error/></doc>", unknown},
           {"<doc/>", bad},
           {"no xml", bad},
           {R"(<other><user name="a" level="7"/></other>)", bad},
           {R"(<doc><user name="a" level="7"/><err)", bad},
           {R"(<doc><user name="a" level="7"/></doc><doc/>)", bad},
           {R"(<doc><user name="a" level="7"/></doc>junk)", bad},
           {"\n", bad}}) {
    const Outcome outcome = Authorize(Answer(answer));
    EXPECT_EQ(outcome.status, 0) << answer << outcome.standard_error;
    EXPECT_EQ(outcome.error_type, "std::runtime_error") << answer;
    EXPECT_EQ(outcome.error, error) << answer;
  }
}

TEST(Authorize, WithoutAWholeAnswerAuthorizesNobody) {
  for (const Step& step : {Answer(""), Refuse(), Reset(), CloseSilently(),
                           AnswerThenReset(kAlice)}) {
    const Outcome outcome = Authorize(step);
    EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
    EXPECT_EQ(outcome.error_type, "tov_err::Error") << step.answer;
  }
}

TEST(Authorize, TakesALevelForWhatItIs) {
  for (const auto& [written, level] :
       std::vector<Pair>{{"7", "7"},
                         {"", "0"},
                         {"abc", "0"},
                         {"-2", "-2"},
                         {"99999999999", "2147483647"}}) {
    Outcome outcome = Authorize(
        Answer("<doc><user name=\"a\" level=\"" + written + "\"/></doc>"));
    EXPECT_EQ(outcome.reported["level"], level) << written;
  }
}

TEST(Authorize, SplitsTheLanguageCookieAtItsLastColon) {
  for (const auto& [cookie, parts] : std::vector<Pair>{
           {"x:y", "y x"}, {"a:b:c", "c a:b"}, {":", " "}, {"en", " "}}) {
    Outcome outcome = Authorize(Answer(kAlice), "; backendlang5=" + cookie);
    EXPECT_EQ(outcome.reported["language"], parts) << cookie;
  }
}

TEST(Authorize, KeepsSessionAndMethodWhenTheBackEndFails) {
  Backend backend;
  const Outcome outcome = Request()
                              .Env("QUERY_STRING", "auth=xyz")
                              .With(backend)
                              .Run([&](const Reporter& report) {
                                zan_cgi::Cgi cgi("/bin/front", "backend");
                                try {
                                  cgi.Authorize(Cgi::AuthInfo::AuthAny);
                                } catch (const tov_err::Error&) {
                                  report("failed", "yes");
                                }
                                cgi.Query("func=x");
                              });
  EXPECT_EQ(outcome.reported.at("failed"), "yes");
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
                              .Run([](const Reporter& report) {
                                Cgi cgi("/bin/front", "backend");
                                cgi.Authorize(Cgi::AuthInfo::AuthAny);
                                try {
                                  cgi.Authorize(Cgi::AuthInfo::AuthAny);
                                } catch (const std::runtime_error& error) {
                                  report("second", error.what());
                                }
                                TellSession(report, Cgi(cgi));
                              });
  EXPECT_EQ(outcome.reported.at("second"), "bad answer from 'backend'");
  EXPECT_EQ(outcome.reported.at("name"), "alice");
}

TEST(Auth, OfAFreshObjectIsRefused) {
  const Outcome outcome = Request().Run([](const Reporter& report) {
    TellSession(report, Cgi("/bin/front", "backend"));
  });
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "not authorized");
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
          .Run([](const Reporter& report) {
            Cgi cgi("/bin/front", "backend");
            cgi.Authorize(Cgi::AuthInfo::AuthAny);
            for (const char* const name : {"one", "none"}) {
              cgi.SetTovName(name);
              cgi.Authorize(Cgi::AuthInfo::AuthAny);
              report(name, cgi.auth().lang_word + " " + cgi.auth().lang_rest);
            }
          });
  EXPECT_EQ(outcome.reported.at("one"), "y x");
  EXPECT_EQ(outcome.reported.at("none"), "y x");
}

}  // namespace
