// A piece of a test in a process of its own.

#include <signal.h>
#include <zancgi/testing/backend.h>
#include <zancgi/testing/log.h>
#include <zancgi/testing/request.h>

#include <chrono>
#include <thread>

#include "support/signals.h"
#include "support/test.h"

namespace zan_cgi::testing {
namespace {

using std::chrono::milliseconds;

TEST(Child, ServesARequest) {
  Backend backend;
  backend.Then(Answer("<doc/>"));
  Outcome outcome = Child()
                        .Serve(Post("/panel").Fields({{"a", "1"}}))
                        .With(backend)
                        .Run([](const Reporter& report) {
                          Cgi cgi("a/front", "backend");
                          report("a", cgi.Param("a"));
                          report("answer", cgi.Query(std::string("func=b")));
                        });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  EXPECT_EQ(outcome.reported["a"], "1");
  EXPECT_EQ(outcome.reported["answer"], "<doc/>");
}

TEST(Child, IsServedWholeByATestThatHandlesSignals) {
  const Outcome outcome = Child().Run([](const Reporter& report) {
    support::StartSignalStorm(200);
    const std::string large(8'000'000, 'x');
    Backend backend;
    backend.Then(Answer(large));
    Outcome inner =
        Child()
            .Serve(Post("/panel").Fields({{"a", large}}))
            .With(backend)
            .Run([](const Reporter& inner_report) {
              Cgi cgi("a/front", "backend");
              // Let the writers meet full buffers.
              std::this_thread::sleep_for(milliseconds(50));
              inner_report("body", std::to_string(cgi.Param("a").size()));
              const std::string query(100'000, 'q');
              inner_report("answer", std::to_string(cgi.Query(query).size()));
            });
    report("body", inner.reported["body"]);
    report("answer", inner.reported["answer"]);
    report("query",
           std::to_string(backend.Queries().at(0).raw.size() / 100'000));
    report("error", inner.error);
  });
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.reported.at("error"), "");
  EXPECT_EQ(outcome.reported.at("body"), "8000000");
  EXPECT_EQ(outcome.reported.at("answer"), "8000000");
  EXPECT_EQ(outcome.reported.at("query"), "1");
}

TEST(Child, ReportsHowItEnded) {
  struct Own : std::runtime_error {
    using std::runtime_error::runtime_error;
  };
  Outcome outcome =
      Child().Run([](const Reporter&) { throw std::logic_error("a"); });
  EXPECT_EQ(outcome.error_type, "std::logic_error");
  EXPECT_EQ(outcome.error, "a");
  outcome = Child().Run([](const Reporter&) { throw 1; });
  EXPECT_EQ(outcome.error_type, "int");
  outcome = Child().Run([](const Reporter&) { throw Own("b"); });
  EXPECT_NE(outcome.error_type.find("Own"), std::string::npos);
}

TEST(Child, ReportsAFailedExpectation) {
  const Outcome outcome = Child().Run([](const Reporter&) {
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    ADD_FAILURE() << "as it should";
  });
  EXPECT_EQ(outcome.status, 95);
}

TEST(Child, ThatHangsIsEnded) {
  const Outcome outcome =
      Child().TimeLimit(milliseconds(200)).Run([](const Reporter&) {
        ::pause();
      });
  EXPECT_TRUE(outcome.timed_out);
  EXPECT_EQ(outcome.status, 128 + SIGKILL);
}

TEST(Child, ReportsHowItEndedWhereSigchldIsIgnored) {
  const auto before = ::signal(SIGCHLD, SIG_IGN);
  const Outcome outcome =
      Child().Run([](const Reporter&) { ::raise(SIGKILL); });
  EXPECT_EQ(outcome.status, 128 + SIGKILL);
  EXPECT_EQ(::signal(SIGCHLD, before), SIG_IGN);
}

TEST(Child, ThatLeavesAProcessOrADescriptorIsReported) {
  const Outcome outcome = Child().Run([](const Reporter&) {
    ::dup(0);
    if (::fork() == 0) ::pause();
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.leaked_descriptors.size(), 1U);
  ASSERT_EQ(outcome.left_processes.size(), 1U);
  EXPECT_NE(::kill(std::stoi(outcome.left_processes.front()), 0), 0);
}

TEST(Child, IsRefusedToTheEndOfItsRun) {
  Backend backend;
  backend.Then(Refuse()).Then(Answer("x"));
  const auto ask = [](const Reporter& report) {
    Cgi cgi("a/front", "backend");
    report("answer", cgi.Query(std::string("func=b")));
  };
  EXPECT_EQ(Child().With(backend).Run(ask).error_type, "tov_err::Error");
  EXPECT_EQ(Child().With(backend).Run(ask).reported["answer"], "x");
}

TEST(Log, HoldsTheLinesOfAllModulesAndMarks) {
  Outcome outcome = Child().Run([](const Reporter&) { Mark("here"); });
  EXPECT_EQ(outcome.log, (std::vector<LogLine>{{-1, "here"}}));
  EXPECT_EQ(ParseLog("zancgi[12] core error: a: b\n"
                     "2026-11-21T12:00:00Z panel[1] front debug: \n"
                     "==12==ERROR: not ours\n"
                     "zancgi[12] core loud: not ours\n"
                     "zancgi[twelve] core error: not ours\n"
                     "a zancgi[12] core error: not ours\n"
                     "Z zancgi[12] core error: not ours\n"
                     "[12] core error: not ours\n"
                     "zancgi[] core error: not ours\n"
                     "zancgi[12]  error: not ours\n"
                     "zancgi[12] core error\n"
                     "zancgi\n\n"),
            (std::vector<LogLine>{{3, "a: b"}, {9, "", "panel", "front"}}));
}

}  // namespace
}  // namespace zan_cgi::testing
