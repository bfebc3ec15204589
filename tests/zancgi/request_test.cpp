// The record of a request: its parameters and cookies, and that they are parsed
// once.

#include <iterator>
#include <new>
#include <random>
#include <typeinfo>

#include "support/form.h"
#include "support/new_operator.h"
#include "support/record.h"
#include "support/test.h"

namespace support {
namespace {

Cgi MakeCgi() { return {"/bin/front", "backend"}; }

/// Does the work as the server of this GET. Returns what that logs.
Outcome Serve(const std::string& query,
              const std::function<void(Cgi& cgi)>& work, Child child = {}) {
  child.Env("REQUEST_METHOD", "GET").Env("QUERY_STRING", query);
  return RunCleanly(child, [&] {
    Cgi cgi = MakeCgi();
    work(cgi);
  });
}

TEST(Request, IsParsedOnDemandAndOnceForAllCopies) {
  const std::function<void(Cgi&)> calls[] = {
      [](Cgi& cgi) { EXPECT_EQ(cgi.Param("a"), "1"); },
      // What is missing is not inserted.
      [](Cgi& cgi) { EXPECT_EQ(cgi.Param("x"), ""); },
      [](Cgi& cgi) {
        Strings names = {"old"};
        cgi.GetParams(names);
        EXPECT_EQ(names, (Strings{"B", "a"}));
      },
      [](Cgi& cgi) { EXPECT_EQ(cgi.GetFileSize(), 0); },
      [](Cgi& cgi) {
        Strings names = {"old"};
        cgi.GetFileNames(names);
        EXPECT_EQ(names, Strings{});
      }};
  for (const auto& first : calls) {
    const Outcome outcome = Serve("a=1&B=2", [&](Cgi& cgi) {
      Cgi copy = cgi;
      first(copy);
      ::setenv("QUERY_STRING", "a=2", 1);
      for (const auto& call : calls) call(cgi);
    });
    EXPECT_EQ(outcome.Logged(8).size(), 3U);
    EXPECT_EQ(outcome.Logged(4), Strings{});
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
          EXPECT_TRUE(typeid(error) == typeid(std::runtime_error));
          EXPECT_EQ(error.what(), std::string("bad request method '") +
                                      (method == nullptr ? "" : method) + "'");
        }
      }
    });
  }
}

TEST(Addresses, AreReturnedUnchanged) {
  const std::pair<std::string, std::string> rows[] = {{"", "10.0.0.1"},
                                                      {" a, b ", " a, b "}};
  for (const auto& [forwarded, remote] : rows) {
    Child child;
    child.Env("REMOTE_ADDR", "10.0.0.1").Env("SERVER_ADDR", "10.0.0.2");
    child.Env("HTTP_X_FORWARDED_FOR", forwarded);
    RunCleanly(child, [remote = remote] {
      EXPECT_EQ(Cgi::Data().remote_addr, remote);
      EXPECT_EQ(Cgi::Data().server_addr, "10.0.0.2");
    });
  }
}

TEST(Record, StartsEmpty) {
  RunCleanly(Child(), [] {
    EXPECT_EQ(Describe(Cgi::Data()),
              "service ''\ndirectory ''\nnot parsed\nnot authorized\n"
              "session '' of '', '', '', level 0, method 0\n"
              "from '' to ''\n");
  });
}

