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

/// Parses such a form up to the end of the body.
///
/// The result depends on the bytes alone: what cannot be decided yet stays
/// unread until more bytes come.
class MultipartParser {
 public:
  /// @param boundary  1 to 70 bytes, none of them a control character
  MultipartParser(BodyReader& body, FormCollector& form,
                  const std::string& boundary)
      : body_(body), form_(form), search_("--" + boundary) {}

  /// @throws FormError  400, 408, 413 or 507
  void Parse();

 private:
  /// The headers of a part.
  struct Part;

  /// A boundary's position in the unread bytes.
  struct Marker {
    std::size_t data_end;  ///< End of the data before it.
    std::size_t end;       ///< Its own end.
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
