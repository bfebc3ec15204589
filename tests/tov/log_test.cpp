#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <tov/log.h>
#include <zancgi/testing/mount.h>

#include <array>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <thread>

#include "support/files.h"
#include "support/signals.h"
#include "support/terminal.h"
#include "support/test.h"

namespace support {
namespace {

using Clock = std::chrono::steady_clock;
using Texts = std::vector<std::string>;

/// Whether an interposed poll(2) says at once that its time is up.
bool polls_time_out = false;

tov_log::Module& Log() {
  static tov_log::Module module("zancgi", "core");
  return module;
}

void WriteText(const std::string& text) {
  Log().Write(tov_log::Error, "%s", text.c_str());
}

/// Runs this with what it logs on standard error, or where @p target says.
Outcome InChild(const std::function<void()>& body,
                const std::string& target = "") {
  return RunWithoutError(Child().Env("TOV_LOG", target),
                         [&](const Reporter&) { body(); });
}

/// The texts of the errors that this logs.
Texts LoggedBy(const std::function<void()>& body,
               const std::string& target = "") {
  return InChild(body, target).Logged(3);
}

/// What this text leaves on standard error.
std::string LineOfText(const std::string& text) {
  return InChild([&] { WriteText(text); }).standard_error;
}

/// The text of a line after "zancgi[PID] core error: ".
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

int ThresholdFor(const char* setting) {
  Outcome outcome = RunWithoutError(Child(), [=](const Reporter& report) {
    ::unsetenv("TOV_LOG_LEVEL");
    if (setting != nullptr) ::setenv("TOV_LOG_LEVEL", setting, 1);
    report("threshold", std::to_string(ThresholdNow()));
  });
  return std::stoi(outcome.reported["threshold"]);
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
  explicit SlowReader(bool is_socket) {
    const int error =
        is_socket
            ? ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_.data())
            : ::pipe2(ends_.data(), O_CLOEXEC);
    if (error != 0) ::_exit(96);
    ::dup2(ends_[1], STDERR_FILENO);
    ::close(ends_[1]);
  }
  ~SlowReader() { Close(); }
  SlowReader(const SlowReader&) = delete;
  SlowReader& operator=(const SlowReader&) = delete;

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

  /// Takes out what is there after this time.
  std::thread DrainAfter(int milliseconds) {
    return std::thread([=, this] {
      std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
      drained_ = Drain();
    });
  }
  const std::string& Drained() const { return drained_; }

  void Close() {
    if (ends_[0] >= 0) ::close(std::exchange(ends_[0], -1));
  }

 private:
  std::array<int, 2> ends_{};
  std::string drained_;
};

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::string OpenStandardDescriptors() {
  std::string open;
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) >= 0) open += std::to_string(descriptor);
  }
  return open;
}

/// A log file in a folder of its own.
class LogFile {
 public:
  const std::string& Folder() const { return scratch_.Path(); }
  std::string Path() const { return scratch_ / "log"; }
  std::string Content() const { return ReadFile(Path()); }
  Texts NamesInFolder() const { return scratch_.List(); }

  Outcome Run(const std::function<void()>& body, Child child = Child()) const {
    return RunWithoutError(child.Env("TOV_LOG", Path()),
                           [&](const Reporter&) { body(); });
  }

 private:
  Scratch scratch_;
};

TEST(LogLevel, HasTheNumbersOfSyslogAsFarAsTheyGo) {
  EXPECT_EQ(tov_log::Emergency, 0);
  EXPECT_EQ(tov_log::Error, 3);
  EXPECT_EQ(tov_log::Warning, 4);
  EXPECT_EQ(tov_log::Query, 7);
  EXPECT_EQ(tov_log::Trace, 8);
  EXPECT_EQ(tov_log::Debug, 9);
}

TEST(LogLevel, IsReadFromTheEnvironmentAndFourWithoutANumber) {
  for (int level = 0; level <= 9; ++level) {
    EXPECT_EQ(ThresholdFor(std::to_string(level).c_str()), level);
    EXPECT_EQ(ThresholdFor(("00" + std::to_string(level)).c_str()), level);
  }
  for (const auto& [setting, level] :
       std::vector<std::pair<const char*, int>>{{"000", 0},
                                                {"10", 9},
                                                {"010", 9},
                                                {"4294967296", 9},
                                                {"99999999999999999999", 9},
                                                {nullptr, 4},
                                                {"", 4},
                                                {"x", 4},
                                                {"debug", 4},
                                                {"5x", 4},
                                                {"9 levels", 4},
                                                {"0x9", 4}}) {
    EXPECT_EQ(ThresholdFor(setting), level)
        << (setting == nullptr ? "unset" : setting);
  }
}

