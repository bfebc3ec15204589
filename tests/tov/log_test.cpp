#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <tov/log.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/scratch.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/clean_run.h"
#include "support/terminal.h"

namespace {

using support::RunWithoutError;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Scratch;
using zan_cgi::testing::Told;
using Clock = std::chrono::steady_clock;

/// How often something was handed to the system for writing; -1 while nobody
/// counts.
std::atomic<int> writes{-1};

/// Whether an interposed poll(2) says at once that its time is up.
std::atomic<bool> polls_time_out{false};

void CountWrite() {
  if (writes >= 0) ++writes;
}

tov_log::Module& Log() {
  static tov_log::Module module("zancgi", "core");
  return module;
}

void WriteText(const std::string& text) {
  Log().Write(tov_log::Error, "%s", text.c_str());
}

/// What one message leaves on standard error.
std::string LineOf(const std::function<void()>& write) {
  return RunWithoutError(Child(), [&](const Told&) { write(); }).standard_error;
}

std::string LineOfText(const std::string& text) {
  return LineOf([&] { WriteText(text); });
}

/// The text of a line behind "zancgi[PID] core error: ".
std::string TextOf(const std::string& line) {
  static const std::string kLevel = "] core error: ";
  const std::size_t found = line.find(kLevel);
  return found == std::string::npos ? "no log line: " + line
                                    : line.substr(found + kLevel.size());
}

/// The most talkative level for which Check says yes, -1 for none.
int ThresholdNow() {
  int threshold = -1;
  for (int level = 0; level <= 9; ++level) {
    if (Log().Check(static_cast<tov_log::Level>(level))) {
      EXPECT_EQ(threshold, level - 1);
      threshold = level;
    }
  }
  return threshold;
}

int ThresholdFor(const std::string& setting) {
  const auto outcome = RunWithoutError(
      Child().Env("TOV_LOG_LEVEL", setting), [](const Told& told) {
        told("threshold", std::to_string(ThresholdNow()));
      });
  return std::stoi(outcome.told.at("threshold"));
}

long Milliseconds(const std::function<void()>& work) {
  const auto start = Clock::now();
  work();
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() -
                                                               start)
      .count();
}

/// A pipe or socket that leads from standard error to nobody in a hurry.
class SlowReader {
 public:
  static SlowReader Pipe() {
    SlowReader reader;
    if (::pipe2(reader.ends_.data(), O_CLOEXEC) != 0) ::_exit(96);
    reader.BecomeStandardError();
    return reader;
  }

  static SlowReader Socket() {
    SlowReader reader;
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0,
                     reader.ends_.data()) != 0) {
      ::_exit(96);
    }
    reader.BecomeStandardError();
    return reader;
  }

  /// Writes until nothing more fits.
  void Fill() {
    ::fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
    const std::string much(4096, '.');
    while (::write(STDERR_FILENO, much.data(), much.size()) > 0) continue;
    while (::write(STDERR_FILENO, ".", 1) > 0) continue;
    ::fcntl(STDERR_FILENO, F_SETFL, 0);
  }

  /// Takes out what is there now.
  std::string Drain() {
    ::fcntl(ends_[0], F_SETFL, O_NONBLOCK);
    std::string all;
    char piece[65536];
    for (;;) {
      const ssize_t count = ::read(ends_[0], piece, sizeof(piece));
      if (count <= 0) return all;
      all.append(piece, static_cast<std::size_t>(count));
    }
  }

  void Close() {
    ::close(ends_[0]);
    ends_[0] = -1;
  }

 private:
  void BecomeStandardError() {
    ::dup2(ends_[1], STDERR_FILENO);
    ::close(ends_[1]);
  }

  std::array<int, 2> ends_{};
};

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

sig_atomic_t volatile signals = 0;

void CountSignal(int) { signals = signals + 1; }

void CountSignals(int signal) {
  struct sigaction action {};
  action.sa_handler = CountSignal;
  ::sigaction(signal, &action, nullptr);
}

bool IsPending(int signal) {
  sigset_t pending;
  ::sigpending(&pending);
  return ::sigismember(&pending, signal) == 1;
}

void Block(int signal) {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, signal);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
}

bool IsBlocked(int signal) {
  sigset_t now;
  ::sigprocmask(SIG_BLOCK, nullptr, &now);
  return ::sigismember(&now, signal) == 1;
}

std::string YesNo(bool value) { return value ? "yes" : "no"; }

std::string OpenStandardDescriptors() {
  std::string open;
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) >= 0) open += std::to_string(descriptor);
  }
  return open;
}

