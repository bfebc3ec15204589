// One read from standard input: the wait, what it may find, and how each end
// shows.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <tov/client.h>
#include <tov/file.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/backend.h"
#include "support/system_calls.h"

namespace {

using support::RealPoll;
using support::Replace;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Input;
using zan_cgi::testing::LogLine;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Told;
using Strings = std::vector<std::string>;
using namespace std::chrono_literals;

constexpr std::size_t kSize = 8;
const LogLine kConstruction{8, "void zan_cgi::Cgi::Data::ParseCookies()"};

/// The result of one read, with the bytes that it gave: "3 abc".
std::string ReadOnce(Cgi::Data& record, long length = kSize) {
  char buffer[kSize] = {};
  const long result = record.Read(buffer, length);
  std::string text = std::to_string(result);
  if (result > 0) {
    text.append(" ").append(buffer, static_cast<std::size_t>(result));
  }
  return text;
}

/// Reads this often; each result is told under its number, from 1.
void ReadAndTell(const Told& told, int times) {
  Cgi::Data record;
  for (int i = 1; i <= times; ++i) told(std::to_string(i), ReadOnce(record));
}

/// What a child that reads has told, with nothing else left behind.
Outcome Checked(const Outcome& outcome) {
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  EXPECT_EQ(outcome.leaked_descriptors, Strings{});
  return outcome;
}

Outcome Read(const Child& child, int times = 1) {
  return Checked(
      child.Run([times](const Told& told) { ReadAndTell(told, times); }));
}

Outcome ReadFrom(const Input& input, int times) {
  return Read(Child().StandardInput(input), times);
}

/// Reads with these calls in place of the system's.
Outcome ReadWith(const support::SystemCalls& calls, Child child = {}) {
  return Checked(child.Run([&calls](const Told& told) {
    Replace(calls);
    ReadAndTell(told, 1);
  }));
}

/// A wait that ends with these events.
auto Finding(short events) {
  return [events](pollfd* entries, nfds_t, int) {
    entries->revents = events;
    return 1;
  };
}

/// A call that fails.
auto Failing(int error) {
  return [error](auto...) {
    errno = error;
    return -1;
  };
}

/// What the log holds besides the construction of the record.
std::vector<LogLine> LogOf(const Outcome& outcome) {
  std::vector<LogLine> log = outcome.log;
  EXPECT_FALSE(log.empty());
  if (!log.empty() && log.front() == kConstruction) log.erase(log.begin());
  return log;
}

testing::AssertionResult SaysThatTheWaitWasInterrupted(const Outcome& outcome) {
  const std::vector<LogLine> log = LogOf(outcome);
  const std::regex text(
      R"(zancgi_unix\.cpp:\d+ poll interrupted, trying again)");
  const bool good = log.size() == 1 && log[0].level == 9 &&
                    std::regex_match(log[0].text, text);
  return (good ? testing::AssertionSuccess() : testing::AssertionFailure())
         << outcome.standard_error;
}

void ExpectError(const Outcome& outcome, const std::string& text) {
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, text);
  EXPECT_EQ(LogOf(outcome), std::vector<LogLine>{});
}

std::string PollingError(int error) {
  return std::string("polling error: ") + std::strerror(error);
}

TEST(Wait, IsOneForInputOnStandardInputForThirtySeconds) {
  const Outcome outcome = Checked(Child().Run([](const Told& told) {
    int waits = 0;
    Replace({.poll =
                 [&](pollfd* entries, nfds_t count, int milliseconds) {
                   ++waits;
                   told("entries", std::to_string(count));
                   told("descriptor", std::to_string(entries->fd));
                   told("events", std::to_string(entries->events));
                   told("returned", std::to_string(entries->revents));
                   told("milliseconds", std::to_string(milliseconds));
                   entries->revents = POLLIN;
                   return 1;
                 },
             .read = [](void*, std::size_t) { return ssize_t{1}; }});
    ReadAndTell(told, 1);
    told("waits", std::to_string(waits));
  }));
  EXPECT_EQ(outcome.told.at("entries"), "1");
  EXPECT_EQ(outcome.told.at("descriptor"), "0");
  EXPECT_EQ(outcome.told.at("events"), std::to_string(POLLIN));
  EXPECT_EQ(outcome.told.at("returned"), "0");
  EXPECT_EQ(outcome.told.at("milliseconds"), "30000");
  EXPECT_EQ(outcome.told.at("waits"), "1");
}

