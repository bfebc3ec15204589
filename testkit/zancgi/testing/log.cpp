#include <zancgi/testing/log.h>

#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <ostream>
#include <regex>
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

int LevelByName(std::string_view name) {
  const auto* found = std::find(std::begin(kLevels), std::end(kLevels), name);
  return static_cast<int>(found - std::begin(kLevels));
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
  // A log in a regular file begins with the time. The message is not part of
  // the expression, which recurses and could exhaust the stack on a long one.
  static const std::regex prefix(
      "(?:[-0-9T:]+Z )?([^ \\[]+)\\[[0-9]+\\] ([^ ]+) "
      "(emergency|alert|critical|error|warning|notice|info|query|trace|debug)"
      ": ");
  Log log;
  std::istringstream stream(standard_error);
  for (std::string line; std::getline(stream, line);) {
    if (line.starts_with(kMark)) {
      log.push_back({kMarkLevel, line.substr(kMark.size())});
      continue;
    }
    std::smatch found;
    if (std::regex_search(line, found, prefix,
                          std::regex_constants::match_continuous)) {
      log.push_back(
          {LevelByName(found[3].str()), found.suffix(), found[1], found[2]});
    }
  }
  return log;
}

void Mark(const std::string& text) {
  WriteAll(STDERR_FILENO, std::string(kMark) + text + "\n");
}

}  // namespace zan_cgi::testing