/// The flags that fcntl(2) tells of the descriptor on which a file is open.
int FlagsOf(const std::string& path, int command) {
  struct stat wanted;
  if (::stat(path.c_str(), &wanted) != 0) return -1;
  for (int descriptor = 3; descriptor < 100; ++descriptor) {
    struct stat found;
    if (::fstat(descriptor, &found) == 0 && found.st_ino == wanted.st_ino &&
        found.st_dev == wanted.st_dev) {
      return ::fcntl(descriptor, command);
    }
  }
  return -1;
}

TEST(LogLevel, HasTheNumbersOfSyslogAsFarAsTheyGo) {
  EXPECT_EQ(tov_log::Emergency, 0);
  EXPECT_EQ(tov_log::Error, 3);
  EXPECT_EQ(tov_log::Warning, 4);
  EXPECT_EQ(tov_log::Query, 7);
  EXPECT_EQ(tov_log::Trace, 8);
  EXPECT_EQ(tov_log::Debug, 9);
}

TEST(LogLevel, IsTheSettingForEveryLevel) {
  for (int level = 0; level <= 9; ++level) {
    EXPECT_EQ(ThresholdFor(std::to_string(level)), level);
  }
}

TEST(LogLevel, IsFourWhenUnset) {
  const auto outcome = RunWithoutError(Child(), [](const Told& told) {
    ::unsetenv("TOV_LOG_LEVEL");
    told("threshold", std::to_string(ThresholdNow()));
  });
  EXPECT_EQ(outcome.told.at("threshold"), "4");
}

TEST(LogLevel, IsFourWhenNotANumber) {
  for (const char* setting : {"", "x", "debug", "5x", "9 levels", "0x9"}) {
    EXPECT_EQ(ThresholdFor(setting), 4) << setting;
  }
}

TEST(LogLevel, MayHaveLeadingZeros) {
  for (const auto& [setting, level] :
       {std::pair("000", 0), std::pair("03", 3), std::pair("007", 7),
        std::pair("010", 9)}) {
    EXPECT_EQ(ThresholdFor(setting), level) << setting;
  }
}

TEST(LogLevel, IsNineBeyondNine) {
  for (const char* setting : {"10", "4294967296", "99999999999999999999"}) {
    EXPECT_EQ(ThresholdFor(setting), 9) << setting;
  }
}

TEST(LogLine, NamesProgramProcessPartAndLevel) {
  const auto outcome = RunWithoutError(Child(), [](const Told& told) {
    SlowReader reader = SlowReader::Pipe();
    tov_log::Module module("name", "group");
    module.Write(tov_log::Warning, "%s is %d", "this", 5);
    told("process", std::to_string(::getpid()));
    told("got", reader.Drain());
    reader.Close();
  });
  EXPECT_EQ(outcome.told.at("got"), "name[" + outcome.told.at("process") +
                                        "] group warning: this is 5\n");
}

TEST(LogLine, NamesEveryLevel) {
  const auto outcome = RunWithoutError(Child(), [](const Told&) {
    for (int level = 0; level <= 9; ++level) {
      Log().Write(static_cast<tov_log::Level>(level), "x");
    }
  });
  ASSERT_EQ(outcome.log.size(), 10u) << outcome.standard_error;
  for (int level = 0; level <= 9; ++level) {
    EXPECT_EQ(outcome.log[static_cast<std::size_t>(level)].level, level);
  }
}

TEST(LogLine, IsWrittenWhateverItsLevel) {
  const auto outcome =
      RunWithoutError(Child().LogLevel(0), [](const Told&) { WriteText("x"); });
  EXPECT_EQ(outcome.Logged(3), std::vector<std::string>{"x"});
}

TEST(LogLine, IsHandedToTheSystemInOnePiece) {
  const auto outcome = RunWithoutError(Child(), [](const Told& told) {
    Log().Check(tov_log::Error);
    writes = 0;
    Log().Write(tov_log::Error, "%s %d\n%s", "several", 2,
                std::string(10000, 'x').c_str());
    told("long", std::to_string(writes));
    writes = 0;
    Log().Write(tov_log::Error, "short");
    told("short", std::to_string(writes));
    writes = -1;
  });
  EXPECT_EQ(outcome.told.at("long"), "1");
  EXPECT_EQ(outcome.told.at("short"), "1");
}

