/// @file
/// Random forms: mostly valid ones in unusual spellings, and damaged ones.
#ifndef ZANCGI_TESTS_PLAIN_FORM_MAKER_H
#define ZANCGI_TESTS_PLAIN_FORM_MAKER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "plain/dice.h"
#include "plain/plain_form.h"

namespace plain {

class FormMaker : Dice {
 public:
  explicit FormMaker(std::uint64_t seed) : Dice(seed) {}

  /// Returns a different form at each call.
  FormRequest Make() {
    FormRequest request = Chance(75)   ? MakeMultipart()
                          : Chance(50) ? MakeEncoded()
                                       : MakeQuery();
    if (Chance(30)) SetLimits(request.limits);
    if (Chance(35)) Damage(request);
    request.declared_length = static_cast<std::int64_t>(request.body.size());
    if (Chance(4)) {
      request.declared_length += 1 + static_cast<std::int64_t>(Below(20));
    } else if (Chance(4)) {
      request.body += OneOf("x|\r\n|--XY--\r\n|&a=1");
    }
    return request;
  }

 private:
  std::string Blanks() { return Chance(80) ? "" : OneOf(" |\t|  | \t "); }

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

  FormRequest MakeQuery() {
    FormRequest request;
    request.method = OneOf("GET|HEAD");
    request.content_type = OneOf("|text/plain");
    request.query = EncodedFields();
    return request;
  }

  FormRequest MakeEncoded() {
    FormRequest request;
    request.method = OneOf("POST|PUT");
    request.query = OneOf("|a=query");
    request.content_type =
        Blanks() + InAnyCase("application/x-www-form-urlencoded") + Blanks() +
        OneOf("||; charset=UTF-8|;;|;\"|; boundary=XY");
    request.body = EncodedFields();
    return request;
  }

  std::string EncodedFields() {
    std::string text;
    for (std::size_t count = Below(6); count > 0; --count) {
      text += Maybe(10, "&&") + EncodedText();
      if (text.empty() || Chance(85)) {
        text += "=" + EncodedText() + Maybe(10, "=");
      }
      text += '&';
    }
    if (!text.empty() && Chance(80)) text.pop_back();
    return text;
  }

  std::string EncodedText() {
    std::string text;
    for (std::size_t count = Below(5); count > 0; --count) {
      text += OneOf(
          "a|b|+|%20|%41|%2B|%2f|%26|%3D|%25|%c3%A9|%00|%0d%0A|%zz|%4g|%%41|"
          "\xff|;|--XY|text");
    }
    return text + (Chance(5) ? OneOf("%|%4") : "");
  }

  // Multipart forms.

  FormRequest MakeMultipart() {
    FormRequest request;
    request.method = OneOf("POST|POST|PUT|get");
    boundary_ = Boundary();
    request.content_type = Blanks() + InAnyCase("multipart/form-data") +
                           Blanks() + ContentTypeParameters();
    std::string& body = request.body;
    if (Chance(20)) body = Content() + "\r\n";
    for (std::size_t count = Below(5); count > 0; --count) body += Part();
    body += "--" + boundary_ + "--" + Blanks();
    if (Chance(85)) body += "\r\n";
    if (Chance(20)) body += OneOf("|\n|--|\r\n--") + boundary_ + Content();
    return request;
  }

  std::string Boundary() {
    if (Chance(5)) return std::string(1 + Below(72), 'x');
    if (Chance(2)) return OneOf("| |XY | XY|X\tY|X\x01Y|X\x7fY|X\rY");
    return OneOf(
        "XY|XY|XY|XY|B|abcabc|-|--|---B|B--|a b|a:b|a\"b|a\\b|a;b=c|'B'|"
        "\xe4/?|----WebKitFormBoundary7MA4YWxkTrZu0gW|"
        "---------------------------9051914041544843365972754266");
  }

