#include <zancgi/testing/child.h>

#include <cxxabi.h>
#include <dirent.h>
#include <fcntl.h>
#include <sanitizer/lsan_interface.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zancgi/testing/backend.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/log.h>
#include <zancgi/testing/request.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <typeinfo>

#include "supervision.h"
#include "system.h"

// Defined only in programs that are built with the sanitizer.
#pragma weak __lsan_do_recoverable_leak_check

namespace zan_cgi::testing {
namespace {

constexpr int kLeakStatus = 99;
constexpr int kFailedStatus = 95;
constexpr int kUnreportedStatus = 98;

/// Writes one record of a report: kind, size of the name, size of the value,
/// name and value.
void WriteRecord(int descriptor, char kind, const std::string& name,
                 const std::string& value) {
  std::ostringstream record;
  record << kind << ' ' << name.size() << ' ' << value.size() << ' ' << name
         << value;
  if (!WriteAll(descriptor, record.str())) ::_exit(kUnreportedStatus);
}

/// The open files by descriptor, device and inode, with their entries in
/// /proc/self/fd. The entries alone are not enough: a mount can change them.
using Descriptors = std::map<std::tuple<int, dev_t, ino_t>, std::string>;

/// Opens the process's own list of descriptors before the body may lose access
/// to /proc.
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

/// Returns the type of the exception that is being handled.
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
    body(Reporter(report));
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
  // The check needs /proc, which this process may no longer reach.
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
      outcome.reported[name] = value;
    } else if (kind == 'e') {
      outcome.error_type = name;
      outcome.error = value;
    } else {
      outcome.leaked_descriptors.push_back(value);
    }
  }
}

}  // namespace

std::vector<std::string> Outcome::Logged(int level) const {
  return TextsOf(log, level);
}

void Reporter::operator()(const std::string& name,
                          const std::string& value) const {
  WriteRecord(descriptor_, 't', name, value);
}

void NoticeFailuresBy(bool (*has_failed_now)()) { has_failed = has_failed_now; }

void LeaveOutLeakCheck() { leak_check_left_out = true; }

Child& Child::Env(const std::string& name, const std::string& value) {
  environment_.emplace_back(name, value);
  return *this;
}

Child& Child::Serve(const Request& request) {
  for (const auto& [name, value] : request.Environment()) Env(name, value);
  request_ = request;
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

void Child::BecomeChild(const Body& body, const Input& input, int report,
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
  input.BecomeStandardInput();
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
    static_cast<void>(std::fflush(stdout));
    ::_exit(kFailedStatus);
  }
  ::_exit(LeaksMemory() ? kLeakStatus : 0);
}

Outcome Child::Run(const Body& body) const {
  const Descriptor report = AnonymousFile("report");
  const Descriptor standard_error = AnonymousFile("standard error");
  const Input own = request_ ? request_->StandardInput() : Input::Nothing();
  const Input& input = input_ != nullptr ? *input_ : own;
  const ExitResult ending = Supervise({backend_, &input, time_limit_}, [&] {
    BecomeChild(body, input, report.Get(), standard_error.Get());
  });

  Outcome outcome;
  outcome.status = ending.status;
  outcome.timed_out = ending.timed_out;
  outcome.left_processes = ending.left_processes;
  ParseReport(ContentOf(report.Get()), outcome);
  outcome.standard_error = ContentOf(standard_error.Get());
  outcome.log = ParseLog(outcome.standard_error);
  return outcome;
}

}  // namespace zan_cgi::testing
