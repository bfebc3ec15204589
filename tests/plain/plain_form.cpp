#include "plain/plain_form.h"

#include <algorithm>
#include <bit>
#include <optional>
#include <string_view>

#include "plain/plain_words.h"

namespace plain {
namespace {

/// Thrown when the form is refused.
struct Refusal {
  int status;
};

void Require(bool rule_holds) {
  if (!rule_holds) throw Refusal{400};
}

void RequireWithin(std::size_t amount, std::size_t limit) {
  if (amount > limit) throw Refusal{413};
}

bool IsBlank(char byte) { return byte == ' ' || byte == '\t'; }

bool IsControl(char byte) {
  const auto code = static_cast<unsigned char>(byte);
  return code < 0x20 || code == 0x7f;
}

bool IsAlphanumeric(char byte) {
  return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= 'a' && byte <= 'z');
}

/// RFC 2045 section 5.1.
bool IsToken(std::string_view text) {
  constexpr std::string_view kSpecials = "()<>@,;:\\\"/[]?=";
  const auto fits = [&](char byte) {
    return byte > ' ' && byte < 0x7f &&
           kSpecials.find(byte) == std::string_view::npos;
  };
  return !text.empty() && std::all_of(text.begin(), text.end(), fits);
}

std::string_view WithoutLeadingBlanks(std::string_view text) {
  return text.substr(std::min(text.find_first_not_of(" \t"), text.size()));
}

std::string_view WithoutBlanksAround(std::string_view text) {
  text = WithoutLeadingBlanks(text);
  return text.substr(0, text.find_last_not_of(" \t") + 1);
}

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  for (char& byte : lower) {
    if (byte >= 'A' && byte <= 'Z') byte = static_cast<char>(byte - 'A' + 'a');
  }
  return lower;
}

/// Sums of what the limits `parts` and `values` restrict.
class Amounts {
 public:
  explicit Amounts(const PlainLimits& limits) : limits_(limits) {}

  void AddPart() { RequireWithin(++parts_, limits_.parts); }

  void AddText(const std::string& text) {
    length_ += text.size();
    RequireWithin(length_, limits_.values);
  }

 private:
  const PlainLimits& limits_;
  std::size_t parts_ = 0;
  std::size_t length_ = 0;
};

PlainForm ParseUrlEncoded(std::string_view text, const PlainLimits& limits) {
  PlainForm form;
  Amounts amounts(limits);
  while (!text.empty()) {
    std::string_view value = TakeWord(text, "&");
    if (value.empty()) continue;
    const std::string_view name = TakeWord(value, "=");
    const PlainField field{UrlDecode(name), UrlDecode(value)};
    RequireWithin(field.name.size(), limits.value);
    RequireWithin(field.value.size(), limits.value);
    amounts.AddPart();
    amounts.AddText(field.name);
    amounts.AddText(field.value);
    form.fields.push_back(field);
  }
  return form;
}

// Headers.

/// Which characters a backslash in a quoted string escapes.
enum class Escapes {
  kAnyByte,
  /// Other backslashes are literal: old clients send paths.
  kQuoteAndBackslash,
};

struct Parameter {
  std::string name;  ///< In lower case.
  std::string value;
  bool quoted = false;
};

std::string TakeQuotedValue(std::string_view& rest, Escapes escapes) {
  std::string value;
  for (std::size_t i = 1; i < rest.size(); ++i) {
    if (rest[i] == '"') {
      rest.remove_prefix(i + 1);
      return value;
    }
    if (rest[i] == '\\' && i + 1 < rest.size()) {
      const bool special = rest[i + 1] == '"' || rest[i + 1] == '\\';
      if (special || escapes == Escapes::kAnyByte) ++i;
    }
    value += rest[i];
  }
  throw Refusal{400};
}

std::string TakeUnquotedValue(std::string_view& rest) {
  const std::string_view value = rest.substr(0, rest.find_first_of("; \t"));
  for (const char byte : value) Require(!IsControl(byte) && byte != '"');
  rest.remove_prefix(value.size());
  return std::string(value);
}

