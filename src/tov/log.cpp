#include <tov/log.h>

#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "../common/scoped_signal_block.h"
#include "descriptor.h"
#include "log_limit.h"

namespace tov_log {
namespace {

using tov_internal::Descriptor;
using tov_internal::kMostPerFormat;
using tov_internal::RetryInterrupted;
using tov_internal::UsedFormat;

/// Higher than every level, so that the first Check of the process passes the
/// comparison and initializes the log.
constexpr int kNotSetUp = INT32_MAX;
constexpr int kDefaultThreshold = Warning;
/// Higher levels are not limited: they are only written if an administrator
/// enables them.
constexpr int kLastLimitedLevel = Warning;

/// At most PIPE_BUF, so that a write to a pipe is atomic.
constexpr std::size_t kLineSize = 4096;
constexpr int kMostWaitingMs = 1000;

std::atomic<int> threshold{kNotSetUp};

/// Restores errno, which a call to the log must not change.
class ScopedErrno {
 public:
  ScopedErrno() : error_(errno) {}
  ~ScopedErrno() { errno = error_; }
  ScopedErrno(const ScopedErrno&) = delete;
  ScopedErrno& operator=(const ScopedErrno&) = delete;

 private:
  int error_;
};

/// A line under construction, in memory of the caller.
class Line {
 public:
  void Append(std::string_view text) {
    for (const char byte : text) AppendByte(byte);
  }

  /// Appends text without escaping it. The text must fit.
  void AppendOwn(std::string_view text) { Put(text); }

  std::string_view Finish() {
    if (cut_) Put(kCutMark);
    Put(kLineEnd);
    return {bytes_, size_};
  }

 private:
  static constexpr std::string_view kCutMark = "...";
  static constexpr std::string_view kLineEnd = "\n";

  void AppendByte(char byte) {
    constexpr char kDigits[] = "0123456789abcdef";
    const auto value = static_cast<unsigned char>(byte);
    const char escape[] = {'\\', 'x', kDigits[value / 16], kDigits[value % 16]};
    const bool control = value < 0x20 || value == 0x7f;
    const std::string_view written =
        control ? std::string_view(escape, sizeof(escape))
                : std::string_view(&byte, 1);
    if (size_ + written.size() + kLineEnd.size() > kLineSize) Cut();
    if (!cut_) Put(written);
  }

  /// Truncates the line where the cut mark still fits.
  void Cut() {
    size_ = last_place_to_cut_;
    cut_ = true;
  }

  void Put(std::string_view text) {
    std::memcpy(bytes_ + size_, text.data(), text.size());
    size_ += text.size();
    if (size_ + kCutMark.size() + kLineEnd.size() <= kLineSize) {
      last_place_to_cut_ = size_;
    }
  }

  char bytes_[kLineSize];
  std::size_t size_ = 0;
  std::size_t last_place_to_cut_ = 0;
  bool cut_ = false;
};

/// Unseen: the descriptor is open, but its type is not known yet.
enum class Kind { None, Unseen, Syslog, File, Stream, Socket };

/// The destination of the lines. It is opened once and stays open until the
/// process ends.
struct Target {
  Kind kind = Kind::None;
  int descriptor = -1;
};

Kind KindOf(int descriptor) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) return Kind::None;
  if (S_ISREG(status.st_mode)) return Kind::File;
  return S_ISSOCK(status.st_mode) ? Kind::Socket : Kind::Stream;
}

Target OpenSyslog() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  Descriptor socket = tov_internal::MoveAboveStdio(
      ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket ||
      ::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address),
                sizeof(address)) != 0) {
    return {};
  }
  return {Kind::Syslog, socket.Release()};
}

Target OpenFile(const char* path) {
  // Without O_NONBLOCK a FIFO without a reader would block. O_WRONLY keeps a
  // terminal from becoming the controlling one.
  Descriptor file = tov_internal::MoveAboveStdio(::open(
      path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
      0640));
  if (!file) return {};
  const Kind kind = KindOf(file.Get());
  return {kind, file.Release()};
}

