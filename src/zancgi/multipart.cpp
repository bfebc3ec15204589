#include "multipart.h"

#include <zancgi/form.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <type_traits>
#include <utility>

#include "body_reader.h"
#include "form_collector.h"
#include "header_words.h"
#include "http_text.h"
#include "marker_search.h"
#include "upload_spool.h"

namespace zan_cgi {
namespace {

constexpr std::size_t kNowhere = std::string_view::npos;

[[noreturn]] void Refuse(const char* rule) { throw FormError(400, rule); }

[[noreturn]] void RefuseLineEnd() {
  Refuse("a line of the form does not end in CR LF");
}

[[noreturn]] void RefuseHeaderLength(std::size_t limit) {
  throw FormError(413, "the headers of a part are longer than " +
                           std::to_string(limit) + " bytes");
}

[[noreturn]] void RefuseEnd() {
  Refuse("the form ends without its closing boundary");
}

std::string_view WithoutIndent(std::string_view line) {
  while (!line.empty() && IsBlank(line.front())) line.remove_prefix(1);
  return line;
}

/// The bytes before a place in the data of a part.
enum class LineStart { kNone, kAfterCrLf, kAfterOther };

/// @param begins_line  whether the text follows a CR LF or is the first of the
///   body
LineStart LineStartAt(std::string_view text, std::size_t place,
                      bool begins_line) {
  if (place == 0) {
    return begins_line ? LineStart::kAfterCrLf : LineStart::kNone;
  }
  const char before = text[place - 1];
  if (before == '\r') return LineStart::kAfterOther;
  if (before != '\n') return LineStart::kNone;
  return place > 1 && text[place - 2] == '\r' ? LineStart::kAfterCrLf
                                              : LineStart::kAfterOther;
}

}  // namespace

/// The headers of a part.
struct MultipartParser::Part {
  std::optional<std::string> name;
  std::optional<std::string> file_name;
  std::optional<std::string> type;

  /// @param header  one header, unfolded, with a colon
  void Take(std::string_view header) {
    const std::size_t colon = header.find(':');
    const std::string_view header_name = Trimmed(header.substr(0, colon));
    const std::string_view value = Trimmed(header.substr(colon + 1));
    if (EqualWithoutCase(header_name, "Content-Disposition")) {
      TakeDisposition(value);
    } else if (EqualWithoutCase(header_name, "Content-Type")) {
      if (type) Refuse("a part has two media types");
      type = value;
    } else if (EqualWithoutCase(header_name, "Content-Transfer-Encoding")) {
      TakeEncoding(value);
    } else if (!IsMimeToken(header_name)) {
      Refuse("a header of a part has no valid name");
    }
  }

  /// Checks the headers. Without a plain file name the extended one is used.
  void Complete() {
    if (!has_disposition_) Refuse("a part has no disposition");
    if (!name) Refuse("a part has no name");
    if (file_name || !extended_name_) return;
    file_name = DecodeExtendedValue(*extended_name_);
    if (!file_name) RefuseEncoding();
  }

 private:
  [[noreturn]] static void RefuseEncoding() {
    Refuse("a file name is not encoded as it must be");
  }

  void TakeDisposition(std::string_view value) {
    if (has_disposition_) Refuse("a part has two dispositions");
    has_disposition_ = true;
    if (!EqualWithoutCase(FirstWord(value), "form-data")) {
      Refuse("the disposition of a part is not form-data");
    }
    ParameterReader parameters(value, Escapes::kQuotesAndSelf);
    while (parameters.Next()) {
      if (parameters.Is("name")) {
        SetOnce(name, parameters);
      } else if (parameters.Is("filename")) {
        SetOnce(file_name, parameters);
      } else if (parameters.Is("filename*")) {
        if (parameters.is_quoted()) RefuseEncoding();
        SetOnce(extended_name_, parameters);
      }
    }
    if (!parameters.IsComplete()) {
      Refuse("the disposition of a part is malformed");
    }
  }

  static void SetOnce(std::optional<std::string>& target,
                      ParameterReader& parameter) {
    if (target) Refuse("a parameter of a disposition comes twice");
    target = std::move(parameter.value());
  }

  void TakeEncoding(std::string_view value) {
    if (has_encoding_) Refuse("a part has two transfer encodings");
    has_encoding_ = true;
    for (const char* const plain : {"7bit", "8bit", "binary"}) {
      if (EqualWithoutCase(value, plain)) return;
    }
    Refuse("a part is encoded for the transfer");
  }

