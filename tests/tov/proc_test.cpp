#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <tov/proc.h>
#include <zancgi/testing/child.h>

#include <chrono>
#include <string>

namespace {

using zan_cgi::testing::Child;
using zan_cgi::testing::Told;
using Clock = std::chrono::steady_clock;

volatile sig_atomic_t alarms = 0;

void CountAlarm(int) { alarms = alarms + 1; }

/// From now on a signal handler runs every two milliseconds.
void StartSignalStorm() {
  struct sigaction action {};
  action.sa_handler = CountAlarm;
  ::sigaction(SIGALRM, &action, nullptr);
  const itimerval often{{0, 2000}, {0, 2000}};
  ::setitimer(ITIMER_REAL, &often, nullptr);
}

long MillisecondsAsleep(unsigned milliseconds) {
  const auto start = Clock::now();
  tov_proc::Sleep(milliseconds);
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() -
                                                               start)
      .count();
}

TEST(Sleep, LastsAsLongAsAsked) {
  const long asleep = MillisecondsAsleep(100);
  EXPECT_GE(asleep, 100);
  EXPECT_LT(asleep, 1000);
}

TEST(Sleep, MayLastLongerThanASecond) {
  const long asleep = MillisecondsAsleep(1200);
  EXPECT_GE(asleep, 1200);
  EXPECT_LT(asleep, 2200);
}

TEST(Sleep, OfNothingReturnsAtOnce) { EXPECT_LT(MillisecondsAsleep(0), 100); }

TEST(Sleep, LastsAsLongAsAskedInASignalStorm) {
  const auto outcome = Child().Run([](const Told& told) {
    StartSignalStorm();
    told("asleep", std::to_string(MillisecondsAsleep(300)));
    told("alarms", std::to_string(alarms));
  });
  const int asleep = std::stoi(outcome.told.at("asleep"));
  EXPECT_GE(asleep, 300);
  EXPECT_LT(asleep, 1300);
  EXPECT_GT(std::stoi(outcome.told.at("alarms")), 10);
}

}  // namespace
