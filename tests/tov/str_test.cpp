#include <gtest/gtest.h>
#include <tov/str.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <limits>
#include <locale>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using namespace std::string_literals;
using Strings = std::vector<std::string>;

/// A word that is taken off a text, and what stays there.
struct Row {
  const char* what;
  std::string text;
  std::string delimiter;
  std::string word;
  std::string rest;
};

template <class TakeWord>
void ExpectRows(const std::vector<Row>& rows, const TakeWord& take_word) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::string text = row.text;
    EXPECT_EQ(take_word(text, row.delimiter), row.word);
    EXPECT_EQ(text, row.rest);
  }
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
  const std::vector<Row> rows = {
      {"three words", "a&b&c", "&", "a", "b&c"},
      {"no delimiter", "abc", "&", "abc", ""},
      {"an empty text", "", "&", "", ""},
      {"a leading delimiter", "&a", "&", "", "a"},
      {"a trailing delimiter", "a&", "&", "a", ""},
      {"blanks", " a &\tb ", "&", " a ", "\tb "},
      {"a zero byte in the word", "a\0b=c"s, "=", "a\0b"s, "c"},
      {"a zero byte as delimiter", "a\0b=c"s, "\0"s, "a", "b=c"},
  };
  ExpectRows(rows, [](std::string& text, const std::string& delimiter) {
    return str::GetWord(text, delimiter[0]);
  });
  ExpectRows(rows, [](std::string& text, const std::string& delimiter) {
    return str::GetWord(text, delimiter);
  });
}

TEST(GetWord, TakesALongDelimiterAsAWhole) {
  const std::vector<Row> rows = {
      {"twice", "a\r\n--x\r\n--y", "\r\n--", "a", "x\r\n--y"},
      {"only a part", "a\r\n-b", "\r\n--", "a\r\n-b", ""},
      {"after its own beginning", "aaab", "aab", "a", ""},
      {"empty, which is nowhere", "abc", "", "abc", ""},
  };
  ExpectRows(rows, [](std::string& text, const std::string& delimiter) {
    return str::GetWord(text, delimiter);
  });
}

TEST(RGetWord, TakesTheLastWordAndItsDelimiter) {
  const std::vector<Row> rows = {
      {"three words", "a:b:c", ":", "c", "a:b"},
      {"no delimiter", "abc", ":", "abc", ""},
      {"an empty text", "", ":", "", ""},
      {"a trailing delimiter", "a:", ":", "", "a"},
      {"a leading delimiter", ":a", ":", "a", ""},
      {"blanks", " a : b ", ":", " b ", " a "},
  };
  ExpectRows(rows, [](std::string& text, const std::string& delimiter) {
    return str::RGetWord(text, delimiter[0]);
  });
}