/// Parses a request that has both a query string and a body, by one method and
/// then by the other. Returns the warning.
Strings ParseByBoth(const std::string& first, const std::string& second,
                    const std::string& expected) {
  Child child = Post("6", "");
  child.Env("REQUEST_METHOD", first).Env("QUERY_STRING", "a=query");
  return RunCleanly(child, Input::File("a=body"),
                    [&] {
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
  const long before = LiveAllocations();
  try {
    const Cgi cgi(program, service);
  } catch (const std::exception&) {
  }
  FailAllocation(0);
  return LiveAllocations() - before;
}

TEST(Record, IsReleasedByAConstructionThatFails) {
  const Child child =
      Child()
          .Env("HTTP_COOKIE",
               std::string(50, 'a') + "=1; b=" + std::string(50, 'b'))
          .Env("REMOTE_ADDR", std::string(50, 'r'))
          .Env("SERVER_ADDR", std::string(50, 's'));
  RunCleanly(child, [] {
    const std::string program = "/bin/" + std::string(50, 'f');
    const std::string service(50, 'x');
    // What is made once in a process is not counted.
    LeftAfter(program, service);
    LeftAfter("", service);
    EXPECT_EQ(LeftAfter("", service), 0);
    std::size_t failures = 0;
    for (std::size_t number = 1;; ++number) {
      FailAllocation(number);
      EXPECT_EQ(LeftAfter(program, service), 0) << number;
      if (!AllocationHasFailed()) break;
      ++failures;
    }
    // The record, what owns it, the cookies, the names and the addresses.
    EXPECT_GT(failures, 8U);
  });
}

TEST(Cookies, AreTakenFromTheirHeaderAndOnlyTraced) {
  const std::pair<std::string, Texts> headers[] = {
      {"", {}},
      // Separated by semicolons only.
      {"a=1; b=2", {{"a", "1"}, {"b", "2"}}},
      {"a=1,b=2", {{"a", "1,b=2"}}},
      // Of one name the last.
      {"a=1;;a=2", {{"a", "2"}}},
      // Split at the first equals sign.
      {"sid=x=y", {{"sid", "x=y"}}},
      {"flag", {{"flag", ""}}},
      // As they were sent.
      {"a=%41; b=\"x\"; c=1+2", {{"a", "%41"}, {"b", "\"x\""}, {"c", "1+2"}}},
      // Trimmed as a whole.
      {"\t a = 1 \t;b=2", {{"a ", " 1"}, {"b", "2"}}},
      // A browser protects the cookie of that very name from other hosts, but
      // not one whose name begins with another byte.
      {"\v__Host-x=1; \v__Host-y=2",
       {{"\v__Host-x", "1"}, {"\v__Host-y", "2"}}},
      {"\f__Host-x=1; \f__Host-y=2",
       {{"\f__Host-x", "1"}, {"\f__Host-y", "2"}}},
      // The empty name is one.
      {"=x; ;a", {{"", ""}, {"a", ""}}},
      {"=x", {{"", "x"}}},
      {"; ;", {{"", ""}}}};
  for (const auto& row : headers) {
    const auto outcome = RunCleanly(Child().Env("HTTP_COOKIE", row.first), [&] {
      EXPECT_EQ(Cgi::Data().cookies, row.second) << row.first;
    });
    EXPECT_EQ(outcome.log,
              (Lines{{8, "void zan_cgi::Cgi::Data::ParseCookies()"}}));
  }
}

/// Parses this into these parameters. Returns the warnings.
Strings Parse(const std::string& query, const Texts& params) {
  return Serve(query,
               [&](Cgi& cgi) {
                 cgi.ParseQuery();
                 EXPECT_EQ(RecordOf(cgi).params, params) << query;
                 EXPECT_TRUE(RecordOf(cgi).parsed);
               })
      .Logged(4);
}

TEST(QueryString, IsParsedIntoParameters) {
  const std::pair<std::string, Texts> queries[] = {
      // Empty items and empty pairs are skipped.
      {"", {}},
      {"&&a=1&", {{"a", "1"}}},
      {"=", {}},
      {"&=&", {}},
      // The values of a repeated name are joined.
      {"a=1&a=2&a=3", {{"a", "1, 2, 3"}}},
      {"a=1&b=2&a=3", {{"a", "1, 3"}, {"b", "2"}}},
      {"a=&a=2", {{"a", ", 2"}}},
      {"a=1&a", {{"a", "1, "}}},
      // Split at the first equals sign, and before it is decoded.
      {"a=b=c", {{"a", "b=c"}}},
      {"flag", {{"flag", ""}}},
      {"x%3Dy=1%262", {{"x=y", "1&2"}}},
      // Neither trimmed nor changed in case; a semicolon is data.
      {"+A+=+B+", {{" A ", " B "}}},
      {"a=1;b=2", {{"a", "1;b=2"}}},
      {"a=%4&%zz=%%41", {{"a", "%4"}, {"%zz", "%A"}}},
  };
  for (const auto& [query, params] : queries) {
    EXPECT_EQ(Parse(query, params), Strings{}) << query;
  }
}

TEST(QueryString, MayNameParametersInAnyOrder) {
  std::vector<int> numbers(200);
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    // Each name twice.
    numbers[i] = static_cast<int>(i / 2);
  }
  std::mt19937 random(11);
  for (int round = 0; round < 20; ++round) {
    std::string query;
    Texts expected;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
      const std::string name = "f" + std::to_string(numbers[i]);
      const std::string value = std::to_string(i);
      query += name + "=" + value + "&";
      std::string& values = expected[name];
      values += (values.empty() ? "" : ", ") + value;
    }
    Parse(query, expected);
    std::shuffle(numbers.begin(), numbers.end(), random);
  }
}

TEST(QueryString, WarnsOfAValueWithoutANameAndCannotForgeALogLine) {
  EXPECT_EQ(Parse("=a\r\nzancgi[1] core error: forged\x1b[31m%n%s&=a%20b", {}),
            (Strings{"Key name is empty, value = 'a\\x0d\\x0azancgi[1] core "
                     "error: forged\\x1b[31m%n%s'",
                     "Key name is empty, value = 'a%20b'"}));
}

/// How many of four parameters a parse adds that lacks the memory for its
/// allocation of this number. The others must not be there in part.
std::size_t AddedWithoutAllocation(std::size_t number) {
  Texts expected;
  std::string query;
  for (const char letter : {'a', 'b', 'c', 'd'}) {
    const std::string text(50, letter);
    expected[text] = text;
    query.append(text).append("=").append(text).append("&");
  }
  Cgi::Data request;
  std::string given = query;
  bool has_thrown = false;
  FailAllocation(number);
  try {
    request.ParseQueryString(std::move(given));
  } catch (const std::bad_alloc&) {
    has_thrown = true;
  }
  FailAllocation(0);
  const std::size_t added = request.params.size();
  EXPECT_EQ(has_thrown, AllocationHasFailed());
  EXPECT_NE(has_thrown, request.parsed);
  expected.erase(std::next(expected.begin(), static_cast<long>(added)),
                 expected.end());
  EXPECT_EQ(request.params, expected);
  return added;
}

TEST(QueryString, KeepsWhatWasAddedBeforeMemoryEnded) {
  RunCleanly(Child(), [] {
    std::vector<std::size_t> counts;
    for (std::size_t number = 1; counts.empty() || counts.back() < 4;
         ++number) {
      counts.push_back(AddedWithoutAllocation(number));
    }
    EXPECT_TRUE(std::is_sorted(counts.begin(), counts.end()));
    for (const std::size_t count : {0U, 1U, 2U, 3U}) {
      EXPECT_GT(std::count(counts.begin(), counts.end(), count), 0) << count;
    }
  });
}

}  // namespace
}  // namespace support
