#include "plain/product.h"

#include <gtest/gtest-printers.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <tov/log.h>
#include <unistd.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <typeinfo>

#include "support/line_number.h"
#include "support/system_calls.h"
#include "support/variable.h"

namespace plain {
namespace {

/// More log lines than any request that ends can cause.
constexpr std::size_t kTooManyLines = 20'000;

/// Thrown at this number of lines, before they fill the memory.
struct TooManyLines {};

/// The input of the running parse and its results so far.
struct Script {
  const Request* request = nullptr;
  std::size_t next_read = 0;
  Outcome* outcome = nullptr;
};

Script script;

std::size_t BytesLeft() {
  return script.request->input.bytes.size() - script.outcome->bytes_read;
}

bool NextReadIsEmpty() {
  const auto& reads = script.request->input.reads;
  return script.next_read < reads.size() && reads[script.next_read] == 0;
}

int PollScripted(pollfd* entries, nfds_t /*count*/, int /*milliseconds*/) {
  if (NextReadIsEmpty() && script.request->input.nothing == Nothing::kSignal) {
    ++script.next_read;
    errno = EINTR;
    return -1;
  }
  const bool hung_up =
      BytesLeft() == 0 && !NextReadIsEmpty() && script.request->input.hangs_up;
  entries->revents = hung_up ? POLLHUP : POLLIN;
  return 1;
}

ssize_t ReadScripted(void* buffer, std::size_t size) {
  const auto& reads = script.request->input.reads;
  const std::size_t most =
      script.next_read < reads.size() ? reads[script.next_read++] : SIZE_MAX;
  if (most == 0) {
    if (script.request->input.nothing == Nothing::kRead) return 0;
    errno = EAGAIN;
    return -1;
  }
  // The kernel does the same for a length that is too large.
  if (static_cast<ssize_t>(size) < 0) {
    errno = EFAULT;
    return -1;
  }
  const std::size_t count = std::min({most, size, BytesLeft()});
  // Lets a sanitizer detect a buffer smaller than the given size.
  if (size > 0) static_cast<volatile char*>(buffer)[size - 1];
  script.request->input.bytes.copy(static_cast<char*>(buffer), count,
                                   script.outcome->bytes_read);
  script.outcome->bytes_read += count;
  return static_cast<ssize_t>(count);
}

/// Replaces the parts of a log line that differ from run to run.
std::string Normalized(const std::string& text) {
  constexpr char kNewFile[] = "ParseInput Creating new file ";
  return text.starts_with(kNewFile) ? std::string(kNewFile) + "FILE"
                                    : support::WithoutLineNumber(text);
}

int StatfsScripted(const char* /*path*/, struct statfs64* found) {
  if (script.request->free_space_fails) {
    errno = EIO;
    return -1;
  }
  *found = {};
  found->f_bsize = 1;
  found->f_bfree = script.request->free_space;
  return 0;
}

void NoteSleep(unsigned milliseconds) {
  if (milliseconds == 100) ++script.outcome->sleeps;
}

void LimitFileSize(std::uint64_t limit) {
  const rlimit limits{limit, RLIM_INFINITY};
  ::setrlimit(RLIMIT_FSIZE, &limits);
}

void Parse(zan_cgi::Cgi::Data& record, const Request& request,
           Outcome& outcome) {
  if (request.file_limit != UINT64_MAX) LimitFileSize(request.file_limit);
  script = {&request, 0, &outcome};
  support::Replace({.poll = PollScripted,
                    .read = ReadScripted,
                    .statfs = StatfsScripted,
                    .sleep = NoteSleep});
  try {
    record.ParseInput();
  } catch (const std::runtime_error& error) {
    outcome.error = typeid(error) == typeid(std::runtime_error)
                        ? error.what()
                        : std::string("of another type: ") + error.what();
  } catch (const TooManyLines&) {
    outcome.spins = true;
  }
  script = {};
  support::Replace({});
  if (request.file_limit != UINT64_MAX) LimitFileSize(RLIM_INFINITY);
}

}  // namespace

Outcome RunProduct(const Request& request) {
  support::SetVariable("CONTENT_LENGTH", request.content_length);
  support::SetVariable("CONTENT_TYPE", request.content_type);
  support::SetVariable("TMP", request.tmp);
  ::signal(SIGXFSZ, SIG_IGN);
  Outcome outcome;
  zan_cgi::Cgi::Data record;
  record.tmp_dir = request.tmp_dir;
  Parse(record, request, outcome);
  outcome.params = record.params;
  outcome.parsed = record.parsed;
  outcome.tmp_dir = record.tmp_dir;
  for (const auto& [name, file] : record.files) {
    const bool exists = std::filesystem::exists(file.path);
    outcome.files[name] = {exists ? zan_cgi::testing::ReadFile(file.path) : "",
                           file.size, exists};
  }
  return outcome;
}

bool ProductSpins(const Request& request) {
  const pid_t process = ::fork();
  if (process == 0) {
    const itimerval twenty_milliseconds{{0, 0}, {0, 20'000}};
    ::signal(SIGPROF, SIG_DFL);
    ::setitimer(ITIMER_PROF, &twenty_milliseconds, nullptr);
    ::_exit(RunProduct(request).spins ? EXIT_SUCCESS : EXIT_FAILURE);
  }
  int status = 0;
  ::waitpid(process, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) == EXIT_SUCCESS
                           : WTERMSIG(status) == SIGPROF;
}

namespace {

using testing::PrintToString;

using LogLines = std::vector<std::pair<int, std::string>>;

/// Unlike a printed vector, all of it.
void AddLog(std::string& account, const char* whose, const LogLines& log) {
  account += std::string("log, ") + whose + "\n";
  for (const auto& line : log) account += "    " + PrintToString(line) + "\n";
}

template <class Value>
void Compare(std::string& account, const char* what, const Value& plain,
             const Value& product) {
  if (plain == product) return;
  account += std::string(what) + "\n  plain:   " + PrintToString(plain) +
             "\n  product: " + PrintToString(product) + "\n";
}

}  // namespace

void PrintTo(const File& file, std::ostream* out) {
  *out << (file.exists ? "exists, " : "missing, ") << file.size
       << " bytes: " << testing::PrintToString(file.content);
}

std::string Difference(const Outcome& plain, const Outcome& product) {
  std::string account;
  if (product.spins) return "the library's parser does not come to an end\n";
  Compare(account, "error", plain.error, product.error);
  Compare(account, "params", plain.params, product.params);
  Compare(account, "files", plain.files, product.files);
  Compare(account, "parsed", plain.parsed, product.parsed);
  Compare(account, "tmp_dir", plain.tmp_dir, product.tmp_dir);
  Compare(account, "bytes_read", plain.bytes_read, product.bytes_read);
  Compare(account, "sleeps", plain.sleeps, product.sleeps);
  if (plain.log != product.log) {
    AddLog(account, "plain", plain.log);
    AddLog(account, "product", product.log);
  }
  return account;
}

std::string Describe(const Request& request) {
  std::ostringstream text;
  text << "content_length " << PrintToString(request.content_length)
       << ", content_type " << PrintToString(request.content_type)
       << ", tmp_dir " << PrintToString(request.tmp_dir) << ", tmp "
       << PrintToString(request.tmp) << ", free_space " << request.free_space
       << (request.free_space_fails ? " (fails)" : "")
       << (request.files_open ? "" : ", files do not open") << ", file_limit "
       << request.file_limit
       << (request.input.hangs_up ? ", hangs up" : ", end of file")
       << ", nothing because of " << static_cast<int>(request.input.nothing)
       << "\n  reads {";
  for (const std::size_t size : request.input.reads) text << size << ", ";
  text << "}\n  bytes " << PrintToString(request.input.bytes);
  return text.str();
}

}  // namespace plain

bool tov_log::Module::Check(Level) { return plain::script.outcome != nullptr; }

void tov_log::Module::Write(Level level, const char* format, ...) {
  char* text = nullptr;
  va_list arguments;
  va_start(arguments, format);
  if (::vasprintf(&text, format, arguments) < 0) std::abort();
  va_end(arguments);
  const std::unique_ptr<char, void (*)(void*)> owner(text, std::free);
  auto& log = plain::script.outcome->log;
  if (log.size() == plain::kTooManyLines) throw plain::TooManyLines();
  log.emplace_back(level, plain::Normalized(text));
}
