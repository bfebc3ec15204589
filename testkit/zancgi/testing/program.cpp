#include <zancgi/testing/program.h>

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/close_range.h>
#include <signal.h>
#include <unistd.h>
#include <zancgi/testing/account.h>
#include <zancgi/testing/backend.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/log.h>
#include <zancgi/testing/request.h>
#include <zancgi/testing/response.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <initializer_list>
#include <iterator>
#include <system_error>
#include <vector>

#include "supervision.h"
#include "system.h"

namespace fs = std::filesystem;

namespace zan_cgi::testing {
namespace {

/// Returns the paths of everything below a folder, relative to it and sorted.
std::vector<std::string> FilesIn(const std::string& folder) {
  std::vector<std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(
           folder, fs::directory_options::skip_permission_denied)) {
    files.push_back(entry.path().lexically_relative(folder));
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<std::string> NewOnes(const std::vector<std::string>& before,
                                 const std::vector<std::string>& after) {
  std::vector<std::string> added;
  std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                      std::back_inserter(added));
  return added;
}

/// Returns pointers to the texts and a final null pointer, for execve(2).
std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

/// Resets all signals, so that the front end does not inherit ignored or
/// blocked ones.
void ResetSignals() {
  struct sigaction usual {};
  usual.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) {
    ::sigaction(signal, &usual, nullptr);
  }
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool TakeIdentity(uid_t user, gid_t group) {
  return ::setgroups(0, nullptr) == 0 && ::setgid(group) == 0 &&
         ::setuid(user) == 0;
}

/// Reports the error in errno and ends the process.
[[noreturn]] void GiveUp(int failure, const std::string& what) {
  WriteAll(failure, std::to_string(errno) + " " + what);
  ::_exit(127);
}

/// Makes the account the only one in this process besides root.
void Use(const ThrowAwayAccount& account, int failure) {
  try {
    account.Use();
  } catch (const std::exception& error) {
    GiveUp(failure, error.what());
  }
}

void ThrowFailure(const std::string& report) {
  if (report.empty()) return;
  throw std::system_error(std::stoi(report), std::generic_category(),
                          report.substr(report.find(' ') + 1));
}

}  // namespace

Program::Program(const std::string& path)
    : path_(fs::absolute(path)),
      name_(path_),
      work_dir_(fs::path(path_).parent_path()) {}

Program& Program::CalledAs(const std::string& name) {
  name_ = name;
  return *this;
}

Program& Program::WorkDir(const std::string& path) {
  work_dir_ = path;
  return *this;
}

Program& Program::Env(const std::string& name, const std::string& value) {
  environment_[name] = value;
  return *this;
}

Program& Program::As(uid_t user, gid_t group) {
  has_identity_ = true;
  user_ = user;
  group_ = group;
  if (::chown(TmpDir().c_str(), user, group) != 0) Fail("chown " + TmpDir());
  return *this;
}

Program& Program::LogLevel(int level) {
  return Env("TOV_LOG_LEVEL", std::to_string(level));
}

Program& Program::With(Backend& backend) {
  backend_ = &backend;
  return Env("TOV_RUN_DIR", backend.RunDir());
}

Program& Program::With(const ThrowAwayAccount& account) {
  account_ = &account;
  return *this;
}

Program& Program::TimeLimit(std::chrono::milliseconds limit) {
  time_limit_ = limit;
  return *this;
}

std::map<std::string, std::string> Program::EnvironmentFor(
    const Request& request) const {
  std::map<std::string, std::string> environment = request.Environment();
  environment["PATH"] = "/usr/local/bin:/usr/bin:/bin";
  environment["SCRIPT_FILENAME"] = path_;
  environment["TMP"] = TmpDir();
  environment["TMPDIR"] = TmpDir();
  for (const auto& [name, value] : environment_) environment[name] = value;
  return environment;
}

void Program::Become(const std::map<std::string, std::string>& environment,
                     const Input& input, int standard_output,
                     int standard_error, int failure) const {
  std::vector<std::string> arguments{name_};
  std::vector<std::string> variables;
  variables.reserve(environment.size());
  for (const auto& [name, value] : environment) {
    variables.push_back(std::string(name).append("=").append(value));
  }
  input.BecomeStandardInput();
  ::dup2(standard_output, STDOUT_FILENO);
  ::dup2(standard_error, STDERR_FILENO);
  // The front end must not inherit the test's descriptors.
  ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  ResetSignals();
  if (account_ != nullptr) Use(*account_, failure);
  if (has_identity_ && !TakeIdentity(user_, group_)) {
    GiveUp(failure, "cannot become user " + std::to_string(user_));
  }
  if (::chdir(work_dir_.c_str()) != 0) GiveUp(failure, "chdir " + work_dir_);
  ::execve(path_.c_str(), Pointers(arguments).data(),
           Pointers(variables).data());
  GiveUp(failure, "execute " + path_);
}

Response Program::Run(const Request& request) const {
  const Descriptor standard_output = AnonymousFile("standard output");
  const Descriptor standard_error = AnonymousFile("standard error");
  const Descriptor failure = AnonymousFile("failure");
  for (const int written : {standard_output.Get(), standard_error.Get()}) {
    ::fcntl(written, F_SETFL, O_APPEND);
  }
  const Input input = request.StandardInput();
  const auto environment = EnvironmentFor(request);
  const std::vector<std::string> before = FilesIn(TmpDir());
  const ExitResult ending = Supervise({backend_, &input, time_limit_}, [&] {
    Become(environment, input, standard_output.Get(), standard_error.Get(),
           failure.Get());
  });
  ThrowFailure(ContentOf(failure.Get()));

  Response response = ParseResponse(ContentOf(standard_output.Get()));
  response.standard_error = ContentOf(standard_error.Get());
  response.log = ParseLog(response.standard_error);
  response.exit_status = ending.status;
  response.timed_out = ending.timed_out;
  response.left_processes = ending.left_processes;
  response.left_files = NewOnes(before, FilesIn(TmpDir()));
  return response;
}

}  // namespace zan_cgi::testing