TEST(Wait, InterruptedByASignalGivesNothing) {
  const Outcome outcome = ReadWith({.poll = Failing(EINTR)});
  EXPECT_EQ(outcome.told.at("1"), "0");
  EXPECT_TRUE(SaysThatTheWaitWasInterrupted(outcome));
}

TEST(Wait, InterruptedIsNeitherRepeatedNorFollowedByARead) {
  const Outcome outcome = Checked(Child().Run([](const Told& told) {
    int waits = 0;
    int reads = 0;
    Replace({.poll =
                 [&](pollfd*, nfds_t, int) {
                   ++waits;
                   errno = EINTR;
                   return -1;
                 },
             .read = [&](void*, std::size_t) { return ssize_t{++reads}; }});
    ReadAndTell(told, 1);
    told("calls", std::to_string(waits) + " and " + std::to_string(reads));
  }));
  EXPECT_EQ(outcome.told.at("calls"), "1 and 0");
}

TEST(Wait, ThatFailsOtherwiseIsAnErrorWithTheSystemsText) {
  for (const int error : {EAGAIN, EINVAL, ENOMEM, EFAULT, EIO}) {
    ExpectError(ReadWith({.poll = Failing(error)}), PollingError(error));
  }
}

TEST(Wait, ThatFailsWithoutMemoryForReal) {
  // poll(2) refuses more entries than descriptors are allowed.
  const Outcome outcome = ReadWith({.poll = [](pollfd* entries, nfds_t, int) {
    return RealPoll(entries, 10'000'000, 0);
  }});
  ExpectError(outcome, PollingError(EINVAL));
}

/// Waits 10 ms where the library asks for 30 seconds.
int WaitBriefly(pollfd* entries, nfds_t count, int milliseconds) {
  return RealPoll(entries, count, milliseconds == 30'000 ? 10 : milliseconds);
}

std::string IsOpen(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) < 0 ? "closed" : "open";
}

TEST(TimeOut, ClosesStandardInputAndIsAnError) {
  const Input silent = Input::SilentPipe("");
  const Outcome outcome =
      Checked(Child().StandardInput(silent).Run([](const Told& told) {
        Replace({.poll = WaitBriefly});
        try {
          ReadAndTell(told, 1);
        } catch (const std::runtime_error&) {
          told("0", IsOpen(0));
          told("1", IsOpen(1));
          told("2", IsOpen(2));
          throw;
        }
      }));
  ExpectError(outcome, "timeout");
  EXPECT_EQ(outcome.told.at("0"), "closed");
  EXPECT_EQ(outcome.told.at("1"), "open");
  EXPECT_EQ(outcome.told.at("2"), "open");
}

TEST(TimeOut, IsTheEndOfStandardInputForGood) {
  const Input silent = Input::SilentPipe("");
  const Outcome outcome =
      Checked(Child().StandardInput(silent).Run([](const Told& told) {
        Replace({.poll = WaitBriefly});
        Cgi::Data record;
        for (const std::string call : {"first", "second", "third"}) {
          try {
            told(call, ReadOnce(record));
          } catch (const std::runtime_error& error) {
            told(call, error.what());
          }
        }
      }));
  EXPECT_EQ(outcome.told.at("first"), "timeout");
  EXPECT_EQ(outcome.told.at("second"), "invalid polling request");
  EXPECT_EQ(outcome.told.at("third"), "invalid polling request");
  EXPECT_EQ(LogOf(outcome), std::vector<LogLine>{});
}

