/// @file
/// Private: forms of type application/x-www-form-urlencoded (URL Standard,
/// section 5.1), query strings among them.
#ifndef ZANCGI_URLENCODED_FORM_H
#define ZANCGI_URLENCODED_FORM_H

#include <cstddef>
#include <string>
#include <string_view>

#include "form_collector.h"

namespace zan_cgi {

/// Parses such a form piece by piece.
class UrlencodedParser {
 public:
  explicit UrlencodedParser(FormCollector& form) : form_(form) {}

  /// Parses as much of a piece as possible and returns its length: all of it
  /// except an incomplete escape at the end.
  /// @param is_last  no other piece follows
  /// @throws FormError  413
  std::size_t Take(std::string_view piece, bool is_last);

 private:
  void TakeFieldPart(std::string_view part);
  void AppendDecoded(std::string& text, std::string_view encoded);
  void EndField();

  FormCollector& form_;
  std::string name_;
  std::string value_;
  bool is_in_value_ = false;
  bool has_begun_ = false;  ///< The field is not empty.
};

}  // namespace zan_cgi

#endif
