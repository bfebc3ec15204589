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

/// A front end's program, and what a web server's configuration says of it.
/// Where nothing else is said, it starts in the folder that it lies in, with
/// its path for argv[0], and may take half a minute.
class Program {
 public:
  /// @param path  of the executable file
  explicit Program(const std::string& path);

  /// What it is given as argv[0].
  Program& CalledAs(const std::string& name);
  /// The directory that it starts in.
  Program& WorkDir(const std::string& path);
  /// Sets an environment variable, whatever the request says of it.
  Program& Env(const std::string& name, const std::string& value);
  /// The user and group that it starts as, without further groups. Needs root.
  Program& As(uid_t user, gid_t group);
  /// Sets TOV_LOG_LEVEL; warnings and errors are logged unless set.
  Program& LogLevel(int level);
  /// Serves this back end while the front end runs.
  Program& With(Backend& backend);
  /// Has the front end know this account, and root, and nobody else. Must live
  /// until Run() has returned. Needs root.
  Program& With(const ThrowAwayAccount& account);
  /// When the front end is ended, with all that it has started.
  Program& TimeLimit(std::chrono::milliseconds limit);

  /// The directory for temporary files that it is told in TMP and TMPDIR: its
  /// own, removed with this object. For front ends that are told another way.
  const std::string& TmpDir() const { return tmp_dir_.Path(); }

  /// Has the front end serve this request, and waits for its end.
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
