#include "log_limit.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <span>

namespace tov_internal {
namespace {

/// More than the number of different warnings in a program.
constexpr std::size_t kFormats = 31;

/// Empty until the first message. A static array would move other variables
/// apart and cost a page fault at each start.
std::span<UsedFormat> formats;

/// Counts all formats that have no entry, for example generated texts.
UsedFormat others;
constexpr char kOthers[] = "(other formats)";

pid_t counting_process = 0;
std::atomic_flag in_use;

/// Locks the table. Never waits: the second user may be a signal handler that
/// has interrupted the first.
class Table {
 public:
  Table() : is_ours_(!in_use.test_and_set(std::memory_order_acquire)) {}
  ~Table() {
    if (is_ours_) in_use.clear(std::memory_order_release);
  }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  explicit operator bool() const { return is_ours_; }

 private:
  bool is_ours_;
};

/// Clears the counts of the parent process.
void StartAgainInChild() {
  const pid_t process = ::getpid();
  if (process == counting_process) return;
  counting_process = process;
  others = {};
  for (UsedFormat& used : formats) used = {};
}

void MakeFormats() {
  void* memory =
      ::mmap(nullptr, kFormats * sizeof(UsedFormat), PROT_READ | PROT_WRITE,
             MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory != MAP_FAILED) {
    formats = {static_cast<UsedFormat*>(memory), kFormats};
  }
}

template <std::size_t kSize>
void CopyBeginning(char (&to)[kSize], const char* from) {
  const std::size_t size = ::strnlen(from, kSize - 1);
  std::memcpy(to, from, size);
  to[size] = '\0';
}

UsedFormat& EntryOf(const char* format) {
  if (formats.empty()) MakeFormats();
  for (UsedFormat& used : formats) {
    if (used.written == 0) {
      CopyBeginning(used.text, format);
      return used;
    }
    if (std::strncmp(used.text, format, sizeof(used.text) - 1) == 0) {
      return used;
    }
  }
  CopyBeginning(others.text, kOthers);
  return others;
}

void Announce(UsedFormat& used, const LimitedMessage& message,
              Report announce) {
  used.announced = true;
  CopyBeginning(used.name, message.name);
  CopyBeginning(used.group, message.group);
  used.level = message.level;
  announce(used);
}

void ReportDroppedOf(UsedFormat& used, Report report) {
  if (used.dropped > 0) report(used);
  used.dropped = 0;
}

}  // namespace

bool MayWrite(const LimitedMessage& message, Report announce) {
  const Table table;
  if (!table) return true;
  StartAgainInChild();
  UsedFormat& used = EntryOf(message.format);
  if (used.written < kMostPerFormat) {
    ++used.written;
    return true;
  }
  ++used.dropped;
  if (!used.announced) Announce(used, message, announce);
  return false;
}

void ReportDropped(Report report) {
  const Table table;
  if (!table) return;
  StartAgainInChild();
  for (UsedFormat& used : formats) ReportDroppedOf(used, report);
  ReportDroppedOf(others, report);
}

}  // namespace tov_internal
