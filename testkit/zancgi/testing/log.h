/// @file
/// The lines that front ends and the libraries log.
#ifndef ZANCGI_TESTING_LOG_H
#define ZANCGI_TESTING_LOG_H

// <algorithm> would be for the comparison that the compiler generates.
// IWYU pragma: no_include <algorithm>
#include <iosfwd>
#include <string>
#include <vector>

namespace zan_cgi::testing {

/// One line of the log: its numeric level, its message without the prefix, and
/// the module that wrote it.
struct LogLine {
  int level = 0;                  ///< 3 for errors to 9 for debugging.
  std::string text;               ///< The message.
  std::string module = "zancgi";  ///< The module's name.
  std::string group = "core";     ///< The module's group.

  friend bool operator==(const LogLine& a, const LogLine& b) {
    return a.level == b.level && a.text == b.text && a.module == b.module &&
           a.group == b.group;
  }
  friend bool operator!=(const LogLine& a, const LogLine& b) {
    return !(a == b);
  }
};

/// Prints a line in the messages of failed expectations.
void PrintTo(const LogLine& line, std::ostream* out);

/// Log lines, in order.
using Log = std::vector<LogLine>;

/// Returns the messages of one level.
std::vector<std::string> TextsOf(const Log& log, int level);

/// Extracts the log lines from a process's standard error. Other lines are
/// skipped. A mark of Mark() has level -1.
Log ParseLog(const std::string& standard_error);

/// Writes a mark among the log lines of a child, to show the order of effects.
void Mark(const std::string& text);

}  // namespace zan_cgi::testing

#endif
