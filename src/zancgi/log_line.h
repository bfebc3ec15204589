/// @file
/// Private: macros that write one line to the log.
#ifndef ZANCGI_LOG_LINE_H
#define ZANCGI_LOG_LINE_H

#include <tov/file.h>
#include <tov/log.h>

#include <string>

namespace zan_cgi {

/// Given as numbers, because the enumerators' names belong to the base library.
/// @{
constexpr auto kError = static_cast<tov_log::Level>(3);
constexpr auto kWarning = static_cast<tov_log::Level>(4);
constexpr auto kQuery = static_cast<tov_log::Level>(7);
constexpr auto kTrace = static_cast<tov_log::Level>(8);
constexpr auto kDebug = static_cast<tov_log::Level>(9);
/// @}

inline std::string BaseName(const char* file) {
  return tov_file::SplitPath(file).second;
}

}  // namespace zan_cgi

/// Writes a message of a level to the module "log", formatted as by printf(3).
/// A macro, so that the arguments are evaluated only if the message is written.
#define ZANCGI_LOG(level, ...)                             \
  do {                                                     \
    if (log.Check(level)) log.Write((level), __VA_ARGS__); \
  } while (false)

/// The same with the prefix "<source file>:<line> ".
#define ZANCGI_LOG_HERE(level, format, ...)                                \
  ZANCGI_LOG(level, "%s:%d " format, BaseName(__FILE__).c_str(), __LINE__, \
             ##__VA_ARGS__)

#endif
