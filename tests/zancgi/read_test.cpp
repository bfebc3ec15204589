// One read of standard input: what the wait and the read may give.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "support/backend.h"
#include "support/child.h"
#include "support/input.h"
#include "support/scratch.h"

namespace {

using support::Backend;
using support::Child;
using support::Input;
using support::Outcome;
using support::Scratch;
using support::Told;
using zan_cgi::Cgi;
using Strings = std::vector<std::string>;

/// What poll(2) answers for standard input.
struct Wait {
  int result = 1;
  int error = 0;
  int events = 0;
};

/// What read(2) answers for standard input.
struct Reading {
  ssize_t result = 0;
  int error = 0;
};

// What the functions at the end of this file do beside their work.
std::optional<Wait> scripted_wait;
std::optional<Reading> scripted_reading;
int longest_wait = -1;
bool marks_receivers = false;

const Wait kReadable{1, 0, POLLIN};
const std::string kWait =
    "poll of 1 entry: descriptor 0, wants 1, returned 0; 30000 ms";
const std::string kRead = "read of descriptor 0, at most 8 bytes";

/// Calls and log lines since the first Read(), with "#" for line numbers.
Strings Effects(const Outcome& outcome) {
  static const std::regex place("^zancgi_unix\\.cpp:[0-9]+ ");
  const auto first = std::find(outcome.log.begin(), outcome.log.end(),
                               support::LogLine{-1, "begins"});
  Strings effects;
  if (first == outcome.log.end()) return effects;
  for (auto line = first + 1; line != outcome.log.end(); ++line) {
    const std::string text =
        std::regex_replace(line->text, place, "zancgi_unix.cpp:# ");
    effects.push_back(
        line->level < 0 ? text : std::to_string(line->level) + " " + text);
  }
  return effects;
}

/// One Read() of at most 8 bytes, with scripted calls. Tells the "result" and
/// the "buffer", whose bytes were dots before.
Outcome ReadOnce(const Wait& wait, const Reading& reading = {},
                 int log_level = 9) {
  return Child().LogLevel(log_level).Run([&](const Told& told) {
    Cgi::Data record;
    scripted_wait = wait;
    scripted_reading = reading;
    std::string buffer(10, '.');
    support::Mark("begins");
    // As an earlier call could have left it.
    errno = ENOTDIR;
    told("result", std::to_string(record.Read(buffer.data(), 8)));
    told("buffer", buffer);
  });
}

/// Reads so often, each time into a buffer of this size, and tells the "bytes"
/// and the "results".
Outcome ReadAll(const Child& child, int times, std::size_t size = 100) {
  return child.Run([&](const Told& told) {
    Cgi cgi("/bin/front", "backend");
    support::Mark("begins");
    std::string bytes;
    std::string results;
    for (int i = 0; i < times; ++i) {
      std::string buffer(size, '.');
      const long result = cgi.Read(buffer.data(), static_cast<long>(size));
      results += std::to_string(result) + ";";
      if (result > 0) bytes += buffer.substr(0, static_cast<size_t>(result));
    }
    told("bytes", bytes);
    told("results", results);
  });
}

/// The same from this input.
Outcome ReadAll(const Input& input, int times, std::size_t size = 100) {
  return ReadAll(Child().StandardInput(input), times, size);
}

/// The same from a descriptor that is made in the child.
Outcome ReadOnceFrom(const std::function<int()>& open) {
  return Child().Run([&](const Told& told) {
    Cgi::Data record;
    const int descriptor = open();
    ::dup2(descriptor, STDIN_FILENO);
    ::close(descriptor);
    support::Mark("begins");
    char buffer[100];
    told("result", std::to_string(record.Read(buffer, sizeof(buffer))));
  });
}

void Ignore(int) {}

/// Raises SIGALRM in 50 ms and then every 50 ms.
void RaiseAlarms(int flags) {
  struct sigaction action = {};
  action.sa_handler = Ignore;
  action.sa_flags = flags;
  ::sigaction(SIGALRM, &action, nullptr);
  const itimerval often{{0, 50'000}, {0, 50'000}};
  ::setitimer(ITIMER_REAL, &often, nullptr);
}

bool StandardInputIsOpen() { return ::fcntl(STDIN_FILENO, F_GETFD) >= 0; }

/// Reads from a writer that stays silent, and tells whether standard input is
/// open afterwards.
void RunIntoTheTimeOut(Cgi& cgi, const Told& told) {
  longest_wait = 50;
  char buffer[8];
  try {
    cgi.Read(buffer, sizeof(buffer));
  } catch (const std::runtime_error& error) {
    told("first", error.what());
  }
  told("open after the time-out", StandardInputIsOpen() ? "yes" : "no");
}

TEST(Read, WaitsOnceForHalfAMinuteAndThenReadsOnce) {
  const Outcome outcome = ReadOnce(kReadable, {3});
  EXPECT_EQ(Effects(outcome), (Strings{kWait, kRead}));
  EXPECT_EQ(outcome.told.at("result"), "3");
  EXPECT_EQ(outcome.told.at("buffer"), "abc.......");
}

TEST(Read, ReturnsWhatTheReadGives) {
  EXPECT_EQ(ReadOnce(kReadable, {0}).told.at("result"), "0");
  EXPECT_EQ(ReadOnce(kReadable, {1}).told.at("result"), "1");
  EXPECT_EQ(ReadOnce(kReadable, {8}).told.at("result"), "8");
}

TEST(Read, LogsNothingWhenItSucceeds) {
  for (const ssize_t result : {0, 3}) {
    EXPECT_EQ(Effects(ReadOnce(kReadable, {result})), (Strings{kWait, kRead}));
  }
}

TEST(Read, OfTheFacadeIsThatOfTheRecord) {
  const Outcome outcome = Child().Run([](const Told& told) {
    Cgi cgi("/bin/front", "backend");
    scripted_wait = kReadable;
    scripted_reading = {3};
    std::string buffer(10, '.');
    support::Mark("begins");
    told("result", std::to_string(cgi.Read(buffer.data(), 8)));
    told("buffer", buffer);
  });
  EXPECT_EQ(Effects(outcome), (Strings{kWait, kRead}));
  EXPECT_EQ(outcome.told.at("result"), "3");
  EXPECT_EQ(outcome.told.at("buffer"), "abc.......");
}

TEST(Read, NeitherMindsNorChangesTheRecord) {
  const Outcome outcome = Child().Run([](const Told& told) {
    Cgi::Data record;
    record.parsed = true;
    record.tmp_dir = "/nowhere";
    record.params["a"] = "1";
    record.files["f"].size = 7;
    scripted_wait = kReadable;
    scripted_reading = {3};
    char buffer[8];
    told("result", std::to_string(record.Read(buffer, sizeof(buffer))));
    scripted_wait = Wait{1, 0, POLLNVAL};
    EXPECT_THROW(record.Read(buffer, sizeof(buffer)), std::runtime_error);
    EXPECT_TRUE(record.parsed);
    EXPECT_EQ(record.tmp_dir, "/nowhere");
    EXPECT_EQ(record.params.size(), 1U);
    EXPECT_EQ(record.params["a"], "1");
    EXPECT_EQ(record.files.size(), 1U);
    EXPECT_EQ(record.files["f"].size, 7);
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.told.at("result"), "3");
}

TEST(Wait, InterruptedGivesZeroAndALineOfDebugDetail) {
  const Outcome outcome = ReadOnce({-1, EINTR});
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.told.at("result"), "0");
  EXPECT_EQ(
      Effects(outcome),
      (Strings{kWait, "9 zancgi_unix.cpp:# poll interrupted, trying again"}));
}

TEST(Wait, InterruptedIsNotLoggedBelowItsLevel) {
  const Outcome outcome = ReadOnce({-1, EINTR}, {}, 8);
  EXPECT_EQ(outcome.told.at("result"), "0");
  EXPECT_EQ(Effects(outcome), Strings{kWait});
}

TEST(Wait, FailedOtherwiseThrowsTheReason) {
  // What would be no error in a read is one here.
  for (const int error : {EINVAL, ENOMEM, EFAULT, EAGAIN}) {
    const Outcome outcome = ReadOnce({-1, error});
    EXPECT_EQ(outcome.error_type, "std::runtime_error");
    EXPECT_EQ(outcome.error,
              "polling error: " + std::string(std::strerror(error)));
    EXPECT_EQ(Effects(outcome), Strings{kWait});
  }
}

TEST(Wait, ThatEndsWithoutAnEventIsATimeOut) {
  const Outcome outcome = ReadOnce({0});
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "timeout");
  EXPECT_EQ(Effects(outcome), Strings{kWait});
}