TEST(LogLine, IsNotCutAtExactlyTheMostBytes) {
  const auto outcome = RunWithoutError(Child(), [](const Told& told) {
    WriteText("");
    struct stat before;
    ::fstat(STDERR_FILENO, &before);
    const auto room = 4096 - static_cast<std::size_t>(before.st_size);
    WriteText(std::string(room, 'a'));
    WriteText(std::string(room + 1, 'b'));
    told("room", std::to_string(room));
  });
  const auto texts = outcome.Logged(3);
  ASSERT_EQ(texts.size(), 3u);
  const std::size_t room = std::stoul(outcome.told.at("room"));
  EXPECT_TRUE(texts[1] == std::string(room, 'a')) << texts[1].substr(room - 9);
  EXPECT_EQ(texts[2].size(), room);
  EXPECT_TRUE(texts[2].ends_with("bbb...")) << texts[2].substr(room - 9);
}

TEST(LogLine, IsCutWhenTooLong) {
  for (const std::size_t size : {5000u, 70000u, 1000000u}) {
    const std::string line = LineOfText(std::string(size, 'x'));
    EXPECT_EQ(line.size(), 4096u);
    EXPECT_TRUE(line.ends_with("xxx...\n"));
  }
}

TEST(LogLine, CountsEscapesAgainstItsLength) {
  const std::string line = LineOfText(std::string(3000, '\n'));
  EXPECT_LE(line.size(), 4096u);
  EXPECT_GT(line.size(), 4080u);
  EXPECT_TRUE(line.ends_with("...\n")) << line.substr(4000);
}

TEST(LogLine, EscapesEveryControlCharacter) {
  for (int byte = 1; byte < 256; ++byte) {
    const std::string character(1, static_cast<char>(byte));
    char escape[5];
    std::snprintf(escape, sizeof(escape), "\\x%02x",
                  static_cast<unsigned>(byte));
    const bool control = byte < 0x20 || byte == 0x7f;
    if (!control && byte % 16 != 0) continue;  // a sample of the others
    EXPECT_EQ(TextOf(LineOfText("a" + character + "b")),
              "a" + (control ? escape : character) + "b\n");
  }
}

TEST(LogLine, ShowsTheFormatOfWhatCannotBeFormatted) {
  const std::wstring beyond_the_c_locale(1, wchar_t{0x20ac});
  EXPECT_EQ(TextOf(LineOf([&] {
              Log().Write(tov_log::Error, "costs %ls",
                          beyond_the_c_locale.c_str());
            })),
            "costs %ls\n");
}

TEST(LogLine, EscapesAZeroByte) {
  EXPECT_EQ(TextOf(LineOf([] { Log().Write(tov_log::Error, "a%cb", '\0'); })),
            "a\\x00b\n");
}

TEST(LogLine, CannotBeForgedByAnArgument) {
  const std::string line =
      LineOfText("x\r\nzancgi[1] core error: forged\x1b[2J");
  EXPECT_EQ(TextOf(line), "x\\x0d\\x0azancgi[1] core error: forged\\x1b[2J\n");
}

/// errno after a deed that began with 4711.
std::string ErrnoAfter(const std::function<void()>& deed) {
  errno = 4711;
  deed();
  return std::to_string(errno);
}

TEST(LogLine, LeavesErrnoAlone) {
  const Scratch scratch;
  const auto outcome = RunWithoutError(
      Child().Env("TOV_LOG", scratch.Path()), [](const Told& told) {
        told("check", ErrnoAfter([] { Log().Check(tov_log::Error); }));
        SlowReader reader = SlowReader::Pipe();
        reader.Close();
        // To a pipe that nobody reads.
        told("write", ErrnoAfter([] { WriteText("x"); }));
      });
  EXPECT_EQ(outcome.told.at("check"), "4711");
  EXPECT_EQ(outcome.told.at("write"), "4711");
}

TEST(LogLine, TakesNoFormatFromAnArgument) {
  EXPECT_EQ(TextOf(LineOfText("%n%s%d")), "%n%s%d\n");
}

TEST(LogLine, KeepsUtf8) {
  EXPECT_EQ(TextOf(LineOfText("gr\xC3\xB6\xC3\x9F")), "gr\xC3\xB6\xC3\x9F\n");
}

TEST(LogTarget, IsStandardErrorUnlessSet) {
  for (const char* target : {"", "stderr"}) {
    const auto outcome = RunWithoutError(Child().Env("TOV_LOG", target),
                                         [](const Told&) { WriteText("x"); });
    EXPECT_EQ(outcome.Logged(3), std::vector<std::string>{"x"});
  }
}

