/// @file
/// Forms by chance: mostly honest ones in odd but allowed spellings, of which
/// is known what they hold, and damaged ones.
#ifndef ZANCGI_TESTS_PLAIN_FORM_MAKER_H
#define ZANCGI_TESTS_PLAIN_FORM_MAKER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "plain/plain_form.h"

namespace plain {

struct MadeForm {
  FormRequest request;
  /// What must come of it, unless the form is damaged or doubtful.
  std::optional<PlainForm> known;
};

class FormMaker {
 public:
  explicit FormMaker(std::uint64_t seed) : random_(seed) {}

  /// Another form each time.
  MadeForm Make() {
    MadeForm made = Chance(75)   ? MakeMultipart()
                    : Chance(50) ? MakeEncoded()
                                 : MakeQuery();
    SetLimits(made);
    if (Chance(35)) {
      Damage(made.request);
      made.known.reset();
    }
    DeclareLength(made);
    return made;
  }

 private:
  /// The least limits within which the form is taken.
  struct Needs {
    std::size_t value = 0;
    std::size_t values = 0;
    std::size_t parts = 0;
    std::size_t header = 0;
  };

  bool Chance(unsigned percent) { return Below(100) < percent; }

  std::size_t Below(std::size_t limit) { return random_() % limit; }

  std::string OneOf(std::initializer_list<std::string_view> choices) {
    return std::string(choices.begin()[Below(choices.size())]);
  }

  std::string Maybe(unsigned percent, std::string_view text) {
    return std::string(Chance(percent) ? text : "");
  }

  std::string Blanks() {
    return Chance(80) ? "" : OneOf({" ", "\t", "  ", " \t "});
  }

  std::string InAnyCase(std::string text) {
    if (Chance(75)) return text;
    for (char& byte : text) {
      const bool lower = byte >= 'a' && byte <= 'z';
      const bool upper = byte >= 'A' && byte <= 'Z';
      if ((lower || upper) && Chance(50)) {
        byte = static_cast<char>(byte ^ ('a' ^ 'A'));
      }
    }
    return text;
  }

  // URL-encoded forms.

  MadeForm MakeQuery() {
    MadeForm made;
    made.request.method = OneOf({"GET", "HEAD"});
    made.request.content_type = OneOf({"", "text/plain"});
    made.known.emplace();
    made.request.query = EncodedFields(*made.known);
    return made;
  }

  MadeForm MakeEncoded() {
    MadeForm made;
    made.request.method = OneOf({"POST", "PUT"});
    made.request.query = OneOf({"", "a=query"});
    made.request.content_type =
        Blanks() + InAnyCase("application/x-www-form-urlencoded") + Blanks() +
        OneOf({"", "", "; charset=UTF-8", ";;", ";\"", "; boundary=XY"});
    made.known.emplace();
    made.request.body = EncodedFields(*made.known);
    return made;
  }

  std::string EncodedFields(PlainForm& form) {
    needs_ = {};
    std::string text;
    for (std::size_t count = Below(6); count > 0; --count) {
      text += Maybe(10, "&&");
      text += EncodedField(form);
      text += '&';
    }
    if (!text.empty() && Chance(80)) text.pop_back();
    needs_.parts = form.fields.size();
    return text;
  }

  std::string EncodedField(PlainForm& form) {
    PlainField field;
    std::string text = EncodedText(field.name);
    if (text.empty() || Chance(85)) {
      text += "=" + EncodedText(field.value);
      if (Chance(10)) {
        text += '=';
        field.value += '=';
      }
    }
    needs_.value =
        std::max({needs_.value, field.name.size(), field.value.size()});
    needs_.values += field.name.size() + field.value.size();
    form.fields.push_back(field);
    return text;
  }

  std::string EncodedText(std::string& decoded) {
    using Piece = std::pair<std::string_view, std::string_view>;
    static constexpr Piece kPieces[] = {
        {"a", "a"},
        {"b", "b"},
        {"+", " "},
        {"%20", " "},
        {"%41", "A"},
        {"%2B", "+"},
        {"%2f", "/"},
        {"%26", "&"},
        {"%3D", "="},
        {"%25", "%"},
        {"%c3%A9", "\xc3\xa9"},
        {"%00", std::string_view("\0", 1)},
        {"%0d%0A", "\r\n"},
        {"%zz", "%zz"},
        {"%4g", "%4g"},
        {"%%41", "%A"},
        {"\xff", "\xff"},
        {";", ";"},
        {"--XY", "--XY"},
        {"text", "text"},
    };
    std::string text;
    for (std::size_t count = Below(5); count > 0; --count) {
      const Piece& piece = kPieces[Below(std::size(kPieces))];
      text += piece.first;
      decoded += piece.second;
    }
    if (Chance(5)) {
      const std::string cut_short = OneOf({"%", "%4"});
      text += cut_short;
      decoded += cut_short;
    }
    return text;
  }

