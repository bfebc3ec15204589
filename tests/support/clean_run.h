/// @file
/// Children that must end well. A body that reports nothing need not take the
/// reporter.
#ifndef ZANCGI_TESTS_SUPPORT_CLEAN_RUN_H
#define ZANCGI_TESTS_SUPPORT_CLEAN_RUN_H

#include <gtest/gtest.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/input.h>

#include <string>
#include <type_traits>
#include <vector>

namespace support {

template <class Work>
zan_cgi::testing::Outcome RunAnyhow(const zan_cgi::testing::Child& child,
                                    const Work& work) {
  const auto outcome = child.Run([&](const zan_cgi::testing::Reporter& report) {
    if constexpr (std::is_invocable_v<const Work&>) {
      work();
    } else {
      work(report);
    }
  });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error.substr(0, 10'000);
  return outcome;
}

/// Expects that no exception ended the body, that no expectation in it failed
/// and that no signal ended the child.
template <class Work>
zan_cgi::testing::Outcome RunWithoutError(const zan_cgi::testing::Child& child,
                                          const Work& work) {
  auto outcome = RunAnyhow(child, work);
  EXPECT_EQ(outcome.error, "");
  return outcome;
}

/// Expects the same, except that an exception may end the body, and that no
/// descriptor is left open.
template <class Work>
zan_cgi::testing::Outcome RunWithoutLeak(const zan_cgi::testing::Child& child,
                                         const Work& work) {
  auto outcome = RunAnyhow(child, work);
  EXPECT_EQ(outcome.leaked_descriptors, std::vector<std::string>{});
  return outcome;
}

/// Expects all of this.
template <class Work>
zan_cgi::testing::Outcome RunCleanly(const zan_cgi::testing::Child& child,
                                     const Work& work) {
  auto outcome = RunWithoutLeak(child, work);
  EXPECT_EQ(outcome.error, "");
  return outcome;
}

/// The same with this on standard input.
template <class Work>
zan_cgi::testing::Outcome RunWithoutLeak(zan_cgi::testing::Child child,
                                         const zan_cgi::testing::Input& input,
                                         const Work& work) {
  return RunWithoutLeak(child.StandardInput(input), work);
}

template <class Work>
zan_cgi::testing::Outcome RunCleanly(zan_cgi::testing::Child child,
                                     const zan_cgi::testing::Input& input,
                                     const Work& work) {
  return RunCleanly(child.StandardInput(input), work);
}

}  // namespace support

#endif
