#include "support/variable.h"

#include <stdlib.h>

#include <cstdlib>
#include <map>

namespace support {

void SetVariable(const std::string& name, const std::string& value) {
  // putenv(3) makes these texts part of the environment.
  static std::map<std::string, std::string> entries;
  ::unsetenv(name.c_str());
  if (value.empty()) return;
  std::string& entry = entries[name];
  entry.assign(name).append("=").append(value);
  ::putenv(entry.data());
}

std::size_t NumberInVariable(const char* name, std::size_t otherwise) {
  const char* const value = std::getenv(name);
  return value == nullptr ? otherwise : std::stoul(value);
}

}  // namespace support