TEST(LogTarget, MayBeAFile) {
  Scratch scratch;
  const auto outcome =
      RunWithoutError(Child().Env("TOV_LOG", scratch / "log"),
                      [](const Told&) { WriteText("in a file"); });
  EXPECT_EQ(outcome.standard_error, "");
  const testing::Matcher<std::string> line_with_time = testing::MatchesRegex(
      "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z "
      "zancgi\\[[0-9]+\\] core error: in a file\n");
  const std::string log = zan_cgi::testing::ReadFile(scratch / "log");
  EXPECT_TRUE(line_with_time.Matches(log)) << log;
}

/// Has this file as standard error from now on.
void TakeForStandardError(const std::string& path) {
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(file, 0);
  if (file == STDERR_FILENO) return;
  ASSERT_EQ(::dup2(file, STDERR_FILENO), STDERR_FILENO);
  ::close(file);
}

TEST(LogTarget, ThatIsStandardErrorAndAFileHasTheTime) {
  Scratch scratch;
  RunWithoutError(Child(), [&](const Told&) {
    TakeForStandardError(scratch / "errors");
    WriteText("x");
  });
  const testing::Matcher<std::string> line_with_time =
      testing::MatchesRegex("[0-9]{4}-.*Z zancgi\\[[0-9]+\\] core error: x\n");
  const std::string log = zan_cgi::testing::ReadFile(scratch / "errors");
  EXPECT_TRUE(line_with_time.Matches(log)) << log;
}

TEST(LogTarget, IsNotWhatIsOpenedLaterAsStandardError) {
  Scratch scratch;
  RunWithoutError(Child().Closed(2), [&](const Told&) {
    WriteText("x");
    TakeForStandardError(scratch / "precious");
    WriteText("y");
    ::close(STDERR_FILENO);
  });
  EXPECT_EQ(zan_cgi::testing::ReadFile(scratch / "precious"), "");
}

TEST(LogTarget, OfAFileHasTheTimeInUtc) {
  Scratch scratch;
  RunWithoutError(Child().Env("TOV_LOG", scratch / "log").Env("TZ", "XXX-7"),
                  [](const Told&) {
                    ::tzset();
                    WriteText("x");
                  });
  std::tm written{};
  ASSERT_NE(::strptime(zan_cgi::testing::ReadFile(scratch / "log").c_str(),
                       "%Y-%m-%dT%H:%M:%SZ", &written),
            nullptr);
  EXPECT_NEAR(std::difftime(std::time(nullptr), ::timegm(&written)), 0, 60);
}

TEST(LogTarget, MakesTheFileForOwnerAndGroup) {
  Scratch scratch;
  RunWithoutError(Child().Env("TOV_LOG", scratch / "log"), [](const Told&) {
    ::umask(0);
    WriteText("x");
  });
  struct stat made;
  ASSERT_EQ(::stat((scratch / "log").c_str(), &made), 0);
  EXPECT_EQ(made.st_mode & 07777, 0640u);
}

TEST(LogTarget, IsAppendedTo) {
  Scratch scratch;
  scratch.MakeFile("log", "before\n");
  RunWithoutError(Child().Env("TOV_LOG", scratch / "log"), [](const Told&) {
    WriteText("first");
    WriteText("second");
  });
  const std::string log = zan_cgi::testing::ReadFile(scratch / "log");
  EXPECT_TRUE(log.starts_with("before\n")) << log;
  EXPECT_TRUE(log.ends_with("second\n")) << log;
  EXPECT_TRUE(Has(log, "first\n")) << log;
}

TEST(LogTarget, IsAlwaysWrittenAtItsEnd) {
  Scratch scratch;
  RunWithoutError(Child().Env("TOV_LOG", scratch / "log"), [&](const Told&) {
    WriteText("gone");
    EXPECT_EQ(::truncate((scratch / "log").c_str(), 0), 0);
    WriteText("kept");
  });
  const std::string log = zan_cgi::testing::ReadFile(scratch / "log");
  EXPECT_TRUE(std::isdigit(log[0])) << log;
  EXPECT_FALSE(Has(log, "gone")) << log;
}

TEST(LogTarget, AtItsSizeLimitRaisesNoSignal) {
  Scratch scratch;
  const auto outcome = RunWithoutError(
      Child().Env("TOV_LOG", scratch / "log"), [](const Told& told) {
        const rlimit nothing{0, RLIM_INFINITY};
        const rlimit everything{RLIM_INFINITY, RLIM_INFINITY};
        ::setrlimit(RLIMIT_FSIZE, &nothing);
        WriteText("x");
        // The report to the parent is a file as well.
        ::setrlimit(RLIMIT_FSIZE, &everything);
        told("pending", YesNo(IsPending(SIGXFSZ)));
      });
  EXPECT_EQ(outcome.told.at("pending"), "no");
}

