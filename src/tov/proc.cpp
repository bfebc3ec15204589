#include <tov/proc.h>

#include <time.h>

#include <cerrno>

namespace tov_proc {

void Sleep(unsigned milliseconds) {
  constexpr long kNanosecondsPerSecond = 1'000'000'000;
  timespec end{};
  ::clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += milliseconds / 1000;
  end.tv_nsec += static_cast<long>(milliseconds % 1000) * 1'000'000;
  if (end.tv_nsec >= kNanosecondsPerSecond) {
    end.tv_nsec -= kNanosecondsPerSecond;
    ++end.tv_sec;
  }
  // The absolute end time keeps interruptions from shortening or lengthening
  // the wait.
  while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) ==
         EINTR) {
  }
}

}  // namespace tov_proc