Parameter TakeParameter(std::string_view& rest, Escapes escapes) {
  Parameter parameter;
  const std::size_t name_end = rest.find_first_of("=;");
  Require(name_end != std::string_view::npos && rest[name_end] == '=');
  parameter.name = LowerCase(WithoutBlanksAround(rest.substr(0, name_end)));
  Require(IsToken(parameter.name));
  rest = WithoutLeadingBlanks(rest.substr(name_end + 1));
  parameter.quoted = rest.starts_with('"');
  parameter.value = parameter.quoted ? TakeQuotedValue(rest, escapes)
                                     : TakeUnquotedValue(rest);
  rest = WithoutLeadingBlanks(rest);
  Require(rest.empty() || rest.front() == ';');
  return parameter;
}

/// Returns the text before the first ";", in lower case.
std::string LeadingValue(std::string_view text) {
  return LowerCase(WithoutBlanksAround(TakeWord(text, ";")));
}

/// Returns the parameters after the first ";".
std::vector<Parameter> ParametersOf(std::string_view rest, Escapes escapes) {
  std::vector<Parameter> parameters;
  TakeWord(rest, ";");
  for (;;) {
    rest = WithoutLeadingBlanks(rest);
    if (rest.empty()) return parameters;
    if (rest.front() == ';') {
      rest.remove_prefix(1);
    } else {
      parameters.push_back(TakeParameter(rest, escapes));
    }
  }
}

/// Returns the parameter of this name, which must not repeat; null if there is
/// none.
const Parameter* Only(const std::vector<Parameter>& parameters,
                      std::string_view name) {
  const Parameter* only = nullptr;
  for (const Parameter& parameter : parameters) {
    if (parameter.name != name) continue;
    Require(only == nullptr);
    only = &parameter;
  }
  return only;
}

// RFC 8187.

std::string Utf8OfLatin1(const std::string& text) {
  std::string utf8;
  for (const char byte : text) {
    const auto code = static_cast<unsigned char>(byte);
    if (code < 0x80) {
      utf8 += byte;
    } else {
      utf8 += static_cast<char>(0xc0 | (code >> 6));
      utf8 += static_cast<char>(0x80 | (code & 0x3f));
    }
  }
  return utf8;
}

/// RFC 3629, section 4.
bool IsUtf8(std::string_view text) {
  const auto at = [&](std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  // The least character of each length; a lesser one is overlong.
  constexpr unsigned kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  for (std::size_t begin = 0; begin < text.size();) {
    const auto lead = static_cast<unsigned char>(text[begin]);
    const auto length = static_cast<unsigned>(std::countl_one(lead));
    if (length == 1 || length > 4) return false;
    unsigned character = lead & (0x7fU >> length);
    for (std::size_t i = 1; i < length; ++i) {
      if ((at(begin + i) & 0xc0) != 0x80) return false;
      character = character << 6 | (at(begin + i) & 0x3f);
    }
    const bool surrogate = character >= 0xd800 && character <= 0xdfff;
    if (character < kLeast[length] || character > 0x10ffff || surrogate) {
      return false;
    }
    begin += std::max(length, 1U);
  }
  return true;
}

/// Section 3.2.1.
bool IsAttrChar(char byte) {
  constexpr std::string_view kMarks = "!#$&+-.^_`|~";
  return IsAlphanumeric(byte) || kMarks.find(byte) != std::string_view::npos;
}

std::string DecodeValueChars(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      Require(i + 2 < text.size());
      const int high = HexValue(text[i + 1]);
      const int low = HexValue(text[i + 2]);
      Require(high >= 0 && low >= 0);
      decoded += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      Require(IsAttrChar(text[i]));
      decoded += text[i];
    }
  }
  return decoded;
}

std::string DecodeExtendedValue(const Parameter& parameter) {
  // An ext-value is never a quoted string.
  Require(!parameter.quoted);
  std::string_view rest = parameter.value;
  Require(std::count(rest.begin(), rest.end(), '\'') >= 2);
  const std::string charset = LowerCase(TakeWord(rest, "'"));
  TakeWord(rest, "'");
  const std::string text = DecodeValueChars(rest);
  Require(text.find('\0') == std::string::npos);
  if (charset == "iso-8859-1") return Utf8OfLatin1(text);
  Require(charset == "utf-8" && IsUtf8(text));
  return text;
}