TEST(TimeOut, IsCountedFromEachCallAnew) {
  const Input slow = Input::SlowPipe({"a", "b"}, 15ms);
  const Outcome outcome =
      Checked(Child().StandardInput(slow).Run([](const Told& told) {
        std::string asked;
        Replace({.poll = [&](pollfd* entries, nfds_t count, int milliseconds) {
          asked += std::to_string(milliseconds) + " ";
          return RealPoll(entries, count, milliseconds);
        }});
        ReadAndTell(told, 2);
        told("asked", asked);
      }));
  EXPECT_EQ(outcome.told.at("asked"), "30000 30000 ");
}

TEST(TimeOut, LetsNothingBecomeStandardInputAfterwards) {
  support::Backend backend;
  backend.Times(2, zan_cgi::testing::Answer("x"));
  const zan_cgi::testing::Scratch scratch;
  const Input silent = Input::SilentPipe("");
  const Outcome outcome =
      Checked(Child()
                  .Env("REQUEST_METHOD", "GET")
                  .StandardInput(silent)
                  .With(backend)
                  .Run([&scratch](const Told& told) {
                    Replace({.poll = WaitBriefly});
                    Cgi cgi("/bin/front", "backend");
                    char byte;
                    EXPECT_THROW(cgi.Read(&byte, 1), std::runtime_error);
                    cgi.SetTmpDir(scratch / "new");
                    told("answer", cgi.Query("func=a"));
                    const auto protocol = tov_client::Connect("backend", false);
                    told("0 while connected", IsOpen(0));
                    protocol->RequestComplete();
                    const tov_file::Tmp file(scratch / "file");
                    told("0 at the end", IsOpen(0));
                    EXPECT_THROW(cgi.Read(&byte, 1), std::runtime_error);
                  }));
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.told.at("answer"), "x");
  EXPECT_EQ(outcome.told.at("0 while connected"), "closed");
  EXPECT_EQ(outcome.told.at("0 at the end"), "closed");
}

/// What a read must come to by the events that its wait found, if a read from
/// the descriptor gives 7.
std::string ExpectedOf(short events) {
  if ((events & POLLNVAL) != 0) return "invalid polling request";
  if ((events & POLLERR) != 0) return PollingError(EXDEV);
  if ((events & POLLIN) != 0) return "7";
  return (events & POLLHUP) != 0 ? "-1" : "0";
}

constexpr short kEvents[] = {POLLNVAL, POLLERR, POLLIN,
                             POLLHUP,  POLLPRI, POLLRDHUP};

TEST(Events, AreLookedAtInOrder) {
  const Outcome outcome = Checked(Child().LogLevel(0).Run([](const Told&) {
    Cgi::Data record;
    char buffer[kSize];
    for (std::size_t set = 0; set < 1U << std::size(kEvents); ++set) {
      short events = 0;
      for (std::size_t i = 0; i < std::size(kEvents); ++i) {
        if ((set >> i & 1) == 0) continue;
        events = static_cast<short>(events | kEvents[i]);
      }
      Replace({.poll =
                   [events](pollfd* entries, nfds_t, int) {
                     entries->revents = events;
                     errno = EXDEV;
                     return 1;
                   },
               .read = [](void*, std::size_t) { return ssize_t{7}; }});
      std::string result;
      try {
        result = std::to_string(record.Read(buffer, sizeof(buffer)));
      } catch (const std::runtime_error& error) {
        result = error.what();
      }
      EXPECT_EQ(result, ExpectedOf(events)) << "events " << events;
    }
  }));
  EXPECT_EQ(outcome.error, "");
}

TEST(Events, OfAnInvalidDescriptorAreAnError) {
  ExpectError(ReadWith({.poll = Finding(POLLNVAL)}), "invalid polling request");
}

