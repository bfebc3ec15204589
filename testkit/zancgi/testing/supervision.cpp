#include "supervision.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
// IWYU pragma: no_include <syscall.h>
#include <sys/syscall.h>  // IWYU pragma: keep
#include <sys/wait.h>
#include <unistd.h>
#include <zancgi/testing/backend.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/scratch.h>

#include <algorithm>
#include <cerrno>
#include <compare>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "system.h"

namespace zan_cgi::testing {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/// How long a process may run after its parent has ended.
constexpr milliseconds kTimeToFinish{2000};
/// The same after the test has ended, which may be supervised itself.
constexpr milliseconds kTimeToFinishAlone{500};
constexpr milliseconds kPollInterval{5};

int StatusOf(int wait_status) {
  return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status)
                                : 128 + WTERMSIG(wait_status);
}

Descriptor Observe(pid_t process) {
  Descriptor descriptor(
      static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
  if (!descriptor) Fail("pidfd_open");
  return descriptor;
}

/// Returns the children of this process and their names, as "1234 name".
std::vector<std::pair<pid_t, std::string>> Children() {
  std::vector<std::pair<pid_t, std::string>> children;
  const std::unique_ptr<DIR, int (*)(DIR*)> processes(::opendir("/proc"),
                                                      ::closedir);
  if (!processes) return children;
  while (const dirent* const entry = ::readdir(processes.get())) {
    const auto process =
        static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
    if (process <= 0) continue;
    // "1234 (name) S 1 ...", and a name may hold anything.
    const std::string stat =
        ReadFile(std::string("/proc/") + entry->d_name + "/stat");
    const std::size_t begin = stat.find('(');
    const std::size_t end = stat.rfind(')');
    if (begin == std::string::npos || end == std::string::npos) continue;
    std::istringstream behind(stat.substr(end + 1));
    char state;
    pid_t parent = 0;
    behind >> state >> parent;
    if (parent != ::getpid() || state == 'Z') continue;
    children.emplace_back(process, std::string(entry->d_name) + " " +
                                       stat.substr(begin + 1, end - begin - 1));
  }
  return children;
}

/// Returns whether all children have ended.
bool ReapChildren() {
  for (;;) {
    const pid_t reaped = ::waitpid(-1, nullptr, WNOHANG);
    if (reaped == 0) return false;
    if (reaped < 0 && errno != EINTR) return true;
  }
}

bool AllEndWithin(milliseconds patience) {
  const Clock::time_point end = Clock::now() + patience;
  while (!ReapChildren()) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(kPollInterval);
  }
  return true;
}

/// Kills all children, including processes that become children when their
/// parent is killed.
std::vector<std::string> EndChildren() {
  std::vector<std::string> ended;
  do {
    const auto children = Children();
    if (children.empty()) break;
    for (const auto& [process, name] : children) {
      ::kill(process, SIGKILL);
      ended.push_back(name);
    }
  } while (!AllEndWithin(kTimeToFinish));
  return ended;
}

enum class Event { kEnd, kTimeUp, kAlone };

/// Waits for the end of the process, its time limit or the end of the test.
Event WaitForEvent(pid_t process, int lifeline, milliseconds limit) {
  const Descriptor observed = Observe(process);
  pollfd events[] = {{observed.Get(), POLLIN, 0}, {lifeline, 0, 0}};
  const Clock::time_point end = Clock::now() + limit;
  for (;;) {
    const auto left =
        std::chrono::ceil<milliseconds>(end - Clock::now()).count();
    const int ready = ::poll(
        events, 2, static_cast<int>(std::max(left, milliseconds::rep{})));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return Event::kTimeUp;
    return events[0].revents != 0 ? Event::kEnd : Event::kAlone;
  }
}

void KeepOnly(int lifeline, int report) {
  const int low = std::min(lifeline, report);
  const int high = std::max(lifeline, report);
  ::close_range(0, static_cast<unsigned>(low) - 1, 0);
  ::close_range(static_cast<unsigned>(low) + 1, static_cast<unsigned>(high) - 1,
                0);
  ::close_range(static_cast<unsigned>(high) + 1, ~0U, 0);
}

