/// @file
/// Private: limits how often messages of one format are logged.
///
/// A request can make a front end write a warning for every few bytes that the
/// client sends. The log must not grow that fast.
#ifndef TOV_LOG_LIMIT_H
#define TOV_LOG_LIMIT_H

namespace tov_internal {

/// At most this many messages of one format are logged in one process.
constexpr unsigned kMostPerFormat = 100;

/// The counters of one format. The texts are copies because the library that
/// they belong to may be unloaded before the process ends.
struct UsedFormat {
  /// The beginning of the format. Formats with the same beginning count as one.
  char text[176];
  unsigned written;
  bool announced;
  /// How many messages were dropped since they were reported.
  unsigned long dropped;
  /// Module and level of the first message that was dropped.
  char name[32];
  char group[32];
  int level;
};

struct LimitedMessage {
  const char* name;
  const char* group;
  int level;
  const char* format;
};

using Report = void (*)(const UsedFormat& used);

/// Counts a message and returns whether it may be written. Calls @p announce
/// for the first message of a format that may not.
///
/// Never waits, throws or uses the heap. A message that arrives during another
/// call, from a signal handler or another thread, may be written and is not
/// counted. The counts of a child process begin at 0.
bool MayWrite(const LimitedMessage& message, Report announce);

/// Calls @p report for each format of which this process has dropped messages
/// since the last call.
void ReportDropped(Report report);

}  // namespace tov_internal

#endif