TEST(Events, OfAnErrorTellWhateverFailedLast) {
  // The wait itself has succeeded and has left errno alone.
  for (const int error : {ENOENT, EBUSY}) {
    const Outcome outcome =
        ReadWith({.poll = [error](pollfd* entries, nfds_t, int) {
          entries->revents = POLLERR | POLLIN;
          errno = error;
          return 1;
        }});
    ExpectError(outcome, PollingError(error));
  }
}

TEST(Events, OfAHangUpWithNothingPendingAreTheEnd) {
  const Outcome outcome = ReadWith(
      {.poll = Finding(POLLHUP), .read = [](void*, std::size_t) -> ssize_t {
         throw std::logic_error("must not read");
       }});
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.told.at("1"), "-1");
  EXPECT_EQ(LogOf(outcome), (std::vector<LogLine>{{4, "Signal HUP received"}}));
}

TEST(Events, OfOtherKindsGiveNothing) {
  for (const short events :
       std::initializer_list<short>{POLLPRI, POLLRDHUP, POLLOUT, 0}) {
    const Outcome outcome = ReadWith(
        {.poll = Finding(events), .read = [](void*, std::size_t) -> ssize_t {
           throw std::logic_error("must not read");
         }});
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.told.at("1"), "0") << events;
    EXPECT_EQ(LogOf(outcome), std::vector<LogLine>{});
  }
}

TEST(Input, IsReadOnceIntoTheBufferForAtMostTheLength) {
  const Outcome outcome = Checked(Child().Run([](const Told& told) {
    char buffer[kSize];
    int reads = 0;
    Replace({.poll = Finding(POLLIN), .read = [&](void* to, std::size_t size) {
               ++reads;
               told("size", std::to_string(size));
               told("place", to == buffer ? "start" : "elsewhere");
               return ssize_t{0};
             }});
    Cgi::Data record;
    told("result", std::to_string(record.Read(buffer, 5)));
    told("reads", std::to_string(reads));
  }));
  EXPECT_EQ(outcome.told.at("size"), "5");
  EXPECT_EQ(outcome.told.at("place"), "start");
  EXPECT_EQ(outcome.told.at("result"), "0");
  EXPECT_EQ(outcome.told.at("reads"), "1");
}

TEST(Input, IsReportedAsTheReadReportsIt) {
  for (const ssize_t count : {0L, 1L, 8L, 5'000'000'000L}) {
    const Outcome outcome = Checked(Child().Run([count](const Told& told) {
      Replace({.poll = Finding(POLLIN),
               .read = [count](void*, std::size_t) { return count; }});
      Cgi::Data record;
      char buffer[kSize];
      told("result", std::to_string(record.Read(buffer, kSize)));
    }));
    EXPECT_EQ(outcome.told.at("result"), std::to_string(count));
    EXPECT_EQ(LogOf(outcome), std::vector<LogLine>{});
  }
}

TEST(Input, ThatWouldBlockGivesNothing) {
  const Outcome outcome =
      ReadWith({.poll = Finding(POLLIN), .read = Failing(EAGAIN)});
  EXPECT_EQ(outcome.told.at("1"), "0");
  EXPECT_EQ(LogOf(outcome), std::vector<LogLine>{});
}

TEST(Input, ThatCannotBeReadIsTheEndAndLogged) {
  // A signal here is an error, unlike one that ends the wait.
  for (const int error : {EINTR, EIO, EBADF, EISDIR, ECONNRESET, 133}) {
    const Outcome outcome =
        ReadWith({.poll = Finding(POLLIN), .read = Failing(error)});
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.told.at("1"), "-1");
    EXPECT_EQ(LogOf(outcome),
              (std::vector<LogLine>{
                  {3, "error reading stdin, code " + std::to_string(error)}}));
  }
}

TEST(Input, ThatCannotBeReadBesideAHangUpIsLoggedAsSuch) {
  const Outcome outcome =
      ReadWith({.poll = Finding(POLLIN | POLLHUP), .read = Failing(EIO)});
  EXPECT_EQ(LogOf(outcome),
            (std::vector<LogLine>{{3, "error reading stdin, code 5"}}));
}

