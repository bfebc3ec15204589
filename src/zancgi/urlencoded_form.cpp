#include "urlencoded_form.h"

#include <array>
#include <utility>

#include "hex_digit.h"

namespace zan_cgi {
namespace {

/// The characters that do not stand for themselves.
constexpr std::array<bool, 256> kIsSpecial = [] {
  std::array<bool, 256> table{};
  for (const unsigned char c : {'&', '=', '+', '%'}) table[c] = true;
  return table;
}();

std::size_t PlainLength(std::string_view text) {
  std::size_t length = 0;
  while (length < text.size() &&
         !kIsSpecial[static_cast<unsigned char>(text[length])]) {
    ++length;
  }
  return length;
}

}  // namespace

std::size_t UrlencodedParser::Take(std::string_view piece, bool is_last) {
  const std::size_t size = piece.size();
  while (!piece.empty()) {
    if (piece.front() == '&') {
      EndField();
      piece.remove_prefix(1);
      continue;
    }
    if (!has_begun_) form_.BeginPart();
    has_begun_ = true;
    std::string& text = is_in_value_ ? value_ : name_;
    if (const std::size_t plain = PlainLength(piece); plain > 0) {
      form_.Append(text, piece.substr(0, plain));
      piece.remove_prefix(plain);
    } else if (piece.front() == '%') {
      if (piece.size() < 3 && !is_last) break;
      const int byte = HexByteAt(piece.substr(1));
      const char decoded = byte < 0 ? '%' : static_cast<char>(byte);
      form_.Append(text, {&decoded, 1});
      piece.remove_prefix(byte < 0 ? 1 : 3);
    } else {
      if (piece.front() == '+') {
        form_.Append(text, " ");
      } else if (is_in_value_) {
        form_.Append(text, "=");
      }
      is_in_value_ = is_in_value_ || piece.front() == '=';
      piece.remove_prefix(1);
    }
  }
  if (is_last) EndField();
  return size - piece.size();
}

/// Of nothing between two "&" there is no field.
void UrlencodedParser::EndField() {
  if (!has_begun_) return;
  form_.AddField(std::exchange(name_, {}), std::exchange(value_, {}));
  is_in_value_ = false;
  has_begun_ = false;
}

}  // namespace zan_cgi
