#pragma once

#include <cstdint>
#include <string>

namespace str {

std::string GetWord(std::string& text, char delimiter);
std::string GetWord(std::string& text, const std::string& delimiter);
std::string RGetWord(std::string& text, char delimiter);
std::string Trim(const std::string& text);
std::string Append(const std::string& text, const std::string& part,
                   const std::string& separator);
int Int(const std::string& text);
std::int64_t Int64(const std::string& text);
std::string Str(int value);
std::string Str(long value);

template <class Out>
void Split(std::string text, const std::string& separator, Out& out) {
  while (!text.empty()) {
    const std::string word = GetWord(text, separator);
    if (!word.empty()) out.insert(out.end(), Trim(word));
  }
}

namespace url {

std::string Decode(const std::string& text);
std::string Encode(const std::string& text);

}  // namespace url
}  // namespace str
