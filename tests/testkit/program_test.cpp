// A front end run as a program, and what is said of how it ends.

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <zancgi/testing/backend.h>
#include <zancgi/testing/form.h>
#include <zancgi/testing/program.h>
#include <zancgi/testing/request.h>

#include <chrono>
#include <iterator>

#include "support/test.h"

namespace zan_cgi::testing {
namespace {

using std::chrono::milliseconds;

/// The descriptors of this process.
std::ptrdiff_t CountDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                       {});
}

Response Do(const Request& request) { return Program(ODD_FRONT).Run(request); }
Response Do(const std::string& deed) { return Do(Get("/odd", deed)); }

TEST(Program, GetsTheEnvironmentOfARequest) {
  const Response response = Program(ODD_FRONT)
                                .Env("REMOTE_USER", "alice")
                                .Run(Get("/odd", "environment")
                                         .Header("X-Forwarded-For", "192.0.2.1")
                                         .Cookie("a", "b")
                                         .Cookie("c", "d")
                                         .Variable("REMOTE_ADDR", "192.0.2.2"));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.Complaints(), "");
  for (const char* line :
       {"GATEWAY_INTERFACE=CGI/1.1\n", "REQUEST_METHOD=GET\n",
        "QUERY_STRING=environment\n", "REQUEST_URI=/odd?environment\n",
        "SCRIPT_NAME=/odd\n", "HTTP_X_FORWARDED_FOR=192.0.2.1\n",
        "HTTP_COOKIE=a=b; c=d\n", "REMOTE_ADDR=192.0.2.2\n",
        "REMOTE_USER=alice\n"}) {
    EXPECT_NE(response.body.find(line), std::string::npos) << line;
  }
}

TEST(Program, InheritsNoVariableOrDescriptorOfTheTest) {
  ASSERT_EQ(::setenv("ZANCGI_TEST_OWN", "1", 1), 0);
  EXPECT_EQ(Do("environment").body.find("ZANCGI_TEST_OWN"), std::string::npos);
  EXPECT_EQ(Do("environment").body.find("TOV_"), std::string::npos);
  EXPECT_EQ(Do("descriptors").body, "0 1 2 ");
}

TEST(Program, GetsSignalsAsUsual) {
  const auto before = ::signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  sigset_t mask;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGUSR1);
  ::sigprocmask(SIG_BLOCK, &blocked, &mask);
  EXPECT_EQ(Do("signals").body, "00");
  ::sigprocmask(SIG_SETMASK, &mask, nullptr);
  ::signal(SIGPIPE, before);
}

TEST(Program, StartsInItsFolderUnderItsPathByDefault) {
  EXPECT_EQ(Do("folder").body, std::filesystem::path(ODD_FRONT).parent_path());
  EXPECT_EQ(Do("name").body, ODD_FRONT);
  const Scratch scratch;
  Program program(ODD_FRONT);
  program.WorkDir(scratch.Path()).CalledAs("cgi/front");
  EXPECT_EQ(program.Run(Get("/odd", "folder")).body, scratch.Path());
  EXPECT_EQ(program.Run(Get("/odd", "name")).body, "cgi/front");
}

TEST(Program, ThatCannotBeStartedIsAnError) {
  EXPECT_THROW(Program("/nowhere/front").Run(Get("/")), std::system_error);
  EXPECT_THROW(Program(ODD_FRONT).WorkDir("/nowhere").Run(Get("/")),
               std::system_error);
}

TEST(Program, RunsAsAnotherUserWhenStartedByRoot) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
  const Scratch scratch;
  std::filesystem::permissions(scratch.Path(), std::filesystem::perms{0755});
  std::filesystem::copy(ODD_FRONT, scratch / "front");
  Backend backend;
  backend.On("a", Answer("1")).On("b", Answer("2"));
  Program program(scratch / "front");
  program.As(54321, 54322).With(backend);
  EXPECT_EQ(program.Run(Get("/odd", "identity")).body, "54321 54322 0");
  EXPECT_EQ(program.Run(Get("/odd", "ask")).body, "1,2");
  EXPECT_EQ(program.Run(Get("/odd", "files")).Complaints(),
            "files left: 'folder' 'folder/file'");
}