Target OpenTarget() {
  const char* wanted = ::getenv("TOV_LOG");
  const std::string_view name = wanted == nullptr ? "" : wanted;
  Target target;
  if (name == "syslog") {
    target = OpenSyslog();
  } else if (!name.empty() && name != "stderr") {
    target = OpenFile(wanted);
  }
  if (target.kind != Kind::None) return target;
  // If the process was started without standard error, a file opened later as
  // descriptor 2 must not be written to. Its type is determined with the first
  // line, because most requests write none.
  const bool is_open = ::fcntl(STDERR_FILENO, F_GETFD) >= 0;
  return {is_open ? Kind::Unseen : Kind::None, STDERR_FILENO};
}

int ConfiguredThreshold() {
  const char* text = ::getenv("TOV_LOG_LEVEL");
  if (text == nullptr || *text == '\0') return kDefaultThreshold;
  std::string_view digits = text;
  if (digits.find_first_not_of("0123456789") != std::string_view::npos) {
    return kDefaultThreshold;
  }
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
  if (digits.empty()) return Emergency;
  return digits.size() == 1 ? digits.front() - '0' : int{Debug};
}

const Target& TheTarget() {
  static const Target target = OpenTarget();
  return target;
}

int SetUp() {
  const ScopedErrno keeper;
  TheTarget();
  const int configured = ConfiguredThreshold();
  threshold.store(configured, std::memory_order_relaxed);
  return configured;
}

const char* NameOf(Level level) {
  static constexpr const char* kNames[] = {
      "emergency", "alert", "critical", "error", "warning",
      "notice",    "info",  "query",    "trace", "debug"};
  return kNames[std::clamp(int{level}, 0, 9)];
}

std::int64_t MillisecondsNow() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

bool WaitForRoom(int descriptor, std::int64_t milliseconds) {
  const std::int64_t end = MillisecondsNow() + milliseconds;
  for (;;) {
    const std::int64_t left =
        std::max<std::int64_t>(end - MillisecondsNow(), 0);
    pollfd room{descriptor, POLLOUT, 0};
    const timespec limit{left / 1000, left % 1000 * 1'000'000};
    // Not poll(2): tests of zancgi replace it.
    const int ready = ::ppoll(&room, 1, &limit, nullptr);
    if (ready > 0) return (room.revents & POLLNVAL) == 0;
    if (ready == 0 || errno != EINTR || left == 0) return false;
  }
}

/// Waits until the target can take a line. The time limit applies to the whole
/// process, so that a dead or slow reader cannot delay every line.
bool HasRoom(int descriptor) {
  static std::atomic<std::int64_t> left_ms{kMostWaitingMs};
  if (WaitForRoom(descriptor, 0)) return true;
  const std::int64_t begin = MillisecondsNow();
  const bool room = WaitForRoom(descriptor, left_ms);
  const std::int64_t waited = MillisecondsNow() - begin;
  left_ms = std::max<std::int64_t>(left_ms - waited, 0);
  return room;
}

void Deliver(const Target& target, std::string_view line) {
  if (target.kind == Kind::None) return;
  const common::ScopedSignalBlock guard;
  if (target.kind != Kind::File && !HasRoom(target.descriptor)) return;
  RetryInterrupted([&] {
    return target.kind == Kind::Socket || target.kind == Kind::Syslog
               ? ::send(target.descriptor, line.data(), line.size(),
                        MSG_DONTWAIT | MSG_NOSIGNAL)
               : ::write(target.descriptor, line.data(), line.size());
  });
}

/// Appends the time as in RFC 3339. The C library's functions would read the
/// time zone first, from a root directory that may belong to an account by now.
void AppendTime(Line& line) {
  namespace chrono = std::chrono;
  const auto now = chrono::floor<chrono::seconds>(chrono::system_clock::now());
  const auto midnight = chrono::floor<chrono::days>(now);
  const chrono::year_month_day date(midnight);
  const chrono::hh_mm_ss<chrono::seconds> time(now - midnight);
  char text[sizeof("-32767-01-01T00:00:00Z ")];
  const int size = std::snprintf(
      text, sizeof(text), "%04d-%02u-%02uT%02d:%02d:%02dZ ", int{date.year()},
      unsigned{date.month()}, unsigned{date.day()},
      static_cast<int>(time.hours().count()),
      static_cast<int>(time.minutes().count()),
      static_cast<int>(time.seconds().count()));
  line.AppendOwn({text, static_cast<std::size_t>(size)});
}