TEST(Input, IsNotReadAgainAfterASignal) {
  const Outcome outcome = Checked(Child().Run([](const Told& told) {
    int reads = 0;
    Replace({.poll = Finding(POLLIN), .read = [&](void*, std::size_t) {
               ++reads;
               errno = EINTR;
               return ssize_t{-1};
             }});
    ReadAndTell(told, 1);
    told("reads", std::to_string(reads));
  }));
  EXPECT_EQ(outcome.told.at("reads"), "1");
}

/// The lines that a read with these calls logs when the level is this.
std::vector<LogLine> LoggedAt(int level, const support::SystemCalls& calls) {
  return ReadWith(calls, Child().LogLevel(level)).log;
}

TEST(Log, HasTheInterruptedWaitFromLevelNineOnly) {
  EXPECT_EQ(LoggedAt(8, {.poll = Failing(EINTR)}),
            std::vector<LogLine>{kConstruction});
  EXPECT_EQ(LoggedAt(9, {.poll = Failing(EINTR)}).size(), 2U);
}

TEST(Log, HasTheHangUpFromLevelFourOnly) {
  EXPECT_EQ(LoggedAt(3, {.poll = Finding(POLLHUP)}), std::vector<LogLine>{});
  EXPECT_EQ(LoggedAt(4, {.poll = Finding(POLLHUP)}).size(), 1U);
}

TEST(Log, HasTheReadErrorFromLevelThreeOnly) {
  const support::SystemCalls calls{.poll = Finding(POLLIN),
                                   .read = Failing(EIO)};
  EXPECT_EQ(LoggedAt(2, calls), std::vector<LogLine>{});
  EXPECT_EQ(LoggedAt(3, calls).size(), 1U);
}

TEST(Log, MakesNoDifferenceToTheResult) {
  EXPECT_EQ(
      ReadWith({.poll = Failing(EINTR)}, Child().LogLevel(0)).told.at("1"),
      "0");
  EXPECT_EQ(
      ReadWith({.poll = Finding(POLLHUP)}, Child().LogLevel(0)).told.at("1"),
      "-1");
  EXPECT_EQ(ReadWith({.poll = Finding(POLLIN), .read = Failing(EIO)},
                     Child().LogLevel(0))
                .told.at("1"),
            "-1");
}

TEST(Facade, HandsLengthAndResultOnUnchanged) {
  for (const long length : {0L, 1L, 1L << 33, -1L}) {
    const Outcome outcome = Checked(Child().Run([length](const Told& told) {
      Replace({.poll = Finding(POLLIN), .read = [&](void*, std::size_t size) {
                 told("size", std::to_string(size));
                 return ssize_t{1} << 34;
               }});
      Cgi cgi("/bin/front", "");
      char buffer[kSize];
      told("result", std::to_string(cgi.Read(buffer, length)));
    }));
    EXPECT_EQ(outcome.told.at("size"),
              std::to_string(static_cast<std::size_t>(length)));
    EXPECT_EQ(outcome.told.at("result"), std::to_string(1L << 34));
  }
}

TEST(Facade, ReadsTheBodyAsItIs) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome = Checked(
      Child()
          .Env("REQUEST_METHOD", "POST")
          .Env("CONTENT_LENGTH", "3")
          .StandardInput(input)
          .Run([](const Told& told) {
            Cgi cgi("/bin/front", "");
            char buffer[kSize];
            const long count = cgi.Read(buffer, sizeof(buffer));
            told("body", std::string(buffer, static_cast<std::size_t>(count)));
          }));
  EXPECT_EQ(outcome.told.at("body"), "a=1");
}

