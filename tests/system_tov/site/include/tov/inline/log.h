#include <cstdlib>

#include <tov/site.h>

namespace tov_log {

SITE_FUNCTION Module::Module(const char* name, const char* group)
    : name_(std::string(name) + "/" + group) {}

SITE_FUNCTION bool Module::Check(Level level) {
  const char* const threshold = std::getenv("SITE_LOG");
  return threshold != nullptr && level <= std::strtol(threshold, nullptr, 10);
}

}  // namespace tov_log
