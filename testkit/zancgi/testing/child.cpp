#include <zancgi/testing/child.h>

#include <cxxabi.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sanitizer/lsan_interface.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zancgi/testing/backend.h>
#include <zancgi/testing/input.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <tuple>

// Only a program that is built with the sanitizer has it.
#pragma weak __lsan_do_recoverable_leak_check

namespace zan_cgi::testing {
namespace {

constexpr int kLeakStatus = 99;
constexpr int kFailedStatus = 95;
constexpr char kMark[] = "mark: ";
constexpr std::size_t kTimeSize = sizeof("2026-11-21T12:00:00Z ") - 1;

int AnonymousFile(const char* name) {
  const int descriptor = ::memfd_create(name, MFD_CLOEXEC);
  if (descriptor < 0) {
    throw std::system_error(errno, std::generic_category(), "memfd_create");
  }
  // The body may close or reopen the low descriptors.
  const int high = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 100);
  ::close(descriptor);
  return high;
}

std::string ContentOf(int descriptor) {
  std::string content;
  char piece[65536];
  off_t at = 0;
  for (;;) {
    const ssize_t count = ::pread(descriptor, piece, sizeof(piece), at);
    if (count <= 0) break;
    content.append(piece, static_cast<std::size_t>(count));
    at += count;
  }
  ::close(descriptor);
  return content;
}

void WriteAll(int descriptor, const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const ssize_t count =
        ::write(descriptor, text.data() + at, text.size() - at);
    if (count < 0) ::_exit(98);
    at += static_cast<std::size_t>(count);
  }
}

/// What a report consists of: "kind:name-size:value-size:name value".
void WriteRecord(int descriptor, char kind, const std::string& name,
                 const std::string& value) {
  std::ostringstream record;
  record << kind << ' ' << name.size() << ' ' << value.size() << ' ' << name
         << value;
  WriteAll(descriptor, record.str());
}

/// Which file each descriptor is open on, and how /proc/self/fd lists it. The
/// listing alone would not do: mounting something can change it.
using Descriptors = std::map<std::tuple<int, dev_t, ino_t>, std::string>;

/// The process's own listing of its descriptors, opened before the body may
/// have shut itself off from /proc.
int OpenListing() {
  const int low = ::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int high = ::fcntl(low, F_DUPFD_CLOEXEC, 100);
  ::close(low);
  return high;
}

std::string TargetOf(int listing, const char* number) {
  char target[4096];
  const ssize_t size = ::readlinkat(listing, number, target, sizeof(target));
  return size < 0 ? "?" : std::string(target, static_cast<std::size_t>(size));
}

Descriptors OpenDescriptors(int listing) {
  Descriptors found;
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(
      ::fdopendir(::openat(listing, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      ::closedir);
  if (!directory) throw std::runtime_error("no list of descriptors");
  while (const dirent* const entry = ::readdir(directory.get())) {
    if (entry->d_name[0] == '.') continue;
    const int descriptor = std::stoi(entry->d_name);
    if (descriptor == ::dirfd(directory.get())) continue;
    struct stat file {};
    ::fstat(descriptor, &file);
    found[{descriptor, file.st_dev, file.st_ino}] =
        std::string(entry->d_name) + " " + TargetOf(listing, entry->d_name);
  }
  return found;
}

std::vector<std::string> NewOnes(const Descriptors& before,
                                 const Descriptors& after) {
  std::vector<std::string> added;
  for (const auto& [descriptor, listed] : after) {
    if (!before.contains(descriptor)) added.push_back(listed);
  }
  return added;
}

void ReportException(int report, const std::string& type,
                     const std::string& text) {
  WriteRecord(report, 'e', type, text);
}

/// The type of the exception that is being handled.
std::string TypeOfException() {
  int failure = 0;
  const std::unique_ptr<char, void (*)(void*)> name(
      abi::__cxa_demangle(abi::__cxa_current_exception_type()->name(), nullptr,
                          nullptr, &failure),
      std::free);
  return failure == 0 ? name.get() : "?";
}

void RunGuarded(const Child::Body& body, int report) {
  try {
    body(Told(report));
  } catch (const std::exception& error) {
    ReportException(report, TypeOfException(), error.what());
  } catch (...) {
    ReportException(report, TypeOfException(), "");
  }
}

bool (*has_failed)() = [] { return false; };

bool leak_check_left_out = false;

bool LeaksMemory() {
  if (leak_check_left_out || __lsan_do_recoverable_leak_check == nullptr) {
    return false;
  }
  // The check cannot be made by a process that has shut itself off from /proc.
  if (::access("/proc/self/task", F_OK) != 0) return false;
  return __lsan_do_recoverable_leak_check() != 0;
}

void ParseReport(const std::string& report, Outcome& outcome) {
  std::istringstream stream(report);
  char kind;
  std::size_t name_size;
  std::size_t value_size;
  while (stream >> kind >> name_size >> value_size && stream.get() == ' ') {
    std::string name(name_size, '\0');
    std::string value(value_size, '\0');
    stream.read(name.data(), static_cast<std::streamsize>(name_size));
    stream.read(value.data(), static_cast<std::streamsize>(value_size));
    if (kind == 't') {
      outcome.told[name] = value;
    } else if (kind == 'e') {
      outcome.error_type = name;
      outcome.error = value;
    } else {
      outcome.leaked_descriptors.push_back(value);
    }
  }
}

int LevelByName(const std::string& name) {
  static const char* const kNames[] = {
      "emergency", "alert", "critical", "error", "warning",
      "notice",    "info",  "query",    "trace", "debug"};
  const auto* found = std::find(std::begin(kNames), std::end(kNames), name);
  return found == std::end(kNames)
             ? -2
             : static_cast<int>(found - std::begin(kNames));
}

/// Lines of other origin, such as a sanitizer's, are no log lines.
std::vector<LogLine> ParseLog(const std::string& text) {
  std::vector<LogLine> log;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    if (line.starts_with(kMark)) {
      log.push_back({-1, line.substr(sizeof(kMark) - 1)});
      continue;
    }
    // A log that goes to a regular file has the time in front.
    const std::size_t module = line.find("zancgi[");
    const std::size_t core = line.find("] core ");
    if (module > kTimeSize || core == std::string::npos) continue;
    const std::size_t level = core + 7;
    const std::size_t colon = line.find(": ", level);
    log.push_back({LevelByName(line.substr(level, colon - level)),
                   line.substr(colon + 2)});
  }
  return log;
}

int ExitStatus(int wait_status) {
  return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status)
                                : 128 + WTERMSIG(wait_status);
}