/// Runs in the supervisor and does not return.
[[noreturn]] void Oversee(pid_t process, int lifeline, int report,
                          milliseconds limit) {
  // Others wait until these descriptors are closed.
  KeepOnly(lifeline, report);
  const Event event = WaitForEvent(process, lifeline, limit);
  // A process of another user may not be killable.
  if (event != Event::kEnd && ::kill(process, SIGKILL) != 0) ::_exit(1);
  int status = 0;
  ::waitpid(process, &status, 0);
  std::ostringstream text;
  text << StatusOf(status) << ' ' << (event == Event::kTimeUp) << '\n';
  if (!AllEndWithin(event == Event::kAlone ? kTimeToFinishAlone
                                           : kTimeToFinish)) {
    for (const std::string& ended : EndChildren()) text << ended << '\n';
  }
  WriteAll(report, text.str());
  ::_exit(0);
}

ExitResult ParseReport(const std::string& report) {
  ExitResult ending;
  std::istringstream stream(report);
  if (!(stream >> ending.status >> ending.timed_out)) {
    throw std::runtime_error("a process could not be supervised to its end");
  }
  stream.get();
  for (std::string line; std::getline(stream, line);) {
    ending.left_processes.push_back(line);
  }
  return ending;
}

/// Restores the default action of SIGCHLD, so that children can be waited for
/// whatever the tests were started with, and so that no handler of the test
/// reaps them.
class ScopedSigchld {
 public:
  ScopedSigchld() {
    struct sigaction usual {};
    usual.sa_handler = SIG_DFL;
    ::sigaction(SIGCHLD, &usual, &before_);
  }
  ~ScopedSigchld() { ::sigaction(SIGCHLD, &before_, nullptr); }
  ScopedSigchld(const ScopedSigchld&) = delete;
  ScopedSigchld& operator=(const ScopedSigchld&) = delete;

 private:
  struct sigaction before_ {};
};

/// Waits for the supervisor in every case.
class Supervisor {
 public:
  Supervisor(pid_t process, Descriptor lifeline)
      : process_(process), lifeline_(std::move(lifeline)) {}
  ~Supervisor() {
    lifeline_.Close();
    while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

 private:
  pid_t process_;
  Descriptor lifeline_;
};

/// Keeps the back end listening during its lifetime.
class BackendRun {
 public:
  explicit BackendRun(Backend* backend) : backend_(backend) {
    if (backend_ != nullptr) backend_->BeginRun();
  }
  ~BackendRun() {
    if (backend_ != nullptr) backend_->EndRun();
  }
  BackendRun(const BackendRun&) = delete;
  BackendRun& operator=(const BackendRun&) = delete;

 private:
  Backend* backend_;
};

void WaitFor(int descriptor) {
  pollfd event{descriptor, POLLIN, 0};
  RetryInterrupted([&] { return ::poll(&event, 1, -1); });
}

/// noexcept, because an exception would continue into a second copy of the
/// test.
[[noreturn]] void BecomeSupervisor(
    const RunOptions& with, int lifeline, int report,
    const std::function<void()>& become) noexcept {
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  const pid_t process = ::fork();
  if (process == 0) {
    ::close(lifeline);
    ::close(report);
    become();
    ::abort();
  }
  if (process < 0) ::_exit(1);
  Oversee(process, lifeline, report, with.time_limit);
}

}  // namespace

ExitResult Supervise(const RunOptions& with,
                     const std::function<void()>& become) {
  const Descriptor report = AnonymousFile("report of the supervisor");
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) Fail("pipe2");
  const Descriptor lifeline = Raised(Descriptor(ends[0]));
  Descriptor kept = Raised(Descriptor(ends[1]));
  const BackendRun run(with.backend);
  const ScopedSigchld children;
  static_cast<void>(std::fflush(nullptr));
  const pid_t process = ::fork();
  if (process < 0) Fail("fork");
  if (process == 0) {
    kept.Close();
    BecomeSupervisor(with, lifeline.Get(), report.Get(), become);
  }
  {
    const Supervisor supervisor(process, std::move(kept));
    const Descriptor ended = Observe(process);
    if (with.input != nullptr) with.input->Feed();
    if (with.backend != nullptr) {
      with.backend->ServeUntil(ended.Get());
    } else {
      WaitFor(ended.Get());
    }
  }
  return ParseReport(ContentOf(report.Get()));
}

}  // namespace zan_cgi::testing
