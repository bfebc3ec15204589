#include <tov/env.h>

#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

namespace tov_env {

std::string GetEnv(const std::string& name) {
  // getenv(3) would cut the name at a zero byte, and would find "A=B" in
  // "A=B=C".
  if (name.find_first_of(std::string_view("=\0", 2)) != std::string::npos) {
    return {};
  }
  const char* value = ::getenv(name.c_str());
  return value == nullptr ? std::string() : std::string(value);
}

void GetAllEnvs(std::map<std::string, std::string>& variables) {
  variables.clear();
  if (environ == nullptr) return;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const char* name = *entry;
    const char* equals = std::strchr(name, '=');
    if (equals == nullptr || equals == name) continue;
    variables.emplace(std::string(name, equals), equals + 1);
  }
}

}  // namespace tov_env
