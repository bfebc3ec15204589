#include <gtest/gtest.h>
#include <tov/str.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <limits>
#include <locale>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Strings = std::vector<std::string>;

/// A word that was taken off a text, and what stayed there.
struct Taken {
  std::string word;
  std::string rest;

  friend bool operator==(const Taken&, const Taken&) = default;
  friend void PrintTo(const Taken& taken, std::ostream* out) {
    *out << '[' << taken.word << "] leaving [" << taken.rest << ']';
  }
};

template <class Delimiter>
Taken GetWord(std::string text, const Delimiter& delimiter) {
  std::string word = str::GetWord(text, delimiter);
  return {word, text};
}

Taken RGetWord(std::string text, char delimiter) {
  std::string word = str::RGetWord(text, delimiter);
  return {word, text};
}

Strings Split(const std::string& text, const std::string& separator) {
  Strings words;
  str::Split(text, separator, words);
  return words;
}

std::string AllBytes() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  return bytes;
}

std::string Escape(const char* format, int byte) {
  char text[4];
  std::snprintf(text, sizeof(text), format, static_cast<unsigned>(byte));
  return text;
}

bool IsUnreserved(int byte) {
  return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
         (byte >= '0' && byte <= '9') || byte == '-' || byte == '_' ||
         byte == '.' || byte == '~';
}

double ProcessorSeconds() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

TEST(GetWord, TakesTheFirstWordAndItsDelimiter) {
  EXPECT_EQ(GetWord("a&b&c", '&'), (Taken{"a", "b&c"}));
}

TEST(GetWord, TakesAllWithoutADelimiter) {
  EXPECT_EQ(GetWord("abc", '&'), (Taken{"abc", ""}));
}

TEST(GetWord, OfAnEmptyTextIsEmpty) {
  EXPECT_EQ(GetWord("", '&'), (Taken{"", ""}));
}

TEST(GetWord, IsEmptyBeforeALeadingDelimiter) {
  EXPECT_EQ(GetWord("&a", '&'), (Taken{"", "a"}));
}

TEST(GetWord, LeavesNothingBehindATrailingDelimiter) {
  EXPECT_EQ(GetWord("a&", '&'), (Taken{"a", ""}));
}

TEST(GetWord, DoesNotTrim) {
  EXPECT_EQ(GetWord(" a &\tb ", '&'), (Taken{" a ", "\tb "}));
}

TEST(GetWord, TakesZeroBytesForDataAndForADelimiter) {
  const std::string text("a\0b=c", 5);
  EXPECT_EQ(GetWord(text, '='), (Taken{std::string("a\0b", 3), "c"}));
  EXPECT_EQ(GetWord(text, '\0'), (Taken{"a", "b=c"}));
}

TEST(GetWord, FindsADelimiterOfManyBytes) {
  EXPECT_EQ(GetWord("a\r\n--x\r\n--y", std::string("\r\n--")),
            (Taken{"a", "x\r\n--y"}));
}

TEST(GetWord, TakesPartOfALongDelimiterForData) {
  EXPECT_EQ(GetWord("a\r\n-b", std::string("\r\n--")), (Taken{"a\r\n-b", ""}));
}

TEST(GetWord, FindsALongDelimiterBehindItsOwnBeginning) {
  EXPECT_EQ(GetWord("aaab", std::string("aab")), (Taken{"a", ""}));
}

TEST(GetWord, NeverFindsAnEmptyDelimiter) {
  EXPECT_EQ(GetWord("abc", std::string()), (Taken{"abc", ""}));
}

TEST(RGetWord, TakesTheLastWordAndItsDelimiter) {
  EXPECT_EQ(RGetWord("a:b:c", ':'), (Taken{"c", "a:b"}));
}

TEST(RGetWord, TakesAllWithoutADelimiter) {
  EXPECT_EQ(RGetWord("abc", ':'), (Taken{"abc", ""}));
}

TEST(RGetWord, OfAnEmptyTextIsEmpty) {
  EXPECT_EQ(RGetWord("", ':'), (Taken{"", ""}));
}

TEST(RGetWord, IsEmptyBehindATrailingDelimiter) {
  EXPECT_EQ(RGetWord("a:", ':'), (Taken{"", "a"}));
}

TEST(RGetWord, LeavesNothingBeforeALeadingDelimiter) {
  EXPECT_EQ(RGetWord(":a", ':'), (Taken{"a", ""}));
}

TEST(RGetWord, DoesNotTrim) {
  EXPECT_EQ(RGetWord(" a : b ", ':'), (Taken{" b ", " a "}));
}

TEST(Trim, RemovesAllKindsOfBlanksAtBothEnds) {
  EXPECT_EQ(str::Trim(" \t\r\na \t\r\n"), "a");
}

TEST(Trim, KeepsBlanksInTheMiddle) {
  EXPECT_EQ(str::Trim(" a \t b "), "a \t b");
}

TEST(Trim, LeavesNothingOfBlanks) {
  EXPECT_EQ(str::Trim(" \t\r\n"), "");
  EXPECT_EQ(str::Trim(""), "");
}

