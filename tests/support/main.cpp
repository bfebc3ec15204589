#include <gtest/gtest.h>
#include <zancgi/testing/child.h>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  zan_cgi::testing::NoticeFailuresBy(
      [] { return testing::Test::HasFailure(); });
  return RUN_ALL_TESTS();
}