TEST(LogLine, NamesProgramProcessPartAndLevel) {
  InChild([] {
    SlowReader reader(false);
    tov_log::Module("name", "group")
        .Write(tov_log::Warning, "%s is %d", "this", 5);
    EXPECT_EQ(reader.Drain(), "name[" + std::to_string(::getpid()) +
                                  "] group warning: this is 5\n");
  });
}

TEST(LogLine, NamesEveryLevelAndIsWrittenWhateverItIs) {
  const Outcome outcome =
      RunWithoutError(Child().LogLevel(0), [](const Reporter&) {
        for (int level = 0; level <= 9; ++level) {
          Log().Write(static_cast<tov_log::Level>(level), "x");
        }
      });
  ASSERT_EQ(outcome.log.size(), 10u) << outcome.standard_error;
  for (int level = 0; level <= 9; ++level) {
    EXPECT_EQ(outcome.log[static_cast<std::size_t>(level)].level, level);
  }
}

TEST(LogLine, IsWrittenByOneCall) {
  InChild([] {
    // Each write is read by itself.
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_DIRECT | O_CLOEXEC), 0);
    ::dup2(ends[1], STDERR_FILENO);
    for (const std::string& text :
         {std::string("several\nlines"), std::string(10'000, 'x')}) {
      WriteText(text);
      std::string line(5000, '\0');
      line.resize(static_cast<std::size_t>(
          std::max<ssize_t>(::read(ends[0], line.data(), line.size()), 0)));
      EXPECT_TRUE(line.starts_with("zancgi[")) << line;
      EXPECT_TRUE(line.ends_with('\n')) << line;
    }
    ::close(ends[0]);
    ::close(ends[1]);
  });
}

TEST(LogLine, IsNotCutAtExactlyTheMostBytes) {
  const Outcome outcome = RunWithoutError(Child(), [](const Reporter& report) {
    WriteText("");
    struct stat before;
    ::fstat(STDERR_FILENO, &before);
    const auto room = 4096 - static_cast<std::size_t>(before.st_size);
    WriteText(std::string(room, 'a'));
    WriteText(std::string(room + 1, 'b'));
    report("room", std::to_string(room));
  });
  const auto texts = outcome.Logged(3);
  ASSERT_EQ(texts.size(), 3u);
  const std::size_t room = std::stoul(outcome.reported.at("room"));
  EXPECT_TRUE(texts[1] == std::string(room, 'a')) << texts[1].substr(room - 9);
  EXPECT_EQ(texts[2].size(), room);
  EXPECT_TRUE(texts[2].ends_with("bbb...")) << texts[2].substr(room - 9);
}

TEST(LogLine, IsCutWhenTooLongEscapesIncluded) {
  for (const std::size_t size : {5000u, 70000u, 1000000u}) {
    const std::string line = LineOfText(std::string(size, 'x'));
    EXPECT_EQ(line.size(), 4096u);
    EXPECT_TRUE(line.ends_with("xxx...\n"));
  }
  const std::string line = LineOfText(std::string(3000, '\n'));
  EXPECT_LE(line.size(), 4096u);
  EXPECT_GT(line.size(), 4080u);
  EXPECT_TRUE(line.ends_with("...\n")) << line.substr(4000);
}

TEST(LogLine, EscapesEveryControlCharacter) {
  Texts expected;
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    const bool is_control = byte < 0x20 || byte == 0x7f;
    // Of the others a sample.
    if (!is_control && byte % 16 != 0) continue;
    bytes += static_cast<char>(byte);
    char escape[5] = {static_cast<char>(byte)};
    if (is_control) {
      std::snprintf(escape, sizeof(escape), "\\x%02x",
                    static_cast<unsigned>(byte));
    }
    expected.push_back(std::string("a") + escape + "b");
  }
  EXPECT_EQ(LoggedBy([&] {
              for (const char byte : bytes) {
                Log().Write(tov_log::Error, "a%cb", byte);
              }
            }),
            expected);
}

