#include <tov/proc.h>

#include <chrono>

#include "support/signals.h"
#include "support/test.h"

namespace support {
namespace {

using Clock = std::chrono::steady_clock;

long MillisecondsAsleep(unsigned milliseconds) {
  const auto start = Clock::now();
  tov_proc::Sleep(milliseconds);
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() -
                                                               start)
      .count();
}

TEST(Sleep, LastsAsLongAsAsked) {
  // One of them is longer than a second.
  for (const unsigned milliseconds : {100U, 1200U}) {
    const long asleep = MillisecondsAsleep(milliseconds);
    EXPECT_GE(asleep, milliseconds);
    EXPECT_LT(asleep, milliseconds + 1000);
  }
}

TEST(Sleep, LastsAsLongAsAskedPastAFullSecondOfTheClock) {
  const auto ends_soon = [] {
    return Clock::now().time_since_epoch() % std::chrono::seconds(1) >
           std::chrono::milliseconds(900);
  };
  while (!ends_soon()) tov_proc::Sleep(10);
  EXPECT_GE(MillisecondsAsleep(150), 150);
}

TEST(Sleep, OfZeroReturnsAtOnce) { EXPECT_LT(MillisecondsAsleep(0), 100); }

TEST(Sleep, LastsAsLongAsAskedInASignalStorm) {
  const auto outcome = Child().Run([](const Reporter& report) {
    support::StartSignalStorm();
    report("asleep", std::to_string(MillisecondsAsleep(300)));
    report("alarms", std::to_string(support::SignalsCounted()));
  });
  const int asleep = std::stoi(outcome.reported.at("asleep"));
  EXPECT_GE(asleep, 300);
  EXPECT_LT(asleep, 1300);
  EXPECT_GT(std::stoi(outcome.reported.at("alarms")), 3);
}

}  // namespace
}  // namespace support
