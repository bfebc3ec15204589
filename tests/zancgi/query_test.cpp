#include <gtest/gtest.h>
#include <tov/err.h>
#include <zancgi/testing/child.h>
#include <zancgi/zancgi.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/backend.h"
#include "support/record.h"

namespace {

using support::Backend;
using zan_cgi::Cgi;
using zan_cgi::testing::Answer;
using zan_cgi::testing::AnswerByteByByte;
using zan_cgi::testing::AnswerThenReset;
using zan_cgi::testing::Child;
using zan_cgi::testing::CloseSilently;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Refuse;
using zan_cgi::testing::Reporter;
using zan_cgi::testing::Reset;
using zan_cgi::testing::Step;

Child Request() { return Child().Env("REQUEST_METHOD", "GET"); }

/// Asks once; told is the "answer".
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

TEST(Query, CarriesSfromOnlyOnceTheParametersAreParsed) {
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

TEST(Query, CarriesTheSessionThatCameFromTheParameters) {
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
        FillRecord(support::RecordOf(cgi));
        change(support::RecordOf(cgi));
        report("before", support::Describe(support::RecordOf(cgi)));
        try {
          report("answer", cgi.Query({{"func", "a"}}));
        } catch (const tov_err::Error& error) {
          report("error", error.what());
        }
        report("after", support::Describe(support::RecordOf(cgi)));
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

TEST(Answer, InAnotherFormatIsHandedOnByteForByte) {
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

}  // namespace
