#ifndef SITE_LOG_H
#define SITE_LOG_H

#include <string>

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

#ifdef SITE_INLINE
#include <tov/inline/log.h>
#endif

#endif
