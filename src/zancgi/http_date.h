/// @file
/// Private: HTTP dates (RFC 9110 section 5.6.7).
///
/// gmtime(3) and timegm(3) read the system's time zone, which costs several
/// system calls and is missing after chroot(2). So the calendar of <chrono> is
/// used.
#ifndef ZANCGI_HTTP_DATE_H
#define ZANCGI_HTTP_DATE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "http_text.h"

namespace zan_cgi {

inline constexpr char kDayNames[] = "SunMonTueWedThuFriSat";
inline constexpr char kLongDayNames[] =
    ",Sunday,Monday,Tuesday,Wednesday,Thursday,Friday,Saturday,";
inline constexpr char kMonthNames[] = "JanFebMarAprMayJunJulAugSepOctNovDec";

/// Returns a name from a list of names of three letters.
inline std::string NameAt(unsigned index, std::string_view names) {
  return std::string(names.substr(std::size_t{3} * index, 3));
}

/// @param number  in 0 to 99
inline std::string TwoDigits(std::int64_t number) {
  return {static_cast<char>('0' + number / 10),
          static_cast<char>('0' + number % 10)};
}

/// Returns a date in the preferred format, such as "Sun, 06 Nov 1994 08:49:37
/// GMT".
/// @param time  in the years 0 to 9999
inline std::string FormatHttpDate(std::chrono::sys_seconds time) {
  const auto midnight = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(midnight);
  const std::chrono::hh_mm_ss clock(time - midnight);
  const unsigned weekday = std::chrono::weekday(midnight).c_encoding();
  const unsigned month = static_cast<unsigned>(date.month()) - 1;
  const int year = static_cast<int>(date.year());
  return NameAt(weekday, kDayNames) + ", " +
         TwoDigits(static_cast<unsigned>(date.day())) + ' ' +
         NameAt(month, kMonthNames) + ' ' + TwoDigits(year / 100) +
         TwoDigits(year % 100) + ' ' + TwoDigits(clock.hours().count()) + ':' +
         TwoDigits(clock.minutes().count()) + ':' +
         TwoDigits(clock.seconds().count()) + " GMT";
}

/// Returns the index of a name in a list of names of three letters.
inline std::optional<unsigned> IndexOfName(std::string_view name,
                                           std::string_view names) {
  for (std::size_t i = 0; i < names.size(); i += 3) {
    if (names.substr(i, 3) == name) return static_cast<unsigned>(i / 3);
  }
  return std::nullopt;
}

/// The components of a date, as written.
struct DateNumbers {
  int year = 0;
  int month = 0;  ///< From 1.
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;

  /// Returns the number that a pattern letter stands for; null for a literal
  /// character.
  int* Of(char letter) {
    switch (letter) {
      case 'y':
        return &year;
      case 'd':
        return &day;
      case 'h':
        return &hour;
      case 'm':
        return &minute;
      case 's':
        return &second;
      default:
        return nullptr;
    }
  }
};

/// Parses a date of fixed width. In the pattern, each of "ydhms" is a digit of
/// that number, "_" is a digit of the day or a space, "bbb" is the name of the
/// month, and any other character is literal.
inline std::optional<DateNumbers> ReadDate(std::string_view text,
                                           std::string_view pattern) {
  if (text.size() != pattern.size()) return std::nullopt;
  const auto month =
      IndexOfName(text.substr(pattern.find("bbb"), 3), kMonthNames);
  if (!month) return std::nullopt;
  DateNumbers numbers;
  numbers.month = static_cast<int>(*month) + 1;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool is_padding = pattern[i] == '_' && text[i] == ' ';
    if (pattern[i] == 'b' || is_padding) continue;
    int* const number = numbers.Of(pattern[i] == '_' ? 'd' : pattern[i]);
    const bool fits =
        number == nullptr ? text[i] == pattern[i] : IsDigit(text[i]);
    if (!fits) return std::nullopt;
    if (number != nullptr) *number = *number * 10 + (text[i] - '0');
  }
  return numbers;
}

/// Expands a two-digit year. The result is at most 50 years in the future.
inline int FullYear(int two_digits, std::chrono::sys_seconds now) {
  const std::chrono::year_month_day today(
      std::chrono::floor<std::chrono::days>(now));
  const int this_year = static_cast<int>(today.year());
  const int year = this_year - this_year % 100 + two_digits;
  return year > this_year + 50 ? year - 100 : year;
}

inline bool IsLongDayName(std::string_view name) {
  const std::string wanted = "," + std::string(name) + ",";
  return !name.empty() && name.find(',') == std::string_view::npos &&
         std::string_view(kLongDayNames).find(wanted) != std::string_view::npos;
}

/// Parses any of the three date formats.
inline std::optional<DateNumbers> ReadHttpDate(std::string_view text,
                                               std::chrono::sys_seconds now) {
  const std::size_t comma = text.find(", ");
  if (comma == std::string_view::npos) {
    const bool has_day = IndexOfName(text.substr(0, 3), kDayNames).has_value();
    return has_day ? ReadDate(text.substr(3), " bbb _d hh:mm:ss yyyy")
                   : std::nullopt;
  }
  const std::string_view day_name = text.substr(0, comma);
  const std::string_view rest = text.substr(comma + 2);
  if (IndexOfName(day_name, kDayNames)) {
    return ReadDate(rest, "dd bbb yyyy hh:mm:ss GMT");
  }
  if (!IsLongDayName(day_name)) return std::nullopt;
  auto numbers = ReadDate(rest, "dd-bbb-yy hh:mm:ss GMT");
  if (numbers) numbers->year = FullYear(numbers->year, now);
  return numbers;
}

/// Converts a date in any of the three formats to a time. Returns nothing if it
/// is malformed. The day of the week is not checked against the date.
/// @param now  decides the century of a two-digit year
inline std::optional<std::chrono::sys_seconds> ParseHttpDate(
    std::string_view text, std::chrono::sys_seconds now) {
  const auto numbers = ReadHttpDate(text, now);
  if (!numbers) return std::nullopt;
  const std::chrono::year_month_day date(
      std::chrono::year(numbers->year),
      std::chrono::month(static_cast<unsigned>(numbers->month)),
      std::chrono::day(static_cast<unsigned>(numbers->day)));
  // 60 is a leap second.
  const bool is_time =
      numbers->hour < 24 && numbers->minute < 60 && numbers->second <= 60;
  if (!date.ok() || !is_time) return std::nullopt;
  const std::chrono::sys_days midnight = date;
  return midnight + std::chrono::hours(numbers->hour) +
         std::chrono::minutes(numbers->minute) +
         std::chrono::seconds(numbers->second);
}

}  // namespace zan_cgi

#endif
