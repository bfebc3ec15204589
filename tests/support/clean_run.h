/// @file
/// Children that must end well.
#ifndef ZANCGI_TESTS_SUPPORT_CLEAN_RUN_H
#define ZANCGI_TESTS_SUPPORT_CLEAN_RUN_H

#include <gtest/gtest.h>
#include <zancgi/testing/child.h>

#include <string>
#include <vector>

namespace support {

/// Expects that no exception ended the body, that no expectation in it failed
/// and that no signal ended the child.
inline zan_cgi::testing::Outcome RunWithoutError(
    const zan_cgi::testing::Child& child,
    const zan_cgi::testing::Child::Body& body) {
  zan_cgi::testing::Outcome outcome = child.Run(body);
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error.substr(0, 10'000);
  EXPECT_EQ(outcome.error, "");
  return outcome;
}

/// Expects the same, except that an exception may end the body, and that no
/// descriptor is left open.
inline zan_cgi::testing::Outcome RunWithoutLeak(
    const zan_cgi::testing::Child& child,
    const zan_cgi::testing::Child::Body& body) {
  zan_cgi::testing::Outcome outcome = child.Run(body);
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error.substr(0, 10'000);
  EXPECT_EQ(outcome.leaked_descriptors, std::vector<std::string>{});
  return outcome;
}

/// Expects all of this.
inline zan_cgi::testing::Outcome RunCleanly(
    const zan_cgi::testing::Child& child,
    const zan_cgi::testing::Child::Body& body) {
  zan_cgi::testing::Outcome outcome = RunWithoutLeak(child, body);
  EXPECT_EQ(outcome.error, "");
  return outcome;
}

}  // namespace support

#endif
