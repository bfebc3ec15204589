/// @file
/// The log: one line per message, for the administrator.
///
/// Two environment variables of the process set it up:
///
/// - `TOV_LOG_LEVEL`: 0 to 9; a message is written when its level is at most
///   this one. 4 when unset or not a number; beyond 9 counts as 9.
/// - `TOV_LOG`: "stderr" (also when unset or empty), "syslog", or the path of a
///   file, which is made with mode 0640 and appended to. A target that cannot
///   be opened is replaced by standard error.
///
/// Of the levels up to Warning at most 100 messages of one format are written
/// in one process, so that a client cannot fill the log. The next one is
/// replaced by the line `further messages are dropped after 100 of "<format>"`.
/// When the process ends by exit(3), or the library is unloaded, the line
/// `messages dropped: <number> of "<format>"` follows, and again if a later
/// handler of the exit logs more of them. Both lines have the name, part and
/// level of the first message that was dropped. Formats are compared by their
/// text, of which the first 175 bytes count; from the 32nd format on, all
/// further ones are counted and reported together as "(other formats)". A child
/// process counts for itself. A message that a signal handler or another thread
/// writes while one is being counted is not counted.
///
/// Both variables are read, and the target is opened, at the first
/// Module::Check or Module::Write of the process and never again: a later
/// moment could be inside the home of an account, still as root.
#ifndef TOV_LOG_H
#define TOV_LOG_H

#include <tov/api.h>

namespace tov_log {

/// How much a message matters; 0 matters most. The first seven are syslog's
/// (RFC 5424, table 2).
enum Level : int {
  Emergency = 0,
  Alert = 1,
  Critical = 2,
  Error = 3,
  Warning = 4,
  Notice = 5,
  Info = 6,
  Query = 7,
  Trace = 8,
  Debug = 9
};

/// A part of a program that writes log lines under its own name.
class TOV_API Module {
 public:
  /// @param name   name of the program or library; not copied
  /// @param group  name of a part of it; not copied
  Module(const char* name, const char* group);

  /// Says whether a message of this level would be written. Costs a load and
  /// a comparison.
  bool Check(Level level);

  /// Writes a message made as by printf(3), whatever its level, unless too many
  /// of its format were written before.
  ///
  /// The line is "name[process id] group level: message", at most 4096 bytes
  /// with its line end; a longer one is cut and ends in "...". A file also
  /// begins with the time (UTC). Control characters, line ends included, are
  /// written as "\xNN", so that no message can forge another one. The line is
  /// handed to the system in one piece. Neither throws, nor raises SIGPIPE,
  /// nor waits for slow readers longer than one second in the whole process: a
  /// line that cannot be written is dropped.
  void Write(Level level, const char* format, ...)
      __attribute__((format(printf, 3, 4)));

 private:
  const char* name_;
  const char* group_;
};

}  // namespace tov_log

#endif