  std::string ContentTypeParameters() {
    std::string text;
    while (Chance(15)) {
      text += ";" + Blanks() +
              OneOf(
                  "|charset=utf-8|x=\"a; boundary=b\"|y = z|boundary*=b|"
                  "z=\"\\\"\"");
    }
    text += ";" + Maybe(80, " ") + InAnyCase("boundary") + Blanks() + "=" +
            Blanks() + BoundaryText() + Blanks();
    if (Chance(1)) text += "; Boundary=" + BoundaryText();
    return text + OneOf("|||;|; charset=utf-8| ;x=\"\"|;;");
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

  std::string Part() {
    std::string part =
        "--" + boundary_ + Blanks() + "\r\n" + Headers() + "\r\n";
    const std::string content = Content();
    // The line break of the empty line may belong to the delimiter.
    if (!content.empty() || Chance(80)) part += content + "\r\n";
    return part;
  }

  std::string Headers() {
    std::vector<std::string> lines = {HeaderName("Content-Disposition") +
                                      Disposition() + Blanks() + "\r\n"};
    if (Chance(50)) {
      lines.push_back(HeaderName("Content-Type") +
                      OneOf("|text/plain|image/PNG|a/b; charset=\"x\"|\"") +
                      Blanks() + "\r\n");
    }
    if (Chance(10)) {
      lines.push_back(HeaderName("Content-Transfer-Encoding") +
                      InAnyCase(OneOf("7bit|8bit|binary")) + Blanks() + "\r\n");
    }
    while (Chance(10)) {
      lines.push_back(
          OneOf("X-Other: 1\r\n|X:\r\n|X: a\r\n\tb\r\n \r\n|Content-Length: 7"
                "\r\n|x : --XY\r\n|Content-Type2: y\r\n|X: \xff\";\r\n"));
    }
    std::shuffle(lines.begin(), lines.end(), random_);
    std::string headers;
    for (const std::string& line : lines) headers += line;
    return headers;
  }

  std::string HeaderName(std::string name) {
    return InAnyCase(std::move(name)) + Blanks() + ":" + FoldedBlank();
  }

  /// Returns white space between two words of a header.
  std::string FoldedBlank() {
    if (Chance(5)) return OneOf("\r\n |\r\n\t|\r\n \r\n\t ");
    return Chance(85) ? " " : Blanks();
  }

  std::string Disposition() {
    std::vector<std::string> parameters = {Parameter("name", Name())};
    const bool is_upload = Chance(45);
    if (is_upload && Chance(80)) {
      parameters.push_back(Parameter("filename", FileName()));
      if (Chance(15)) {
        parameters.push_back(
            OneOf("filename*=utf-8''other%C3%A9|"
                  "FileName*=UTF-8''|filename*=%zz"));
      }
    } else if (is_upload) {
      parameters.push_back(InAnyCase("filename*") + Blanks() + "=" + Blanks() +
                           ExtendedName());
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
    for (const char byte : value) {
      if (byte == '"' || (byte == '\\' && Chance(75))) text += '\\';
      // A folded line break counts as one space.
      text += byte == ' ' && Chance(10) ? "\r\n" + OneOf(" |\t|  ")
                                        : std::string(1, byte);
    }
    return text + '"';
  }

  std::string Name() {
    if (Chance(60)) return OneOf("a|b|c|file|name|filename");
    return OneOf(
        "|a b|a\"b|a\\b|a\\|a;b|%22|a=b|\xc3\xa9|--XY|x[y]|\"|\x01|"
        "a  b");
  }

  std::string FileName() {
    if (Chance(40)) return OneOf("f|g.txt|photo.jpg");
    return OneOf(
        "||a b c.txt|C:\\dir\\n.txt|C:\\|a\"b|..|../x|x;names.txt|%22|"
        "\xc3\xa9|\xff|\\\\s\\d|a\\\"b|\t|f;");
  }

  std::string ExtendedName() {
    if (Chance(20)) return DoubtfulExtendedName();
    const bool latin = Chance(30);
    std::string text = InAnyCase(latin ? "ISO-8859-1" : "UTF-8") + "'" +
                       OneOf("|en|de-x") + "'";
    for (std::size_t count = Below(4); count > 0; --count) {
      // OneOf() cannot return these, because they contain a bar.
      text += Chance(25) ? "!#$&+-^_`|~" : OneOf("a|Z9|.txt");
    }
    text += Maybe(50, "%20%2f%22");
    return text + Maybe(50, latin ? "%e9%A3" : "%c3%a9%C2%A3");
  }

  std::string DoubtfulExtendedName() {
    std::string text =
        OneOf("UTF-8|UTF-8|utf-8|ISO-8859-1|") + OneOf("''|''|'en'|'|'''");
    for (std::size_t count = 1 + Below(3); count > 0; --count) {
      text += OneOf(
          "a|%c2%80|%c1%bf|%c3|%80|%e0%a0%80|%e0%9f%bf|%e2%82|%ed%9f%bf|"
          "%ed%a0%80|%ef%bf%bf|%f0%90%80%80|%f0%8f%bf%bf|%f0%90%80|"
          "%f4%8f%bf%bf|%f4%90%80%80|%f5%80%80%80|%00|%0a|%|%4|/|*|\xe4");
    }
    return Chance(90) ? text : '"' + text + '"';
  }

  /// Returns bytes that rarely contain something like a delimiter.
  std::string Content() {
    std::string content;
    for (std::size_t pieces = Below(8); pieces > 0; --pieces) {
      content += Piece();
    }
    if (Chance(1)) content += std::string(Below(3000), 'z');
    return content.find("--" + boundary_) != std::string::npos && Chance(95)
               ? "x"
               : content;
  }

  std::string Piece() {
    const std::string delimiter = "\r\n--" + boundary_;
    if (Chance(20)) return delimiter.substr(0, Below(delimiter.size()));
    if (Chance(5)) return delimiter.substr(1 + Below(delimiter.size()));
    if (Chance(4)) return {'\0'};
    return OneOf(
        "\r|\n|\r\n|\r\r\n|-|--|\r\n-|\r\n--|\n\n|x|text|a=1&b=2|\xff| |\t|"
        "Content-Disposition: ");
  }

  /// Sets small limits, so that many forms are near them.
  void SetLimits(PlainLimits& limits) {
    limits.value = Below(40);
    limits.values = Below(60);
    limits.parts = Below(5);
    limits.header = 40 + Below(80);
    limits.body = static_cast<std::int64_t>(Below(800));
    // Usually only one of them.
    const PlainLimits large;
    const std::size_t kept = Below(6);
    if (kept == 5) return;
    if (kept != 0) limits.value = large.value;
    if (kept != 1) limits.values = large.values;
    if (kept != 2) limits.parts = large.parts;
    if (kept != 3) limits.header = large.header;
    if (kept != 4) limits.body = large.body;
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
    const std::size_t kind = Below(9);
    if (kind == 0) text.erase(at, 1 + Below(3));
    if (kind == 1) text.insert(at, Piece());
    if (kind == 2) text.insert(at, text, Below(text.size()), Below(60));
    if (kind == 3) text.resize(at);
    if (kind == 4) text[at] = static_cast<char>(Below(256));
    if (kind == 5) text.insert(at, OddPiece());
    if (kind >= 6) WoundLineBreak(text, at);
  }

  std::string OddPiece() {
    if (Chance(50)) {
      return OneOf("\r\n|\n|\r|") + "--" + boundary_ +
             OneOf("|\r\n|--|--\r\n| \r\n|Z| x|-|\n");
    }
    return OneOf(
        "\r\n |\r\n\t|;|; |=|\"|\\|\\\"|*|:|%|'|; name=a|; filename=\"\"|"
        "; filename*=UTF-8''%e4|; NAME=\"x\"|\x7f|"
        "\r\nContent-Disposition: form-data; name=z|\r\nContent-Type: x|"
        "\r\ncontent-transfer-encoding: 7bit|"
        "\r\nContent-Transfer-Encoding: base64|\r\nX|\r\n:");
  }

  /// Changes the next line break, or the bytes next to it.
  void WoundLineBreak(std::string& text, std::size_t at) {
    const std::size_t found = text.find("\r\n", at);
    if (found == std::string::npos) return;
    const std::size_t kind = Below(5);
    if (kind == 0) text.replace(found, 2, OneOf("\n|\r|\n\r|\r\r\n|"));
    if (kind == 1) text.insert(found, "\r\n");
    if (kind == 2) text.insert(found, OneOf(" |\t|;|\"|-|--|\\"));
    if (kind == 3) text.insert(found + 2, OneOf(" |\t|-|--|:|\r|\n"));
    if (kind == 4) text.insert(found, OddPiece());
  }

  std::string boundary_ = "XY";
};

}  // namespace plain

#endif
