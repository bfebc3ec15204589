#include <gtest/gtest.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/input.h>
#include <zancgi/zancgi.h>

#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/form.h"
#include "support/new_operator.h"

namespace {

using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Input;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Told;
using Strings = std::vector<std::string>;

Child Get(const std::string& query) {
  return Child().Env("REQUEST_METHOD", "GET").Env("QUERY_STRING", query);
}

Cgi MakeCgi() { return {"/bin/front", "backend"}; }

std::string Joined(const Strings& names) {
  std::string text;
  for (const std::string& name : names) text += name + ";";
  return text;
}

TEST(Param, IsParsedOnDemandAndOnce) {
  const Outcome outcome = Get("a=1").Run([](const Told& told) {
    Cgi cgi = MakeCgi();
    told("a", cgi.Param("a"));
    ::setenv("QUERY_STRING", "a=2", 1);
    told("again", cgi.Param("a"));
  });
  EXPECT_EQ(outcome.told.at("a"), "1");
  EXPECT_EQ(outcome.told.at("again"), "1");
  EXPECT_TRUE(outcome.Logged(4).empty());
}

TEST(Param, ThatIsMissingIsEmptyAndNotInserted) {
  const Outcome outcome = Get("a=1").Run([](const Told& told) {
    Cgi cgi = MakeCgi();
    told("x", cgi.Param("x"));
    Strings names;
    cgi.GetParams(names);
    told("names", Joined(names));
  });
  EXPECT_EQ(outcome.told.at("x"), "");
  EXPECT_EQ(outcome.told.at("names"), "a;");
}

TEST(GetParams, ReplacesTheListInByteOrder) {
  const Outcome outcome = Get("a=1&B=2").Run([](const Told& told) {
    Strings names = {"old"};
    MakeCgi().GetParams(names);
    told("names", Joined(names));
  });
  EXPECT_EQ(outcome.told.at("names"), "B;a;");
}

TEST(GetFileSize, OfAGetIsZeroAndParses) {
  const Outcome outcome = Get("a=1").Run([](const Told& told) {
    told("size", std::to_string(MakeCgi().GetFileSize()));
  });
  EXPECT_EQ(outcome.told.at("size"), "0");
  EXPECT_EQ(outcome.Logged(8).size(), 3U);
}

TEST(GetFileNames, ReplacesTheListAndParses) {
  const Outcome outcome = Get("a=1").Run([](const Told& told) {
    Strings names = {"old"};
    MakeCgi().GetFileNames(names);
    told("names", Joined(names));
  });
  EXPECT_EQ(outcome.told.at("names"), "");
  EXPECT_EQ(outcome.Logged(8).size(), 3U);
}

TEST(CookieAndFile, NeverParse) {
  const Outcome outcome =
      Get("a=1").Env("HTTP_COOKIE", "c=2").Run([](const Told& told) {
        Cgi cgi = MakeCgi();
        told("cookie", cgi.Cookie("c"));
        told("none", cgi.Cookie("a"));
        told("file", cgi.File("a"));
      });
  EXPECT_EQ(outcome.told.at("cookie"), "2");
  EXPECT_EQ(outcome.told.at("none"), "");
  EXPECT_EQ(outcome.told.at("file"), "");
  EXPECT_EQ(outcome.Logged(8),
            Strings{"void zan_cgi::Cgi::Data::ParseCookies()"});
}

TEST(ParseQuery, ASecondTimeOnlyWarns) {
  const Outcome outcome = Get("a=1").Run([](const Told& told) {
    Cgi cgi = MakeCgi();
    cgi.ParseQuery();
    ::setenv("QUERY_STRING", "a=2", 1);
    cgi.ParseQuery();
    told("a", cgi.Param("a"));
  });
  EXPECT_EQ(outcome.told.at("a"), "1");
  EXPECT_EQ(outcome.Logged(4), Strings{"CGI already parsed input"});
}

TEST(ParseQuery, RefusesOtherMethodsEachTime) {
  for (const std::string method : {"HEAD", "get", "", "PUT", "post"}) {
    const Outcome outcome =
        Get("a=1").Env("REQUEST_METHOD", method).Run([](const Told& told) {
          Cgi cgi = MakeCgi();
          Strings names;
          const std::vector<std::function<void()>> parsing = {
              [&] { cgi.Param("a"); },       [&] { cgi.Param("a"); },
              [&] { cgi.GetParams(names); }, [&] { cgi.GetFileNames(names); },
              [&] { cgi.GetFileSize(); },    [&] { cgi.ParseQuery(); }};
          std::string errors;
          for (const auto& parse : parsing) {
            try {
              parse();
            } catch (const std::runtime_error& error) {
              errors += std::string(error.what()) + ";";
            }
          }
          told("errors", errors);
        });
    const std::string error = "bad request method '" + method + "';";
    std::string errors;
    for (int i = 0; i < 6; ++i) errors += error;
    EXPECT_EQ(outcome.told.at("errors"), errors);
  }
}

TEST(ParseQuery, RefusesAnUnsetMethod) {
  const Outcome outcome =
      Child().Run([](const Told&) { MakeCgi().ParseQuery(); });
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "bad request method ''");
}