TEST(Record, IsNotTouchedByReading) {
  const Input input = Input::Pipe("x");
  const Outcome outcome =
      Checked(Child().StandardInput(input).Run([](const Told&) {
        Cgi::Data record;
        EXPECT_EQ(ReadOnce(record), "1 x");
        EXPECT_EQ(ReadOnce(record), "-1");
        EXPECT_FALSE(record.parsed);
        EXPECT_FALSE(record.authorized);
        EXPECT_TRUE(record.params.empty());
        EXPECT_TRUE(record.files.empty());
        EXPECT_TRUE(record.cookies.empty());
        EXPECT_EQ(record.tmp_dir + record.tov_name + record.remote_addr +
                      record.server_addr,
                  "");
      }));
  EXPECT_EQ(outcome.error, "");
}

TEST(Pipe, IsReadToItsEndBeforeTheHangUpShows) {
  // Everything is written, and the writer gone, before the first read.
  const Input input = Input::Pipe("0123456789abcdefXYZ");
  const Outcome outcome =
      Checked(Child().StandardInput(input).Run([](const Told& told) {
        pollfd entry{STDIN_FILENO, 0, 0};
        while ((entry.revents & POLLHUP) == 0) RealPoll(&entry, 1, -1);
        ReadAndTell(told, 5);
      }));
  EXPECT_EQ(outcome.told.at("1"), "8 01234567");
  EXPECT_EQ(outcome.told.at("2"), "8 89abcdef");
  EXPECT_EQ(outcome.told.at("3"), "3 XYZ");
  EXPECT_EQ(outcome.told.at("4"), "-1");
  EXPECT_EQ(outcome.told.at("5"), "-1");
  EXPECT_EQ(LogOf(outcome), (std::vector<LogLine>{{4, "Signal HUP received"},
                                                  {4, "Signal HUP received"}}));
}

TEST(Pipe, IsAtItsEndBehindTheDeclaredBody) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      Checked(Child()
                  .Env("REQUEST_METHOD", "POST")
                  .Env("CONTENT_LENGTH", "3")
                  .StandardInput(input)
                  .Run([](const Told& told) {
                    Cgi cgi("/bin/front", "");
                    told("a", cgi.Param("a"));
                    char next;
                    told("next", std::to_string(cgi.Read(&next, 1)));
                  }));
  EXPECT_EQ(outcome.told.at("a"), "1");
  EXPECT_EQ(outcome.told.at("next"), "-1");
  EXPECT_EQ(outcome.Logged(4), Strings{"Signal HUP received"});
}

TEST(Pipe, WithoutAnyByteIsAtItsEndAtOnce) {
  const Outcome outcome = ReadFrom(Input::Pipe(""), 1);
  EXPECT_EQ(outcome.told.at("1"), "-1");
}

TEST(Pipe, GivesWhatComesDuringTheWait) {
  const Outcome outcome = ReadFrom(Input::SlowPipe({"late"}, 30ms), 2);
  EXPECT_EQ(outcome.told.at("1"), "4 late");
  EXPECT_EQ(outcome.told.at("2"), "-1");
}

TEST(Pipe, GivesNothingForALengthOfZeroAndKeepsItsBytes) {
  const Input input = Input::Pipe("abc");
  const Outcome outcome =
      Checked(Child().StandardInput(input).Run([](const Told& told) {
        Cgi::Data record;
        told("nothing", ReadOnce(record, 0));
        told("all", ReadOnce(record));
      }));
  EXPECT_EQ(outcome.told.at("nothing"), "0");
  EXPECT_EQ(outcome.told.at("all"), "3 abc");
}

TEST(Pipe, RefusesANegativeLength) {
  const Input input = Input::Pipe("abc");
  const Outcome outcome =
      Checked(Child().StandardInput(input).Run([](const Told& told) {
        Cgi::Data record;
        told("refused", ReadOnce(record, -1));
        told("all", ReadOnce(record));
      }));
  EXPECT_EQ(outcome.told.at("refused"), "-1");
  EXPECT_EQ(outcome.told.at("all"), "3 abc");
  EXPECT_EQ(outcome.Logged(3), Strings{"error reading stdin, code 14"});
}