// Multipart.

std::string BoundaryOf(const std::string& content_type) {
  const std::vector<Parameter> parameters =
      ParametersOf(content_type, Escapes::kAnyByte);
  const Parameter* const parameter = Only(parameters, "boundary");
  Require(parameter != nullptr);
  const std::string boundary = parameter->value;
  Require(!boundary.empty() && boundary.size() <= 70);
  Require(std::none_of(boundary.begin(), boundary.end(), IsControl));
  Require(boundary.back() != ' ');
  return boundary;
}

/// A delimiter line, from its "--" to the end of its line break.
struct Delimiter {
  std::size_t begin;
  std::size_t end;
  bool closes;
};

bool StartsLine(const std::string& body, std::size_t at) {
  if (at == 0) return true;
  const char before = body[at - 1];
  // Half a line break before something like a delimiter is malformed.
  Require(before != '\r');
  if (before != '\n') return false;
  Require(at >= 2 && body[at - 2] == '\r');
  return true;
}

Delimiter DelimiterAt(const std::string& body, std::size_t begin,
                      std::size_t length) {
  std::size_t at = begin + length;
  const bool closes = body.compare(at, 2, "--") == 0;
  if (closes) at += 2;
  while (at < body.size() && IsBlank(body[at])) ++at;
  if (closes && at == body.size()) return {begin, at, closes};
  Require(body.compare(at, 2, "\r\n") == 0);
  return {begin, at + 2, closes};
}

/// Returns all delimiters up to the closing one.
std::vector<Delimiter> DelimitersOf(const std::string& body,
                                    const std::string& boundary) {
  const std::string dash_boundary = "--" + boundary;
  std::vector<Delimiter> delimiters;
  std::size_t at = body.find(dash_boundary);
  for (; at != std::string::npos; at = body.find(dash_boundary, at + 1)) {
    if (!StartsLine(body, at)) continue;
    const Delimiter delimiter = DelimiterAt(body, at, dash_boundary.size());
    delimiters.push_back(delimiter);
    if (delimiter.closes) return delimiters;
  }
  throw Refusal{400};
}

struct Header {
  std::string name;  ///< In lower case.
  std::string value;
};

void AddHeaderLine(const std::string& line, std::vector<Header>& headers) {
  for (const char byte : line) {
    Require(byte != '\r' && byte != '\n' && byte != '\0');
  }
  if (IsBlank(line.front())) {
    Require(!headers.empty());
    headers.back().value += " " + std::string(WithoutLeadingBlanks(line));
    return;
  }
  const std::size_t colon = line.find(':');
  Require(colon != std::string::npos);
  std::string_view name = line;
  name = name.substr(0, colon);
  while (!name.empty() && IsBlank(name.back())) name.remove_suffix(1);
  Require(IsToken(name));
  headers.push_back({LowerCase(name), line.substr(colon + 1)});
}

struct Part {
  std::vector<Header> headers;
  std::string content;
};

/// @param text  from the end of one delimiter to the beginning of the next. The
///   line break before a delimiter belongs to it.
Part ParsePart(const std::string& text, const PlainLimits& limits) {
  Part part;
  std::size_t at = 0;
  for (;;) {
    const std::size_t line_end = text.find("\r\n", at);
    Require(line_end != std::string::npos);
    const std::string line = text.substr(at, line_end - at);
    at = line_end + 2;
    if (line.empty()) break;
    AddHeaderLine(line, part.headers);
  }
  RequireWithin(at, limits.header);
  // The line break of the empty line may belong to the delimiter.
  if (at < text.size()) part.content = text.substr(at, text.size() - at - 2);
  return part;
}

