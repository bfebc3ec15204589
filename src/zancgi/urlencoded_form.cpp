#include "urlencoded_form.h"

#include "../common/url_decoder.h"
#include "form_collector.h"

namespace zan_cgi {
namespace {

constexpr std::size_t kNowhere = std::string_view::npos;

/// Removes an incomplete escape at the end, which the next piece may complete.
std::string_view WithoutCutEscape(std::string_view text) {
  const std::size_t last = text.rfind('%');
  const bool is_cut = last != kNowhere && text.size() - last < 3;
  return is_cut ? text.substr(0, last) : text;
}

}  // namespace

std::size_t UrlencodedParser::Take(std::string_view piece, bool is_last) {
  std::size_t taken = 0;
  while (taken < piece.size()) {
    const std::string_view rest = piece.substr(taken);
    const std::size_t end = rest.find('&');
    std::string_view field = rest.substr(0, end);
    if (end == kNowhere && !is_last) field = WithoutCutEscape(field);
    if (!field.empty()) TakeFieldPart(field);
    taken += field.size();
    if (end == kNowhere) break;
    EndField();
    ++taken;
  }
  if (is_last) EndField();
  return taken;
}

void UrlencodedParser::TakeFieldPart(std::string_view part) {
  if (!has_begun_) form_.BeginPart();
  has_begun_ = true;
  if (!is_in_value_) {
    const std::size_t end = part.find('=');
    AppendDecoded(name_, part.substr(0, end));
    if (end == kNowhere) return;
    is_in_value_ = true;
    part.remove_prefix(end + 1);
  }
  AppendDecoded(value_, part);
}

void UrlencodedParser::AppendDecoded(std::string& text,
                                     std::string_view encoded) {
  if (encoded.find_first_of("%+") == kNowhere) {
    form_.Append(text, encoded);
  } else {
    form_.Append(text, common::UrlDecoder(encoded).Run());
  }
}

/// Ends a field. Nothing between two "&" is not a field.
void UrlencodedParser::EndField() {
  if (!has_begun_) return;
  // The copies have no spare capacity, and the originals keep theirs.
  form_.AddField(std::string(name_), std::string(value_));
  name_.clear();
  value_.clear();
  is_in_value_ = false;
  has_begun_ = false;
}

}  // namespace zan_cgi