TEST(Pipe, ThatWouldBlockAfterAllGivesNothing) {
  const Input silent = Input::SilentPipe("");
  const Outcome outcome =
      Checked(Child().StandardInput(silent).Run([](const Told& told) {
        ::fcntl(STDIN_FILENO, F_SETFL, O_NONBLOCK);
        Replace({.poll = Finding(POLLIN)});
        ReadAndTell(told, 1);
      }));
  EXPECT_EQ(outcome.told.at("1"), "0");
  EXPECT_EQ(LogOf(outcome), std::vector<LogLine>{});
}

TEST(Pipe, OfWhichItHoldsTheWritingEndIsAnErrorOnceNobodyReads) {
  const Outcome outcome = Checked(Child().Run([](const Told& told) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ::close(ends[0]);
    const int before = ::dup(STDIN_FILENO);
    ::dup2(ends[1], STDIN_FILENO);
    ::close(ends[1]);
    try {
      ReadAndTell(told, 1);
    } catch (const std::runtime_error& error) {
      told("error", error.what());
    }
    ::dup2(before, STDIN_FILENO);
    ::close(before);
  }));
  EXPECT_TRUE(outcome.told.at("error").starts_with("polling error: "));
}

TEST(Socket, ThatIsShutDownGivesNothingForEver) {
  // No hang-up is ever seen behind its readable end.
  const Outcome outcome = ReadFrom(Input::Socket("abc"), 4);
  EXPECT_EQ(outcome.told.at("1"), "3 abc");
  EXPECT_EQ(outcome.told.at("2"), "0");
  EXPECT_EQ(outcome.told.at("3"), "0");
  EXPECT_EQ(outcome.told.at("4"), "0");
  EXPECT_EQ(LogOf(outcome), std::vector<LogLine>{});
}

/// Reads from one end of a pair of connected sockets after `work` was done with
/// the other end.
template <class Work>
Outcome ReadFromSocketAfter(const Work& work) {
  return Checked(Child().Run([&work](const Told& told) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const int before = ::dup(STDIN_FILENO);
    ::dup2(ends[0], STDIN_FILENO);
    ::close(ends[0]);
    work(ends[1]);
    try {
      ReadAndTell(told, 2);
    } catch (const std::runtime_error& error) {
      told("error", error.what());
    }
    ::dup2(before, STDIN_FILENO);
    ::close(before);
    ::close(ends[1]);
  }));
}

TEST(Socket, ThatIsShutDownInOneDirectionOnlyGivesNothingToo) {
  const Outcome outcome =
      ReadFromSocketAfter([](int peer) { ::shutdown(peer, SHUT_WR); });
  EXPECT_EQ(outcome.told.at("1"), "0");
  EXPECT_EQ(outcome.told.at("2"), "0");
}

TEST(Socket, WhosePeerHasResetItIsAnError) {
  const Outcome outcome = ReadFromSocketAfter([](int peer) {
    ASSERT_EQ(::write(STDIN_FILENO, "unread", 6), 6);
    const int nothing = ::open("/dev/null", O_RDONLY);
    ::dup2(nothing, peer);
    ::close(nothing);
  });
  EXPECT_TRUE(outcome.told.at("error").starts_with("polling error: "));
  EXPECT_EQ(outcome.told.count("1"), 0U);
}

TEST(RegularFile, GivesNothingForEverAtItsEnd) {
  const Outcome outcome = ReadFrom(Input::File("0123456789"), 5);
  EXPECT_EQ(outcome.told.at("1"), "8 01234567");
  EXPECT_EQ(outcome.told.at("2"), "2 89");
  EXPECT_EQ(outcome.told.at("3"), "0");
  EXPECT_EQ(outcome.told.at("4"), "0");
  EXPECT_EQ(outcome.told.at("5"), "0");
  EXPECT_EQ(LogOf(outcome), std::vector<LogLine>{});
}

