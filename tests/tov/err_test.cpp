#include <gtest/gtest.h>
#include <tov/err.h>

#include <stdexcept>
#include <string>
#include <type_traits>

namespace {

std::string RaisedText() {
  try {
    tov_err::AssertError::Raise("folder/source.cpp", 1234, "void F(int)",
                                "passed name is empty");
  } catch (const tov_err::AssertError& error) {
    return error.what();
  }
  return "nothing was raised";
}

TEST(Error, IsTheBaseOfAllOthersAndAStandardRuntimeError) {
  static_assert(std::is_base_of_v<std::runtime_error, tov_err::Error>);
  EXPECT_THROW(throw tov_err::Error("x"), std::runtime_error);
  EXPECT_THROW(throw tov_err::Value("a", ""), tov_err::Error);
  EXPECT_THROW(throw tov_err::Missed("a", ""), tov_err::Error);
  EXPECT_THROW(throw tov_err::AssertError("a"), tov_err::Error);
}

template <class Kind>
void ExpectToKeepItsText(const Kind& original, Kind other) {
  const std::string text = original.what();
  {
    const Kind copy(original);
    EXPECT_EQ(copy.what(), text);
    other = copy;
  }
  EXPECT_EQ(other.what(), text);
  static_assert(std::is_nothrow_copy_constructible_v<Kind>);
  static_assert(std::is_nothrow_copy_assignable_v<Kind>);
}

TEST(Error, KeepsItsTextWhenCopied) {
  ExpectToKeepItsText(tov_err::Error("a"), tov_err::Error("b"));
  ExpectToKeepItsText(tov_err::Value("a", "1"), tov_err::Value("b", "2"));
  ExpectToKeepItsText(tov_err::Missed("a", "1"), tov_err::Missed("b", "2"));
  ExpectToKeepItsText(tov_err::AssertError("a"), tov_err::AssertError("b"));
}

TEST(Error, ReturnsTheTextThatItWasGiven) {
  EXPECT_STREQ(tov_err::Error("cannot open 'x'").what(), "cannot open 'x'");
  EXPECT_STREQ(tov_err::Value("service", "../x").what(),
               "bad value '../x' of 'service'");
  EXPECT_STREQ(tov_err::Value("auth", "").what(), "bad value '' of 'auth'");
  EXPECT_STREQ(tov_err::Missed("tovname", "").what(),
               "missing value of 'tovname'");
  EXPECT_STREQ(tov_err::Missed("tovname", "of the panel").what(),
               "missing value of 'tovname': 'of the panel' was not found");
  EXPECT_EQ(RaisedText(),
            "assertion failed: passed name is empty (folder/source.cpp:1234, "
            "void F(int))");
}

TEST(Missed, DiffersFromAValueThatCannotBeUsed) {
  static_assert(!std::is_base_of_v<tov_err::Value, tov_err::Missed>);
  static_assert(!std::is_base_of_v<tov_err::Missed, tov_err::Value>);
}

}  // namespace
