// One read from standard input: the wait, what it may find, and how each end
// shows.

#include <poll.h>
#include <signal.h>
#include <sys/time.h>
#include <tov/client.h>
#include <tov/file.h>

#include <chrono>
#include <cstring>
#include <iterator>
#include <typeinfo>

#include "support/backend.h"
#include "support/line_number.h"
#include "support/record.h"
#include "support/system_calls.h"
#include "support/test.h"

namespace support {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kSize = 8;
const LogLine kHangUp{4, "Signal HUP received"};

/// The result of one read with the bytes that it gave, "3 abc", or the text of
/// its error.
std::string ReadOnce(Cgi::Data& record, long length = kSize) {
  char buffer[kSize] = {};
  try {
    const long result = record.Read(buffer, length);
    const std::string bytes(buffer, result > 0 && result <= long{kSize}
                                        ? static_cast<std::size_t>(result)
                                        : 0);
    return std::to_string(result) + (bytes.empty() ? "" : " " + bytes);
  } catch (const std::runtime_error& error) {
    EXPECT_TRUE(typeid(error) == typeid(std::runtime_error)) << error.what();
    return error.what();
  }
}

Strings ReadTimes(std::size_t times) {
  Cgi::Data record;
  Strings results;
  while (results.size() < times) results.push_back(ReadOnce(record));
  return results;
}

/// The log, but for the construction of the record, with "#" in place of line
/// numbers.
Log LogOf(const Outcome& outcome) {
  Log log = outcome.log;
  if (!log.empty() &&
      log.front() == LogLine{8, "void zan_cgi::Cgi::Data::ParseCookies()"}) {
    log.erase(log.begin());
  }
  for (LogLine& line : log) {
    line.text = WithoutLineNumber(line.text);
  }
  return log;
}

/// Does the work in a child that reads this input. Returns what that logs.
Log Reading(const Input& input, const std::function<void()>& work) {
  return LogOf(RunCleanly(Child(), input, work));
}

/// A wait that ends with these events.
auto Finding(short events) {
  return [events](pollfd* entries, nfds_t, int) {
    entries->revents = events;
    return 1;
  };
}

auto Failing(int error) {
  return [error](auto...) {
    errno = error;
    return -1;
  };
}

std::string PollingError(int error) {
  return std::string("polling error: ") + std::strerror(error);
}

/// What the calls of the system bring, what a read then gives, and the line
/// that it logs. Each call is made once, the read only if it is in the row.
struct Row {
  SystemCalls calls;
  std::string result;
  Log log = {};
};

std::vector<Row> Rows() {
  std::vector<Row> rows = {
      {{.poll = Failing(EINTR)},
       "0",
       {{9, "zancgi_unix.cpp:# poll interrupted, trying again"}}},
      // poll(2) refuses more entries than descriptors are allowed.
      {{.poll = [](pollfd* entries, nfds_t,
                   int) { return RealPoll(entries, 10'000'000, 0); }},
       PollingError(EINVAL)},
      {{.poll = Finding(POLLHUP)}, "-1", {kHangUp}},
      {{.poll = Finding(POLLIN), .read = Failing(EAGAIN)}, "0"},
  };
  for (const int error : {EAGAIN, EINVAL, ENOMEM, EFAULT, EIO}) {
    rows.push_back({{.poll = Failing(error)}, PollingError(error)});
  }
  // A signal here is an error, unlike one that ends the wait.
  for (const int error : {EINTR, EIO, EBADF, EISDIR, ECONNRESET, 133}) {
    rows.push_back(
        {{.poll = Finding(POLLIN | POLLHUP), .read = Failing(error)},
         "-1",
         {{3, "error reading stdin, code " + std::to_string(error)}}});
  }
  for (const ssize_t count : {0L, 5'000'000'000L}) {
    rows.push_back({{.poll = Finding(POLLIN),
                     .read = [count](void*, std::size_t) { return count; }},
                    std::to_string(count)});
  }
  return rows;
}

TEST(Read, CallsTheSystemOnceAndReturnsItsResultAtAnyLogLevel) {
  for (const Row& row : Rows()) {
    const int threshold = row.log.empty() ? 9 : row.log[0].level;
    for (const int level : {0, threshold - 1, threshold, 9}) {
      const Outcome outcome = RunCleanly(Child().LogLevel(level), [&] {
        int waits = 0;
        int reads = 0;
        Replace({.poll =
                     [&](pollfd* entries, nfds_t count, int milliseconds) {
                       ++waits;
                       return row.calls.poll(entries, count, milliseconds);
                     },
                 .read =
                     [&](void* buffer, std::size_t size) {
                       ++reads;
                       return row.calls.read ? row.calls.read(buffer, size) : 0;
                     }});
        EXPECT_EQ(ReadTimes(1), Strings{row.result});
        EXPECT_EQ(waits, 1);
        EXPECT_EQ(reads, row.calls.read ? 1 : 0);
      });
      EXPECT_EQ(LogOf(outcome), level < threshold ? Log{} : row.log)
          << row.result;
    }
  }
}

TEST(Read, OfAClosedDescriptorIsAnInvalidRequest) {
  const Outcome outcome = RunCleanly(Child().Closed(0), [] {
    EXPECT_EQ(ReadTimes(1), Strings{"invalid polling request"});
  });
  EXPECT_EQ(LogOf(outcome), Log{});
}

TEST(Read, WaitsForThirtySecondsAndPassesBufferAndLengthUnchanged) {
  RunCleanly(Child(), [] {
    Cgi cgi("/bin/front", "");
    for (const long length : {5L, 0L, 1L << 33, -1L}) {
      char buffer[kSize];
      Replace({.poll =
                   [](pollfd* entries, nfds_t count, int milliseconds) {
                     EXPECT_EQ(count, 1U);
                     EXPECT_EQ(entries->fd, 0);
                     EXPECT_EQ(entries->events, POLLIN);
                     EXPECT_EQ(entries->revents, 0);
                     EXPECT_EQ(milliseconds, 30'000);
                     entries->revents = POLLIN;
                     return 1;
                   },
               .read =
                   [&](void* to, std::size_t size) {
                     EXPECT_EQ(to, buffer);
                     EXPECT_EQ(size, static_cast<std::size_t>(length));
                     return ssize_t{1} << 34;
                   }});
      EXPECT_EQ(cgi.Read(buffer, length), 1L << 34);
      EXPECT_EQ(cgi.Read(buffer, length), 1L << 34);
    }
  });
}

/// Waits 10 ms where the library asks for 30 seconds.
int WaitBriefly(pollfd* entries, nfds_t count, int milliseconds) {
  return RealPoll(entries, count, milliseconds == 30'000 ? 10 : milliseconds);
}

bool IsOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) >= 0; }

TEST(TimeOut, ClosesStandardInputForGood) {
  const Log log = Reading(Input::SilentPipe(""), [] {
    Replace({.poll = WaitBriefly});
    EXPECT_EQ(ReadTimes(3), (Strings{"timeout", "invalid polling request",
                                     "invalid polling request"}));
    EXPECT_FALSE(IsOpen(0));
    EXPECT_TRUE(IsOpen(1));
    EXPECT_TRUE(IsOpen(2));
  });
  EXPECT_EQ(log, Log{});
}

TEST(TimeOut, KeepsLaterDescriptorsAwayFromStandardInput) {
  Backend backend;
  backend.Times(2, zan_cgi::testing::Answer("x"));
  const Scratch scratch;
  const Input silent = Input::SilentPipe("");
  Child child;
  child.Env("REQUEST_METHOD", "GET").StandardInput(silent).With(backend);
  RunCleanly(child, [&scratch] {
    Replace({.poll = WaitBriefly});
    Cgi cgi("/bin/front", "backend");
    char byte;
    EXPECT_THROW(cgi.Read(&byte, 1), std::runtime_error);
    cgi.SetTmpDir(scratch / "new");
    EXPECT_EQ(cgi.Query("func=a"), "x");
    const auto protocol = tov_client::Connect("backend", false);
    EXPECT_FALSE(IsOpen(0));
    protocol->RequestComplete();
    const tov_file::Tmp file(scratch / "file");
    EXPECT_FALSE(IsOpen(0));
    EXPECT_THROW(cgi.Read(&byte, 1), std::runtime_error);
  });
}

/// What a read must come to by the events that its wait found, if a read from
/// the descriptor gives 7. The wait itself has succeeded and has left errno
/// alone.
std::string ExpectedOf(short events, int last_error) {
  if ((events & POLLNVAL) != 0) return "invalid polling request";
  if ((events & POLLERR) != 0) return PollingError(last_error);
  if ((events & POLLIN) != 0) return "7 1234567";
  return (events & POLLHUP) != 0 ? "-1" : "0";
}

constexpr short kEvents[] = {POLLNVAL, POLLERR, POLLIN,   POLLHUP,
                             POLLPRI,  POLLOUT, POLLRDHUP};

TEST(Events, AreCheckedInOrder) {
  RunCleanly(Child().LogLevel(0), [] {
    Cgi::Data record;
    for (std::size_t set = 0; set < 1U << std::size(kEvents); ++set) {
      short events = 0;
      for (std::size_t i = 0; i < std::size(kEvents); ++i) {
        if ((set >> i & 1) == 0) continue;
        events = static_cast<short>(events | kEvents[i]);
      }
      const int last_error = set % 2 == 0 ? EXDEV : ENOENT;
      bool has_read = false;
      Replace({.poll =
                   [&](pollfd* entries, nfds_t, int) {
                     entries->revents = events;
                     errno = last_error;
                     return 1;
                   },
               .read =
                   [&](void* buffer, std::size_t) {
                     has_read = true;
                     std::memcpy(buffer, "1234567", 7);
                     return ssize_t{7};
                   }});
      const std::string expected = ExpectedOf(events, last_error);
      EXPECT_EQ(ReadOnce(record), expected) << "events " << events;
      EXPECT_EQ(has_read, expected.starts_with("7")) << "events " << events;
    }
  });
}

TEST(Record, IsNotTouchedByReading) {
  Reading(Input::Pipe("x"), [] {
    Cgi::Data record;
    const std::string before = Describe(record);
    EXPECT_EQ(ReadOnce(record), "1 x");
    EXPECT_EQ(ReadOnce(record), "-1");
    EXPECT_EQ(Describe(record), before);
  });
}

/// Where input comes from, and what reads give one after another.
struct Source {
  Input input;
  Strings results;
  Log log = {};
};

TEST(Input, IsReadAsItArrivesUpToItsEnd) {
  const Source sources[] = {
      {Input::Pipe(""), {"-1"}, {kHangUp}},
      {Input::SlowPipe({"late"}, 30ms), {"4 late", "-1"}, {kHangUp}},
      // A hang-up never follows the readable end of these.
      {Input::Socket("abc"), {"3 abc", "0", "0", "0"}},
      {Input::File("0123456789"), {"8 01234567", "2 89", "0", "0", "0"}},
      {Input::Nothing(), {"0", "0", "0"}}};
  for (const Source& source : sources) {
    const Log log = Reading(source.input, [&] {
      EXPECT_EQ(ReadTimes(source.results.size()), source.results);
    });
    EXPECT_EQ(log, source.log) << source.results[0];
  }
}

TEST(Pipe, IsReadToItsEndBeforeTheHangUpIsReported) {
  // Everything is written, and the writer gone, before the first read.
  const Log log = Reading(Input::Pipe("0123456789abcdefXYZ"), [] {
    pollfd entry{STDIN_FILENO, 0, 0};
    while ((entry.revents & POLLHUP) == 0) RealPoll(&entry, 1, -1);
    EXPECT_EQ(ReadTimes(5),
              (Strings{"8 01234567", "8 89abcdef", "3 XYZ", "-1", "-1"}));
  });
  EXPECT_EQ(log, (Log{kHangUp, kHangUp}));
}

TEST(Pipe, KeepsItsBytesForALengthOfZeroOrLess) {
  const Log log = Reading(Input::Pipe("abc"), [] {
    Cgi::Data record;
    EXPECT_EQ(ReadOnce(record, 0), "0");
    EXPECT_EQ(ReadOnce(record, -1), "-1");
    EXPECT_EQ(ReadOnce(record), "3 abc");
  });
  EXPECT_EQ(log, (Log{{3, "error reading stdin, code 14"}}));
}

TEST(Signal, EndsTheWaitWithoutDataWhateverItsFlags) {
  for (const int flags : {0, SA_RESTART}) {
    const Log log = Reading(Input::SilentPipe(""), [flags] {
      struct sigaction action {};
      action.sa_handler = [](int) {};
      action.sa_flags = flags;
      ::sigaction(SIGALRM, &action, nullptr);
      const itimerval often{{0, 20'000}, {0, 20'000}};
      ::setitimer(ITIMER_REAL, &often, nullptr);
      EXPECT_EQ(ReadTimes(1), Strings{"0"});
    });
    EXPECT_EQ(log,
              (Log{{9, "zancgi_unix.cpp:# poll interrupted, trying again"}}));
  }
}

}  // namespace
}  // namespace support
