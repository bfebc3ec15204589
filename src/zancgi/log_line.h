/// @file
/// Private: one line of code for one line of the log.
#ifndef ZANCGI_LOG_LINE_H
#define ZANCGI_LOG_LINE_H

#include <tov/file.h>
#include <tov/log.h>

#include <string>

namespace zan_cgi {

/// By number: their names belong to the base library.
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

/// Writes a message of a level to the module "log", made as by printf(3).
/// Macros, since what the message is made of is computed only if it is to be
/// written.
#define ZANCGI_LOG(level, ...)                             \
  do {                                                     \
    if (log.Check(level)) log.Write((level), __VA_ARGS__); \
  } while (false)

/// The same, preceded by "<source file>:<line> ".
#define ZANCGI_LOG_HERE(level, format, ...)                                \
  ZANCGI_LOG(level, "%s:%d " format, BaseName(__FILE__).c_str(), __LINE__, \
             ##__VA_ARGS__)

#endif
