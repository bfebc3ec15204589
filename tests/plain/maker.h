/// @file
/// Random texts of a grammar, and random damage to them.
#ifndef ZANCGI_TESTS_PLAIN_MAKER_H
#define ZANCGI_TESTS_PLAIN_MAKER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "plain/plain_words.h"

namespace plain {

class Maker {
 protected:
  /// The alternatives of each name, with bars between them. "9*" before one
  /// makes it nine times as likely. "{name}" stands for a text of that name,
  /// and "{~text}" for the text in any case.
  using Grammar = std::vector<std::pair<std::string, std::string>>;

  Maker(std::uint64_t seed, const Grammar& grammar) : random_(seed) {
    for (const auto& [name, alternatives] : grammar) {
      std::string_view rest = alternatives;
      for (auto bars = std::count(rest.begin(), rest.end(), '|'); bars >= 0;
           --bars) {
        AddAlternative(TakeWord(rest, "|"), texts_[name]);
      }
    }
  }

  bool Chance(unsigned percent) { return Below(100) < percent; }

  std::size_t Below(std::size_t limit) { return random_() % limit; }

  std::string Text(std::string_view name) {
    const std::vector<std::string>& alternatives = texts_.find(name)->second;
    std::string_view rest = alternatives[Below(alternatives.size())];
    std::string text;
    while (!rest.empty()) {
      text += TakeWord(rest, "{");
      if (rest.empty()) break;
      const std::string_view inner = TakeWord(rest, "}");
      text += inner.starts_with('~') ? InAnyCase(inner.substr(1)) : Text(inner);
    }
    return text;
  }

  /// Replaces the alternatives of a name.
  void Set(const std::string& name, std::vector<std::string> alternatives) {
    texts_[name] = std::move(alternatives);
  }

  /// Sets "boundary", and "begun" and "ended" to parts of a delimiter.
  void SetBoundary(const std::string& boundary) {
    const std::string delimiter = "\r\n--" + boundary;
    std::vector<std::string> begun;
    std::vector<std::string> ended;
    for (std::size_t at = 0; at < delimiter.size(); ++at) {
      begun.push_back(delimiter.substr(0, at));
      ended.push_back(delimiter.substr(at + 1));
    }
    Set("boundary", {boundary});
    Set("begun", std::move(begun));
    Set("ended", std::move(ended));
  }

  /// Takes, changes or adds a few bytes, mostly next to line breaks. The
  /// grammar must have a "piece", an "odd piece" and a "line break".
  void Damage(std::string& text) {
    for (std::size_t wounds = 1 + Below(3); wounds > 0; --wounds) Wound(text);
  }

 private:
  static void AddAlternative(std::string_view text,
                             std::vector<std::string>& alternatives) {
    std::size_t weight = 1;
    const std::size_t digits = text.find_first_not_of("0123456789");
    if (digits != 0 && text.substr(0, digits + 1).ends_with('*')) {
      weight = static_cast<std::size_t>(Int64(text.substr(0, digits)));
      text.remove_prefix(digits + 1);
    }
    alternatives.insert(alternatives.end(), weight, std::string(text));
  }

  std::string InAnyCase(std::string_view word) {
    std::string text(word);
    if (Chance(75)) return text;
    for (char& byte : text) {
      const bool lower = byte >= 'a' && byte <= 'z';
      const bool upper = byte >= 'A' && byte <= 'Z';
      if ((lower || upper) && Chance(50)) {
        byte = static_cast<char>(byte ^ ('a' ^ 'A'));
      }
    }
    return text;
  }

  void Wound(std::string& text) {
    if (text.empty()) return;
    std::size_t at = Below(text.size());
    const std::size_t line_break = text.find("\r\n", at);
    const bool has_line_break = line_break != std::string::npos;
    if (has_line_break && Chance(30)) at = line_break + Below(2);
    const std::size_t kind = Below(7);
    if (kind == 0) text.erase(at, 1 + Below(3));
    if (kind == 1) text.insert(at, Text("piece"));
    if (kind == 2) text.insert(at, text, Below(text.size()), Below(60));
    if (kind == 3) text.resize(at);
    if (kind == 4) text[at] = static_cast<char>(Below(256));
    if (kind == 5) text.insert(at, Text("odd piece"));
    if (kind == 6 && has_line_break) {
      text.replace(line_break, 2, Text("line break"));
    }
  }

  std::mt19937_64 random_;
  std::map<std::string, std::vector<std::string>, std::less<>> texts_;
};

}  // namespace plain

#endif
