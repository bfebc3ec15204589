#include <gtest/gtest.h>
#include <zancgi/testing/child.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "support/new_operator.h"

namespace {

using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Told;
using Strings = std::vector<std::string>;

/// Tells every parameter under its name.
Outcome Parse(const std::string& query) {
  return Child()
      .Env("REQUEST_METHOD", "GET")
      .Env("QUERY_STRING", query)
      .Run([](const Told& told) {
        Cgi::Data request;
        request.ParseQuery();
        for (const auto& [name, value] : request.params) told(name, value);
        if (!request.parsed) throw std::runtime_error("not parsed");
      });
}

using Params = std::map<std::string, std::string>;

TEST(QueryString, WhenEmptyGivesNothing) {
  EXPECT_EQ(Parse("").told, Params{});
  EXPECT_EQ(Parse("").error, "");
}

TEST(QueryString, SkipsEmptyItems) {
  const Outcome outcome = Parse("&&a=1&");
  EXPECT_EQ(outcome.told, (Params{{"a", "1"}}));
  EXPECT_TRUE(outcome.Logged(4).empty());
}

TEST(QueryString, JoinsTheValuesOfARepeatedName) {
  EXPECT_EQ(Parse("a=1&a=2&a=3").told, (Params{{"a", "1, 2, 3"}}));
  EXPECT_EQ(Parse("a=1&b=2&a=3").told, (Params{{"a", "1, 3"}, {"b", "2"}}));
  EXPECT_EQ(Parse("a=&a=2").told, (Params{{"a", ", 2"}}));
  EXPECT_EQ(Parse("a=1&a").told, (Params{{"a", "1, "}}));
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
    EXPECT_EQ(Parse(query).told, expected);
    std::shuffle(numbers.begin(), numbers.end(), random);
  }
}

TEST(QueryString, SplitsAtTheFirstEqualsSign) {
  EXPECT_EQ(Parse("a=b=c").told, (Params{{"a", "b=c"}}));
  EXPECT_EQ(Parse("flag").told, (Params{{"flag", ""}}));
}

TEST(QueryString, SplitsBeforeItDecodes) {
  EXPECT_EQ(Parse("x%3Dy=1%262").told, (Params{{"x=y", "1&2"}}));
}

TEST(QueryString, NeitherTrimsNorChangesCase) {
  EXPECT_EQ(Parse("+A+=+B+").told, (Params{{" A ", " B "}}));
}

TEST(QueryString, TakesASemicolonForData) {
  EXPECT_EQ(Parse("a=1;b=2").told, (Params{{"a", "1;b=2"}}));
}

TEST(QueryString, WarnsOfAValueWithoutAName) {
  const Outcome outcome = Parse("=5&=a%20b");
  EXPECT_EQ(outcome.told, Params{});
  EXPECT_EQ(outcome.Logged(4), (Strings{"Key name is empty, value = '5'",
                                        "Key name is empty, value = 'a%20b'"}));
}

TEST(QueryString, DropsAnEmptyPairSilently) {
  for (const char* query : {"=", "&=&"}) {
    const Outcome outcome = Parse(query);
    EXPECT_EQ(outcome.told, Params{});
    EXPECT_TRUE(outcome.Logged(4).empty());
  }
}

TEST(QueryString, CannotForgeALogLine) {
  const Outcome outcome =
      Parse("=a\r\nzancgi[1] core error: forged\x1b[31m%n%s");
  EXPECT_EQ(outcome.Logged(4),
            Strings{"Key name is empty, value = 'a\\x0d\\x0azancgi[1] core "
                    "error: forged\\x1b[31m%n%s'"});
}

TEST(QueryString, IsTracedAndParsedOnce) {
  const Outcome outcome =
      Child()
          .Env("REQUEST_METHOD", "GET")
          .Env("QUERY_STRING", "a=1")
          .Run([](const Told& told) {
            Cgi::Data request;
            request.ParseQuery();
            request.ParseQueryString("a=2&b=3");
            for (const auto& [name, value] : request.params) {
              told(name, value);
            }
          });
  EXPECT_EQ(outcome.told, (Params{{"a", "1"}}));
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
  const Outcome outcome = Child().Run([](const Told&) {
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
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
}

}  // namespace