TEST(Body, ArrivesByTheChosenDelivery) {
  const Program program(ODD_FRONT);
  const std::string large(200'000, 'x');
  for (const auto& [delivery, kind] : {std::pair(Delivery::Pipe, "pipe"),
                                       {Delivery::Socket, "socket"},
                                       {Delivery::File, "file"}}) {
    const auto body_of = [&, delivery = delivery](const std::string& deed,
                                                  const std::string& body) {
      Request request = Post("/odd", deed).By(delivery);
      return program.Run(request.Body(body, "text/plain")).body;
    };
    EXPECT_EQ(body_of("kind", "x"), kind);
    EXPECT_EQ(body_of("body", large), large);
  }
}

TEST(Body, ArrivesInPieces) {
  const auto begin = std::chrono::steady_clock::now();
  const Response response = Do(Post("/odd", "body")
                                   .Body("abcde", "text/plain")
                                   .Slowly(2, milliseconds(50)));
  EXPECT_EQ(response.body, "abcde");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(150));
}

TEST(Body, OfAFrontEndThatDoesNotReadItHoldsNothingUp) {
  const std::string large(1'000'000, 'x');
  EXPECT_EQ(Do(Post("/odd", "fail").Body(large, "text/plain")).exit_status, 3);
}

TEST(Body, OfAFormReachesTheLibrary) {
  Program program(ODD_FRONT);
  Request request = Post("/odd", "parameters")
                        .Fields({{"a", "1 & 2"}, {"b", "\xc3\xbc="}})
                        .Cookie("c", "3")
                        .Cookie("d", "4");
  EXPECT_EQ(program.Run(request).body, "1 & 2|\xc3\xbc=|3|4|");
  request.Multipart(Form().Field("a", "1").File("b", "n.bin", "12345"));
  const Response response = program.Run(request);
  EXPECT_EQ(response.body, "1|n.bin|3|4|n.bin:5");
  EXPECT_EQ(response.Complaints(), "");
}

TEST(Body, ThatIsCutShortIsNoticed) {
  const Response response = Do(Post("/odd", "parameters")
                                   .Fields({{"a", "1"}})
                                   .Header("Content-Length", "5"));
  EXPECT_EQ(response.status, 502);
  EXPECT_EQ(response.body, "Error reading STDIN");
}

