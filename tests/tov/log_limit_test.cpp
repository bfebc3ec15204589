#include <malloc.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <tov/log.h>
#include <zancgi/testing/log.h>

#include "support/file_calls.h"
#include "support/test.h"

namespace support {
namespace {

using tov_log::Warning;
using Texts = std::vector<std::string>;

/// Does this while the next line is being written, as a signal handler could.
void InterruptNextLine(const std::function<void()>& deed) {
  support::WatchFileCalls(
      [deed, done = false](const support::FileCall& call) mutable {
        if (call.name == "write" && !std::exchange(done, true)) deed();
        return 0;
      });
}

tov_log::Module& TheModule() {
  static tov_log::Module module("zancgi", "core");
  return module;
}

void Write(int times, tov_log::Level level, const char* format) {
  for (int i = 0; i < times; ++i) TheModule().Write(level, format, "x");
}

/// All that a process logs until it ends by _exit(2).
Log LogWithoutExit(const std::function<void()>& work,
                   const Child& child = Child()) {
  const Outcome outcome = child.Run([&](const Reporter&) { work(); });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  return outcome.log;
}

/// The same of a process that ends by exit(3).
Log LogOf(const std::function<void()>& work, const Child& child = Child()) {
  return LogWithoutExit(
      [&] {
        work();
        std::exit(0);
      },
      child);
}

/// So many lines of a text, and what follows them.
Log Lines(std::size_t count, int level, const std::string& text,
          const Texts& further = {}) {
  Log lines(count, LogLine{level, text});
  for (const std::string& more : further) lines.push_back({level, more});
  return lines;
}

Log Joined(Log first, const Log& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

std::string Announced(const std::string& format) {
  return "further messages are dropped after 100 of \"" + format + "\"";
}

std::string Dropped(const std::string& format, int count) {
  return "messages dropped: " + std::to_string(count) + " of \"" + format +
         "\"";
}

TEST(LogLimit, LetsAHundredMessagesPassAndAnnouncesThatOthersDoNot) {
  EXPECT_EQ(LogOf([] { Write(100, Warning, "see %s"); }),
            Lines(100, 4, "see x"));
  for (const int times : {101, 1000}) {
    EXPECT_EQ(LogWithoutExit([=] { Write(times, Warning, "see %s"); }),
              Lines(100, 4, "see x", {Announced("see %s")}));
  }
  EXPECT_EQ(
      LogOf([] { Write(123, Warning, "see %s"); }),
      Lines(100, 4, "see x", {Announced("see %s"), Dropped("see %s", 23)}));
}

TEST(LogLimit, HoldsForLevelsUpToFourOnly) {
  for (int level = 0; level <= 9; ++level) {
    EXPECT_EQ(
        LogOf([=] { Write(101, static_cast<tov_log::Level>(level), "%s"); }),
        level <= 4 ? Lines(100, level, "x", {Announced("%s"), Dropped("%s", 1)})
                   : Lines(101, level, "x"));
  }
}

TEST(LogLimit, IsForEachFormatByItsTextAndNotForHigherLevels) {
  EXPECT_EQ(LogOf([] {
              Write(150, tov_log::Notice, "a %s");
              Write(100, Warning, "a %s");
              Write(100, Warning, "b %s");
            }),
            Joined(Lines(150, 5, "a x"),
                   Joined(Lines(100, 4, "a x"), Lines(100, 4, "b x"))));
  EXPECT_EQ(LogWithoutExit([] {
              for (int i = 0; i < 101; ++i) {
                const std::string format = "see " + std::string("%s");
                Write(1, Warning, format.c_str());
              }
            }),
            Lines(100, 4, "see x", {Announced("see %s")}));
}

TEST(LogLimit, ReportsEachFormatUnderTheModuleAndLevelOfItsFirstDrop) {
  tov_log::Module other("other", "part");
  const Log log = LogOf([&] {
    Write(101, Warning, "a");
    Write(100, Warning, "b");
    other.Write(tov_log::Error, "b");
    Write(5, Warning, "b");
  });
  ASSERT_EQ(log.size(), 204U);
  EXPECT_EQ(log[100], (LogLine{4, Announced("a")}));
  EXPECT_EQ(log[201], (LogLine{3, Announced("b"), "other", "part"}));
  EXPECT_EQ(log[202], (LogLine{4, Dropped("a", 1)}));
  EXPECT_EQ(log[203], (LogLine{3, Dropped("b", 6), "other", "part"}));
}

TEST(LogLimit, EscapesTheFormatAndTakesItForNone) {
  EXPECT_EQ(LogWithoutExit([] { Write(101, Warning, "%s\n\x1b%%"); }),
            Lines(100, 4, "x\\x0a\\x1b%", {Announced("%s\\x0a\\x1b%%")}));
}

TEST(LogLimit, TakesFormatsForOneThatBeginAlike) {
  const std::string begin(175, 'a');
  EXPECT_EQ(LogOf([&] {
              for (int i = 0; i < 50; ++i) {
                Write(1, Warning, (begin + "a").c_str());
                Write(1, Warning, (begin + "b").c_str());
              }
              Write(1, Warning, (begin + "c").c_str());
            }).back(),
            (LogLine{4, Dropped(begin, 1)}));
  EXPECT_EQ(LogOf([&] {
              const std::string shorter = begin.substr(1);
              Write(100, Warning, (shorter + "a").c_str());
              Write(100, Warning, (shorter + "b").c_str());
            }).size(),
            200U);
}

TEST(LogLimit, CutsLongNamesOfModulesInItsReports) {
  const std::string name(40, 'n');
  tov_log::Module module(name.c_str(), name.c_str());
  const Log log = LogWithoutExit([&] {
    for (int i = 0; i < 101; ++i) module.Write(Warning, "a");
  });
  const std::string cut(31, 'n');
  EXPECT_EQ(log.back(), (LogLine{4, Announced("a"), cut, cut}));
}

// Another library may hand in texts that never come twice.
TEST(LogLimit, HoldsForAllFormatsTogetherThatAreOneTooMany) {
  const Log log = LogOf([] {
    for (int i = 0; i < 1000; ++i) {
      Write(1, Warning, std::to_string(i).c_str());
    }
    Write(100, Warning, "30");
    Write(1, Warning, "another");
  });
  ASSERT_EQ(log.size(), 31U + 100U + 1U + 99U + 1U + 2U);
  EXPECT_EQ(log[30].text, "30");
  EXPECT_EQ(log[130].text, "130");
  EXPECT_EQ(log[131].text, Announced("(other formats)"));
  EXPECT_EQ(log[132].text, "30");
  EXPECT_EQ(log[231].text, Announced("30"));
  EXPECT_EQ(log[232].text, Dropped("30", 1));
  EXPECT_EQ(log[233].text, Dropped("(other formats)", 870));
}

TEST(LogLimit, LetsMessagesPassThatInterruptAnotherOne) {
  EXPECT_EQ(LogWithoutExit([] {
              Write(100, Warning, "see %s");
              InterruptNextLine([] { Write(101, Warning, "signal %s"); });
              Write(1, Warning, "see %s");
              Write(101, Warning, "signal %s");
            }),
            Joined(Joined(Lines(100, 4, "see x"),
                          Lines(101, 4, "signal x", {Announced("see %s")})),
                   Lines(100, 4, "signal x", {Announced("signal %s")})));
}

TEST(LogLimit, IsNotReportedByAnExitThatInterruptsAMessage) {
  EXPECT_EQ(LogWithoutExit([] {
              Write(101, Warning, "a");
              Write(100, Warning, "b");
              InterruptNextLine([] { std::exit(0); });
              Write(1, Warning, "b");
            }),
            Joined(Lines(100, 4, "a", {Announced("a")}), Lines(100, 4, "b")));
}

TEST(LogLimit, IsForAllFormatsTogetherWithoutMemory) {
  EXPECT_EQ(
      LogOf([] {
        // Has the stack grow as far as is needed.
        Write(1, tov_log::Notice, "before");
        const rlimit nothing{0, RLIM_INFINITY};
        const rlimit everything{RLIM_INFINITY, RLIM_INFINITY};
        ::setrlimit(RLIMIT_AS, &nothing);
        Write(60, Warning, "a");
        Write(60, Warning, "a");
        ::setrlimit(RLIMIT_AS, &everything);
      }),
      Joined(Lines(1, 5, "before"), Lines(100, 4, "a",
                                          {Announced("(other formats)"),
                                           Dropped("(other formats)", 20)})));
}

TEST(LogLimit, TakesNoMemoryForEachDroppedMessage) {
  const Outcome outcome = Child().Run([](const Reporter& report) {
    Write(101, Warning, "a");
    const std::size_t before = ::mallinfo2().uordblks;
    Write(10'000, Warning, "a");
    report("taken", std::to_string(::mallinfo2().uordblks - before));
  });
  EXPECT_LT(std::stoul(outcome.reported.at("taken")), 10'000U);
}

void WriteMore() { Write(7, Warning, "see %s"); }

TEST(LogLimit, ReportsAgainWhatIsDroppedLaterInTheExit) {
  EXPECT_EQ(
      LogOf([] {
        // Called after the log's own handler, which comes later.
        std::atexit(WriteMore);
        Write(101, Warning, "see %s");
      }),
      Lines(100, 4, "see x",
            {Announced("see %s"), Dropped("see %s", 1), Dropped("see %s", 7)}));
}

/// Runs a process of a process, and waits for its end.
void RunChild(const std::function<void()>& work) {
  const pid_t process = ::fork();
  if (process == 0) {
    work();
    std::exit(0);
  }
  ::waitpid(process, nullptr, 0);
}

TEST(LogLimit, IsReportedByTheProcessAloneThatDroppedAndBeginsAnewInAChild) {
  const std::string format = "see %s";
  EXPECT_EQ(LogOf([] {
              Write(101, Warning, "see %s");
              RunChild([] {});
            }),
            Lines(100, 4, "see x", {Announced(format), Dropped(format, 1)}));
  EXPECT_EQ(LogOf([] {
              Write(101, Warning, "see %s");
              RunChild([] { Write(102, Warning, "see %s"); });
            }),
            Joined(Lines(100, 4, "see x", {Announced(format)}),
                   Lines(100, 4, "see x",
                         {Announced(format), Dropped(format, 2),
                          Dropped(format, 1)})));
}

TEST(LogLimit, BeginsAnewInAChildProcessAlsoForTheOtherFormats) {
  const Log log = LogOf([] {
    for (int i = 0; i < 132; ++i) Write(1, Warning, std::to_string(i).c_str());
    RunChild([] {
      for (int i = 0; i < 131; ++i) {
        Write(1, Warning, std::to_string(i).c_str());
      }
    });
  });
  ASSERT_EQ(log.size(), 131U + 1U + 131U + 1U);
  EXPECT_EQ(log[131].text, Announced("(other formats)"));
  EXPECT_EQ(log[262].text, "130");
  EXPECT_EQ(log[263].text, Dropped("(other formats)", 1));
}

// By then the path may lead elsewhere, and be another account's.
TEST(LogLimit, ReportsToTheFileThatIsOpen) {
  const Scratch scratch;
  const std::string path = scratch / "log";
  LogOf(
      [&] {
        Write(101, Warning, "see %s");
        EXPECT_EQ(::rename(path.c_str(), (scratch / "old").c_str()), 0);
        ::setenv("TOV_LOG", (scratch / "other").c_str(), 1);
      },
      Child().Env("TOV_LOG", path));
  EXPECT_EQ(scratch.List(), Texts{"old"});
  const std::string log = zan_cgi::testing::ReadFile(scratch / "old");
  EXPECT_TRUE(log.ends_with(": " + Dropped("see %s", 1) + "\n"))
      << log.substr(log.size() - 200);
}

/// The log of a program in which another copy of the library is.
Log LogOfProgram(const char* program, const char* argument = nullptr) {
  return LogWithoutExit([=] { ::execl(program, program, argument, nullptr); });
}

const Log kLogOfFlood =
    Lines(100, 4, "see x", {Announced("see %s"), Dropped("see %s", 23)});

TEST(LogLimit, IsReportedAtTheExitOfAProgramLinkedFromArchives) {
  EXPECT_EQ(LogOfProgram(LOG_FLOOD), kLogOfFlood);
}

TEST(LogLimit, IsReportedWhenTheLibraryIsUnloaded) {
  const Log expected = Joined(kLogOfFlood, Lines(1, -1, "unloaded"));
  for (const char* library : {LOG_FLOOD_ARCHIVE, LOG_FLOOD_SHARED}) {
    EXPECT_EQ(LogOfProgram(LOG_UNLOADER, library), expected) << library;
  }
}

}  // namespace
}  // namespace support
