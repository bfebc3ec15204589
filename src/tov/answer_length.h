/// @file
/// Private: checks whether an answer is as long as its own header promises.
#ifndef TOV_ANSWER_LENGTH_H
#define TOV_ANSWER_LENGTH_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tov_internal {

/// Measures an answer as its bytes pass (RFC 3875 section 6.3: header lines, an
/// empty line, the body; lines end in CR LF or LF).
///
/// Header lines are optional. If a line before the empty one is not a header,
/// the whole answer is body.
class AnswerLength {
 public:
  void Feed(std::string_view bytes);

  /// Whether no byte has passed.
  bool IsEmpty() const { return seen_ == 0; }
  /// Whether the Content-Length headers, if any, give one valid number.
  bool IsConsistent() const { return consistent_; }
  /// Whether the body is shorter than promised.
  bool IsTruncated() const { return promised_ && body_ < *promised_; }

 private:
  std::string_view TakeLinePart(std::string_view bytes);
  void EndLine();
  void NoteLength(std::string_view value);
  void TreatAsBody();

  std::uint64_t seen_ = 0;
  std::uint64_t body_ = 0;
  bool in_header_ = true;
  bool consistent_ = true;
  std::string line_;
  std::optional<std::uint64_t> promised_;
};

}  // namespace tov_internal

#endif
