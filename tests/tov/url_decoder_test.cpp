#include "common/url_decoder.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "plain/plain_words.h"

namespace {

void Compare(std::string text) {
  // Without spare capacity, so that a sanitizer sees a read beyond the end.
  text.shrink_to_fit();
  ASSERT_EQ(common::UrlDecoder(text).Run(), plain::UrlDecode(text)) << text;
}

TEST(UrlDecoder, FollowsTheRuleAtEachPlaceOfALongText) {
  for (const std::string piece :
       {"%41", "%", "%4", "%%41", "%4%41", "%g1", "%1g", "+", "%2B%25+",
        "\x80%ff\xff", "%2541", "%zz%u0041%-1% 41"}) {
    for (std::size_t before = 0; before < 80; ++before) {
      for (std::size_t after = 0; after < 50; ++after) {
        Compare(std::string(before, 'x') + piece + std::string(after, 'y'));
        if (HasFatalFailure()) return;
      }
    }
  }
}

TEST(UrlDecoder, FollowsTheRuleAroundTheSizeOfItsBuffer) {
  for (std::size_t size = 1000; size < 1080; ++size) {
    Compare(std::string(size, 'x'));
    Compare(std::string(size, '%'));
    Compare(std::string(size, 'x') + "%41%" + std::string(40, '+'));
    std::string escapes;
    for (std::size_t i = 0; i < size; ++i) escapes += "%41";
    Compare(escapes + "%4");
    if (HasFatalFailure()) return;
  }
}

TEST(UrlDecoder, FollowsTheRuleInRandomText) {
  std::mt19937 random(3);
  const std::string letters("%%%%0123456789abcdefABCDEFg+xyz\0\x80\xff", 34);
  for (int round = 0; round < 3000; ++round) {
    std::string text(random() % 3000, 'x');
    // From texts full of escapes to texts with hardly any.
    const auto rarity = 1 + random() % 60;
    for (char& byte : text) {
      if (random() % rarity == 0) byte = letters[random() % letters.size()];
    }
    Compare(text);
    if (HasFatalFailure()) return;
  }
}

}  // namespace
