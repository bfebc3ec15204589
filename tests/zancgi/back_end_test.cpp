// What the back end is asked, what comes of its answers, and whom it
// authorizes.

#include <tov/err.h>

#include "support/backend.h"
#include "support/record.h"
#include "support/test.h"

namespace support {
namespace {

using Pair = std::pair<std::string, std::string>;

Child Request() { return Child().Env("REQUEST_METHOD", "GET"); }

/// Asks once; reports the "answer".
Outcome Ask(const Child& request, const std::string& query) {
  return request.Run([query](const Reporter& report) {
    Cgi cgi("/bin/front", "backend");
    report("answer", cgi.Query(query));
  });
}

/// The query as the back end gets it.
std::string Sent(const std::string& query) {
  Backend backend;
  backend.Then(Answer("x"));
  const Outcome outcome = Ask(Request().With(backend), query);
  EXPECT_EQ(outcome.error, "");
  return backend.Queries().at(0)["QUERY_STRING"];
}

/// What the front end gets of an answer.
std::string Received(const std::string& query, const Step& step) {
  Backend backend;
  backend.Then(step);
  Outcome outcome = Ask(Request().With(backend), query);
  EXPECT_EQ(outcome.error, "");
  EXPECT_TRUE(outcome.leaked_descriptors.empty());
  return outcome.reported["answer"];
}

TEST(Query, AsksForXmlUnlessAFormatIsNamed) {
  EXPECT_EQ(Sent("func=a"), "func=a&out=xml");
  EXPECT_EQ(Sent("func=a&out=json"), "func=a&out=json");
  EXPECT_EQ(Sent("func=whoami&out=xml"), "func=whoami&out=xml");
  EXPECT_EQ(Sent(""), "out=xml");
}

TEST(Query, CarriesSfromAfterTheParametersAreParsed) {
  Backend backend;
  backend.Times(3, Answer("x"));
  Request()
      .Env("QUERY_STRING", "sfrom=a%26b%3D1")
      .With(backend)
      .Run([](const Reporter&) {
        Cgi cgi("/bin/front", "backend");
        cgi.Query("func=a");
        cgi.ParseQuery();
        cgi.Query("func=a");
        cgi.Query("func=a&xsfrom=2");
      });
  ASSERT_EQ(backend.Queries().size(), 3U);
  EXPECT_EQ(backend.Queries()[0]["QUERY_STRING"], "func=a&out=xml");
  EXPECT_EQ(backend.Queries()[1]["QUERY_STRING"], "func=a&out=xml&sfrom=a&b=1");
  EXPECT_EQ(backend.Queries()[2]["QUERY_STRING"], "func=a&xsfrom=2&out=xml");
}

TEST(Query, CarriesTheSessionOfTheParameters) {
  Backend backend;
  backend.Then(Answer(R"(<doc><user name="a" level="1"/></doc>)"))
      .Times(2, Answer("x"));
  Request()
      .Env("QUERY_STRING", "auth=id%20")
      .With(backend)
      .Run([](const Reporter&) {
        Cgi cgi("/bin/front", "backend");
        cgi.Authorize(Cgi::AuthInfo::AuthParams);
        cgi.Query("func=a");
        cgi.Query("func=a&auth=other");
      });
  ASSERT_EQ(backend.Queries().size(), 3U);
  EXPECT_EQ(backend.Queries()[1]["QUERY_STRING"], "func=a&out=xml&auth=id ");
  EXPECT_EQ(backend.Queries()[2]["QUERY_STRING"], "func=a&auth=other&out=xml");
}

TEST(Query, WithItsOwnAuthIsNotRefusedForAnEmptySession) {
  Backend backend;
  backend.Then(Answer("x"));
  const Outcome outcome =
      Request().With(backend).Run([](const Reporter& report) {
        Cgi cgi("/bin/front", "backend");
        try {
          cgi.Authorize(Cgi::AuthInfo::AuthParams);
        } catch (const tov_err::Value& error) {
          report("refused", error.what());
        }
        report("answer", cgi.Query("func=a&auth=other"));
        cgi.Query("func=a");
      });
  EXPECT_EQ(outcome.reported.at("refused"), tov_err::Value("auth", "").what());
  EXPECT_EQ(outcome.reported.at("answer"), "x");
  EXPECT_EQ(outcome.error_type, "tov_err::Value");
  EXPECT_EQ(outcome.error, tov_err::Value("auth", "").what());
  EXPECT_EQ(backend.Attempts(), 1U);
}

TEST(Query, OfAMapEncodesValuesAndNotNames) {
  Backend backend;
  backend.Times(2, Answer("x"));
  Request().With(backend).Run([](const Reporter&) {
    Cgi cgi("/bin/front", "backend");
    cgi.Query(std::map<std::string, std::string>{{"b", "x y"}, {"a&", "1&2"}});
    cgi.Query(std::map<std::string, std::string>{});
  });
  EXPECT_EQ(backend.Queries().at(0)["QUERY_STRING"],
            "a&=1%262&b=x%20y&out=xml");
  EXPECT_EQ(backend.Queries().at(1)["QUERY_STRING"], "out=xml");
}

TEST(Answer, InXmlBeginsAtItsDeclaration) {
  const std::string xml = "<?xml version=\"1.0\"?><doc/>\n";
  EXPECT_EQ(Received("f=1", Answer(xml)), xml);
  EXPECT_EQ(Received("f=1", Answer("A: b\r\n\r\n" + xml)), xml);
  EXPECT_EQ(Received("f=1", AnswerByteByByte("A: b\r\n\r\n" + xml)), xml);
  EXPECT_EQ(Received("f=1", Answer("A: b\r\n\r\n<doc/>")),
            "A: b\r\n\r\n<doc/>");
  const std::string twice = xml + "<!-- <?xml version=\"1.0\"?> -->";
  EXPECT_EQ(Received("f=1", Answer("A: b\r\n\r\n" + twice)), twice);
}

/// A record of which no field is as it was at first.
void FillRecord(Cgi::Data& record) {
  record.tmp_dir = "spool";
  record.files["f"] = {"/nowhere/f", 5};
  record.authorized = true;
  record.auth_info = {"id", "alice", "x", "y", 7, Cgi::AuthInfo::AuthParams};
}

/// Sends a query to a back end that takes this step at each attempt. Reporter
/// are the record before and after it.
Outcome AskWithFullRecord(const Step& step,
                          const std::function<void(Cgi::Data&)>& change) {
  Backend backend;
  backend.Times(4, step);
  return Request()
      .Env("QUERY_STRING", "sfrom=a")
      .Env("HTTP_COOKIE", "c=d")
      .Env("REMOTE_ADDR", "r")
      .Env("SERVER_ADDR", "s")
      .With(backend)
      .Run([&](const Reporter& report) {
        Cgi cgi("/bin/front", "backend");
        cgi.ParseQuery();
        FillRecord(RecordOf(cgi));
        change(RecordOf(cgi));
        report("before", Describe(RecordOf(cgi)));
        try {
          report("answer", cgi.Query({{"func", "a"}}));
        } catch (const tov_err::Error& error) {
          report("error", error.what());
        }
        report("after", Describe(RecordOf(cgi)));
      });
}

TEST(Query, ChangesNothingInTheRecord) {
  const auto nothing = [](Cgi::Data&) {};
  const Outcome answered = AskWithFullRecord(Answer("x"), nothing);
  EXPECT_EQ(answered.reported.count("answer"), 1U);
  EXPECT_EQ(answered.reported.at("after"), answered.reported.at("before"));
  const std::function<void(Cgi::Data&)> changes[] = {
      nothing, [](Cgi::Data& record) { record.tov_name.clear(); },
      [](Cgi::Data& record) { record.auth_info.auth.clear(); }};
  for (const auto& change : changes) {
    const Outcome failed = AskWithFullRecord(CloseSilently(), change);
    EXPECT_EQ(failed.reported.count("error"), 1U);
    EXPECT_EQ(failed.reported.at("after"), failed.reported.at("before"));
  }
}

TEST(Answer, InAnotherFormatIsReturnedByteForByte) {
  const std::string page("A: b\r\n\r\n\0 <?xml?>", 17);
  EXPECT_EQ(Received("f=1&out=html", Answer(page)), page);
}

TEST(Answer, MayBeLarge) {
  std::string large(3'000'000, 'x');
  for (std::size_t i = 0; i < large.size(); i += 7) large[i] = '\n';
  EXPECT_EQ(Received("f=1", Answer(large)), large);
}

TEST(Attempts, AreFourAtMost) {
  const std::vector<Step> failures = {Refuse(), Reset(), CloseSilently(),
                                      Answer("Content-Length: 10\r\n\r\nshort"),
                                      AnswerThenReset("half an ans")};
  for (const Step& failure : failures) {
    for (std::size_t count = 0; count <= 4; ++count) {
      Backend backend;
      backend.Times(count, failure).Then(Answer("whole"));
      Outcome outcome = Ask(Request().Env("HTTP_A", "1").With(backend), "f=1");
      if (count < 4) {
        EXPECT_EQ(outcome.error, "");
        EXPECT_EQ(outcome.reported["answer"], "whole");
        EXPECT_EQ(backend.Attempts(), count + 1);
      } else {
        EXPECT_EQ(outcome.error_type, "tov_err::Error");
        EXPECT_EQ(backend.Attempts(), 4U);
      }
      for (const zan_cgi::testing::Query& request : backend.Queries()) {
        EXPECT_EQ(request.raw, backend.Queries()[0].raw);
      }
      EXPECT_TRUE(outcome.leaked_descriptors.empty());
    }
  }
}

TEST(Attempts, FailWithTheErrorOfTheFourth) {
  Backend backend;
  backend.Then(Refuse()).Then(Reset()).Then(Refuse()).Then(CloseSilently());
  EXPECT_EQ(Ask(Request().With(backend), "f=1").error,
            "back end 'backend' closed the connection without an answer");
  Backend other;
  other.Times(3, CloseSilently()).Then(Refuse());
  EXPECT_EQ(Ask(Request().With(other), "f=1").error,
            "cannot connect to the back end at '" + other.RunDir() +
                "/backend.sock': Connection refused");
}

constexpr char kAlice[] = R"(<doc><user name="alice" level="7"/></doc>)";

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
TEST(Authorize, WithUnreadableParametersLeavesTheMethodUnset) {
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

TEST(Authorize, ReadsTheLevelAsAnInt) {
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

TEST(Authorize, KeepsAnEarlierSuccess) {
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

TEST(Authorize, KeepsAnEarlierLanguageIfTheCookieHasNoColon) {
  Backend backend;
  backend.Times(3, Answer(kAlice));
  // The back end under other names, which other cookies are named after.
  for (const std::string name : {"one", "none"}) {
    fs::create_symlink(backend.SocketPath(),
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
}  // namespace support