  bool has_disposition_ = false;
  bool has_encoding_ = false;
  std::optional<std::string> extended_name_;
};

void MultipartParser::Parse() {
  const auto ignore = [](std::string_view /*data*/) {};
  // The text before the first part and after the last one is ignored.
  ReadData(true, ignore);
  while (!is_closed_) ReadPart();
  do {
    body_.Consume(body_.Unread().size());
  } while (body_.ReadMore());
}

/// Passes the data before the next boundary to a function, piece by piece, and
/// consumes it with the boundary's line.
/// @param begins_line  whether the data begins a line. In an empty part, the
///   line end after the headers may belong to the boundary.
template <class Sink>
void MultipartParser::ReadData(bool begins_line, const Sink& sink) {
  Marker marker;
  while (!FindMarker(body_.Unread(), begins_line, marker)) {
    const std::size_t count = CertainData(body_.Unread(), begins_line);
    if (count > 0) {
      sink(body_.Unread().substr(0, count));
      body_.Consume(count);
      // CertainData() leaves a line end at the end of the text unread.
      begins_line = false;
    }
    if (!body_.ReadMore()) RefuseEnd();
  }
  if (marker.data_end > 0) sink(body_.Unread().substr(0, marker.data_end));
  body_.Consume(marker.end);
  EndMarkerLine();
}

/// Finds "--" and the boundary at the beginning of a line. Elsewhere it is
/// data.
bool MultipartParser::FindMarker(std::string_view text, bool begins_line,
                                 Marker& found) const {
  for (std::size_t from = 0;;) {
    const std::size_t place = search_.Find(text, from);
    if (place == kNowhere) return false;
    const std::size_t end = place + search_.marker().size();
    switch (LineStartAt(text, place, begins_line)) {
      case LineStart::kAfterCrLf:
        found = {place == 0 ? 0 : place - 2, end};
        return true;
      case LineStart::kAfterOther:
        RefuseLineEnd();
      case LineStart::kNone:
        // The marker holds no line end, so no other one begins in it.
        from = end;
    }
  }
}

/// Returns how much of a text without a marker is data, whatever follows. The
/// rest may be a line end and the beginning of a marker.
std::size_t MultipartParser::CertainData(std::string_view text,
                                         bool begins_line) const {
  const std::string_view marker(search_.marker());
  if (begins_line && marker.starts_with(text)) return 0;
  const std::string_view tail =
      text.substr(text.size() - std::min(text.size(), marker.size()));
  const std::size_t line_end = tail.find_last_of("\r\n");
  if (line_end == kNowhere || !marker.starts_with(tail.substr(line_end + 1))) {
    return text.size();
  }
  const std::size_t place = text.size() - tail.size() + line_end;
  return place > 0 && text[place] == '\n' && text[place - 1] == '\r' ? place - 1
                                                                     : place;
}

/// Consumes the rest of the boundary's line.
void MultipartParser::EndMarkerLine() {
  if (Has(2) && body_.Unread().starts_with("--")) {
    body_.Consume(2);
    is_closed_ = true;
  }
  while (Has(1) && IsBlank(body_.Unread().front())) body_.Consume(1);
  if (!Has(1)) {
    if (!is_closed_) RefuseEnd();
    return;
  }
  const char next = body_.Unread().front();
  if (!Has(2) || !body_.Unread().starts_with("\r\n")) {
    if (next == '\r' || next == '\n') RefuseLineEnd();
    Refuse("a boundary is followed by something else");
  }
  body_.Consume(2);
}

/// Reads until this many bytes are unread. Returns false if the body ends
/// before.
bool MultipartParser::Has(std::size_t count) {
  while (body_.Unread().size() < count) {
    if (!body_.ReadMore()) return false;
  }
  return true;
}

void MultipartParser::ReadPart() {
  form_.BeginPart();
  Part part = ReadHeaders();
  if (part.file_name) {
    ReadUpload(part);
  } else {
    ReadField(part);
  }
}

MultipartParser::Part MultipartParser::ReadHeaders() {
  Part part;
  std::size_t budget = form_.limits().header;
  while (ReadHeader(budget)) part.Take(header_);
  part.Complete();
  return part;
}

/// Reads the next header and its continuation lines. Returns false at the empty
/// line after the last header.
bool MultipartParser::ReadHeader(std::size_t& budget) {
  header_ = NextLine(budget);
  if (header_.empty()) return false;
  if (IsBlank(header_.front())) {
    Refuse("the first line of a header is indented");
  }
  if (header_.starts_with(search_.marker())) {
    Refuse("a boundary stands among the headers of a part");
  }
  if (header_.find(':') == kNowhere) Refuse("a header of a part has no colon");
  // A line that begins with a blank continues the previous one.
  while (Has(1) && IsBlank(body_.Unread().front())) {
    header_.append(" ").append(WithoutIndent(NextLine(budget)));
  }
  return true;
}

/// Returns the next header line without its line end. It is valid until the
/// next read.
/// @param budget  the bytes left for headers of this part; reduced
std::string_view MultipartParser::NextLine(std::size_t& budget) {
  std::size_t end = 0;
  for (std::size_t searched = 0;
       (end = body_.Unread().find('\n', searched)) == kNowhere;) {
    searched = body_.Unread().size();
    if (searched >= budget) RefuseHeaderLength(form_.limits().header);
    if (!body_.ReadMore()) RefuseEnd();
  }
  const std::string_view line = body_.Unread().substr(0, end + 1);
  if (line.size() > budget) RefuseHeaderLength(form_.limits().header);
  budget -= line.size();
  body_.Consume(line.size());
  if (line.find('\r') + 2 != line.size()) RefuseLineEnd();
  if (line.find('\0') != kNowhere)
    Refuse("a header of a part holds a zero byte");
  return line.substr(0, line.size() - 2);
}

void MultipartParser::ReadField(Part& part) {
  form_.CountText(part.name->size());
  value_.clear();
  ReadData(true, [&](std::string_view data) { form_.Append(value_, data); });
  // The copy has no spare capacity, and value_ keeps its own for the next
  // value.
  form_.AddField(*std::move(part.name), std::string(value_));
}

/// Stores an upload. A file input without a chosen file has an empty name and
/// no bytes, and is not an upload.
void MultipartParser::ReadUpload(Part& part) {
  Form::Upload upload{*std::move(part.name), *std::move(part.file_name),
                      std::move(part.type).value_or(""), 0};
  UploadSpool& spool = form_.spool();
  bool is_open = false;
  const auto open = [&] {
    if (std::exchange(is_open, true)) return;
    form_.CountText(upload.field.size() + upload.name.size() +
                    upload.type.size());
    spool.Begin();
  };
  if (!upload.name.empty()) open();
  ReadData(true, [&](std::string_view data) {
    open();
    spool.Write(data);
    upload.size += static_cast<std::int64_t>(data.size());
  });
  if (!is_open) return;
  spool.End();
  form_.AddUpload(std::move(upload));
}

}  // namespace zan_cgi