TEST(Program, ThatHangsIsEndedWithAllThatItHasStarted) {
  const auto begin = std::chrono::steady_clock::now();
  const Response response =
      Program(ODD_FRONT).TimeLimit(milliseconds(300)).Run(Get("/", "hang"));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(10'000));
  EXPECT_TRUE(response.timed_out);
  EXPECT_EQ(response.exit_status, 128 + SIGKILL);
  ASSERT_EQ(response.left_processes.size(), 1U);
  const std::string left = response.left_processes.front();
  EXPECT_NE(left.find(" odd_front"), std::string::npos) << left;
  EXPECT_NE(::kill(std::stoi(left), 0), 0);
  EXPECT_EQ(response.Complaints(),
            "its time was up; no empty line after the header; processes left: "
            "'" +
                left + "'");
}

TEST(Program, ThatWaitsForAStallingVisitorIsEndedToo) {
  const Response response = Program(ODD_FRONT)
                                .TimeLimit(milliseconds(300))
                                .Run(Post("/odd", "body")
                                         .Body("half", "text/plain")
                                         .By(Delivery::StallingPipe));
  EXPECT_TRUE(response.timed_out);
}

TEST(Program, EndsWithItsTest) {
  // Its directory goes with this process, which is not ended.
  const Program program(ODD_FRONT);
  const Outcome outcome =
      Child().TimeLimit(milliseconds(500)).Run([&](const Reporter& report) {
        report("runs", "1");
        program.Run(Get("/", "hang"));
      });
  EXPECT_TRUE(outcome.timed_out);
  EXPECT_EQ(outcome.reported.at("runs"), "1");
  EXPECT_EQ(outcome.left_processes, std::vector<std::string>{});
}

TEST(Program, ThatLeavesAProcessOrFilesIsReportedOnce) {
  const Response response = Do("process");
  EXPECT_FALSE(response.timed_out);
  EXPECT_EQ(response.exit_status, 0);
  ASSERT_EQ(response.left_processes.size(), 1U);
  EXPECT_NE(::kill(std::stoi(response.left_processes.front()), 0), 0);
  Program program(ODD_FRONT);
  const std::vector<std::string> left{"folder", "folder/file"};
  EXPECT_EQ(program.Run(Get("/", "files")).left_files, left);
  EXPECT_TRUE(program.Run(Get("/", "body")).left_files.empty());
}

TEST(Program, ThatEndsBadlyIsReported) {
  EXPECT_EQ(Do("fail").Complaints(),
            "exit status 3; no empty line after the header");
  EXPECT_EQ(Do("die").exit_status, 128 + SIGTERM);
  EXPECT_EQ(Do("nothing").Complaints(), "no empty line after the header");
}

TEST(Program, LeavesNoDescriptorFolderOrProcessInTheTest) {
  const std::string tmp_dir = [] {
    Backend backend;
    const std::ptrdiff_t before = CountDescriptors();
    Program program(ODD_FRONT);
    for (const char* deed : {"files", "process", "die", "ask"}) {
      program.With(backend).Run(
          Post("/", deed).Body(std::string(500'000, 'x'), "text/plain"));
    }
    EXPECT_EQ(CountDescriptors(), before);
    return program.TmpDir();
  }();
  EXPECT_FALSE(std::filesystem::exists(tmp_dir));
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a process is left";
}

TEST(Program, LogsAtTheLevelThatIsSet) {
  Program program(ODD_FRONT);
  const Request request = Get("/", "parameters");
  EXPECT_EQ(program.Run(request).log.size(), 0U);
  const Response response = program.LogLevel(9).Run(request);
  EXPECT_FALSE(response.Logged(8).empty());
  EXPECT_EQ(response.log.front().module, "zancgi");
}

/// What the front end shows of two queries.
Response Ask(Backend& backend) {
  return Program(ODD_FRONT)
      .With(backend)
      .TimeLimit(milliseconds(1500))
      .Run(Get("/", "ask"));
}

TEST(BackendOfAProgram, AnswersStepByStep) {
  Backend backend;
  backend.Then(Answer("1")).Then(Answer("2"));
  EXPECT_EQ(Ask(backend).body, "1,2");
  ASSERT_EQ(backend.Queries().size(), 2U);
  EXPECT_EQ(backend.Queries()[1]["QUERY_STRING"], "func=b&out=xml");
  EXPECT_EQ(backend.Queries()[1].Item("func"), "b");
  EXPECT_EQ(backend.StepsLeft(), 0U);
}

TEST(BackendOfAProgram, AnswersByFunctionAfterItsScript) {
  Backend backend;
  backend.Then(Answer("first"))
      .On("b", Answer("2"))
      .Otherwise([](const Query& query) {
        return Answer("else " + query.Item("func"));
      });
  EXPECT_EQ(Ask(backend).body, "first,2");
  EXPECT_EQ(Ask(backend).body, "else a,2");
  EXPECT_EQ(Ask(backend).body, "else a,2");
}

TEST(BackendOfAProgram, CollectsWhatItDoesNotExpect) {
  Backend backend;
  backend.On("b", Answer("2"));
  EXPECT_EQ(Ask(backend).status, 502);
  ASSERT_FALSE(backend.Unexpected().empty());
  EXPECT_EQ(backend.Unexpected().front().Item("func"), "a");
  // What it has read it cannot refuse.
  EXPECT_THROW(backend.On("a", Refuse()), std::invalid_argument);
}

TEST(BackendOfAProgram, RefusesWithoutAScriptAndAfterIt) {
  Backend backend;
  for (const std::size_t asked : {0U, 1U}) {
    const Response response = Ask(backend);
    EXPECT_EQ(response.status, 502);
    EXPECT_NE(response.body.find("Connection refused"), std::string::npos)
        << response.body;
    EXPECT_EQ(backend.Queries().size(), asked);
    backend.Then(Answer("1"));
  }
}

TEST(BackendOfAProgram, RefusesFromAStepToTheEndOfTheRun) {
  Backend backend;
  backend.Then(Answer("1")).Then(Refuse()).Then(Answer("3")).Then(Answer("4"));
  EXPECT_NE(Ask(backend).body.find("Connection refused"), std::string::npos);
  EXPECT_EQ(backend.Queries().size(), 1U);
  EXPECT_EQ(Ask(backend).body, "3,4");
}

TEST(BackendOfAProgram, BreaksConnectionsOffInEachManner) {
  for (const Step& step :
       {Reset(), CloseSilently(), AnswerThenReset("half an answer")}) {
    Backend backend;
    backend.Then(step).Then(Answer("1")).Then(Answer("2"));
    EXPECT_EQ(Ask(backend).body, "1,2") << static_cast<int>(step.kind);
    Backend other;
    other.Otherwise([&](const Query&) { return step; });
    EXPECT_EQ(Ask(other).status, 502) << static_cast<int>(step.kind);
    EXPECT_GE(other.Queries().size(), 4U) << static_cast<int>(step.kind);
  }
}

TEST(BackendOfAProgram, ThatStaysSilentDoesNotHangTheTest) {
  Backend backend;
  backend.Then(StaySilent());
  EXPECT_TRUE(Ask(backend).timed_out);
  EXPECT_EQ(backend.Queries().size(), 1U);
}

}  // namespace
}  // namespace zan_cgi::testing
