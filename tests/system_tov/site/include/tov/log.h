#pragma once
#include <tov/site.h>

namespace tov_log {

/// Numbers alone: the names are each library's own.
enum Level : int {};

class Module {
 public:
  Module(const char* name, const char* group);
  bool Check(Level level);
  void Write(Level level, const char* format, ...);

 private:
  site::Room room_;
  std::string name_;
};

}  // namespace tov_log

#ifdef SITE_DEFINES_SMALL
SITE_FUNCTION tov_log::Module::Module(const char* name, const char* group)
    : name_(std::string(name) + "/" + group) {}
SITE_FUNCTION bool tov_log::Module::Check(Level level) {
  const char* const threshold = std::getenv("SITE_LOG");
  return threshold != nullptr && level <= std::strtol(threshold, nullptr, 10);
}
#endif