  // Multipart forms.

  MadeForm MakeMultipart() {
    needs_ = {};
    certain_ = true;
    MadeForm made;
    made.request.method = OneOf({"POST", "POST", "PUT", "get"});
    boundary_ = Chance(97) ? BoundaryValue() : DoubtfulBoundary();
    made.request.content_type = Blanks() + InAnyCase("multipart/form-data") +
                                Blanks() + ContentTypeParameters();
    made.known.emplace();
    std::string& body = made.request.body;
    body = Preamble();
    for (std::size_t count = Below(5); count > 0; --count) {
      body += Part(*made.known);
      ++needs_.parts;
    }
    body += "--" + boundary_ + "--" + Blanks();
    if (Chance(85)) body += "\r\n" + Epilogue();
    if (!certain_) made.known.reset();
    return made;
  }

  std::string DoubtfulBoundary() {
    certain_ = false;
    if (Chance(30)) return std::string(69 + Below(4), 'x');
    return OneOf({"", " ", "XY ", " XY", "X\tY", "X\x01Y", "X\x7fY", "X\rY"});
  }

  std::string BoundaryValue() {
    if (Chance(5)) return std::string(1 + Below(70), 'x');
    return OneOf({"XY", "XY", "XY", "XY", "B", "abcabc", "-", "--", "---B",
                  "B--", "a b", "a:b", "a\"b", "a\\b", "a;b=c", "'B'", "\xe4/?",
                  "----WebKitFormBoundary7MA4YWxkTrZu0gW",
                  "---------------------------9051914041544843365972754266"});
  }

  std::string ContentTypeParameters() {
    std::string text;
    while (Chance(15)) {
      text += ";" + Blanks() +
              OneOf({"", "charset=utf-8", "x=\"a; boundary=b\"", "y = z",
                     "boundary*=b", "z=\"\\\"\""});
    }
    text += ";" + Maybe(80, " ") + InAnyCase("boundary") + Blanks() + "=" +
            Blanks() + BoundaryText() + Blanks();
    if (!certain_ && Chance(30)) text += "; Boundary=" + BoundaryText();
    text += OneOf({"", "", "", ";", "; charset=utf-8", " ;x=\"\"", ";;"});
    return text;
  }

  std::string BoundaryText() {
    if (boundary_.find_first_of(" \";") == std::string::npos && Chance(70)) {
      return boundary_;
    }
    std::string text = "\"";
    for (const char byte : boundary_) {
      if (byte == '"' || byte == '\\' || Chance(5)) text += '\\';
      text += byte;
    }
    return text + '"';
  }

  std::string Preamble() {
    if (Chance(80)) return "";
    return Content() + "\r\n";
  }

  std::string Epilogue() {
    if (Chance(80)) return "";
    return OneOf({"", "\n", "--", "\r\n--"}) + boundary_ + Content();
  }

  std::string Part(PlainForm& form) {
    PlainUpload upload;
    upload.field = Name();
    const bool is_upload = Chance(45);
    const std::string disposition = Disposition(is_upload, upload);
    const std::string headers = Headers(disposition, upload.type);
    upload.content = Content();
    if (is_upload) {
      AddUpload(upload, form);
    } else {
      AddField({upload.field, upload.content}, form);
    }
    needs_.header = std::max(needs_.header, headers.size() + 2);
    std::string part = "--" + boundary_ + Blanks() + "\r\n" + headers + "\r\n";
    // The empty line's break may be that of the delimiter.
    if (!upload.content.empty() || Chance(80)) part += upload.content + "\r\n";
    return part;
  }

  void AddField(const PlainField& field, PlainForm& form) {
    needs_.value = std::max(needs_.value, field.value.size());
    needs_.values += field.name.size() + field.value.size();
    form.fields.push_back(field);
  }

