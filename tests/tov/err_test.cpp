#include <gtest/gtest.h>
#include <tov/err.h>

#include <stdexcept>
#include <string>
#include <type_traits>

namespace {

bool Names(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::string RaisedText() {
  try {
    tov_err::AssertError::Raise("folder/source.cpp", 1234, "void F(int)",
                                "passed name is empty");
  } catch (const tov_err::AssertError& error) {
    return error.what();
  }
  return "nothing was raised";
}

TEST(Error, HasItsMessageForAText) {
  EXPECT_STREQ(tov_err::Error("cannot open 'x'").what(), "cannot open 'x'");
}

TEST(Error, IsAStandardRuntimeError) {
  static_assert(std::is_base_of_v<std::runtime_error, tov_err::Error>);
  EXPECT_THROW(throw tov_err::Error("x"), std::runtime_error);
}

TEST(Error, IsTheBaseOfAllOthers) {
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

TEST(Value, TellsNameAndValue) {
  const std::string text = tov_err::Value("service", "../x").what();
  EXPECT_TRUE(Names(text, "service")) << text;
  EXPECT_TRUE(Names(text, "../x")) << text;
}

TEST(Value, TellsTheNameOfAnEmptyValue) {
  const std::string text = tov_err::Value("auth", "").what();
  EXPECT_TRUE(Names(text, "auth")) << text;
}

TEST(Missed, TellsTheName) {
  const std::string text = tov_err::Missed("tovname", "").what();
  EXPECT_TRUE(Names(text, "tovname")) << text;
}

TEST(Missed, TellsWhatWasLookedFor) {
  const std::string text = tov_err::Missed("tovname", "of the panel").what();
  EXPECT_TRUE(Names(text, "tovname")) << text;
  EXPECT_TRUE(Names(text, "of the panel")) << text;
}

TEST(Missed, DiffersFromAValueThatCannotBeUsed) {
  EXPECT_STRNE(tov_err::Missed("auth", "").what(),
               tov_err::Value("auth", "").what());
  static_assert(!std::is_base_of_v<tov_err::Value, tov_err::Missed>);
  static_assert(!std::is_base_of_v<tov_err::Missed, tov_err::Value>);
}

TEST(AssertError, TellsMessageAndPlace) {
  const std::string text = RaisedText();
  EXPECT_TRUE(Names(text, "passed name is empty")) << text;
  EXPECT_TRUE(Names(text, "source.cpp")) << text;
  EXPECT_TRUE(Names(text, "1234")) << text;
  EXPECT_TRUE(Names(text, "void F(int)")) << text;
}

}  // namespace
