// What the back end is asked, what comes of its answers, and whom it
// authorizes. Each call of the base library is in tests/trace.

#include <tov/err.h>

#include "support/backend.h"
#include "support/record.h"
#include "support/test.h"

namespace support {
namespace {

constexpr char kAlice[] = R"(<doc><user name="alice" level="7"/></doc>)";

Child Request(Backend& backend, const std::string& query = "") {
  return Child()
      .Env("REQUEST_METHOD", "GET")
      .Env("QUERY_STRING", query)
      .Env("HTTP_COOKIE", "backendses5=s; backendlang5=a:x:y; onelang5=en")
      .With(backend);
}

/// Does the work as the client of this back end.
Outcome Serve(Backend& backend, const std::function<void(Cgi& cgi)>& work,
              const std::string& query = "") {
  return RunCleanly(Request(backend, query), [&] {
    Cgi cgi("/bin/front", "backend");
    work(cgi);
  });
}

/// Asks once; reports the "answer".
Outcome Ask(Backend& backend, const std::string& query = "f=1") {
  return RunWithoutLeak(Request(backend), [&](const Reporter& report) {
    report("answer", Cgi("/bin/front", "backend").Query(query));
  });
}

TEST(Query, CarriesFormatSessionAndSenderUnlessItNamesThem) {
  Backend backend;
  backend.Then(Answer("x")).Then(Answer(kAlice)).Times(5, Answer("x"));
  Serve(
      backend,
      [](Cgi& cgi) {
        cgi.Query("func=a");
        cgi.Authorize(Cgi::AuthInfo::AuthParams);
        cgi.Query("");
        cgi.Query("func=a&xsfrom=2&auth=other&layout=1");
        cgi.Query(Texts{{"b", "x y"}, {"a&", "1&2"}});
        cgi.Query(Texts{});
        cgi.Query("func=whoami&out=xml");
      },
      "auth=id%20&sfrom=a%26b%3D1");
  const std::string items = "&auth=id &sfrom=a&b=1";
  const Strings expected = {// The parameters are not parsed yet.
                            "func=a&out=xml",
                            "func=whoami&out=xml" + items,
                            "out=xml" + items,
                            "func=a&xsfrom=2&auth=other&layout=1",
                            "a&=1%262&b=x%20y&out=xml" + items,
                            "out=xml" + items,
                            "func=whoami&out=xml" + items};
  Strings sent;
  for (const auto& query : backend.Queries()) {
    sent.push_back(query["QUERY_STRING"]);
  }
  EXPECT_EQ(sent, expected);
}

TEST(Query, WithItsOwnAuthIsNotRefusedForAnEmptySession) {
  Backend backend;
  backend.Then(Answer("x"));
  Serve(backend, [](Cgi& cgi) {
    Cgi::Data& record = RecordOf(cgi);
    record.auth_info.method = Cgi::AuthInfo::AuthParams;
    EXPECT_THROW(cgi.Query("func=a"), tov_err::Value);
    EXPECT_EQ(cgi.Query("func=a&auth=other"), "x");
  });
  EXPECT_EQ(backend.Attempts(), 1U);
}

TEST(Answer, BeginsAtItsXmlDeclarationUnlessAnotherFormatIsNamed) {
  const std::string header = "A: b\r\n\r\n";
  const std::string xml = "<?xml version=\"1.0\"?><doc/>\n";
  const std::string twice = xml + "<!-- <?xml version=\"1.0\"?> -->";
  const std::string page = header + std::string("\0 <?xml?>", 9);
  std::string large(3'000'000, 'x');
  for (std::size_t i = 0; i < large.size(); i += 7) large[i] = '\n';
  struct Row {
    Step step;
    std::string received;
    std::string query = "f=1";
  };
  for (const Row& row : {Row{Answer(xml), xml},
                         {Answer(header + xml), xml},
                         {AnswerByteByByte(header + xml), xml},
                         {Answer(header + "<doc/>"), header + "<doc/>"},
                         {Answer(header + twice), twice},
                         {Answer(large), large},
                         {Answer(page), page, "f=1&out=html"}}) {
    Backend backend;
    backend.Then(row.step);
    Outcome outcome = Ask(backend, row.query);
    EXPECT_EQ(outcome.error, "");
    EXPECT_TRUE(outcome.reported["answer"] == row.received) << row.received;
  }
}

TEST(Query, ChangesNothingInTheRecordWhateverComesOfIt) {
  for (const std::string name : {"backend", ""}) {
    for (const std::string session : {"id", ""}) {
      Backend backend;
      backend.Then(Answer("x")).Times(4, CloseSilently());
      Serve(
          backend,
          [&](Cgi& cgi) {
            cgi.ParseQuery();
            Cgi::Data& record = RecordOf(cgi);
            record.tmp_dir = "spool";
            record.files["f"] = {"/nowhere/f", 5};
            record.authorized = true;
            record.tov_name = name;
            record.auth_info = {session, "alice", "x",
                                "y",     7,       Cgi::AuthInfo::AuthParams};
            const std::string before = Describe(record);
            const bool is_asked = !name.empty() && !session.empty();
            if (is_asked) {
              EXPECT_EQ(cgi.Query({{"func", "a"}}), "x");
            }
            EXPECT_EQ(Describe(record), before);
            EXPECT_THROW(cgi.Query({{"func", "a"}}), tov_err::Error);
            EXPECT_EQ(Describe(record), before);
          },
          "sfrom=a");
    }
  }
}

TEST(Attempts, AreFourAtMost) {
  const std::vector<Step> failures = {Refuse(), Reset(), CloseSilently(),
                                      Answer("Content-Length: 10\r\n\r\nshort"),
                                      AnswerThenReset("half an ans")};
  for (const Step& failure : failures) {
    for (const std::size_t count : {0U, 1U, 3U, 4U}) {
      Backend backend;
      backend.Times(count, failure).Then(Answer("whole"));
      Outcome outcome = Ask(backend);
      EXPECT_EQ(outcome.error_type, count < 4 ? "" : "tov_err::Error");
      EXPECT_EQ(outcome.reported["answer"], count < 4 ? "whole" : "");
      EXPECT_EQ(backend.Attempts(), std::min<std::size_t>(count + 1, 4));
      for (const zan_cgi::testing::Query& request : backend.Queries()) {
        EXPECT_EQ(request.raw, backend.Queries()[0].raw);
      }
    }
  }
}

// The parameters are read before the method is noted.
TEST(Authorize, WithUnreadableParametersLeavesTheMethodUnset) {
  Backend backend;
  backend.Then(Answer("<doc/>"));
  Serve(backend, [](Cgi& cgi) {
    ::setenv("REQUEST_METHOD", "HEAD", 1);
    EXPECT_THROW(cgi.Authorize(Cgi::AuthInfo::AuthParams), std::runtime_error);
    EXPECT_EQ(cgi.Query("func=list"), "<doc/>");
  });
  EXPECT_EQ(backend.Queries().at(0)["QUERY_STRING"], "func=list&out=xml");
}

TEST(Authorize, ThatFailsNamesTheReasonAndAuthorizesNobody) {
  const std::string refused = "You do not authorized for this operation";
  const std::string unknown = "unknown authorization error";
  const std::string bad = "bad answer from 'backend'";
  /// Without a text of its own, the error is one of the base library.
  const std::pair<Step, std::string> rows[] = {
      {Answer(R"(<doc><error type="access"/></doc>)"), refused},
      {Answer(R"(<doc><user name="a" level="7"/><error type="access"/></doc>)"),
       refused},
      {Answer(R"(<doc><error type="other"/></doc>)"), unknown},
      {Answer("<doc><error/></doc>"), unknown},
      {Answer("<doc/>"), bad},
      {Answer("no xml"), bad},
      {Answer(R"(<other><user name="a" level="7"/></other>)"), bad},
      {Answer(R"(<doc><user name="a" level="7"/><err)"), bad},
      {Answer(R"(<doc><user name="a" level="7"/></doc><doc/>)"), bad},
      {Answer(R"(<doc><user name="a" level="7"/></doc>junk)"), bad},
      {Answer("\n"), bad},
      {Answer(""), ""},
      {Refuse(), ""},
      {CloseSilently(), ""},
      {AnswerThenReset(kAlice), ""}};
  for (const auto& [step, error] : rows) {
    SCOPED_TRACE(step.answer);
    Backend backend;
    backend.Times(4, step);
    const Outcome outcome = RunWithoutLeak(Request(backend), [] {
      Cgi cgi("/bin/front", "backend");
      try {
        cgi.Authorize(Cgi::AuthInfo::AuthAny);
      } catch (...) {
        EXPECT_THROW(cgi.auth(), std::runtime_error);
        throw;
      }
    });
    EXPECT_EQ(outcome.error_type,
              error.empty() ? "tov_err::Error" : "std::runtime_error");
    EXPECT_TRUE(error.empty() || outcome.error == error) << outcome.error;
  }
}

TEST(Authorize, KeepsAnEarlierSuccessAndLanguage) {
  Backend backend;
  backend.Times(3, Answer(kAlice)).Then(Answer("<doc/>"));
  // The back end under other names, which other cookies are named after.
  for (const std::string name : {"one", "none"}) {
    fs::create_symlink(backend.SocketPath(),
                       backend.RunDir() + "/" + name + ".sock");
  }
  Serve(backend, [](Cgi& cgi) {
    // The language cookies of the other names have no colon, or are missing.
    for (const char* const name : {"backend", "one", "none"}) {
      cgi.SetTovName(name);
      cgi.Authorize(Cgi::AuthInfo::AuthAny);
      EXPECT_EQ(cgi.auth().lang_word + " " + cgi.auth().lang_rest, "y a:x");
    }
    EXPECT_THROW(cgi.Authorize(Cgi::AuthInfo::AuthAny), std::runtime_error);
    const Cgi copy = cgi;
    EXPECT_EQ(copy.auth().name, "alice");
    EXPECT_EQ(copy.auth().level, 7);
  });
}

}  // namespace
}  // namespace support