  void AddUpload(const PlainUpload& upload, PlainForm& form) {
    if (upload.name.empty() && upload.content.empty()) return;
    needs_.values +=
        upload.field.size() + upload.name.size() + upload.type.size();
    form.uploads.push_back(upload);
  }

  /// @param type  set to what the headers give
  std::string Headers(const std::string& disposition, std::string& type) {
    std::vector<std::string> lines = {HeaderName("Content-Disposition") +
                                      disposition + Blanks() + "\r\n"};
    if (Chance(50)) {
      type = OneOf({"", "text/plain", "image/PNG", "a/b; charset=\"x\"", "\""});
      lines.push_back(HeaderName("Content-Type") + type + Blanks() + "\r\n");
    }
    if (Chance(10)) {
      lines.push_back(HeaderName("Content-Transfer-Encoding") +
                      InAnyCase(OneOf({"7bit", "8bit", "binary"})) + Blanks() +
                      "\r\n");
    }
    while (Chance(10)) {
      lines.push_back(OneOf({"X-Other: 1\r\n", "X:\r\n", "X: a\r\n\tb\r\n \r\n",
                             "Content-Length: 7\r\n", "x : --XY\r\n",
                             "Content-Type2: y\r\n", "X: \xff\";\r\n"}));
    }
    std::shuffle(lines.begin(), lines.end(), random_);
    std::string headers;
    for (const std::string& line : lines) headers += line;
    return headers;
  }

  std::string HeaderName(std::string name) {
    return InAnyCase(std::move(name)) + Blanks() + ":" + FoldedBlank();
  }

  /// White space between two words of a header.
  std::string FoldedBlank() {
    if (Chance(5)) return OneOf({"\r\n ", "\r\n\t", "\r\n \r\n\t "});
    return Chance(85) ? " " : Blanks();
  }

  /// @param upload  its name is set when there is one
  std::string Disposition(bool is_upload, PlainUpload& upload) {
    std::vector<std::string> parameters = {Parameter("name", upload.field)};
    if (is_upload && Chance(80)) {
      upload.name = FileName();
      parameters.push_back(Parameter("filename", upload.name));
      if (Chance(15)) {
        parameters.push_back(OneOf({"filename*=utf-8''other%C3%A9",
                                    "FileName*=UTF-8''", "filename*=%zz"}));
      }
    } else if (is_upload) {
      const std::string value =
          Chance(80) ? ExtendedName(upload.name) : DoubtfulExtendedName();
      parameters.push_back(InAnyCase("filename*") + Blanks() + "=" + Blanks() +
                           value);
    }
    if (Chance(10)) parameters.push_back("x=\"; name=no\"");
    if (Chance(5)) parameters.push_back("name*=UTF-8''no");
    if (Chance(5)) parameters.push_back("");
    std::shuffle(parameters.begin(), parameters.end(), random_);
    std::string text = InAnyCase("form-data");
    for (const std::string& parameter : parameters) {
      text += Blanks() + ";" + FoldedBlank() + parameter;
    }
    return text + Maybe(5, ";");
  }

  std::string Parameter(const std::string& name, const std::string& value) {
    return InAnyCase(name) + Blanks() + "=" + Blanks() + ParameterText(value);
  }

  std::string ParameterText(const std::string& value) {
    const bool needs_quotes =
        value.empty() || value.find_first_of(" \t\";\x01") != std::string::npos;
    if (!needs_quotes && Chance(20)) return value;
    std::string text = "\"";
    for (std::size_t i = 0; i < value.size(); ++i) {
      const bool between_words = i > 0 && i + 1 < value.size() &&
                                 value[i - 1] != ' ' && value[i + 1] != ' ' &&
                                 value[i + 1] != '\t';
      if (value[i] == '"' || (value[i] == '\\' &&
                              (BackslashNeedsEscape(value, i) || Chance(50)))) {
        text += '\\';
        text += value[i];
      } else if (value[i] == ' ' && between_words && Chance(10)) {
        text += "\r\n" + OneOf({" ", "\t", "  "});
      } else {
        text += value[i];
      }
    }
    return text + '"';
  }

  /// Alone it would escape what follows.
  static bool BackslashNeedsEscape(const std::string& value, std::size_t at) {
    return at + 1 == value.size() || value[at + 1] == '"' ||
           value[at + 1] == '\\';
  }