TEST(Addresses, AreTakenAsTheyStand) {
  const auto addresses = [](const Child& child) {
    return child
        .Run([](const Told& told) {
          const Cgi::Data request;
          told("remote", request.remote_addr);
          told("server", request.server_addr);
        })
        .told;
  };
  const Child plain =
      Child().Env("REMOTE_ADDR", "10.0.0.1").Env("SERVER_ADDR", "10.0.0.2");
  EXPECT_EQ(addresses(plain).at("remote"), "10.0.0.1");
  EXPECT_EQ(addresses(plain).at("server"), "10.0.0.2");
  EXPECT_EQ(addresses(Child(plain).Env("HTTP_X_FORWARDED_FOR", " a, b "))
                .at("remote"),
            " a, b ");
  EXPECT_EQ(
      addresses(Child(plain).Env("HTTP_X_FORWARDED_FOR", "")).at("remote"),
      "10.0.0.1");
  EXPECT_EQ(addresses(Child()).at("remote"), "");
}

TEST(Copies, ShareOneRecord) {
  const Outcome outcome = Get("a=1").Run([](const Told& told) {
    Cgi cgi = MakeCgi();
    Cgi copy = cgi;
    copy.ParseQuery();
    ::setenv("QUERY_STRING", "a=2", 1);
    told("a", cgi.Param("a"));
  });
  EXPECT_EQ(outcome.told.at("a"), "1");
}

TEST(Log, BelowTheLevelIsSilent) {
  const Outcome outcome = Get("=5").LogLevel(3).Run([](const Told&) {
    Cgi cgi = MakeCgi();
    cgi.ParseQuery();
    cgi.ParseQuery();
  });
  EXPECT_EQ(outcome.standard_error, "");
}

TEST(Record, StartsEmpty) {
  const Outcome outcome = Child().Run([](const Told& told) {
    const Cgi::Data request;
    const bool empty =
        request.tov_name.empty() && request.tmp_dir.empty() &&
        request.cookies.empty() && request.params.empty() &&
        request.files.empty() && !request.parsed && !request.authorized &&
        request.auth_info.auth.empty() && request.auth_info.name.empty() &&
        request.auth_info.lang_rest.empty() &&
        request.auth_info.lang_word.empty() && request.auth_info.level == 0 &&
        request.auth_info.method == Cgi::AuthInfo::AuthAny;
    told("empty", empty ? "yes" : "no");
  });
  EXPECT_EQ(outcome.told.at("empty"), "yes");
}

/// Parses a request that has both a query string and a body, by one method and
/// then by the other.
Outcome ParseByBoth(const std::string& first, const std::string& second) {
  const Input body = Input::File("a=body");
  return support::Post("6", "")
      .Env("REQUEST_METHOD", first)
      .Env("QUERY_STRING", "a=query")
      .StandardInput(body)
      .Run([&](const Told& told) {
        Cgi::Data request;
        request.ParseQuery();
        ::setenv("REQUEST_METHOD", second.c_str(), 1);
        request.ParseQuery();
        told("a", request.params.at("a"));
        told("read", std::to_string(::lseek(STDIN_FILENO, 0, SEEK_CUR)));
      });
}

TEST(Record, IsParsedOnceWhateverTheMethod) {
  const Outcome body_first = ParseByBoth("POST", "GET");
  EXPECT_EQ(body_first.told.at("a"), "body");
  EXPECT_EQ(body_first.Logged(4), Strings{"attempt to reparse GET query"});
  const Outcome query_first = ParseByBoth("GET", "POST");
  EXPECT_EQ(query_first.told.at("a"), "query");
  EXPECT_EQ(query_first.told.at("read"), "0");
  EXPECT_EQ(query_first.Logged(4), Strings{"attempt to reparse POST query"});
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
  const Outcome outcome = child.Run([](const Told&) {
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
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
}

}  // namespace
