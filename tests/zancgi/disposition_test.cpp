#include "zancgi/disposition.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using zan_cgi::Disposition;
using zan_cgi::QuotedValue;
using Strings = std::vector<std::string>;

/// The words up to the first empty one.
Strings Words(const std::string& value) {
  Strings words;
  Disposition disposition(value);
  for (std::string word = disposition.Next(); !word.empty();
       word = disposition.Next()) {
    words.push_back(word);
  }
  return words;
}

TEST(Disposition, HandsOutTypeAndAttributes) {
  EXPECT_EQ(Words("form-data; name=\"a\"; filename=\"b\""),
            (Strings{"form-data", "name=\"a\"", "filename=\"b\""}));
}

TEST(Disposition, TrimsEachWord) {
  EXPECT_EQ(Words(" form-data ;\tname=\"a\" "),
            (Strings{"form-data", "name=\"a\""}));
}

TEST(Disposition, HasAnEmptyWordBetweenTwoSemicolons) {
  EXPECT_EQ(Words("form-data;;name=\"a\""), Strings{"form-data"});
  EXPECT_EQ(Words("form-data; ;name=\"a\""), Strings{"form-data"});
}

TEST(Disposition, EndsAnAttributeInsideQuotes) {
  EXPECT_EQ(Words("x; filename=\"a;b\""),
            (Strings{"x", "filename=\"a", "b\""}));
}

TEST(Disposition, IsEmptyAtItsEnd) {
  const std::string value = "x";
  Disposition disposition(value);
  EXPECT_EQ(disposition.Next(), "x");
  EXPECT_EQ(disposition.Next(), "");
  EXPECT_EQ(disposition.Next(), "");
  EXPECT_EQ(Words(""), Strings{});
}

TEST(QuotedValue, StandsBetweenTheFirstEqualsWithAQuoteAndTheNextQuote) {
  EXPECT_EQ(QuotedValue("name=\"a\""), "a");
  EXPECT_EQ(QuotedValue("name=x=\"a\"b\"c"), "a");
  EXPECT_EQ(QuotedValue("name*=\"=\""), "=");
}

TEST(QuotedValue, ReachesToTheEndWithoutASecondQuote) {
  EXPECT_EQ(QuotedValue("name=\"a b"), "a b");
}

TEST(QuotedValue, IsEmptyWithoutQuotesRightBehindTheEquals) {
  EXPECT_EQ(QuotedValue("name=a"), "");
  EXPECT_EQ(QuotedValue("name= \"a\""), "");
  EXPECT_EQ(QuotedValue("name=\"\""), "");
  EXPECT_EQ(QuotedValue("name"), "");
}

}  // namespace