TEST(Events, OfABadRequestComeFirst) {
  for (const int others :
       {0, POLLERR, POLLIN, POLLHUP, POLLERR | POLLIN | POLLHUP}) {
    const Outcome outcome = ReadOnce({1, 0, POLLNVAL | others}, {3});
    EXPECT_EQ(outcome.error_type, "std::runtime_error") << others;
    EXPECT_EQ(outcome.error, "invalid polling request") << others;
    EXPECT_EQ(Effects(outcome), Strings{kWait}) << others;
  }
}

TEST(Events, OfAnErrorComeSecondAndTellTheLastFailure) {
  for (const int others : {0, POLLIN, POLLHUP, POLLIN | POLLHUP}) {
    const Outcome outcome = ReadOnce({1, 0, POLLERR | others}, {3});
    EXPECT_EQ(outcome.error_type, "std::runtime_error") << others;
    EXPECT_EQ(outcome.error, "polling error: Not a directory") << others;
    EXPECT_EQ(Effects(outcome), Strings{kWait}) << others;
  }
}

TEST(Events, OfInputComeBeforeAHangUp) {
  const Outcome outcome = ReadOnce({1, 0, POLLIN | POLLHUP}, {3});
  EXPECT_EQ(outcome.told.at("result"), "3");
  EXPECT_EQ(Effects(outcome), (Strings{kWait, kRead}));
}