TEST(LogTarget, IsNotInheritedByOtherPrograms) {
  Scratch scratch;
  const auto outcome = RunWithoutError(
      Child().Env("TOV_LOG", scratch / "log"), [&](const Told& told) {
        WriteText("x");
        const int flags = FlagsOf(scratch / "log", F_GETFD);
        told("close on exec", YesNo(flags >= 0 && (flags & FD_CLOEXEC) != 0));
      });
  EXPECT_EQ(outcome.told.at("close on exec"), "yes");
}

TEST(LogTarget, IsNeverAStandardDescriptor) {
  Scratch scratch;
  const auto outcome = RunWithoutError(
      Child().Env("TOV_LOG", scratch / "log").Closed(0).Closed(1).Closed(2),
      [](const Told& told) {
        WriteText("x");
        told("open", OpenStandardDescriptors());
      });
  EXPECT_EQ(outcome.told.at("open"), "");
  EXPECT_TRUE(zan_cgi::testing::ReadFile(scratch / "log").ends_with(": x\n"));
}

TEST(LogTarget, ThatCannotBeOpenedIsReplacedByStandardError) {
  Scratch scratch;
  for (const std::string& target :
       {scratch.Path(), scratch / "missing/log", scratch / ""}) {
    const auto outcome = RunWithoutError(Child().Env("TOV_LOG", target),
                                         [](const Told&) { WriteText("x"); });
    EXPECT_EQ(outcome.Logged(3), std::vector<std::string>{"x"}) << target;
  }
}

TEST(LogTarget, DoesNotWaitForTheReaderOfAFifo) {
  Scratch scratch;
  ASSERT_EQ(::mkfifo((scratch / "fifo").c_str(), 0600), 0);
  const auto outcome = RunWithoutError(
      Child().Env("TOV_LOG", scratch / "fifo"), [](const Told& told) {
        const long waited = Milliseconds([] { WriteText("x"); });
        told("waited", std::to_string(waited));
      });
  ASSERT_TRUE(outcome.told.contains("waited"));
  EXPECT_LT(std::stoi(outcome.told.at("waited")), 3000);
}

TEST(LogTarget, SyslogIsReplacedByStandardErrorWhenNobodyListens) {
  if (::access("/dev/log", F_OK) == 0) {
    GTEST_SKIP() << "needs a system without /dev/log";
  }
  const auto outcome = RunWithoutError(Child().Env("TOV_LOG", "syslog"),
                                       [](const Told&) { WriteText("x"); });
  EXPECT_EQ(outcome.Logged(3), std::vector<std::string>{"x"});
}

/// A syslog daemon's socket, at its place in a private view of the file system.
int ListenAsSyslog() {
  if (::unshare(CLONE_NEWNS) != 0 ||
      ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("none", "/dev", "tmpfs", 0, nullptr) != 0) {
    return -1;
  }
  const int listener = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, "/dev/log"};
  return ::bind(listener, reinterpret_cast<const sockaddr*>(&address),
                sizeof(address)) == 0
             ? listener
             : -1;
}

class Syslog : public testing::Test {
 protected:
  void SetUp() override {
    if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  }

  static Outcome RunWithSyslog(
      const std::function<void(int listener, const Told&)>& body) {
    return RunWithoutError(Child().Env("TOV_LOG", "syslog"),
                           [&](const Told& told) {
                             const int listener = ListenAsSyslog();
                             ASSERT_GE(listener, 0) << "no private file system";
                             body(listener, told);
                             ::close(listener);
                           });
  }