TEST(Trim, RemovesNoOtherByte) {
  for (int byte = 0; byte < 256; ++byte) {
    if (std::string_view(" \t\r\n").find(static_cast<char>(byte)) !=
        std::string_view::npos) {
      continue;
    }
    const std::string text = {static_cast<char>(byte), 'a',
                              static_cast<char>(byte)};
    EXPECT_EQ(str::Trim(text), text) << "byte " << byte;
  }
}

TEST(Append, PutsTheSeparatorBetween) {
  EXPECT_EQ(str::Append("a=1", "b=2", "&"), "a=1&b=2");
}

TEST(Append, WritesNoSeparatorAfterAnEmptyText) {
  EXPECT_EQ(str::Append("", "b=2", "&"), "b=2");
}

TEST(Append, WritesTheSeparatorBeforeAnEmptyPart) {
  EXPECT_EQ(str::Append("a=1", "", ", "), "a=1, ");
}

TEST(Append, JoinsWithoutASeparator) {
  EXPECT_EQ(str::Append("a", "b", ""), "ab");
}

template <class Number>
struct Reader;
template <>
struct Reader<int> {
  static int Read(const std::string& text) { return str::Int(text); }
};
template <>
struct Reader<std::int64_t> {
  static std::int64_t Read(const std::string& text) { return str::Int64(text); }
};

template <class Number>
class Integer : public testing::Test {
 protected:
  static Number Read(const std::string& text) {
    return Reader<Number>::Read(text);
  }
  static constexpr Number kMost = std::numeric_limits<Number>::max();
  static constexpr Number kLeast = std::numeric_limits<Number>::min();
};

using IntegerTypes = testing::Types<int, std::int64_t>;
TYPED_TEST_SUITE(Integer, IntegerTypes, );

TYPED_TEST(Integer, IsReadInDecimal) {
  EXPECT_EQ(this->Read("0"), 0);
  EXPECT_EQ(this->Read("1234567890"), 1234567890);
  EXPECT_EQ(this->Read("010"), 10);
  EXPECT_EQ(this->Read("0000000000000000000000000000000000005"), 5);
}

TYPED_TEST(Integer, MayHaveOneSign) {
  EXPECT_EQ(this->Read("+5"), 5);
  EXPECT_EQ(this->Read("-5"), -5);
  EXPECT_EQ(this->Read("-0"), 0);
}

TYPED_TEST(Integer, MayHaveWhiteSpaceAround) {
  EXPECT_EQ(this->Read(" 5"), 5);
  EXPECT_EQ(this->Read("5 "), 5);
  EXPECT_EQ(this->Read(" \t\r\n-5 \t\r\n"), -5);
}

TYPED_TEST(Integer, IsZeroForAnythingElse) {
  for (const char* text : {"",
                           " ",
                           "-",
                           "+",
                           "--5",
                           "+-5",
                           "-+5",
                           "- 5",
                           "+ 5",
                           "5 5",
                           "5,5",
                           "5.0",
                           "1e3",
                           "0x10",
                           "5-",
                           "12abc",
                           "abc",
                           "\xa0"
                           "5",
                           "\v5",
                           "5\f",
                           "99999999999999999999x",
                           "-99999999999999999999-"}) {
    EXPECT_EQ(this->Read(text), 0) << '[' << text << ']';
  }
  EXPECT_EQ(this->Read(std::string("5\0", 2)), 0);
  EXPECT_EQ(this->Read(std::string("5\0"
                                   "6",
                                   3)),
            0);
}

TYPED_TEST(Integer, ReachesBothEndsOfItsRange) {
  EXPECT_EQ(this->Read(std::to_string(this->kMost)), this->kMost);
  EXPECT_EQ(this->Read(std::to_string(this->kLeast)), this->kLeast);
}

TYPED_TEST(Integer, OutOfRangeIsTheNearestInRange) {
  EXPECT_EQ(this->Read("99999999999999999999"), this->kMost);
  EXPECT_EQ(this->Read("-99999999999999999999"), this->kLeast);
  EXPECT_EQ(this->Read("18446744073709551616"), this->kMost);
  EXPECT_EQ(this->Read(std::string(1000, '9')), this->kMost);
  EXPECT_EQ(this->Read("-" + std::string(1000, '9')), this->kLeast);
}

TEST(Int, SaturatesDirectlyBeyondItsRange) {
  EXPECT_EQ(str::Int("2147483648"), INT_MAX);
  EXPECT_EQ(str::Int("-2147483649"), INT_MIN);
  EXPECT_EQ(str::Int("4294967297"), INT_MAX);
  EXPECT_EQ(str::Int("3221225472"), INT_MAX);
}

TEST(Int64, SaturatesDirectlyBeyondItsRange) {
  EXPECT_EQ(str::Int64("9223372036854775808"), INT64_MAX);
  EXPECT_EQ(str::Int64("-9223372036854775809"), INT64_MIN);
}

