#include "zancgi/http_date.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

namespace {

using std::chrono::seconds;
using std::chrono::sys_seconds;

constexpr sys_seconds At(long time) { return sys_seconds(seconds(time)); }

/// 2026-11-22.
constexpr sys_seconds kNow = At(1'795'305'600);

TEST(HttpDate, IsWrittenInThePreferredForm) {
  const std::pair<long, std::string> rows[] = {
      {0, "Thu, 01 Jan 1970 00:00:00 GMT"},
      {784'111'777, "Sun, 06 Nov 1994 08:49:37 GMT"},
      {951'782'400 + 86'399, "Tue, 29 Feb 2000 23:59:59 GMT"},
      {4'294'967'296, "Sun, 07 Feb 2106 06:28:16 GMT"},
      {253'402'300'799, "Fri, 31 Dec 9999 23:59:59 GMT"}};
  for (const auto& [time, text] : rows) {
    EXPECT_EQ(zan_cgi::FormatHttpDate(At(time)), text);
    EXPECT_EQ(zan_cgi::ParseHttpDate(text, kNow), At(time));
  }
}

TEST(HttpDate, IsReadInTheOlderForms) {
  const std::pair<std::string, long> rows[] = {
      {"Sunday, 06-Nov-94 08:49:37 GMT", 784'111'777},
      {"Wednesday, 01-Jan-86 00:00:00 GMT", 504'921'600},
      // Two digits are at most fifty years ahead.
      {"Wednesday, 01-Jan-76 00:00:00 GMT", 3'345'062'400},
      {"Saturday, 01-Jan-77 00:00:00 GMT", 220'924'800},
      {"Sun Nov  6 08:49:37 1994", 784'111'777},
      {"Tue Feb 29 23:59:59 2000", 951'782'400 + 86'399},
      {"Sun, 06 Nov 1994 08:49:60 GMT", 784'111'800},
      {"Mon, 06 Nov 1994 08:49:37 GMT", 784'111'777}};
  for (const auto& [text, time] : rows) {
    EXPECT_EQ(zan_cgi::ParseHttpDate(text, kNow), At(time)) << text;
  }
}

TEST(HttpDate, ThatIsMalformedIsRefused) {
  const std::string rows[] = {"",
                              "0",
                              "Sun",
                              "Sun, ",
                              ", ",
                              "Sun, 06 Nov 1994 08:49:37",
                              "Sun, 06 Nov 1994 08:49:37 UTC",
                              "Sun, 06 Nov 1994 08:49:37 GMT ",
                              "Sun, 06 nov 1994 08:49:37 GMT",
                              "Sun, 06 ovD 1994 08:49:37 GMT",
                              "Sun,  6 Nov 1994 08:49:37 GMT",
                              "Sun, 6 Nov 1994 08:49:37 GMT",
                              "Sun, 06 Nov 94 08:49:37 GMT",
                              "Sunday, 06 Nov 1994 08:49:37 GMT",
                              "Sunday, 06-Nov-1994 08:49:37 GMT",
                              "Sun, 06-Nov-94 08:49:37 GMT",
                              "day, 06-Nov-94 08:49:37 GMT",
                              "Sunday,Monday, 06-Nov-94 08:49:37 GMT",
                              "Xyz, 06 Nov 1994 08:49:37 GMT",
                              "unM, 06 Nov 1994 08:49:37 GMT",
                              "Sun, 00 Nov 1994 08:49:37 GMT",
                              "Sun, 31 Nov 1994 08:49:37 GMT",
                              "Sun, 29 Feb 1900 08:49:37 GMT",
                              "Sun, 06 Nov 1994 24:00:00 GMT",
                              "Sun, 06 Nov 1994 08:60:37 GMT",
                              "Sun, 06 Nov 1994 08:49:61 GMT",
                              "Sun, 06 Nov 1994 08:49:-7 GMT",
                              "Sun, 06 Nov 1994 08.49.37 GMT",
                              "Sun Nov 6 08:49:37 1994",
                              "Sun Nov    08:49:37 1994",
                              "Xyz Nov  6 08:49:37 1994",
                              "Sun Nov  6 08:49:37 1994 GMT"};
  for (const std::string& text : rows) {
    EXPECT_EQ(zan_cgi::ParseHttpDate(text, kNow), std::nullopt) << text;
  }
}

}  // namespace