  static std::string Receive(int listener) {
    char message[4096];
    const ssize_t size =
        ::recv(listener, message, sizeof(message), MSG_DONTWAIT);
    return {message, static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
  }
};

TEST_F(Syslog, GetsEachMessageWithItsPriority) {
  const auto outcome = RunWithSyslog([](int listener, const Told& told) {
    for (int level = 0; level <= 9; ++level) {
      Log().Write(static_cast<tov_log::Level>(level), "for syslog");
      told(std::to_string(level), Receive(listener));
    }
  });
  EXPECT_EQ(outcome.standard_error, "");
  for (int level = 0; level <= 9; ++level) {
    const std::string& message = outcome.told.at(std::to_string(level));
    // Facility 3 is that of daemons; 7 is the last priority.
    const int priority = 3 * 8 + std::min(level, 7);
    EXPECT_TRUE(
        message.starts_with("<" + std::to_string(priority) + ">zancgi["))
        << message;
    EXPECT_TRUE(message.ends_with(": for syslog\n")) << message;
  }
}

TEST_F(Syslog, SocketIsNotInheritedByOtherPrograms) {
  const auto outcome = RunWithSyslog([](int /*listener*/, const Told& told) {
    WriteText("x");
    for (int descriptor = 3; descriptor < 100; ++descriptor) {
      sockaddr_un peer{};
      socklen_t size = sizeof(peer);
      if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer),
                        &size) == 0 &&
          std::string(peer.sun_path) == "/dev/log") {
        told("flags", std::to_string(::fcntl(descriptor, F_GETFD)));
      }
    }
  });
  EXPECT_EQ(outcome.told.at("flags"), std::to_string(FD_CLOEXEC));
}

/// Runs a process in which descriptors are closed from this one on, and returns
/// what its body does.
bool HoldsWithClosed(unsigned first, const std::function<bool()>& body) {
  const pid_t process = ::fork();
  if (process == 0) {
    ::close_range(first, ~0U, 0);
    ::_exit(body() ? 0 : 1);
  }
  int status = 1;
  return ::waitpid(process, &status, 0) == process && status == 0;
}

TEST(LogTarget, IsTheFirstDescriptorAboveTheStandardOnes) {
  const Scratch scratch;
  const std::string path = scratch / "log";
  for (const unsigned first : {0U, 1U, 2U, 3U}) {
    EXPECT_TRUE(HoldsWithClosed(
        first,
        [&] {
          ::setenv("TOV_LOG", path.c_str(), 1);
          WriteText("x");
          bool as_before = true;
          for (int low = 0; low < 3; ++low) {
            const bool is_open = ::fcntl(low, F_GETFD) >= 0;
            as_before = as_before && is_open == (low < static_cast<int>(first));
          }
          return as_before && ::fcntl(3, F_GETFD) == FD_CLOEXEC &&
                 ::fcntl(4, F_GETFD) < 0;
        }))
        << "closed from " << first;
    EXPECT_TRUE(zan_cgi::testing::ReadFile(path).ends_with(": x\n"));
  }
}

TEST(LogTarget, IsNotTakenForAControllingTerminal) {
  if (!support::CanTakeTerminals()) GTEST_SKIP() << "needs terminals";
  EXPECT_FALSE(support::TakesTerminal([](const std::string& path) {
    ::setenv("TOV_LOG", path.c_str(), 1);
    WriteText("x");
  }));
}

TEST(LogSetup, IsReadAtTheFirstCheck) {
  const auto outcome = RunWithoutError(Child(), [](const Told& told) {
    tov_log::Module module("zancgi", "core");
    ::setenv("TOV_LOG_LEVEL", "3", 1);
    told("info", YesNo(module.Check(tov_log::Info)));
    ::setenv("TOV_LOG_LEVEL", "9", 1);
    told("info later", YesNo(module.Check(tov_log::Info)));
    tov_log::Module other("zancgi", "core");
    told("info in another module", YesNo(other.Check(tov_log::Info)));
  });
  EXPECT_EQ(outcome.told.at("info"), "no");
  EXPECT_EQ(outcome.told.at("info later"), "no");
  EXPECT_EQ(outcome.told.at("info in another module"), "no");
}

TEST(LogSetup, OpensTheTargetAtTheFirstCheck) {
  Scratch scratch;
  RunWithoutError(
      Child().WorkDir(scratch.Path()).Env("TOV_LOG", "log").LogLevel(3),
      [&](const Told&) {
        EXPECT_FALSE(Log().Check(tov_log::Debug));
        EXPECT_EQ(::chdir("/"), 0);
        ::setenv("TOV_LOG", (scratch / "other").c_str(), 1);
        WriteText("x");
      });
  EXPECT_EQ(scratch.List(), std::vector<std::string>{"log"});
  EXPECT_TRUE(zan_cgi::testing::ReadFile(scratch / "log").ends_with(": x\n"));
}

TEST(LogSetup, OpensTheTargetAtTheFirstWrite) {
  Scratch scratch;
  RunWithoutError(Child().Env("TOV_LOG", scratch / "log"), [&](const Told&) {
    WriteText("first");
    ::setenv("TOV_LOG", (scratch / "other").c_str(), 1);
    WriteText("second");
  });
  EXPECT_EQ(scratch.List(), std::vector<std::string>{"log"});
  EXPECT_TRUE(
      zan_cgi::testing::ReadFile(scratch / "log").ends_with("second\n"));
}

