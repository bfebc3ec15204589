/// @file
/// The environment of the process (POSIX, environ).
///
/// Reading is as safe among threads as getenv(3): nothing may change the
/// environment meanwhile.
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
/// Of a name that occurs twice the first entry counts, as for getenv(3). An
/// entry without a name or without "=" is skipped.
TOV_API void GetAllEnvs(std::map<std::string, std::string>& variables);

}  // namespace tov_env

#endif