bool WaitForExit(int process_descriptor, std::chrono::milliseconds limit) {
  pollfd event{process_descriptor, POLLIN, 0};
  return ::poll(&event, 1, static_cast<int>(limit.count())) == 1;
}

}  // namespace

void PrintTo(const LogLine& line, std::ostream* out) {
  *out << line.level << ' ' << line.text;
}

std::vector<std::string> Outcome::Logged(int level) const {
  std::vector<std::string> texts;
  for (const LogLine& line : log) {
    if (line.level == level) texts.push_back(line.text);
  }
  return texts;
}

void Told::operator()(const std::string& name, const std::string& value) const {
  WriteRecord(descriptor_, 't', name, value);
}

void Mark(const std::string& text) {
  WriteAll(STDERR_FILENO, kMark + text + "\n");
}

void NoticeFailuresBy(bool (*has_failed_now)()) { has_failed = has_failed_now; }

void LeaveOutLeakCheck() { leak_check_left_out = true; }

Child& Child::Env(const std::string& name, const std::string& value) {
  environment_.emplace_back(name, value);
  return *this;
}

Child& Child::WorkDir(const std::string& path) {
  work_dir_ = path;
  return *this;
}

Child& Child::StandardInput(const Input& input) {
  input_ = &input;
  return *this;
}

Child& Child::Closed(int descriptor) {
  closed_.push_back(descriptor);
  return *this;
}

Child& Child::LogLevel(int level) {
  log_level_ = level;
  return *this;
}

Child& Child::TimeLimit(std::chrono::milliseconds limit) {
  time_limit_ = limit;
  return *this;
}

Child& Child::With(Backend& backend) {
  backend_ = &backend;
  return *this;
}

void Child::BecomeReader() const {
  if (input_ != nullptr) {
    input_->BecomeStandardInput();
    return;
  }
  const int nothing = ::open("/dev/null", O_RDONLY);
  ::dup2(nothing, STDIN_FILENO);
  ::close(nothing);
}

void Child::BecomeChild(const Body& body, int report,
                        int standard_error) const {
  ::clearenv();
  if (backend_ != nullptr) {
    ::setenv("TOV_RUN_DIR", backend_->RunDir().c_str(), 1);
    backend_->BecomeClient();
  }
  ::setenv("TOV_LOG_LEVEL", std::to_string(log_level_).c_str(), 1);
  for (const auto& [name, value] : environment_) {
    ::setenv(name.c_str(), value.c_str(), 1);
  }
  BecomeReader();
  ::dup2(standard_error, STDERR_FILENO);
  ::fcntl(STDERR_FILENO, F_SETFL, O_APPEND);
  if (!work_dir_.empty() && ::chdir(work_dir_.c_str()) != 0) ::_exit(97);
  for (const int descriptor : closed_) ::close(descriptor);

  const bool failed_before = has_failed();
  const int listing = OpenListing();
  const Descriptors before = OpenDescriptors(listing);
  RunGuarded(body, report);
  for (const std::string& left : NewOnes(before, OpenDescriptors(listing))) {
    WriteRecord(report, 'd', "", left);
  }
  if (has_failed() && !failed_before) {
    std::fflush(stdout);
    ::_exit(kFailedStatus);
  }
  ::_exit(LeaksMemory() ? kLeakStatus : 0);
}

Outcome Child::Run(const Body& body) const {
  const int report = AnonymousFile("report");
  const int standard_error = AnonymousFile("standard error");
  std::fflush(nullptr);
  if (backend_ != nullptr) backend_->BeginRun();
  const pid_t process = ::fork();
  if (process < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  if (process == 0) BecomeChild(body, report, standard_error);
  if (input_ != nullptr) input_->Feed();

  const int process_descriptor =
      static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
  const bool ended =
      backend_ != nullptr
          ? backend_->ServeUntilExit(process_descriptor, time_limit_)
          : WaitForExit(process_descriptor, time_limit_);
  if (!ended) ::kill(process, SIGKILL);
  int wait_status = 0;
  ::waitpid(process, &wait_status, 0);
  ::close(process_descriptor);
  if (backend_ != nullptr) backend_->EndRun();

  Outcome outcome;
  outcome.status = ExitStatus(wait_status);
  ParseReport(ContentOf(report), outcome);
  outcome.standard_error = ContentOf(standard_error);
  outcome.log = ParseLog(outcome.standard_error);
  return outcome;
}

}  // namespace zan_cgi::testing
