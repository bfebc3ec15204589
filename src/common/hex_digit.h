/// @file
/// Private: bytes that are written in hexadecimal digits.
#ifndef COMMON_HEX_DIGIT_H
#define COMMON_HEX_DIGIT_H

#include <array>
#include <string_view>

namespace common {

inline constexpr std::string_view kUpperHexDigits = "0123456789ABCDEF";
inline constexpr std::string_view kLowerHexDigits = "0123456789abcdef";

/// Maps each hexadecimal digit to its value and all other bytes to -1.
constexpr std::array<short, 256> MakeHexValues() {
  std::array<short, 256> values{};
  values.fill(-1);
  for (unsigned char value = 0; value < 16; ++value) {
    for (const std::string_view digits : {kUpperHexDigits, kLowerHexDigits}) {
      values[static_cast<unsigned char>(digits[value])] = value;
    }
  }
  return values;
}

/// Returns the byte that the first two digits of a text encode; -1 unless the
/// text begins with two digits.
inline int HexByteAt(std::string_view text) {
  static constexpr auto kValues = MakeHexValues();
  if (text.size() < 2) return -1;
  const int high = kValues[static_cast<unsigned char>(text[0])];
  const int low = kValues[static_cast<unsigned char>(text[1])];
  return (high | low) < 0 ? -1 : high * 16 + low;
}

}  // namespace common

#endif
