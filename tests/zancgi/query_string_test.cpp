#include <gtest/gtest.h>
#include <zancgi/testing/child.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <new>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/clean_run.h"
#include "support/new_operator.h"

namespace {

using support::RunCleanly;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Reporter;
using Strings = std::vector<std::string>;

using Params = std::map<std::string, std::string>;

/// Parses this in a child, into these parameters. Returns the warnings.
Strings Parse(const std::string& query, const Params& params) {
  Child child;
  child.Env("REQUEST_METHOD", "GET").Env("QUERY_STRING", query);
  return RunCleanly(child,
                    [&](const Reporter&) {
                      Cgi::Data request;
                      request.ParseQuery();
                      EXPECT_EQ(request.params, params) << query;
                      EXPECT_TRUE(request.parsed);
                    })
      .Logged(4);
}

TEST(QueryString, GivesParameters) {
  const std::pair<std::string, Params> queries[] = {
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

TEST(QueryString, TakesNamesInWhateverOrderTheyCome) {
  std::vector<int> numbers(200);
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    // Each name twice.
    numbers[i] = static_cast<int>(i / 2);
  }
  std::mt19937 random(11);
  for (int round = 0; round < 20; ++round) {
    std::string query;
    Params expected;
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

TEST(QueryString, WarnsOfAValueWithoutAName) {
  EXPECT_EQ(Parse("=5&=a%20b", {}),
            (Strings{"Key name is empty, value = '5'",
                     "Key name is empty, value = 'a%20b'"}));
}

TEST(QueryString, CannotForgeALogLine) {
  EXPECT_EQ(Parse("=a\r\nzancgi[1] core error: forged\x1b[31m%n%s", {}),
            Strings{"Key name is empty, value = 'a\\x0d\\x0azancgi[1] core "
                    "error: forged\\x1b[31m%n%s'"});
}

TEST(QueryString, IsTracedAndParsedOnce) {
  Child child;
  child.Env("REQUEST_METHOD", "GET").Env("QUERY_STRING", "a=1");
  const Outcome outcome = RunCleanly(child, [](const Reporter&) {
    Cgi::Data request;
    request.ParseQuery();
    request.ParseQueryString("a=2&b=3");
    EXPECT_EQ(request.params, (Params{{"a", "1"}}));
  });
  EXPECT_EQ(
      outcome.Logged(8),
      (Strings{"void zan_cgi::Cgi::Data::ParseCookies()",
               "void zan_cgi::Cgi::Data::ParseQuery()",
               "void zan_cgi::Cgi::Data::ParseQueryString(std::string)",
               "void zan_cgi::Cgi::Data::ParseQueryString(std::string)"}));
  EXPECT_EQ(outcome.Logged(4), Strings{"attempt to reparse GET query"});
}

/// How many of four parameters a parse adds that lacks the memory for its
/// allocation of this number. The others must not be there in part.
std::size_t AddedWithoutAllocation(std::size_t number) {
  Params expected;
  std::string query;
  for (const char letter : {'a', 'b', 'c', 'd'}) {
    const std::string text(50, letter);
    expected[text] = text;
    query.append(text).append("=").append(text).append("&");
  }
  Cgi::Data request;
  std::string given = query;
  bool has_thrown = false;
  support::FailAllocation(number);
  try {
    request.ParseQueryString(std::move(given));
  } catch (const std::bad_alloc&) {
    has_thrown = true;
  }
  support::FailAllocation(0);
  const std::size_t added = request.params.size();
  EXPECT_EQ(has_thrown, support::AllocationHasFailed());
  EXPECT_NE(has_thrown, request.parsed);
  expected.erase(std::next(expected.begin(), static_cast<long>(added)),
                 expected.end());
  EXPECT_EQ(request.params, expected);
  return added;
}

TEST(QueryString, KeepsWhatWasAddedBeforeMemoryEnded) {
  RunCleanly(Child(), [](const Reporter&) {
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
