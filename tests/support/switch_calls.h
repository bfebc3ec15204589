/// @file
/// The calls of the system that a switch is made of, recorded, and answered
/// where a test says so.
///
/// A program that uses this has switch_calls.cpp among its own sources: the
/// functions defined there would otherwise be drawn into every test program.
#ifndef ZANCGI_TESTS_SUPPORT_SWITCH_CALLS_H
#define ZANCGI_TESTS_SUPPORT_SWITCH_CALLS_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/account.h"

namespace support {

/// How calls are answered. They are named as in the record: the function, and
/// after a blank each its arguments.
struct Answers {
  /// Nobody becomes anybody: calls that take root's rights or ask who is who
  /// succeed without being made, and PAM is not there. The others are made.
  bool pretend = true;
  /// The accounts that then exist.
  std::vector<Account> accounts = {};
  /// The groups that each of them is a member of, besides its base group.
  std::vector<gid_t> groups = {};
  /// What a call gives instead of being made: errno, or the code of a PAM
  /// function. One number for each time that it is called, 0 for as usual;
  /// later calls are as usual.
  std::map<std::string, std::vector<int>> failures = {};
  /// The type that statfs(2) returns for every file system; 0 for the true
  /// one.
  long file_system = 0;
  /// How many blocks of 512 bytes are then free in each; below 0 for the true
  /// number.
  long free_blocks = -1;
  /// What happens besides, each time, before the call is made or answered.
  std::map<std::string, std::function<void()>> effects = {};
  /// What a call returns instead of being made, as often as failures say.
  std::map<std::string, std::vector<int>> results = {};
  /// Changes each answer of capget(2).
  std::map<std::string, std::function<void(void*)>> alterations = {};
  /// The call of this number, counted from 1 over all, fails with EPERM.
  int failing_call = 0;
};

/// Records calls with Mark(), in this process, as long as it lives; for child
/// processes.
class Recording {
 public:
  explicit Recording(Answers answers);
  ~Recording();
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;

 private:
  Answers answers_;
};

/// The record's name for fchdir(2) to this directory.
std::string FchdirTo(const std::string& path);

}  // namespace support

#endif