TEST(Str, WritesEveryIntegerTypeToItsEnds) {
  EXPECT_EQ(str::Str(0), "0");
  EXPECT_EQ(str::Str(INT_MIN), "-2147483648");
  EXPECT_EQ(str::Str(INT_MAX), "2147483647");
  EXPECT_EQ(str::Str(UINT_MAX), "4294967295");
  EXPECT_EQ(str::Str(LONG_MIN), "-9223372036854775808");
  EXPECT_EQ(str::Str(LONG_MAX), "9223372036854775807");
  EXPECT_EQ(str::Str(ULONG_MAX), "18446744073709551615");
  EXPECT_EQ(str::Str(LLONG_MIN), "-9223372036854775808");
  EXPECT_EQ(str::Str(LLONG_MAX), "9223372036854775807");
  EXPECT_EQ(str::Str(ULLONG_MAX), "18446744073709551615");
}

class GroupsOfThree : public std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(Str, DoesNotHeedTheLocale) {
  const std::locale before = std::locale::global(
      std::locale(std::locale::classic(), new GroupsOfThree));
  EXPECT_EQ(str::Str(1234567), "1234567");
  std::locale::global(before);
}

TEST(Split, TrimsEachWord) {
  EXPECT_EQ(Split("a=1; b=2 ;\tc=3", ";"), (Strings{"a=1", "b=2", "c=3"}));
}

TEST(Split, SkipsEmptyWords) {
  EXPECT_EQ(Split(";;a;;b;", ";"), (Strings{"a", "b"}));
}

TEST(Split, KeepsAWordOfBlanksAsAnEmptyOne) {
  EXPECT_EQ(Split("a; ;b", ";"), (Strings{"a", "", "b"}));
}

TEST(Split, OfAnEmptyTextGivesNothing) { EXPECT_EQ(Split("", ";"), Strings{}); }

TEST(Split, AppendsToWhatIsThere) {
  Strings words{"before"};
  str::Split("a;b", ";", words);
  EXPECT_EQ(words, (Strings{"before", "a", "b"}));
}

TEST(Split, TakesASeparatorOfManyBytes) {
  EXPECT_EQ(Split("a, b,c, ", ", "), (Strings{"a", "b,c"}));
}

TEST(Split, TakesAllForOneWordWithoutASeparator) {
  EXPECT_EQ(Split(" a;b ", ""), Strings{"a;b"});
}

TEST(Split, LeavesTheCallersTextAlone) {
  std::string text = "a;b";
  Strings words;
  str::Split(text, ";", words);
  EXPECT_EQ(text, "a;b");
}

// Erasing each of them from the front would take minutes.
TEST(Split, TakesLinearTime) {
  std::string text;
  for (int i = 0; i < 1'500'000; ++i) text += "a;";
  const double start = ProcessorSeconds();
  EXPECT_EQ(Split(text, ";").size(), 1'500'000u);
  EXPECT_LT(ProcessorSeconds() - start, 10);
}

TEST(Decode, TurnsEveryEscapeIntoItsByte) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string expected(1, static_cast<char>(byte));
    EXPECT_EQ(str::url::Decode(Escape("%%%02X", byte)), expected) << byte;
    EXPECT_EQ(str::url::Decode(Escape("%%%02x", byte)), expected) << byte;
  }
}

TEST(Decode, TurnsPlusIntoABlankAndLeavesOtherBytesAlone) {
  std::string expected = AllBytes();
  expected['+'] = ' ';
  EXPECT_EQ(str::url::Decode(AllBytes()), expected);
}

TEST(Decode, LeavesMalformedEscapesAsTheyStand) {
  for (const char* text : {"%", "a%", "%4", "%zz", "%4z", "%z4", "%u0041",
                           "% 41", "%-1", "%0x41", "100%", "%%"}) {
    EXPECT_EQ(str::url::Decode(text), text);
  }
}

TEST(Decode, GoesOnBehindAMalformedEscape) {
  EXPECT_EQ(str::url::Decode("%zz%41+%4"), "%zzA %4");
  EXPECT_EQ(str::url::Decode("%%41"), "%A");
}

TEST(Decode, DecodesOnce) { EXPECT_EQ(str::url::Decode("%2541"), "%41"); }

TEST(Decode, PassesOverlongUtf8On) {
  EXPECT_EQ(str::url::Decode("%C0%AF"), "\xC0\xAF");
}

TEST(Decode, OfAnEmptyTextIsEmpty) { EXPECT_EQ(str::url::Decode(""), ""); }

TEST(Encode, EscapesEveryByteButTheUnreserved) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    EXPECT_EQ(str::url::Encode(text),
              IsUnreserved(byte) ? text : Escape("%%%02X", byte));
  }
}

TEST(Encode, OfAnEmptyTextIsEmpty) { EXPECT_EQ(str::url::Encode(""), ""); }

TEST(Encode, IsUndoneByDecode) {
  EXPECT_EQ(str::url::Decode(str::url::Encode(AllBytes())), AllBytes());
}

}  // namespace