TEST(LogLine, ShowsTheFormatOfWhatCannotBeFormatted) {
  const std::wstring beyond_the_c_locale(1, wchar_t{0x20ac});
  EXPECT_EQ(LoggedBy([&] {
              Log().Write(tov_log::Error, "costs %ls",
                          beyond_the_c_locale.c_str());
            }),
            Texts{"costs %ls"});
}

TEST(LogLine, CannotBeForgedOrFormattedByAnArgumentAndKeepsUtf8) {
  for (const auto& [text, written] :
       {std::pair("x\r\nzancgi[1] core error: forged\x1b[2J",
                  "x\\x0d\\x0azancgi[1] core error: forged\\x1b[2J\n"),
        std::pair("%n%s%d", "%n%s%d\n"),
        std::pair("gr\xC3\xB6\xC3\x9F", "gr\xC3\xB6\xC3\x9F\n")}) {
    EXPECT_EQ(TextOf(LineOfText(text)), written);
  }
}

TEST(LogLine, LeavesErrnoAlone) {
  const Scratch scratch;
  InChild(
      [&] {
        errno = 4711;
        Log().Check(tov_log::Error);
        EXPECT_EQ(errno, 4711);
        SlowReader reader(false);
        reader.Close();
        errno = 4711;
        WriteText("x");
        EXPECT_EQ(errno, 4711);
      },
      scratch.Path());
}

TEST(LogTarget, IsStandardErrorUnlessAFileCanBeOpened) {
  const Scratch scratch;
  for (const std::string& target :
       {std::string(), std::string("stderr"), scratch.Path(),
        scratch / "missing/log", scratch / ""}) {
    EXPECT_EQ(LoggedBy([] { WriteText("x"); }, target), Texts{"x"}) << target;
  }
}

void ExpectMatch(const std::string& log, const std::string& expression) {
  const testing::Matcher<std::string> expected =
      testing::MatchesRegex(expression);
  EXPECT_TRUE(expected.Matches(log)) << log;
}

constexpr char kTime[] =
    "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z ";

TEST(LogTarget, MayBeAFileForOwnerAndGroupWithTheTimeInUtc) {
  const LogFile file;
  const Outcome outcome = file.Run(
      [] {
        ::umask(0);
        ::tzset();
        WriteText("in a file");
      },
      Child().Env("TZ", "XXX-7"));
  EXPECT_EQ(outcome.standard_error, "");
  EXPECT_EQ(ModeOf(file.Path()), 0640U);
  ExpectMatch(file.Content(), kTime + std::string("zancgi\\[[0-9]+\\] core "
                                                  "error: in a file\n"));
  std::tm written{};
  ASSERT_NE(::strptime(file.Content().c_str(), "%Y-%m-%dT%H:%M:%SZ", &written),
            nullptr);
  EXPECT_NEAR(std::difftime(std::time(nullptr), ::timegm(&written)), 0, 60);
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
  const LogFile file;
  InChild([&] {
    TakeForStandardError(file.Path());
    WriteText("x");
  });
  ExpectMatch(file.Content(), kTime + std::string("zancgi.*: x\n"));
}

TEST(LogTarget, IsNotWhatIsOpenedLaterAsStandardError) {
  const LogFile precious;
  RunWithoutError(Child().Closed(2), [&](const Reporter&) {
    WriteText("x");
    TakeForStandardError(precious.Path());
    WriteText("y");
    ::close(STDERR_FILENO);
  });
  EXPECT_EQ(precious.Content(), "");
}

TEST(LogTarget, IsAlwaysWrittenAtItsEnd) {
  const LogFile file;
  std::ofstream(file.Path()) << "before\n";
  file.Run([] {
    WriteText("first");
    WriteText("second");
  });
  ExpectMatch(file.Content(), "before\n.*: first\n.*: second\n");
  file.Run([&] {
    WriteText("gone");
    EXPECT_EQ(::truncate(file.Path().c_str(), 0), 0);
    WriteText("kept");
  });
  ExpectMatch(file.Content(), "[0-9].*: kept\n");
}

TEST(LogTarget, AtItsSizeLimitRaisesNoSignal) {
  const LogFile file;
  file.Run([] {
    const rlimit nothing{0, RLIM_INFINITY};
    const rlimit everything{RLIM_INFINITY, RLIM_INFINITY};
    ::setrlimit(RLIMIT_FSIZE, &nothing);
    WriteText("x");
    // The report to the parent is a file as well.
    ::setrlimit(RLIMIT_FSIZE, &everything);
    EXPECT_FALSE(IsPending(SIGXFSZ));
  });
}

