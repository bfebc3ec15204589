/// @file
/// The environment of the process (POSIX, environ).
///
/// Reading is as thread-safe as getenv(3): no other thread may change the
/// environment at the same time.
#ifndef TOV_ENV_H
#define TOV_ENV_H

#include <map>
#include <string>

#include <tov/api.h>

namespace tov_env {

/// Returns the value of a variable; empty when it is not set.
TOV_API std::string GetEnv(const std::string& name);

/// Replaces the contents of @p variables by the whole environment, name to
/// value.
///
/// If a name occurs twice, the first entry counts, as with getenv(3). Entries
/// without a name or "=" are skipped.
TOV_API void GetAllEnvs(std::map<std::string, std::string>& variables);

}  // namespace tov_env

#endif