/// The priority of RFC 3164 section 4.1.1, which local system loggers expect.
void AppendPriority(Line& line, Level level) {
  constexpr int kDaemon = 3;
  char text[sizeof("<255>")];
  const int size = std::snprintf(text, sizeof(text), "<%d>",
                                 kDaemon * 8 + std::clamp(int{level}, 0, 7));
  line.AppendOwn({text, static_cast<std::size_t>(size)});
}

void AppendProcess(Line& line) {
  char text[sizeof("[2147483647] ")];
  const int size = std::snprintf(text, sizeof(text), "[%d] ", ::getpid());
  line.Append({text, static_cast<std::size_t>(size)});
}

void AppendMessage(Line& line, const char* format, va_list arguments) {
  char message[kLineSize];
  // All callers have called va_start, which Clang cannot see through the calls.
  // NOLINTBEGIN(clang-analyzer-valist.Uninitialized)
  const int length =
      std::vsnprintf(message, sizeof(message), format, arguments);
  // NOLINTEND(clang-analyzer-valist.Uninitialized)
  if (length < 0) {
    line.Append(format);
    return;
  }
  // Text that does not fit here does not fit in the line either, which is then
  // marked as cut.
  const auto size = static_cast<std::size_t>(length);
  line.Append({message, std::min(size, sizeof(message) - 1)});
}

struct Origin {
  const char* name;
  const char* group;
  Level level;
};

void WriteLine(const Origin& origin, const char* format, va_list arguments) {
  Target target = TheTarget();
  if (target.kind == Kind::Unseen) target.kind = KindOf(target.descriptor);

  Line line;
  if (target.kind == Kind::File) AppendTime(line);
  if (target.kind == Kind::Syslog) AppendPriority(line, origin.level);
  line.Append(origin.name);
  AppendProcess(line);
  line.Append(origin.group);
  line.Append(" ");
  line.Append(NameOf(origin.level));
  line.Append(": ");
  AppendMessage(line, format, arguments);
  Deliver(target, line.Finish());
}

__attribute__((format(printf, 2, 3))) void WriteAbout(const UsedFormat& used,
                                                      const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  WriteLine({used.name, used.group, static_cast<Level>(used.level)}, format,
            arguments);
  va_end(arguments);
}

void AnnounceDropping(const UsedFormat& used) {
  WriteAbout(used, "further messages are dropped after %u of \"%s\"",
             kMostPerFormat, used.text);
}

std::atomic<bool> will_report{false};

/// Runs when the process ends or the library is unloaded.
void ReportDropped() {
  // Messages dropped after this are reported by another call.
  will_report = false;
  tov_internal::ReportDropped([](const UsedFormat& used) {
    WriteAbout(used, "messages dropped: %lu of \"%s\"", used.dropped,
               used.text);
  });
}

bool IsDropped(const Origin& origin, const char* format) {
  if (origin.level > kLastLimitedLevel) return false;
  if (tov_internal::MayWrite({origin.name, origin.group, origin.level, format},
                             AnnounceDropping)) {
    return false;
  }
  if (!will_report.exchange(true) && ::atexit(ReportDropped) != 0) {
    will_report = false;
  }
  return true;
}

}  // namespace

Module::Module(const char* name, const char* group)
    : name_(name), group_(group) {}

bool Module::Check(Level level) {
  int limit = threshold.load(std::memory_order_relaxed);
  if (level > limit) return false;
  if (limit == kNotSetUp) limit = SetUp();
  return level <= limit;
}

void Module::Write(Level level, const char* format, ...) {
  const ScopedErrno keeper;
  if (threshold.load(std::memory_order_relaxed) == kNotSetUp) SetUp();
  const Origin origin{name_, group_, level};
  if (IsDropped(origin, format)) return;
  va_list arguments;
  va_start(arguments, format);
  WriteLine(origin, format, arguments);
  va_end(arguments);
}

}  // namespace tov_log