  std::string Name() {
    if (Chance(60)) return OneOf({"a", "b", "c", "file", "name", "filename"});
    return OneOf({"", "a b", "a\"b", "a\\b", "a\\", "a;b", "%22", "a=b",
                  "\xc3\xa9", "--XY", "x[y]", "\"", "\x01", "a  b"});
  }

  std::string FileName() {
    if (Chance(40)) return OneOf({"f", "g.txt", "photo.jpg"});
    return OneOf({"", "", "a b c.txt", "C:\\dir\\n.txt", "C:\\", "a\"b", "..",
                  "../x", "x;names.txt", "%22", "\xc3\xa9", "\xff", "\\\\s\\d",
                  "a\\\"b", "\t", "f;"});
  }

  std::string ExtendedName(std::string& name) {
    const bool latin = Chance(30);
    std::string text = InAnyCase(latin ? "ISO-8859-1" : "UTF-8") + "'" +
                       OneOf({"", "en", "de-x"}) + "'";
    for (std::size_t count = Below(4); count > 0; --count) {
      const std::string plain = OneOf({"a", "Z9", ".txt", "!#$&+-^_`|~"});
      text += plain;
      name += plain;
    }
    if (Chance(50)) {
      text += "%20%2f%22";
      name += " /\"";
    }
    if (Chance(50)) {
      text += latin ? "%e9%A3" : "%c3%a9%C2%A3";
      name += "\xc3\xa9\xc2\xa3";
    }
    return text;
  }

  std::string DoubtfulExtendedName() {
    certain_ = false;
    std::string text = OneOf({"UTF-8", "UTF-8", "utf-8", "ISO-8859-1", ""}) +
                       OneOf({"''", "''", "'en'", "'", "'''"});
    for (std::size_t count = 1 + Below(3); count > 0; --count) {
      text += OneOf({"a",
                     "%c2%80",
                     "%c1%bf",
                     "%c3",
                     "%80",
                     "%e0%a0%80",
                     "%e0%9f%bf",
                     "%e2%82",
                     "%ed%9f%bf",
                     "%ed%a0%80",
                     "%ef%bf%bf",
                     "%f0%90%80%80",
                     "%f0%8f%bf%bf",
                     "%f0%90%80",
                     "%f4%8f%bf%bf",
                     "%f4%90%80%80",
                     "%f5%80%80%80",
                     "%00",
                     "%0a",
                     "%",
                     "%4",
                     "/",
                     "*",
                     "\xe4"});
    }
    return Chance(90) ? text : '"' + text + '"';
  }

  /// Bytes without anything that looks like a delimiter at the start of a line.
  std::string Content() {
    std::string content;
    for (std::size_t pieces = Below(8); pieces > 0; --pieces) {
      content += Piece();
    }
    if (Chance(1)) content += std::string(Below(3000), 'z');
    return HoldsDelimiter(content) ? "x" : content;
  }

  bool HoldsDelimiter(const std::string& content) const {
    const std::string text = "\n" + content;
    return text.find("\n--" + boundary_) != std::string::npos ||
           text.find("\r--" + boundary_) != std::string::npos;
  }

  std::string Piece() {
    const std::string delimiter = "\r\n--" + boundary_;
    if (Chance(20)) return delimiter.substr(0, Below(delimiter.size()));
    if (Chance(5)) return delimiter.substr(1 + Below(delimiter.size()));
    return OneOf({"\r", "\n", "\r\n", "\r\r\n", "-", "--", "\r\n-", "\r\n--",
                  "\n\n", "x", "text", "a=1&b=2", std::string_view("\0", 1),
                  "\xff", " ", "\t", "Content-Disposition: "});
  }

  // Limits and length.

  void SetLimits(MadeForm& made) {
    if (Chance(70)) return;
    if (Chance(40)) return SetAnyLimits(made);
    PlainLimits& limits = made.request.limits;
    limits.value = needs_.value;
    limits.values = needs_.values;
    limits.parts = needs_.parts;
    if (needs_.header > 0) limits.header = needs_.header;
    limits.body = static_cast<std::int64_t>(made.request.body.size());
    if (Chance(50)) ExceedOneLimit(made);
  }

  void SetAnyLimits(MadeForm& made) {
    PlainLimits& limits = made.request.limits;
    limits.value = Below(40);
    limits.values = Below(60);
    limits.parts = Below(5);
    limits.header = 40 + Below(80);
    limits.body = static_cast<std::int64_t>(Below(800));
    made.known.reset();
  }

