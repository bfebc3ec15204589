/// @file
/// Private: forms of type multipart/form-data (RFC 7578, RFC 2046 section 5.1).
#ifndef ZANCGI_MULTIPART_H
#define ZANCGI_MULTIPART_H

#include <cstddef>
#include <string>
#include <string_view>

#include "body_reader.h"
#include "form_collector.h"
#include "marker_search.h"

namespace zan_cgi {

/// Reads such a form to the body's end.
///
/// What it returns depends on the bytes alone: whatever cannot be decided by
/// what has been read waits, unread, for more.
class MultipartParser {
 public:
  /// @param boundary  1 to 70 bytes, none of them a control character
  MultipartParser(BodyReader& body, FormCollector& form,
                  const std::string& boundary)
      : body_(body), form_(form), search_("--" + boundary) {}

  /// @throws FormError  400, 408, 413 or 507
  void Parse();

 private:
  /// What the headers of a part say of it.
  struct Part;

  /// What stands between parts, where it was found in what is unread.
  struct Marker {
    std::size_t data_end;  ///< Where the data before it ends.
    std::size_t end;       ///< Where it ends itself.
  };

  template <class Sink>
  void ReadData(bool begins_line, const Sink& sink);
  bool FindMarker(std::string_view text, bool begins_line, Marker& found) const;
  std::size_t CertainData(std::string_view text, bool begins_line) const;

  void EndMarkerLine();
  bool Has(std::size_t count);

  void ReadPart();
  Part ReadHeaders();
  bool ReadHeader(std::size_t& budget);
  std::string_view NextLine(std::size_t& budget);

  void ReadField(Part& part);
  void ReadUpload(Part& part);

  BodyReader& body_;
  FormCollector& form_;
  const MarkerSearch search_;  ///< For "--" and the boundary.
  std::string value_;          ///< The value being read.
  std::string header_;         ///< The header being read.
  bool is_closed_ = false;     ///< The closing boundary has come.
};

}  // namespace zan_cgi

#endif