TEST(Events, OfAHangUpAloneGiveMinusOneAndAWarning) {
  for (const int others : {0, POLLPRI, POLLOUT}) {
    const Outcome outcome = ReadOnce({1, 0, POLLHUP | others}, {3});
    EXPECT_EQ(outcome.told.at("result"), "-1") << others;
    EXPECT_EQ(Effects(outcome), (Strings{kWait, "4 Signal HUP received"}))
        << others;
  }
}

TEST(Events, OfAHangUpAreLoggedFromTheirLevelOn) {
  EXPECT_EQ(Effects(ReadOnce({1, 0, POLLHUP}, {}, 4)),
            (Strings{kWait, "4 Signal HUP received"}));
  const Outcome silent = ReadOnce({1, 0, POLLHUP}, {}, 3);
  EXPECT_EQ(silent.told.at("result"), "-1");
  EXPECT_EQ(Effects(silent), Strings{kWait});
}

TEST(Events, OfAnyOtherKindGiveZero) {
  for (const int events : {0, POLLPRI, POLLOUT}) {
    const Outcome outcome = ReadOnce({1, 0, events}, {3});
    EXPECT_EQ(outcome.told.at("result"), "0") << events;
    EXPECT_EQ(Effects(outcome), Strings{kWait}) << events;
  }
}

TEST(FailedRead, ThatWouldBlockGivesZero) {
  const Outcome outcome = ReadOnce(kReadable, {-1, EAGAIN});
  EXPECT_EQ(outcome.told.at("result"), "0");
  EXPECT_EQ(Effects(outcome), (Strings{kWait, kRead}));
}

