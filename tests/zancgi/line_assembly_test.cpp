#include "zancgi/line_assembly.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Result {
  bool is_complete;
  std::size_t position;
  std::string line;

  friend bool operator==(const Result&, const Result&) = default;
};

/// @param behind  the byte behind the chunk
Result Extend(const std::string& chunk, std::size_t position = 0,
              const std::string& line = "", char behind = '\0') {
  Result result{false, position, line};
  const std::string memory = chunk + behind;
  result.is_complete = zan_cgi::ExtendLine(memory.data(), chunk.size(),
                                           result.position, result.line);
  return result;
}

TEST(Line, EndsAtCrLf) {
  EXPECT_EQ(Extend("ab\r\ncd"), (Result{true, 4, "ab"}));
  EXPECT_EQ(Extend("ab\r\ncd\r\n", 4), (Result{true, 8, "cd"}));
}

TEST(Line, MayBeEmpty) { EXPECT_EQ(Extend("\r\nx"), (Result{true, 2, ""})); }

TEST(Line, GoesOnFromTheChunkBefore) {
  EXPECT_EQ(Extend("cd\r\n", 0, "ab"), (Result{true, 4, "abcd"}));
}

TEST(Line, IsIncompleteWithoutALineEnd) {
  EXPECT_EQ(Extend("abc", 1, "x"), (Result{false, 3, "xbc"}));
  EXPECT_EQ(Extend("", 0, "x"), (Result{false, 0, "x"}));
}

TEST(Line, LosesTheByteBeforeABareLf) {
  EXPECT_EQ(Extend("ab\nc"), (Result{true, 3, "a"}));
  EXPECT_EQ(Extend("a\n"), (Result{true, 2, ""}));
}

TEST(Line, DoesNotEndAtAnLfInItsFirstPlace) {
  EXPECT_EQ(Extend("\nab\r\n"), (Result{true, 5, "\nab"}));
  EXPECT_EQ(Extend("\n\n"), (Result{true, 2, ""}));
}

TEST(Line, DoesNotSeeALineEndThatTwoChunksShare) {
  EXPECT_EQ(Extend("ab\r"), (Result{false, 3, "ab\r"}));
  EXPECT_EQ(Extend("\ncd\r\n", 0, "ab\r"), (Result{true, 5, "ab\r\ncd"}));
}

TEST(Line, SeesAnLfThatIsLeftBehindTheChunk) {
  EXPECT_EQ(Extend("ab\r", 0, "", '\n'), (Result{true, 4, "ab"}));
}

TEST(Line, IsCompleteAtAPositionBeyondTheChunk) {
  EXPECT_EQ(Extend("ab", 3, "x"), (Result{true, 5, "x"}));
  EXPECT_EQ(Extend("", 9, ""), (Result{true, 11, ""}));
}

TEST(Line, MayHoldZeroBytes) {
  const std::string chunk("a\0b\r\n", 5);
  EXPECT_EQ(Extend(chunk), (Result{true, 5, std::string("a\0b", 3)}));
}

}  // namespace