TEST(Trim, RemovesAllKindsOfBlanksAtBothEnds) {
  EXPECT_EQ(str::Trim(" \t\r\na \t\r\n"), "a");
  EXPECT_EQ(str::Trim(" a \t b "), "a \t b");
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

TEST(Append, PutsTheSeparatorAfterATextThatIsNotEmpty) {
  EXPECT_EQ(str::Append("a=1", "b=2", "&"), "a=1&b=2");
  EXPECT_EQ(str::Append("", "b=2", "&"), "b=2");
  EXPECT_EQ(str::Append("a=1", "", ", "), "a=1, ");
  EXPECT_EQ(str::Append("a", "b", ""), "ab");
}

int ReadAs(const std::string& text, int /*type*/) { return str::Int(text); }
std::int64_t ReadAs(const std::string& text, std::int64_t /*type*/) {
  return str::Int64(text);
}

template <class Number>
class Integer : public testing::Test {
 protected:
  static Number Read(const std::string& text) { return ReadAs(text, Number()); }
  static constexpr Number kMost = std::numeric_limits<Number>::max();
  static constexpr Number kLeast = std::numeric_limits<Number>::min();
};

using IntegerTypes = testing::Types<int, std::int64_t>;
TYPED_TEST_SUITE(Integer, IntegerTypes, );

TYPED_TEST(Integer, IsReadInDecimalWithOneSignAndWhiteSpaceAround) {
  for (const auto& [text, value] :
       {std::pair("0", 0),
        {"1234567890", 1234567890},
        {"010", 10},
        {"0000000000000000000000000000000000005", 5},
        {"+5", 5},
        {"-5", -5},
        {"-0", 0},
        {" 5", 5},
        {"5 ", 5},
        {" \t\r\n-5 \t\r\n", -5}}) {
    EXPECT_EQ(this->Read(text), value) << text;
  }
}

TYPED_TEST(Integer, IsZeroForAnythingElse) {
  for (const std::string& text :
       {// Signs, numbers and blanks in the wrong place.
        ""s, " "s, "-"s, "+"s, "--5"s, "+-5"s, "-+5"s, "- 5"s, "+ 5"s, "5 5"s,
        "5-"s, "5,5"s, "5.0"s,
        // Other numbers, blanks and bytes.
        "1e3"s, "0x10"s, "12abc"s, "abc"s,
        "\xa0"
        "5"s,
        "\v5"s, "5\f"s, "5\0"s, "5\0006"s, "99999999999999999999x"s,
        "-99999999999999999999-"s}) {
    EXPECT_EQ(this->Read(text), 0) << '[' << text << ']';
  }
}

TYPED_TEST(Integer, ReachesBothEndsOfItsRangeAndNoFurther) {
  EXPECT_EQ(this->Read(std::to_string(this->kMost)), this->kMost);
  EXPECT_EQ(this->Read(std::to_string(this->kLeast)), this->kLeast);
  for (const std::string& digits :
       {"99999999999999999999"s, "18446744073709551616"s,
        std::string(1000, '9')}) {
    EXPECT_EQ(this->Read(digits), this->kMost);
    EXPECT_EQ(this->Read("-" + digits), this->kLeast);
  }
}

TEST(IntAndInt64, SaturatesDirectlyBeyondItsRange) {
  EXPECT_EQ(str::Int("2147483648"), INT_MAX);
  EXPECT_EQ(str::Int("-2147483649"), INT_MIN);
  EXPECT_EQ(str::Int("4294967297"), INT_MAX);
  EXPECT_EQ(str::Int("3221225472"), INT_MAX);
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
  std::string do_grouping() const override { return "\3"; }
};

TEST(Str, IgnoresTheLocale) {
  const std::locale before = std::locale::global(
      std::locale(std::locale::classic(), new GroupsOfThree));
  EXPECT_EQ(str::Str(1234567), "1234567");
  std::locale::global(before);
}

TEST(Split, TrimsEachWordAndSkipsEmptyOnes) {
  EXPECT_EQ(Split("a=1; b=2 ;\tc=3", ";"), (Strings{"a=1", "b=2", "c=3"}));
  EXPECT_EQ(Split(";;a;;b;", ";"), (Strings{"a", "b"}));
  EXPECT_EQ(Split("", ";"), Strings{});
  // A word of blanks is none of them.
  EXPECT_EQ(Split("a; ;b", ";"), (Strings{"a", "", "b"}));
}

TEST(Split, AppendsToWhatIsThere) {
  Strings words{"before"};
  str::Split("a;b", ";", words);
  EXPECT_EQ(words, (Strings{"before", "a", "b"}));
}

TEST(Split, TakesASeparatorAsAWholeAndAllWithoutOne) {
  EXPECT_EQ(Split("a, b,c, ", ", "), (Strings{"a", "b,c"}));
  EXPECT_EQ(Split(" a;b ", ""), Strings{"a;b"});
}

// Erasing each of them from the front would take minutes.
TEST(Split, TakesLinearTime) {
  std::string text;
  for (int i = 0; i < 1'500'000; ++i) text += "a;";
  const double start = ProcessorSeconds();
  EXPECT_EQ(Split(text, ";").size(), 1'500'000u);
  EXPECT_LT(ProcessorSeconds() - start, 10);
}

// Malformed escapes are in url_decoder_test.cpp.
TEST(Decode, TurnsEscapesIntoBytesAndPlusIntoABlankAndNoOtherByte) {
  std::string all = AllBytes();
  for (int byte = 0; byte < 256; ++byte) {
    const std::string expected(1, static_cast<char>(byte));
    EXPECT_EQ(str::url::Decode(Escape("%%%02X", byte)), expected) << byte;
    EXPECT_EQ(str::url::Decode(Escape("%%%02x", byte)), expected) << byte;
  }
  all['+'] = ' ';
  EXPECT_EQ(str::url::Decode(AllBytes()), all);
}

TEST(Encode, EscapesEveryByteButTheUnreservedAndIsUndoneByDecode) {
  std::string expected;
  for (int byte = 0; byte < 256; ++byte) {
    expected += IsUnreserved(byte) ? std::string(1, static_cast<char>(byte))
                                   : Escape("%%%02X", byte);
  }
  EXPECT_EQ(str::url::Encode(AllBytes()), expected);
  EXPECT_EQ(str::url::Decode(expected), AllBytes());
  EXPECT_EQ(str::url::Encode(""), "");
}

}  // namespace