TEST(FailedRead, OfAnyOtherKindGivesMinusOneAndAnErrorLine) {
  // An interrupted read too, unlike an interrupted wait.
  for (const auto& [error, code] :
       {std::pair(EINTR, "4"), std::pair(EIO, "5"), std::pair(EBADF, "9"),
        std::pair(EFAULT, "14"), std::pair(ECONNRESET, "104")}) {
    const Outcome outcome = ReadOnce(kReadable, {-1, error});
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.told.at("result"), "-1") << code;
    EXPECT_EQ(Effects(outcome),
              (Strings{kWait, kRead,
                       "3 error reading stdin, code " + std::string(code)}));
  }
}

TEST(FailedRead, IsLoggedFromItsLevelOn) {
  EXPECT_EQ(Effects(ReadOnce(kReadable, {-1, EIO}, 3)).back(),
            "3 error reading stdin, code 5");
  const Outcome silent = ReadOnce(kReadable, {-1, EIO}, 2);
  EXPECT_EQ(silent.told.at("result"), "-1");
  EXPECT_EQ(Effects(silent), (Strings{kWait, kRead}));
}

TEST(FailedRead, BesideAHangUpIsStillAFailedRead) {
  const Outcome outcome = ReadOnce({1, 0, POLLIN | POLLHUP}, {-1, EIO});
  EXPECT_EQ(Effects(outcome),
            (Strings{kWait, kRead, "3 error reading stdin, code 5"}));
}

TEST(Pipe, IsReadToItsEndBeforeTheHangUpShows) {
  const Outcome outcome = ReadAll(Input::Pipe("abcdefghij"), 5, 4);
  EXPECT_EQ(outcome.told.at("bytes"), "abcdefghij");
  EXPECT_EQ(outcome.told.at("results"), "4;4;2;-1;-1;");
  EXPECT_EQ(Effects(outcome),
            (Strings{"4 Signal HUP received", "4 Signal HUP received"}));
  EXPECT_EQ(outcome.leaked_descriptors, Strings{});
}

TEST(Pipe, WithoutAWriterGivesMinusOne) {
  const Outcome outcome = ReadAll(Input::Pipe(""), 1);
  EXPECT_EQ(outcome.told.at("results"), "-1;");
  EXPECT_EQ(Effects(outcome), Strings{"4 Signal HUP received"});
}

TEST(Pipe, BehindTheDeclaredBodyGivesMinusOne) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      Child()
          .Env("REQUEST_METHOD", "POST")
          .Env("CONTENT_LENGTH", "3")
          .Env("TMP", "/")
          .StandardInput(input)
          .Run([](const Told& told) {
            Cgi cgi("/bin/front", "backend");
            told("a", cgi.Param("a"));
            support::Mark("begins");
            char buffer[8];
            told("result", std::to_string(cgi.Read(buffer, sizeof(buffer))));
          });
  EXPECT_EQ(outcome.told.at("a"), "1");
  EXPECT_EQ(outcome.told.at("result"), "-1");
  EXPECT_EQ(Effects(outcome), Strings{"4 Signal HUP received"});
}

TEST(Pipe, IsNotReadByALengthOfZero) {
  const Input input = Input::SilentPipe("x");
  const Outcome outcome =
      Child().StandardInput(input).Run([](const Told& told) {
        Cgi cgi("/bin/front", "backend");
        char buffer[] = "..";
        support::Mark("begins");
        told("result", std::to_string(cgi.Read(buffer, 0)));
        told("untouched", buffer);
        told("next", std::to_string(cgi.Read(buffer, 1)));
        told("buffer", buffer);
      });
  EXPECT_EQ(outcome.told.at("result"), "0");
  EXPECT_EQ(outcome.told.at("untouched"), "..");
  EXPECT_EQ(outcome.told.at("next"), "1");
  EXPECT_EQ(outcome.told.at("buffer"), "x.");
  EXPECT_EQ(Effects(outcome), Strings{});
}

