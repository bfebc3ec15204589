#include <zancgi/testing/log.h>

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>
#include <ostream>
#include <sstream>
#include <string_view>

#include "system.h"

namespace zan_cgi::testing {
namespace {

constexpr std::string_view kMark = "mark: ";
constexpr int kMarkLevel = -1;

constexpr std::string_view kLevels[] = {
    "emergency", "alert", "critical", "error", "warning",
    "notice",    "info",  "query",    "trace", "debug"};

std::optional<int> LevelByName(std::string_view name) {
  const auto* found = std::find(std::begin(kLevels), std::end(kLevels), name);
  if (found == std::end(kLevels)) return std::nullopt;
  return static_cast<int>(found - std::begin(kLevels));
}

/// Removes what is before the separator from the text, with the separator, and
/// returns it: nothing if there is no separator.
std::string_view TakeUntil(std::string_view separator, std::string_view& text) {
  const std::size_t end = text.find(separator);
  if (end == std::string_view::npos) return {};
  const std::string_view taken = text.substr(0, end);
  text.remove_prefix(end + separator.size());
  return taken;
}

/// A log in a regular file begins with the time.
void SkipTime(std::string_view& text) {
  const std::size_t end = text.find_first_not_of("-0123456789T:");
  if (end > 0 && text.substr(std::min(end, text.size())).starts_with("Z ")) {
    text.remove_prefix(end + 2);
  }
}

/// The line in "MODULE[PROCESS] GROUP LEVEL: MESSAGE".
std::optional<LogLine> LineIn(std::string_view text) {
  SkipTime(text);
  const std::string_view module = TakeUntil("[", text);
  const std::string_view process = TakeUntil("] ", text);
  const std::string_view group = TakeUntil(" ", text);
  const std::optional<int> level = LevelByName(TakeUntil(": ", text));
  if (module.empty() || module.find(' ') != std::string_view::npos ||
      process.empty() ||
      process.find_first_not_of("0123456789") != std::string_view::npos ||
      group.empty() || !level) {
    return std::nullopt;
  }
  return LogLine{*level, std::string(text), std::string(module),
                 std::string(group)};
}

}  // namespace

void PrintTo(const LogLine& line, std::ostream* out) {
  *out << line.module << ' ' << line.group << ' ' << line.level << ' '
       << line.text;
}

std::vector<std::string> TextsOf(const Log& log, int level) {
  std::vector<std::string> texts;
  for (const LogLine& line : log) {
    if (line.level == level) texts.push_back(line.text);
  }
  return texts;
}

Log ParseLog(const std::string& standard_error) {
  Log log;
  std::istringstream stream(standard_error);
  for (std::string line; std::getline(stream, line);) {
    if (line.starts_with(kMark)) {
      log.push_back({kMarkLevel, line.substr(kMark.size())});
    } else if (const std::optional<LogLine> found = LineIn(line)) {
      log.push_back(*found);
    }
  }
  return log;
}

void Mark(const std::string& text) {
  WriteAll(STDERR_FILENO, std::string(kMark) + text + "\n");
}

}  // namespace zan_cgi::testing
