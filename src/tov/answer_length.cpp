#include "answer_length.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <system_error>

namespace tov_internal {
namespace {

/// Longer header lines are cut here. Every name that matters is shorter.
constexpr std::size_t kLineLimit = 1024;

/// RFC 9110 section 5.6.2.
bool IsTokenByte(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') ||
         std::string_view("!#$%&'*+-.^_`|~").find(byte) !=
             std::string_view::npos;
}

bool IsToken(std::string_view text) {
  return std::all_of(text.begin(), text.end(), IsTokenByte);
}

/// Whether this can be the beginning of a header line.
bool MayBeHeader(std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) {
    return line.size() < kLineLimit && IsToken(line);
  }
  return colon > 0 && IsToken(line.substr(0, colon));
}

char LowerCase(char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a')
                                    : byte;
}

bool EqualIgnoringCase(std::string_view left, std::string_view right) {
  return std::equal(
      left.begin(), left.end(), right.begin(), right.end(),
      [](char a, char b) { return LowerCase(a) == LowerCase(b); });
}

std::string_view WithoutBlanks(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

}  // namespace

void AnswerLength::Feed(std::string_view bytes) {
  seen_ += bytes.size();
  while (in_header_ && !bytes.empty()) bytes = TakeLinePart(bytes);
  body_ += bytes.size();
}

std::string_view AnswerLength::TakeLinePart(std::string_view bytes) {
  const std::size_t end = bytes.find('\n');
  const std::string_view part = bytes.substr(0, end);
  line_.append(part.substr(0, kLineLimit - line_.size()));
  if (end == std::string_view::npos) {
    const bool maybe_end = line_ == "\r";
    if (!maybe_end && !MayBeHeader(line_)) TreatAsBody();
    return {};
  }
  EndLine();
  return bytes.substr(end + 1);
}

void AnswerLength::EndLine() {
  std::string_view line = line_;
  if (line.ends_with('\r')) line.remove_suffix(1);
  const std::size_t colon = line.find(':');
  if (line.empty()) {
    in_header_ = false;
  } else if (colon == std::string_view::npos || !MayBeHeader(line)) {
    TreatAsBody();
  } else if (EqualIgnoringCase(line.substr(0, colon), "Content-Length")) {
    NoteLength(WithoutBlanks(line.substr(colon + 1)));
  }
  line_.clear();
}

void AnswerLength::NoteLength(std::string_view value) {
  std::uint64_t length = 0;
  const char* end = value.data() + value.size();
  const auto [stop, error] = std::from_chars(value.data(), end, length);
  const bool number = error == std::errc() && stop == end;
  if (!number || (promised_ && *promised_ != length)) consistent_ = false;
  promised_ = length;
}

void AnswerLength::TreatAsBody() {
  in_header_ = false;
  consistent_ = true;
  promised_.reset();
}

}  // namespace tov_internal