TEST(Pipe, EndThatIsWrittenToShowsAnErrorOnceNobodyReads) {
  const Outcome outcome = ReadOnceFrom([] {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    ::close(ends[0]);
    return ends[1];
  });
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_TRUE(outcome.error.starts_with("polling error: ")) << outcome.error;
  EXPECT_EQ(Effects(outcome), Strings{});
}

TEST(Socket, ThatIsShutDownGivesZeroForEver) {
  const Outcome outcome = ReadAll(Input::Socket("abcdefghij"), 6, 4);
  EXPECT_EQ(outcome.told.at("bytes"), "abcdefghij");
  EXPECT_EQ(outcome.told.at("results"), "4;4;2;0;0;0;");
  EXPECT_EQ(Effects(outcome), Strings{});
}

TEST(RegularFile, GivesZeroForEverAtItsEnd) {
  const Outcome outcome = ReadAll(Input::File("abcdefghij"), 6, 4);
  EXPECT_EQ(outcome.told.at("bytes"), "abcdefghij");
  EXPECT_EQ(outcome.told.at("results"), "4;4;2;0;0;0;");
  EXPECT_EQ(Effects(outcome), Strings{});
}

TEST(NullDevice, GivesZero) {
  const Outcome outcome = ReadAll(Child(), 2);
  EXPECT_EQ(outcome.told.at("results"), "0;0;");
  EXPECT_EQ(Effects(outcome), Strings{});
}

TEST(Directory, CannotBeRead) {
  const Outcome outcome =
      ReadOnceFrom([] { return ::open("/", O_RDONLY | O_CLOEXEC); });
  EXPECT_EQ(outcome.told.at("result"), "-1");
  EXPECT_EQ(Effects(outcome), Strings{"3 error reading stdin, code 21"});
}

TEST(FileForWriting, CannotBeRead) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file", "x");
  const Outcome outcome =
      ReadOnceFrom([&] { return ::open(file.c_str(), O_WRONLY | O_CLOEXEC); });
  EXPECT_EQ(outcome.told.at("result"), "-1");
  EXPECT_EQ(Effects(outcome), Strings{"3 error reading stdin, code 9"});
}

TEST(ClosedStandardInput, IsAnInvalidRequest) {
  const Outcome outcome = ReadAll(Child().Closed(STDIN_FILENO), 1);
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "invalid polling request");
  EXPECT_EQ(Effects(outcome), Strings{});
}

TEST(Signal, DuringTheWaitGivesZeroWhateverItsHandlersFlags) {
  for (const int flags : {0, SA_RESTART}) {
    const Input input = Input::SilentPipe("");
    const Outcome outcome =
        Child().StandardInput(input).Run([&](const Told& told) {
          Cgi cgi("/bin/front", "backend");
          support::Mark("begins");
          RaiseAlarms(flags);
          char buffer[8];
          told("result", std::to_string(cgi.Read(buffer, sizeof(buffer))));
        });
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.told.at("result"), "0");
    EXPECT_EQ(Effects(outcome),
              Strings{"9 zancgi_unix.cpp:# poll interrupted, trying again"});
  }
}

TEST(Signal, DuringTheReadGivesMinusOne) {
  const Input input = Input::SilentPipe("");
  const Outcome outcome =
      Child().StandardInput(input).Run([](const Told& told) {
        Cgi cgi("/bin/front", "backend");
        scripted_wait = kReadable;
        support::Mark("begins");
        RaiseAlarms(0);
        char buffer[8];
        told("result", std::to_string(cgi.Read(buffer, sizeof(buffer))));
      });
  EXPECT_EQ(outcome.told.at("result"), "-1");
  EXPECT_EQ(Effects(outcome),
            (Strings{kWait, "3 error reading stdin, code 4"}));
}

