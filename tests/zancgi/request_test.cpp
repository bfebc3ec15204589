#include <gtest/gtest.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/input.h>
#include <zancgi/zancgi.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/clean_run.h"
#include "support/form.h"
#include "support/new_operator.h"
#include "support/record.h"

namespace {

using support::RunCleanly;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Input;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Reporter;
using Strings = std::vector<std::string>;

Cgi MakeCgi() { return {"/bin/front", "backend"}; }

/// Does the work as the server of this GET. Returns what that logs.
Outcome Serve(const std::string& query,
              const std::function<void(Cgi& cgi)>& work, Child child = {}) {
  child.Env("REQUEST_METHOD", "GET").Env("QUERY_STRING", query);
  return RunCleanly(child, [&](const Reporter&) {
    Cgi cgi = MakeCgi();
    work(cgi);
  });
}

TEST(Param, IsParsedOnDemandAndOnceForAllCopies) {
  const Outcome outcome = Serve("a=1", [](Cgi& cgi) {
    Cgi copy = cgi;
    EXPECT_EQ(copy.Param("a"), "1");
    ::setenv("QUERY_STRING", "a=2", 1);
    EXPECT_EQ(cgi.Param("a"), "1");
  });
  EXPECT_TRUE(outcome.Logged(4).empty());
}

TEST(Param, ThatIsMissingIsEmptyAndNotInserted) {
  Serve("a=1", [](Cgi& cgi) {
    Strings names;
    EXPECT_EQ(cgi.Param("x"), "");
    cgi.GetParams(names);
    EXPECT_EQ(names, Strings{"a"});
  });
}

TEST(GetParams, ReplacesTheListInByteOrder) {
  Serve("a=1&B=2", [](Cgi& cgi) {
    Strings names = {"old"};
    cgi.GetParams(names);
    EXPECT_EQ(names, (Strings{"B", "a"}));
  });
}

TEST(Files, OfAGetAreNoneAndParseIt) {
  const std::function<void(Cgi&)> calls[] = {
      [](Cgi& cgi) { EXPECT_EQ(cgi.GetFileSize(), 0); },
      [](Cgi& cgi) {
        Strings names = {"old"};
        cgi.GetFileNames(names);
        EXPECT_EQ(names, Strings{});
      }};
  for (const auto& call : calls) {
    EXPECT_EQ(Serve("a=1", call).Logged(8).size(), 3U);
  }
}

TEST(CookieAndFile, NeverParse) {
  const Outcome outcome = Serve(
      "a=1",
      [](Cgi& cgi) {
        EXPECT_EQ(cgi.Cookie("c"), "2");
        EXPECT_EQ(cgi.Cookie("a"), "");
        EXPECT_EQ(cgi.File("a"), "");
      },
      Child().Env("HTTP_COOKIE", "c=2"));
  EXPECT_EQ(outcome.Logged(8),
            Strings{"void zan_cgi::Cgi::Data::ParseCookies()"});
}

TEST(ParseQuery, ASecondTimeOnlyWarns) {
  const Outcome outcome = Serve("a=1", [](Cgi& cgi) {
    cgi.ParseQuery();
    ::setenv("QUERY_STRING", "a=2", 1);
    cgi.ParseQuery();
    EXPECT_EQ(cgi.Param("a"), "1");
  });
  EXPECT_EQ(outcome.Logged(4), Strings{"CGI already parsed input"});
}

TEST(ParseQuery, RefusesOtherMethodsEachTime) {
  Strings names;
  const std::function<void(Cgi&)> calls[] = {
      [](Cgi& cgi) { cgi.Param("a"); },
      [](Cgi& cgi) { cgi.Param("a"); },
      [&](Cgi& cgi) { cgi.GetParams(names); },
      [&](Cgi& cgi) { cgi.GetFileNames(names); },
      [](Cgi& cgi) { cgi.GetFileSize(); },
      [](Cgi& cgi) { cgi.ParseQuery(); }};
  for (const char* const method :
       {"HEAD", "get", "", "PUT", "post", static_cast<const char*>(nullptr)}) {
    Serve("a=1", [&](Cgi& cgi) {
      ::unsetenv("REQUEST_METHOD");
      if (method != nullptr) ::setenv("REQUEST_METHOD", method, 1);
      for (const auto& call : calls) {
        try {
          call(cgi);
          ADD_FAILURE() << "not refused";
        } catch (const std::runtime_error& error) {
          EXPECT_EQ(error.what(), std::string("bad request method '") +
                                      (method == nullptr ? "" : method) + "'");
        }
      }
    });
  }
}

TEST(ParseQuery, RefusesByARuntimeError) {
  const Outcome outcome = support::RunWithoutLeak(
      Child(), [](const Reporter&) { MakeCgi().ParseQuery(); });
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
}

TEST(Addresses, AreTakenAsTheyStand) {
  struct Row {
    const char* forwarded;
    std::string remote;
  };
  for (const auto& [forwarded, remote] :
       {Row{nullptr, "10.0.0.1"}, Row{"", "10.0.0.1"},
        Row{" a, b ", " a, b "}}) {
    Child child;
    child.Env("REMOTE_ADDR", "10.0.0.1").Env("SERVER_ADDR", "10.0.0.2");
    if (forwarded != nullptr) child.Env("HTTP_X_FORWARDED_FOR", forwarded);
    RunCleanly(child, [remote = remote](const Reporter&) {
      const Cgi::Data request;
      EXPECT_EQ(request.remote_addr, remote);
      EXPECT_EQ(request.server_addr, "10.0.0.2");
    });
  }
}

TEST(Log, BelowTheLevelIsSilent) {
  const Outcome outcome = Serve(
      "=5",
      [](Cgi& cgi) {
        cgi.ParseQuery();
        cgi.ParseQuery();
      },
      Child().LogLevel(3));
  EXPECT_EQ(outcome.standard_error, "");
}

TEST(Record, StartsEmpty) {
  RunCleanly(Child(), [](const Reporter&) {
    EXPECT_EQ(support::Describe(Cgi::Data()),
              "service ''\ndirectory ''\nnot parsed\nnot authorized\n"
              "session '' of '', '', '', level 0, method 0\n"
              "from '' to ''\n");
  });
}

/// Parses a request that has both a query string and a body, by one method and
/// then by the other. Returns the warning.
Strings ParseByBoth(const std::string& first, const std::string& second,
                    const std::string& expected) {
  const Input body = Input::File("a=body");
  Child child = support::Post("6", "");
  child.Env("REQUEST_METHOD", first).Env("QUERY_STRING", "a=query");
  return RunCleanly(child.StandardInput(body),
                    [&](const Reporter&) {
                      Cgi::Data request;
                      request.ParseQuery();
                      ::setenv("REQUEST_METHOD", second.c_str(), 1);
                      request.ParseQuery();
                      EXPECT_EQ(request.params.at("a"), expected);
                      EXPECT_EQ(::lseek(STDIN_FILENO, 0, SEEK_CUR),
                                first == "POST" ? 6 : 0);
                    })
      .Logged(4);
}

TEST(Record, IsParsedOnceWhateverTheMethod) {
  const std::string get = "attempt to reparse GET query";
  const std::string post = "attempt to reparse POST query";
  EXPECT_EQ(ParseByBoth("POST", "GET", "body"), Strings{get});
  EXPECT_EQ(ParseByBoth("POST", "POST", "body"), Strings{post});
  EXPECT_EQ(ParseByBoth("GET", "POST", "query"), Strings{post});
}

/// Constructs a request and ends it. Returns how many allocations then are left
/// over.
long LeftAfter(const std::string& program, const std::string& service) {
  const long before = support::LiveAllocations();
  try {
    const Cgi cgi(program, service);
  } catch (const std::exception&) {
  }
  support::FailAllocation(0);
  return support::LiveAllocations() - before;
}

TEST(Record, IsReleasedByAConstructionThatFails) {
  const Child child =
      Child()
          .Env("HTTP_COOKIE",
               std::string(50, 'a') + "=1; b=" + std::string(50, 'b'))
          .Env("REMOTE_ADDR", std::string(50, 'r'))
          .Env("SERVER_ADDR", std::string(50, 's'));
  RunCleanly(child, [](const Reporter&) {
    const std::string program = "/bin/" + std::string(50, 'f');
    const std::string service(50, 'x');
    // What is made once in a process is not counted.
    LeftAfter(program, service);
    LeftAfter("", service);
    EXPECT_EQ(LeftAfter("", service), 0);
    std::size_t failures = 0;
    for (std::size_t number = 1;; ++number) {
      support::FailAllocation(number);
      EXPECT_EQ(LeftAfter(program, service), 0) << number;
      if (!support::AllocationHasFailed()) break;
      ++failures;
    }
    // The record, what owns it, the cookies, the names and the addresses.
    EXPECT_GT(failures, 8U);
  });
}

}  // namespace