TEST(NullDevice, GivesNothingForEver) {
  const Outcome outcome = Read(Child(), 3);
  EXPECT_EQ(outcome.told.at("1"), "0");
  EXPECT_EQ(outcome.told.at("3"), "0");
  EXPECT_EQ(LogOf(outcome), std::vector<LogLine>{});
}

/// Reads from a path that is opened with these flags.
Outcome ReadFromPath(const std::string& path, int flags) {
  return Checked(Child().Run([&](const Told& told) {
    const int before = ::dup(STDIN_FILENO);
    const int descriptor = ::open(path.c_str(), flags);
    ::dup2(descriptor, STDIN_FILENO);
    ::close(descriptor);
    ReadAndTell(told, 1);
    ::dup2(before, STDIN_FILENO);
    ::close(before);
  }));
}

TEST(Directory, CannotBeRead) {
  const Outcome outcome = ReadFromPath("/", O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(outcome.told.at("1"), "-1");
  EXPECT_EQ(outcome.Logged(3),
            Strings{"error reading stdin, code " + std::to_string(EISDIR)});
}

TEST(FileForWriting, CannotBeRead) {
  const zan_cgi::testing::Scratch scratch;
  const Outcome outcome = ReadFromPath(scratch.MakeFile("file", "x"), O_WRONLY);
  EXPECT_EQ(outcome.told.at("1"), "-1");
  EXPECT_EQ(outcome.Logged(3),
            Strings{"error reading stdin, code " + std::to_string(EBADF)});
}

TEST(ClosedDescriptor, IsAnInvalidRequest) {
  ExpectError(Read(Child().Closed(0)), "invalid polling request");
}

/// Reads from a silent pipe while a real timer's signal is handled.
Outcome ReadWithSignal(int handler_flags) {
  const Input silent = Input::SilentPipe("");
  return Checked(
      Child().StandardInput(silent).Run([handler_flags](const Told& told) {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        action.sa_flags = handler_flags;
        ::sigaction(SIGALRM, &action, nullptr);
        const itimerval soon{{0, 0}, {0, 20'000}};
        ::setitimer(ITIMER_REAL, &soon, nullptr);
        ReadAndTell(told, 1);
      }));
}

TEST(Signal, EndsTheWaitWithNothing) {
  for (const int flags : {0, SA_RESTART}) {
    const Outcome outcome = ReadWithSignal(flags);
    EXPECT_EQ(outcome.told.at("1"), "0");
    EXPECT_TRUE(SaysThatTheWaitWasInterrupted(outcome));
  }
}

TEST(Signal, DuringTheReadIsAnError) {
  // The wait is said to be over while nothing has come.
  const Input silent = Input::SilentPipe("");
  const Outcome outcome =
      Checked(Child().StandardInput(silent).Run([](const Told& told) {
        Replace({.poll = Finding(POLLIN)});
        struct sigaction action {};
        action.sa_handler = [](int) {};
        ::sigaction(SIGALRM, &action, nullptr);
        const itimerval often{{0, 20'000}, {0, 20'000}};
        ::setitimer(ITIMER_REAL, &often, nullptr);
        ReadAndTell(told, 1);
      }));
  EXPECT_EQ(outcome.told.at("1"), "-1");
  EXPECT_EQ(LogOf(outcome),
            (std::vector<LogLine>{{3, "error reading stdin, code 4"}}));
}

TEST(Signal, ThatIsIgnoredDoesNotEndTheWait) {
  const Input slow = Input::SlowPipe({"late"}, 60ms);
  const Outcome outcome =
      Checked(Child().StandardInput(slow).Run([](const Told& told) {
        ::signal(SIGALRM, SIG_IGN);
        const itimerval soon{{0, 0}, {0, 5'000}};
        ::setitimer(ITIMER_REAL, &soon, nullptr);
        ReadAndTell(told, 1);
      }));
  EXPECT_EQ(outcome.told.at("1"), "4 late");
}

}  // namespace