TEST(TimeOut, ClosesStandardInputForGood) {
  const Input input = Input::SilentPipe("");
  const Outcome outcome =
      Child().StandardInput(input).Run([](const Told& told) {
        Cgi cgi("/bin/front", "backend");
        support::Mark("begins");
        RunIntoTheTimeOut(cgi, told);
        char buffer[8];
        cgi.Read(buffer, sizeof(buffer));
      });
  EXPECT_EQ(outcome.told.at("first"), "timeout");
  EXPECT_EQ(outcome.told.at("open after the time-out"), "no");
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "invalid polling request");
  EXPECT_EQ(Effects(outcome), Strings{});
}

TEST(TimeOut, LeavesNoPlaceForAConnectionInStandardInput) {
  Backend backend;
  backend.Then(support::Answer("answer"));
  const Input input = Input::SilentPipe("");
  const Outcome outcome =
      Child().StandardInput(input).With(backend).Run([](const Told& told) {
        Cgi cgi("/bin/front", "backend");
        support::Mark("begins");
        RunIntoTheTimeOut(cgi, told);
        marks_receivers = true;
        told("answer", cgi.Query("func=a"));
        told("open after the query", StandardInputIsOpen() ? "yes" : "no");
        char buffer[8];
        cgi.Read(buffer, sizeof(buffer));
      });
  EXPECT_EQ(outcome.told.at("answer"), "answer");
  EXPECT_EQ(outcome.told.at("open after the query"), "no");
  EXPECT_EQ(outcome.error, "invalid polling request");
  const Strings effects = Effects(outcome);
  EXPECT_GT(std::count(effects.begin(), effects.end(), "received"), 0);
  EXPECT_EQ(std::count(effects.begin(), effects.end(),
                       "received by a standard descriptor"),
            0);
  EXPECT_EQ(outcome.leaked_descriptors, Strings{});
}

}  // namespace

// Under names of their own, since their headers declare that poll only writes
// to fds, and that read does not look into buf.
extern "C" int WatchedPoll(pollfd* fds, nfds_t nfds,
                           int timeout) __asm__("poll");

extern "C" int WatchedPoll(pollfd* fds, nfds_t nfds, int timeout) {
  if (scripted_wait.has_value()) {
    support::Mark("poll of " + std::to_string(nfds) + " entry: descriptor " +
                  std::to_string(fds->fd) + ", wants " +
                  std::to_string(fds->events) + ", returned " +
                  std::to_string(fds->revents) + "; " +
                  std::to_string(timeout) + " ms");
    fds->revents = static_cast<short>(scripted_wait->events);
    if (scripted_wait->error != 0) errno = scripted_wait->error;
    return scripted_wait->result;
  }
  const bool is_shortened = longest_wait >= 0 && timeout > longest_wait;
  return static_cast<int>(
      ::syscall(SYS_poll, fds, nfds, is_shortened ? longest_wait : timeout));
}

extern "C" ssize_t WatchedRead(int fd, void* buf,
                               std::size_t nbytes) __asm__("read");

extern "C" ssize_t WatchedRead(int fd, void* buf, std::size_t nbytes) {
  if (!scripted_reading.has_value()) {
    return ::syscall(SYS_read, fd, buf, nbytes);
  }
  support::Mark("read of descriptor " + std::to_string(fd) + ", at most " +
                std::to_string(nbytes) + " bytes");
  if (scripted_reading->result < 0) errno = scripted_reading->error;
  for (ssize_t i = 0; i < scripted_reading->result; ++i) {
    static_cast<char*>(buf)[i] = static_cast<char>('a' + i);
  }
  return scripted_reading->result;
}

extern "C" ssize_t recv(int fd, void* buf, std::size_t n, int flags) {
  if (marks_receivers) {
    support::Mark(fd <= STDERR_FILENO ? "received by a standard descriptor"
                                      : "received");
  }
  return ::syscall(SYS_recvfrom, fd, buf, n, flags, nullptr, nullptr);
}