TEST(LogTarget, DoesNotWaitForTheReaderOfAFifo) {
  const LogFile file;
  ASSERT_EQ(::mkfifo(file.Path().c_str(), 0600), 0);
  file.Run([] { EXPECT_LT(Milliseconds([] { WriteText("x"); }), 3000); });
}

TEST(LogTarget, SyslogIsReplacedByStandardErrorWhenNobodyListens) {
  if (::access("/dev/log", F_OK) == 0) {
    GTEST_SKIP() << "needs a system without /dev/log";
  }
  EXPECT_EQ(LoggedBy([] { WriteText("x"); }, "syslog"), Texts{"x"});
}

/// A syslog daemon's socket at its place.
class Syslog : public testing::Test {
 protected:
  void SetUp() override {
    if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  }

  static Outcome RunWithSyslog(const std::function<void(int listener)>& body) {
    return InChild(
        [&] {
          MountPrivately("/dev", "");
          const int listener = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
          const sockaddr_un address{AF_UNIX, "/dev/log"};
          ASSERT_EQ(
              ::bind(listener, reinterpret_cast<const sockaddr*>(&address),
                     sizeof(address)),
              0);
          body(listener);
          ::close(listener);
        },
        "syslog");
  }

  static std::string Receive(int listener) {
    char message[4096];
    const ssize_t size =
        ::recv(listener, message, sizeof(message), MSG_DONTWAIT);
    return {message, static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
  }
};

TEST_F(Syslog, GetsEachMessageWithItsPriority) {
  const Outcome outcome = RunWithSyslog([](int listener) {
    for (int level = 0; level <= 9; ++level) {
      Log().Write(static_cast<tov_log::Level>(level), "for syslog");
      const std::string message = Receive(listener);
      // Facility 3 is that of daemons; 7 is the last priority.
      const int priority = 3 * 8 + std::min(level, 7);
      EXPECT_TRUE(
          message.starts_with("<" + std::to_string(priority) + ">zancgi["))
          << message;
      EXPECT_TRUE(message.ends_with(": for syslog\n")) << message;
    }
  });
  EXPECT_EQ(outcome.standard_error, "");
}

TEST_F(Syslog, SocketIsNotInheritedByOtherPrograms) {
  RunWithSyslog([](int /*listener*/) {
    // The lowest one that is free will be the socket.
    const int free = ::dup(STDIN_FILENO);
    ::close(free);
    WriteText("x");
    EXPECT_EQ(::fcntl(free, F_GETFD), FD_CLOEXEC);
  });
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

TEST(LogTarget, IsTheFirstDescriptorAboveTheStandardOnesAndNotInherited) {
  const LogFile file;
  for (const unsigned first : {0U, 1U, 2U, 3U}) {
    EXPECT_TRUE(HoldsWithClosed(
        first,
        [&] {
          ::setenv("TOV_LOG", file.Path().c_str(), 1);
          WriteText("x");
          return OpenStandardDescriptors() ==
                     std::string("012").substr(0, first) &&
                 ::fcntl(3, F_GETFD) == FD_CLOEXEC && ::fcntl(4, F_GETFD) < 0;
        }))
        << "closed from " << first;
    EXPECT_TRUE(file.Content().ends_with(": x\n"));
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
  InChild([] {
    tov_log::Module module("zancgi", "core");
    ::setenv("TOV_LOG_LEVEL", "3", 1);
    EXPECT_FALSE(module.Check(tov_log::Info));
    ::setenv("TOV_LOG_LEVEL", "9", 1);
    EXPECT_FALSE(module.Check(tov_log::Info));
    tov_log::Module other("zancgi", "core");
    EXPECT_FALSE(other.Check(tov_log::Info));
  });
}

TEST(LogSetup, OpensTheTargetAtTheFirstCheckOrWrite) {
  for (const bool checks : {false, true}) {
    const LogFile file;
    RunWithoutError(
        Child().WorkDir(file.Folder()).Env("TOV_LOG", "log").LogLevel(3),
        [&](const Reporter&) {
          if (checks) {
            EXPECT_FALSE(Log().Check(tov_log::Debug));
          } else {
            WriteText("first");
          }
          EXPECT_EQ(::chdir("/"), 0);
          ::setenv("TOV_LOG", (file.Folder() + "/other").c_str(), 1);
          WriteText("second");
        });
    EXPECT_EQ(file.NamesInFolder(), Texts{"log"});
    EXPECT_TRUE(file.Content().ends_with(": second\n"));
  }
}

TEST(LogSetup, DoesNotReopenAFileThatIsGone) {
  const LogFile file;
  file.Run([&] {
    WriteText("first");
    EXPECT_EQ(::unlink(file.Path().c_str()), 0);
    WriteText("second");
  });
  EXPECT_EQ(file.NamesInFolder(), Texts{});
}

/// A pipe, or a socket, at standard error.
class LogReader : public testing::TestWithParam<bool> {
 protected:
  static void RunHere(const std::function<void(SlowReader&)>& body) {
    InChild([&] {
      SlowReader reader(GetParam());
      body(reader);
    });
  }
};

INSTANTIATE_TEST_SUITE_P(Slow, LogReader, testing::Bool(),
                         [](const auto& kind) {
                           return kind.param ? "Socket" : "Pipe";
                         });

// Tests of front ends replace poll(2) to play with standard input.
TEST_P(LogReader, GetsTheLineWhateverPollSays) {
  RunHere([](SlowReader& reader) {
    for (const bool times_out : {false, true}) {
      polls_time_out = times_out;
      WriteText("x");
      EXPECT_EQ(TextOf(reader.Drain()), "x\n");
    }
  });
}

TEST_P(LogReader, IsWaitedForOneSecondOnceDespiteSignalsAndGetsLaterLines) {
  RunHere([](SlowReader& reader) {
    reader.Fill();
    StartSignalStorm(5000);
    const long first = Milliseconds([] { WriteText("a"); });
    EndSignalStorm();
    EXPECT_GE(first, 700);
    EXPECT_LT(first, 3000);
    EXPECT_GT(SignalsCounted(), 3);
    EXPECT_LT(Milliseconds([] { WriteText("b"); }), 200);
    EXPECT_LT(Milliseconds([] { WriteText("c"); }), 200);
    // Other processes write to the same open file.
    EXPECT_EQ(::fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_FALSE(Has(reader.Drain(), "zancgi["));
    WriteText("written");
    EXPECT_EQ(TextOf(reader.Drain()), "written\n");
  });
}

TEST_P(LogReader, ThatWakesUpGetsTheLineAndIsWaitedForOneSecondInAll) {
  RunHere([](SlowReader& reader) {
    long waited = 0;
    for (int line = 0; line < 2; ++line) {
      reader.Fill();
      std::thread waking = reader.DrainAfter(400);
      waited += Milliseconds([] { WriteText("x"); });
      waking.join();
      EXPECT_TRUE(Has(reader.Drained() + reader.Drain(), "] core error: x\n"));
    }
    for (int line = 0; line < 2; ++line) {
      reader.Fill();
      waited += Milliseconds([] { WriteText("x"); });
    }
    EXPECT_GE(waited, 900);
    EXPECT_LT(waited, 1600);
  });
}

TEST_P(LogReader, ThatHasGoneRaisesNoSignalAndLeavesPendingWhatWasPending) {
  RunHere([](SlowReader& reader) {
    reader.Close();
    WriteText("x");
    CountSignals(SIGPIPE);
    WriteText("y");
    EXPECT_EQ(SignalsCounted(), 0);
    EXPECT_FALSE(IsBlocked(SIGPIPE));
    Block(SIGPIPE);
    WriteText("x");
    EXPECT_FALSE(IsPending(SIGPIPE));
    ::raise(SIGPIPE);
    WriteText("x");
    EXPECT_TRUE(IsPending(SIGPIPE));
    EXPECT_TRUE(IsBlocked(SIGPIPE));
  });
}

TEST(LogTarget, MayBeAClosedStandardError) {
  const Outcome outcome = RunWithoutError(
      Child().Closed(0).Closed(1).Closed(2), [](const Reporter& report) {
        WriteText("x");
        report("open", OpenStandardDescriptors());
      });
  EXPECT_EQ(outcome.reported.at("open"), "");
}

}  // namespace

// Under a name of its own, since its header declares that it only writes to
// fds.
extern "C" int TimedOutPoll(pollfd* fds, nfds_t nfds,
                            int timeout) __asm__("poll");

extern "C" __attribute__((visibility("default"))) int TimedOutPoll(
    pollfd* fds, nfds_t nfds, int timeout) {
  if (polls_time_out) return 0;
  return static_cast<int>(::syscall(SYS_poll, fds, nfds, timeout));
}

}  // namespace support