TEST(LogSetup, DoesNotReopenAFileThatIsGone) {
  Scratch scratch;
  RunWithoutError(Child().Env("TOV_LOG", scratch / "log"), [&](const Told&) {
    WriteText("first");
    EXPECT_EQ(::unlink((scratch / "log").c_str()), 0);
    WriteText("second");
  });
  EXPECT_EQ(scratch.List(), std::vector<std::string>{});
}

/// A pipe, or a socket, at standard error.
class LogReader : public testing::TestWithParam<bool> {
 protected:
  static SlowReader MakeReader() {
    return GetParam() ? SlowReader::Socket() : SlowReader::Pipe();
  }
};

INSTANTIATE_TEST_SUITE_P(Slow, LogReader, testing::Bool(),
                         [](const auto& kind) {
                           return kind.param ? "Socket" : "Pipe";
                         });

TEST_P(LogReader, GetsTheLine) {
  const auto outcome = RunWithoutError(Child(), [&](const Told& told) {
    SlowReader reader = MakeReader();
    WriteText("x");
    told("got", reader.Drain());
    reader.Close();
  });
  EXPECT_EQ(TextOf(outcome.told.at("got")), "x\n");
}

// Tests of front ends replace poll(2) to play with standard input.
TEST_P(LogReader, GetsTheLineWhateverPollSays) {
  const auto outcome = RunWithoutError(Child(), [&](const Told& told) {
    polls_time_out = true;
    SlowReader reader = MakeReader();
    WriteText("x");
    told("got", reader.Drain());
    reader.Close();
  });
  EXPECT_EQ(TextOf(outcome.told.at("got")), "x\n");
}

TEST_P(LogReader, IsWaitedForOneSecondOnce) {
  const auto outcome = RunWithoutError(Child(), [&](const Told& told) {
    SlowReader reader = MakeReader();
    reader.Fill();
    told("first", std::to_string(Milliseconds([] { WriteText("a"); })));
    told("second", std::to_string(Milliseconds([] { WriteText("b"); })));
    told("third", std::to_string(Milliseconds([] { WriteText("c"); })));
    told("got", reader.Drain());
    reader.Close();
  });
  const int first = std::stoi(outcome.told.at("first"));
  EXPECT_GE(first, 700);
  EXPECT_LT(first, 2000);
  EXPECT_LT(std::stoi(outcome.told.at("second")), 200);
  EXPECT_LT(std::stoi(outcome.told.at("third")), 200);
  EXPECT_FALSE(Has(outcome.told.at("got"), "zancgi["));
}