  void ExceedOneLimit(MadeForm& made) {
    PlainLimits& limits = made.request.limits;
    const bool exceeded[] = {
        Lower(limits.value), Lower(limits.values), Lower(limits.parts),
        needs_.header > 0 && Lower(limits.header), Lower(limits.body)};
    const bool body_counts = !made.request.body.empty();
    const bool any = exceeded[0] || exceeded[1] || exceeded[2] || exceeded[3] ||
                     (exceeded[4] && body_counts);
    if (any && made.known) made.known = PlainForm{413, {}, {}};
  }

  /// By one, by chance.
  template <class Limit>
  bool Lower(Limit& limit) {
    if (limit == 0 || Chance(70)) return false;
    --limit;
    return true;
  }

  void DeclareLength(MadeForm& made) {
    FormRequest& request = made.request;
    request.declared_length = static_cast<std::int64_t>(request.body.size());
    if (Chance(4)) {
      request.declared_length += 1 + static_cast<std::int64_t>(Below(20));
      const bool in_body = request.method != "GET" && request.method != "HEAD";
      if (in_body && made.known && made.known->status == 0) {
        const bool too_long = request.declared_length > request.limits.body;
        made.known = PlainForm{too_long ? 413 : 400, {}, {}};
      }
    } else if (Chance(4)) {
      request.body += OneOf({"x", "\r\n", "--XY--\r\n", "&a=1"});
    }
  }

  // Damage.

  void Damage(FormRequest& request) {
    if (Chance(15)) {
      Wound(request.content_type);
      std::erase(request.content_type, '\0');
    }
    std::string& text = request.body.empty() ? request.query : request.body;
    for (std::size_t wounds = 1 + Below(3); wounds > 0; --wounds) Wound(text);
    if (request.body.empty()) std::erase(text, '\0');
  }

  void Wound(std::string& text) {
    if (text.empty()) return;
    const std::size_t at = Below(text.size());
    switch (Below(9)) {
      case 0:
        text.erase(at, 1 + Below(3));
        break;
      case 1:
        text.insert(at, Piece());
        break;
      case 2:
        text.insert(at, text.substr(Below(text.size()), Below(60)));
        break;
      case 3:
        text.resize(at);
        break;
      case 4:
        text[at] = static_cast<char>(Below(256));
        break;
      case 5:
        text.insert(at, OddPiece());
        break;
      default:
        WoundLineBreak(text, at);
    }
  }

  std::string OddPiece() {
    const std::string line_break = OneOf({"\r\n", "\n", "\r", ""});
    const std::string after =
        OneOf({"", "\r\n", "--", "--\r\n", " \r\n", "Z", " x", "-", "\n"});
    if (Chance(50)) return line_break + "--" + boundary_ + after;
    return OneOf({"\r\n ",
                  "\r\n\t",
                  ";",
                  "; ",
                  "=",
                  "\"",
                  "\\",
                  "\\\"",
                  "*",
                  ":",
                  "%",
                  "'",
                  "; name=a",
                  "; filename=\"\"",
                  "; filename*=UTF-8''%e4",
                  "; NAME=\"x\"",
                  "\x7f",
                  "\r\nContent-Disposition: form-data; name=z",
                  "\r\nContent-Type: x",
                  "\r\ncontent-transfer-encoding: 7bit",
                  "\r\nContent-Transfer-Encoding: base64",
                  "\r\nX",
                  "\r\n:"});
  }

  /// Changes the line break that follows, or the bytes round it.
  void WoundLineBreak(std::string& text, std::size_t at) {
    const std::size_t found = text.find("\r\n", at);
    if (found == std::string::npos) return;
    switch (Below(6)) {
      case 0:
        text.replace(found, 2, OneOf({"\n", "\r", "\n\r", "\r\r\n"}));
        break;
      case 1:
        text.erase(found, 2);
        break;
      case 2:
        text.insert(found, "\r\n");
        break;
      case 3:
        text.insert(found, OneOf({" ", "\t", ";", "\"", "-", "--", "\\"}));
        break;
      case 4:
        text.insert(found + 2, OneOf({" ", "\t", "-", "--", ":", "\r", "\n"}));
        break;
      default:
        text.insert(found, OddPiece());
    }
  }

  std::mt19937_64 random_;
  std::string boundary_ = "XY";
  Needs needs_;
  /// Whether it is known what comes of the form.
  bool certain_ = true;
};

}  // namespace plain

#endif