std::optional<std::string> OnlyValue(const Part& part, std::string_view name) {
  std::optional<std::string> value;
  for (const Header& header : part.headers) {
    if (header.name != name) continue;
    Require(!value);
    value = WithoutBlanksAround(header.value);
  }
  return value;
}

void CheckTransferEncoding(const Part& part) {
  const std::optional<std::string> encoding =
      OnlyValue(part, "content-transfer-encoding");
  if (!encoding) return;
  const std::string name = LowerCase(*encoding);
  Require(name == "7bit" || name == "8bit" || name == "binary");
}

std::optional<std::string> FileNameOf(
    const std::vector<Parameter>& parameters) {
  const Parameter* const plain = Only(parameters, "filename");
  const Parameter* const extended = Only(parameters, "filename*");
  if (plain != nullptr) return plain->value;
  if (extended != nullptr) return DecodeExtendedValue(*extended);
  return std::nullopt;
}

void AddField(const PlainField& field, const PlainLimits& limits,
              Amounts& amounts, PlainForm& form) {
  RequireWithin(field.value.size(), limits.value);
  amounts.AddText(field.name);
  amounts.AddText(field.value);
  form.fields.push_back(field);
}

void AddUpload(const PlainUpload& upload, Amounts& amounts, PlainForm& form) {
  // A file input without a chosen file.
  if (upload.name.empty() && upload.content.empty()) return;
  amounts.AddText(upload.field);
  amounts.AddText(upload.name);
  amounts.AddText(upload.type);
  form.uploads.push_back(upload);
}

void AddPart(const Part& part, const PlainLimits& limits, Amounts& amounts,
             PlainForm& form) {
  amounts.AddPart();
  CheckTransferEncoding(part);
  const std::optional<std::string> type = OnlyValue(part, "content-type");
  const std::optional<std::string> disposition =
      OnlyValue(part, "content-disposition");
  Require(disposition && LeadingValue(*disposition) == "form-data");
  const std::vector<Parameter> parameters =
      ParametersOf(*disposition, Escapes::kQuoteAndBackslash);
  const Parameter* const name = Only(parameters, "name");
  Require(name != nullptr);
  const std::optional<std::string> file_name = FileNameOf(parameters);
  if (file_name) {
    AddUpload({name->value, *file_name, type.value_or(""), part.content},
              amounts, form);
  } else {
    AddField({name->value, part.content}, limits, amounts, form);
  }
}

PlainForm ParseMultipart(const std::string& content_type,
                         const std::string& body, const PlainLimits& limits) {
  PlainForm form;
  Amounts amounts(limits);
  const std::vector<Delimiter> delimiters =
      DelimitersOf(body, BoundaryOf(content_type));
  for (std::size_t i = 1; i < delimiters.size(); ++i) {
    const std::size_t begin = delimiters[i - 1].end;
    const Part part =
        ParsePart(body.substr(begin, delimiters[i].begin - begin), limits);
    AddPart(part, limits, amounts, form);
  }
  return form;
}

PlainForm ParseBody(const FormRequest& request) {
  if (request.declared_length > request.limits.body) throw Refusal{413};
  const std::string type = LeadingValue(request.content_type);
  const bool url_encoded = type == "application/x-www-form-urlencoded";
  const bool multipart = type == "multipart/form-data";
  const bool nothing = request.declared_length == 0 &&
                       WithoutBlanksAround(request.content_type).empty();
  if (!url_encoded && !multipart && !nothing) throw Refusal{415};
  Require(request.declared_length >= 0);
  const auto length = static_cast<std::size_t>(request.declared_length);
  Require(request.body.size() >= length);
  const std::string declared = request.body.substr(0, length);
  return multipart
             ? ParseMultipart(request.content_type, declared, request.limits)
             : ParseUrlEncoded(declared, request.limits);
}

}  // namespace

PlainForm ParsePlainForm(const FormRequest& request) {
  try {
    return request.method == "GET" || request.method == "HEAD"
               ? ParseUrlEncoded(request.query, request.limits)
               : ParseBody(request);
  } catch (const Refusal& refusal) {
    return {refusal.status, {}, {}};
  }
}

}  // namespace plain