TEST_P(LogReader, IsWaitedForOneSecondInASignalStorm) {
  const auto outcome = RunWithoutError(Child(), [&](const Told& told) {
    SlowReader reader = MakeReader();
    reader.Fill();
    CountSignals(SIGALRM);
    const itimerval often{{0, 5000}, {0, 5000}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    told("first", std::to_string(Milliseconds([] { WriteText("a"); })));
    told("signals", std::to_string(signals));
    reader.Close();
  });
  EXPECT_LT(std::stoi(outcome.told.at("first")), 3000);
  EXPECT_GE(std::stoi(outcome.told.at("first")), 700);
  EXPECT_GT(std::stoi(outcome.told.at("signals")), 10);
}

TEST_P(LogReader, GetsTheLineWhenItWakesUpInTime) {
  const auto outcome = RunWithoutError(Child(), [&](const Told& told) {
    SlowReader reader = MakeReader();
    reader.Fill();
    std::string got;
    std::thread waking([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      got = reader.Drain();
    });
    WriteText("x");
    waking.join();
    told("got", got + reader.Drain());
    reader.Close();
  });
  EXPECT_TRUE(Has(outcome.told.at("got"), "] core error: x\n"));
}

TEST_P(LogReader, IsNotWaitedForAgainAndAgain) {
  const auto outcome = RunWithoutError(Child(), [&](const Told& told) {
    SlowReader reader = MakeReader();
    long waited = 0;
    for (int line = 0; line < 4; ++line) {
      reader.Fill();
      std::thread waking([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        reader.Drain();
      });
      waited += Milliseconds([] { WriteText("x"); });
      waking.join();
    }
    told("waited", std::to_string(waited));
    reader.Close();
  });
  EXPECT_LT(std::stoi(outcome.told.at("waited")), 1600);
}

TEST_P(LogReader, IsWaitedForTheRestOfTheSecondLater) {
  const auto outcome = RunWithoutError(Child(), [&](const Told& told) {
    SlowReader reader = MakeReader();
    reader.Fill();
    std::thread waking([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      reader.Drain();
    });
    long waited = Milliseconds([] { WriteText("x"); });
    waking.join();
    reader.Fill();
    waited += Milliseconds([] { WriteText("x"); });
    told("waited", std::to_string(waited));
    reader.Close();
  });
  EXPECT_GE(std::stoi(outcome.told.at("waited")), 900);
}

TEST_P(LogReader, GetsLaterLinesAfterItHasWokenUp) {
  const auto outcome = RunWithoutError(Child(), [&](const Told& told) {
    SlowReader reader = MakeReader();
    reader.Fill();
    WriteText("dropped");
    reader.Drain();
    WriteText("written");
    told("got", reader.Drain());
    reader.Close();
  });
  EXPECT_EQ(TextOf(outcome.told.at("got")), "written\n");
}

// Other processes write to the same open file.
TEST_P(LogReader, KeepsItsBlockingMode) {
  const auto outcome = RunWithoutError(Child(), [&](const Told& told) {
    SlowReader reader = MakeReader();
    reader.Fill();
    WriteText("x");
    const int flags = ::fcntl(STDERR_FILENO, F_GETFL);
    told("blocking", YesNo((flags & O_NONBLOCK) == 0));
    reader.Close();
  });
  EXPECT_EQ(outcome.told.at("blocking"), "yes");
}

TEST_P(LogReader, ThatHasGoneRaisesNoSignal) {
  const auto outcome = RunWithoutError(Child(), [&](const Told& told) {
    SlowReader reader = MakeReader();
    reader.Close();
    WriteText("x");
    CountSignals(SIGPIPE);
    WriteText("y");
    told("signals", std::to_string(signals));
    told("blocked", YesNo(IsBlocked(SIGPIPE)));
  });
  EXPECT_EQ(outcome.told.at("signals"), "0");
  EXPECT_EQ(outcome.told.at("blocked"), "no");
}

TEST_P(LogReader, ThatHasGoneLeavesNoSignalPending) {
  const auto outcome = RunWithoutError(Child(), [&](const Told& told) {
    SlowReader reader = MakeReader();
    reader.Close();
    Block(SIGPIPE);
    WriteText("x");
    told("pending", YesNo(IsPending(SIGPIPE)));
    told("blocked", YesNo(IsBlocked(SIGPIPE)));
  });
  EXPECT_EQ(outcome.told.at("pending"), "no");
  EXPECT_EQ(outcome.told.at("blocked"), "yes");
}

TEST_P(LogReader, ThatHasGoneLeavesTheCallersPendingSignal) {
  const auto outcome = RunWithoutError(Child(), [&](const Told& told) {
    SlowReader reader = MakeReader();
    reader.Close();
    Block(SIGPIPE);
    ::raise(SIGPIPE);
    WriteText("x");
    told("pending", YesNo(IsPending(SIGPIPE)));
  });
  EXPECT_EQ(outcome.told.at("pending"), "yes");
}

TEST(LogTarget, MayBeAClosedStandardError) {
  const auto outcome = RunWithoutError(
      Child().Closed(0).Closed(1).Closed(2), [](const Told& told) {
        WriteText("x");
        told("open", OpenStandardDescriptors());
      });
  EXPECT_EQ(outcome.told.at("open"), "");
}

}  // namespace

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED ssize_t write(int fd, const void* buf, size_t n) {
  CountWrite();
  return ::syscall(SYS_write, fd, buf, n);
}

EXPORTED ssize_t writev(int fd, const iovec* iovec, int count) {
  CountWrite();
  return ::syscall(SYS_writev, fd, iovec, count);
}

EXPORTED ssize_t send(int fd, const void* buf, size_t n, int flags) {
  CountWrite();
  return ::syscall(SYS_sendto, fd, buf, n, flags, nullptr, 0);
}

// Under a name of its own, since its header declares that it only writes to
// fds.
extern "C" int TimedOutPoll(pollfd* fds, nfds_t nfds,
                            int timeout) __asm__("poll");

EXPORTED int TimedOutPoll(pollfd* fds, nfds_t nfds, int timeout) {
  if (polls_time_out) return 0;
  return static_cast<int>(::syscall(SYS_poll, fds, nfds, timeout));
}
