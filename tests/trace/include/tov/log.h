#ifndef TRACE_LOG_H
#define TRACE_LOG_H

namespace tov_log {

/// Numbers alone.
enum Level : int {};

/// Also notices its end.
class Module {
 public:
  Module(const char* name, const char* group);
  ~Module();
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  bool Check(Level level);
  void Write(Level level, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
};

}  // namespace tov_log

#endif
