/// @file
/// The log: one line per message, for the administrator.
///
/// Two environment variables of the process set it up:
///
/// - `TOV_LOG_LEVEL`: 0 to 9; a message is written if its level is at most this
///   value. The default is 4, also for a value that is not a number. Values
///   above 9 count as 9.
/// - `TOV_LOG`: "stderr" (the default, also when empty), "syslog", or the path
///   of a file. The file is created with mode 0640, and lines are appended to
///   it. If the target cannot be opened, standard error is used.
///
/// At most 100 messages with the same format are written by one process at the
/// levels up to Warning, so that a client cannot fill the log. The next one is
/// replaced by the line `further messages are dropped after 100 of "<format>"`.
/// When the process ends with exit(3), or the library is unloaded, the line
/// `messages dropped: <number> of "<format>"` follows, and again if a later
/// exit handler logs more of them. Both lines have the name, part and level of
/// the first message that was dropped. Formats are compared by their first 175
/// bytes. From the 32nd format on, all further ones are counted and reported
/// together as "(other formats)". A child process has counters of its own. A
/// message from a signal handler or another thread that arrives while another
/// message is being counted is not counted.
///
/// Both variables are read, and the target is opened, at the first
/// Module::Check or Module::Write of the process and never again. Later, the
/// process could be root inside an account's home, which must not choose the
/// target.
#ifndef TOV_LOG_H
#define TOV_LOG_H

#include <tov/api.h>

namespace tov_log {

/// How important a message is; 0 is the most important. The first seven are
/// syslog's (RFC 5424, table 2).
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

  /// Returns whether a message of this level would be written. Costs one load
  /// and one comparison.
  bool Check(Level level);

  /// Writes a message formatted as by printf(3), whatever its level, unless the
  /// limit for its format is reached.
  ///
  /// The line is "name[process id] group level: message", at most 4096 bytes
  /// with its line end; a longer one is cut and ends in "...". In a file, the
  /// time (UTC) comes first. Control characters, line ends included, are
  /// written as "\xNN", so that one message cannot imitate another. Each line
  /// is written with one system call. Never throws, never raises SIGPIPE, and
  /// waits for slow readers at most one second in total per process: a line
  /// that cannot be written is dropped.
  void Write(Level level, const char* format, ...)
      __attribute__((format(printf, 3, 4)));

 private:
  const char* name_;
  const char* group_;
};

}  // namespace tov_log

#endif
