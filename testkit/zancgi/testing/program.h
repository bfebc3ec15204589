/// @file
/// Runs a front end as a web server does, one request at a time.
#ifndef ZANCGI_TESTING_PROGRAM_H
#define ZANCGI_TESTING_PROGRAM_H

#include <sys/types.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/request.h>
#include <zancgi/testing/response.h>
#include <zancgi/testing/scratch.h>

#include <chrono>
#include <map>
#include <string>

namespace zan_cgi::testing {

class Backend;
class ThrowAwayAccount;

/// A front end's program and the settings of the web server for it. By default,
/// it starts in its own folder, with its path as argv[0], and its time limit is
/// half a minute.
class Program {
 public:
  /// @param path  of the executable file
  explicit Program(const std::string& path);

  /// Sets argv[0].
  Program& CalledAs(const std::string& name);
  /// Sets the directory that it starts in.
  Program& WorkDir(const std::string& path);
  /// Sets an environment variable. It overrides the request's.
  Program& Env(const std::string& name, const std::string& value);
  /// Sets the user and group that it starts as, without supplementary groups.
  /// Needs root.
  Program& As(uid_t user, gid_t group);
  /// Sets TOV_LOG_LEVEL. By default, warnings and errors are logged.
  Program& LogLevel(int level);
  /// Serves this back end while the front end runs.
  Program& With(Backend& backend);
  /// Makes this account and root the only ones for the front end. The object
  /// must exist until Run() returns. Needs root.
  Program& With(const ThrowAwayAccount& account);
  /// Sets the time limit, after which the front end and all processes that it
  /// started are killed.
  Program& TimeLimit(std::chrono::milliseconds limit);

  /// The directory for temporary files, passed in TMP and TMPDIR. It is removed
  /// with this object. Use this function for front ends that need the path in
  /// another variable.
  const std::string& TmpDir() const { return tmp_dir_.Path(); }

  /// Runs the front end for this request and waits for its end.
  /// @throws std::system_error when it cannot be started
  Response Run(const Request& request) const;

 private:
  std::map<std::string, std::string> EnvironmentFor(
      const Request& request) const;
  [[noreturn]] void Become(
      const std::map<std::string, std::string>& environment, const Input& input,
      int standard_output, int standard_error, int failure) const;

  std::string path_;
  std::string name_;
  std::string work_dir_;
  std::map<std::string, std::string> environment_;
  Scratch tmp_dir_;
  Backend* backend_ = nullptr;
  const ThrowAwayAccount* account_ = nullptr;
  std::chrono::milliseconds time_limit_ = std::chrono::seconds(30);
  bool has_identity_ = false;
  uid_t user_ = 0;
  gid_t group_ = 0;
};

}  // namespace zan_cgi::testing

#endif
