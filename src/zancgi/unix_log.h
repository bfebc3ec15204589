/// @file
/// Private: the log module of zancgi_unix.cpp, which has two parts.
#ifndef ZANCGI_UNIX_LOG_H
#define ZANCGI_UNIX_LOG_H

#include <tov/log.h>

#include "log_line.h"

namespace zan_cgi {

extern tov_log::Module unix_log;

}  // namespace zan_cgi

#endif
