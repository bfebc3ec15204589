/// @file
/// Random choices.
#ifndef ZANCGI_TESTS_PLAIN_DICE_H
#define ZANCGI_TESTS_PLAIN_DICE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>

#include "plain/plain_words.h"

namespace plain {

class Dice {
 protected:
  explicit Dice(std::uint64_t seed) : random_(seed) {}

  bool Chance(unsigned percent) { return Below(100) < percent; }

  std::size_t Below(std::size_t limit) { return random_() % limit; }

  /// Returns one of the texts between the bars.
  std::string OneOf(std::string_view choices) {
    const auto bars = std::count(choices.begin(), choices.end(), '|');
    std::size_t chosen = Below(static_cast<std::size_t>(bars) + 1);
    for (; chosen > 0; --chosen) TakeWord(choices, "|");
    return std::string(TakeWord(choices, "|"));
  }

  std::string Maybe(unsigned percent, std::string_view text) {
    return std::string(Chance(percent) ? text : "");
  }

  std::mt19937_64 random_;
};

}  // namespace plain

#endif
