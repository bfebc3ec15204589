/// @file
/// What the log says of PAM sessions, and a PAM module to run in them.
#ifndef ZANCGI_TESTS_ZANCGI_SESSION_H
#define ZANCGI_TESTS_ZANCGI_SESSION_H

#include <zancgi/testing/child.h>

#include <string>

#include "support/switch.h"

inline const zan_cgi::testing::LogLine kStarting{
    9, "zancgi_unix.cpp:# starting PAM session for user 'visitor'"};
inline const zan_cgi::testing::LogLine kNotStarted{
    4, "failed to start PAM session"};
inline const zan_cgi::testing::LogLine kStarted{
    9, "zancgi_unix.cpp:# PAM start done"};
inline const zan_cgi::testing::LogLine kOpened{
    9, "zancgi_unix.cpp:# PAM open_session - ok"};
inline const zan_cgi::testing::LogLine kClosed{
    9, "zancgi_unix.cpp:# PAM close_session - ok"};

/// A PAM module in a machine's folder, which records what it did in a file
/// there.
class SessionModule {
 public:
  /// @param root  name of the folder that is the root directory when the module
  ///     runs; by default there is no other
  explicit SessionModule(const support::Machine& machine,
                         const std::string& root = "");

  /// The line of a PAM configuration that runs it.
  /// @param deeds  see session_module.cpp
  std::string Line(const std::string& deeds = "") const;

  /// What it has recorded, without the last line end; empty when it did not
  /// run.
  std::string Record() const;

 private:
  std::string outer_;
  std::string inner_;
};

#endif
