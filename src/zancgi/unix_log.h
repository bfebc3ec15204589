/// @file
/// Private: the log module of both files named zancgi_unix.cpp.
#ifndef ZANCGI_UNIX_LOG_H
#define ZANCGI_UNIX_LOG_H

#include <tov/log.h>

#include "log_line.h"  // IWYU pragma: export

namespace zan_cgi {

extern tov_log::Module unix_log;

}  // namespace zan_cgi

#endif
