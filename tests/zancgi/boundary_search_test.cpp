#include "zancgi/boundary_search.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr std::size_t kNone = std::string::npos;

std::size_t EndIn(const std::string& text, std::size_t position = 0) {
  return zan_cgi::FindBoundaryEnd("--X", text.data(), text.size(), position);
}

TEST(BoundarySearch, GivesThePlaceBehindTheFirstBoundary) {
  EXPECT_EQ(EndIn("--X"), 3U);
  EXPECT_EQ(EndIn("text--X--X"), 7U);
}

TEST(BoundarySearch, BeginsAtThePosition) {
  EXPECT_EQ(EndIn("--X--X", 1), 6U);
  EXPECT_EQ(EndIn("--X", 1), kNone);
}

TEST(BoundarySearch, FindsNothingInNothing) {
  EXPECT_EQ(EndIn(""), kNone);
  EXPECT_EQ(EndIn("--X", 3), kNone);
  EXPECT_EQ(EndIn("--X", 5), kNone);
}

TEST(BoundarySearch, DoesNotCompareABreakingByteAgain) {
  EXPECT_EQ(EndIn("---X"), kNone);
  EXPECT_EQ(EndIn("-x--X"), 5U);
  EXPECT_EQ(EndIn("----X"), kNone);
  EXPECT_EQ(EndIn("-----X"), 6U);
}

TEST(BoundarySearch, DoesNotFindHalfABoundary) {
  EXPECT_EQ(EndIn("text--"), kNone);
}

}  // namespace
