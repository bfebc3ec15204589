#pragma once

#include <map>
#include <string>

namespace tov_env {

std::string GetEnv(const std::string& name);
void GetAllEnvs(std::map<std::string, std::string>& variables);

}  // namespace tov_env
