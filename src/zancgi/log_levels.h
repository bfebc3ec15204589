/// @file
/// Private: the levels at which this library logs.
#ifndef ZANCGI_LOG_LEVELS_H
#define ZANCGI_LOG_LEVELS_H

#include <tov/log.h>

namespace zan_cgi {

/// By number: their names belong to the base library.
/// @{
constexpr auto kError = static_cast<tov_log::Level>(3);
constexpr auto kWarning = static_cast<tov_log::Level>(4);
constexpr auto kQuery = static_cast<tov_log::Level>(7);
constexpr auto kTrace = static_cast<tov_log::Level>(8);
constexpr auto kDebug = static_cast<tov_log::Level>(9);
/// @}

}  // namespace zan_cgi

#endif
