#include "response.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <zancgi/request.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <compare>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <vector>

#include "../common/hex_digit.h"
#include "byte_range.h"
#include "entity_tag.h"
#include "http_date.h"
#include "http_text.h"
#include "response_output.h"
#include "utf8.h"

namespace zan_cgi {
namespace {

using std::chrono::sys_seconds;

/// Status codes and reason phrases of RFC 9110 section 15, RFC 6585, RFC 7725
/// and RFC 4918. They form one string because an array of pointers would be
/// relocated at each start.
constexpr char kStatusLines[] =
    "200 OK\0"
    "201 Created\0"
    "202 Accepted\0"
    "203 Non-Authoritative Information\0"
    "204 No Content\0"
    "205 Reset Content\0"
    "206 Partial Content\0"
    "300 Multiple Choices\0"
    "301 Moved Permanently\0"
    "302 Found\0"
    "303 See Other\0"
    "304 Not Modified\0"
    "305 Use Proxy\0"
    "307 Temporary Redirect\0"
    "308 Permanent Redirect\0"
    "400 Bad Request\0"
    "401 Unauthorized\0"
    "402 Payment Required\0"
    "403 Forbidden\0"
    "404 Not Found\0"
    "405 Method Not Allowed\0"
    "406 Not Acceptable\0"
    "407 Proxy Authentication Required\0"
    "408 Request Timeout\0"
    "409 Conflict\0"
    "410 Gone\0"
    "411 Length Required\0"
    "412 Precondition Failed\0"
    "413 Content Too Large\0"
    "414 URI Too Long\0"
    "415 Unsupported Media Type\0"
    "416 Range Not Satisfiable\0"
    "417 Expectation Failed\0"
    "421 Misdirected Request\0"
    "422 Unprocessable Content\0"
    "426 Upgrade Required\0"
    "428 Precondition Required\0"
    "429 Too Many Requests\0"
    "431 Request Header Fields Too Large\0"
    "451 Unavailable For Legal Reasons\0"
    "500 Internal Server Error\0"
    "501 Not Implemented\0"
    "502 Bad Gateway\0"
    "503 Service Unavailable\0"
    "504 Gateway Timeout\0"
    "505 HTTP Version Not Supported\0"
    "507 Insufficient Storage\0";

/// Returns the status code with its reason phrase.
std::string StatusLine(int status) {
  const std::string code = std::to_string(status);
  const char* line = kStatusLines;
  while (*line != '\0') {
    if (std::string_view(line).starts_with(code)) return line;
    line += std::strlen(line) + 1;
  }
  return code + " Other";
}

bool HasBody(int status) { return status != 204 && status != 304; }

/// Whether conditions and ranges apply to this method.
bool IsReading(const std::string& method) {
  return method == "GET" || method == "HEAD";
}

bool HasControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(), IsControl);
}

void CheckName(const std::string& name) {
  if (!IsToken(name)) {
    throw std::invalid_argument(
        "the name of a header must be letters, digits and - only");
  }
  if (EqualWithoutCase(name, "Status")) {
    throw std::invalid_argument("give the status to the constructor");
  }
  if (EqualWithoutCase(name, "Content-Length")) {
    throw std::invalid_argument(
        "leave Content-Length out: the body's length is sent by itself");
  }
}

void CheckValue(std::string_view value) {
  const bool is_bad = std::any_of(value.begin(), value.end(), [](char c) {
    return IsControl(c) && c != '\t';
  });
  if (is_bad) {
    throw std::invalid_argument(
        "remove line ends and other control bytes from the header's value");
  }
}

/// cookie-octet of RFC 6265 section 4.1.1.
bool IsCookieByte(char c) {
  constexpr std::string_view kExcluded = "\",;\\";
  return c > ' ' && c < '\x7f' && kExcluded.find(c) == std::string_view::npos;
}

void CheckCookie(const SetCookie& cookie) {
  const std::string& value = cookie.value;
  if (!IsToken(cookie.name)) {
    throw std::invalid_argument(
        "the name of a cookie must be letters, digits, - and _ only");
  }
  if (!std::all_of(value.begin(), value.end(), IsCookieByte)) {
    throw std::invalid_argument(
        "encode the cookie's value, for example by percent-encoding: it must "
        "be printable ASCII without space, quote, comma, semicolon and "
        "backslash");
  }
  if (HasControl(cookie.path) || cookie.path.find(';') != std::string::npos) {
    throw std::invalid_argument(
        "remove semicolons and control bytes from the cookie's path");
  }
  if (cookie.max_age < -1) {
    throw std::invalid_argument(
        "the cookie's max_age must be -1 (until the browser ends), 0 (delete "
        "it) or a number of seconds");
  }
  const std::string& site = cookie.same_site;
  if (site != "Strict" && site != "Lax" && site != "None" && !site.empty()) {
    throw std::invalid_argument(
        "the cookie's same_site must be \"Strict\", \"Lax\", \"None\" or "
        "empty");
  }
  if (site == "None" && !cookie.secure) {
    throw std::invalid_argument(
        "set secure, too: browsers drop a cookie of same_site \"None\" without "
        "it");
  }
}

std::string CookieLine(const SetCookie& cookie) {
  std::string line = cookie.name + "=" + cookie.value;
  if (!cookie.path.empty()) line += "; Path=" + cookie.path;
  if (cookie.max_age >= 0)
    line += "; Max-Age=" + std::to_string(cookie.max_age);
  if (cookie.secure) line += "; Secure";
  if (cookie.http_only) line += "; HttpOnly";
  if (!cookie.same_site.empty()) line += "; SameSite=" + cookie.same_site;
  return line;
}

bool IsAscii(char c) { return static_cast<unsigned char>(c) < 0x80; }

/// A quoted string (RFC 9110 section 5.6.4) of printable ASCII.
std::string QuotedName(const std::string& name) {
  std::string quoted = "\"";
  for (const char c : name) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += IsAscii(c) && !IsControl(c) ? c : '_';
  }
  return quoted + '"';
}

/// An extended value (RFC 8187 section 3.2).
std::string ExtendedName(const std::string& name) {
  std::string extended = "UTF-8''";
  for (const char c : name) {
    if (IsControl(c)) {
      extended += '_';
    } else if (IsAttrChar(c)) {
      extended += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      extended += '%';
      extended += common::kUpperHexDigits[byte / 16];
      extended += common::kUpperHexDigits[byte % 16];
    }
  }
  return extended;
}

/// Returns the file's status, or throws if the file cannot be sent.
struct stat RegularFile(int descriptor) {
  struct stat file;
  const int flags = ::fcntl(descriptor, F_GETFL);
  const bool is_readable =
      flags >= 0 && (flags & O_ACCMODE) != O_WRONLY && (flags & O_PATH) == 0;
  if (!is_readable || ::fstat(descriptor, &file) != 0) {
    throw std::invalid_argument(
        "SendFile() needs a descriptor that is open for reading");
  }
  if (!S_ISREG(file.st_mode)) {
    throw std::invalid_argument("SendFile() needs a regular file");
  }
  return file;
}

/// Formats a number in hexadecimal; a negative one as its two's complement.
template <class Number>
std::string Hex(Number number) {
  std::array<char, 2 * sizeof(number)> digits;
  const auto last =
      std::to_chars(digits.begin(), digits.end(),
                    static_cast<std::make_unsigned_t<Number>>(number), 16);
  return {digits.begin(), last.ptr};
}

/// Returns a tag that changes whenever the file is written or replaced.
std::string EntityTag(const struct stat& file) {
  return '"' + Hex(file.st_ino) + '-' + Hex(file.st_size) + '-' +
         Hex(file.st_mtim.tv_sec) + '.' + Hex(file.st_mtim.tv_nsec) + '"';
}

/// Returns the current time. Uses clock_gettime(2), because the C library would
/// have to resolve time(2), an indirect function, at each start.
sys_seconds Now() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return sys_seconds(std::chrono::seconds(now.tv_sec));
}

/// Returns the modification time, but never one in the future (RFC 9110 section
/// 8.8.2.1) or in a year that a date cannot express.
std::string LastModified(const struct stat& file) {
  const sys_seconds modified{std::chrono::seconds(file.st_mtim.tv_sec)};
  return FormatHttpDate(std::max(std::min(modified, Now()), sys_seconds{}));
}

std::string ContentRange(std::optional<ByteRange> range, std::int64_t size) {
  std::string sent = "*";
  if (range) {
    sent = std::to_string(range->begin) + "-" + std::to_string(range->end - 1);
  }
  return "bytes " + sent + "/" + std::to_string(size);
}

}  // namespace

/// The content of an answer, and whether it has been sent.
struct Response::Content {
  struct Line {
    std::string name;
    std::string value;
  };

  explicit Content(int new_status) : status(new_status) {}

  Line* Find(std::string_view name) {
    const auto found = std::find_if(
        lines.begin(), lines.end(),
        [&](const Line& line) { return EqualWithoutCase(line.name, name); });
    return found == lines.end() ? nullptr : &*found;
  }

  void Set(const std::string& name, const std::string& value) {
    Line* const old = Find(name);
    if (old == nullptr || EqualWithoutCase(name, "Set-Cookie")) {
      lines.push_back({name, value});
    } else {
      *old = {name, value};
    }
  }

  /// Returns the value that is set after the call.
  std::string SetUnlessSet(const std::string& name, const std::string& value) {
    const Line* const old = Find(name);
    if (old != nullptr) return old->value;
    lines.push_back({name, value});
    return value;
  }

  void CheckUnsent() const {
    if (is_sent) {
      throw std::logic_error(
          "this answer has been sent already: make a new Response");
    }
  }

  bool SendsBody() const { return HasBody(status) && Method() != "HEAD"; }

  std::string Head(std::int64_t length) const;
  std::optional<ByteRange> ChooseRange(std::int64_t size,
                                       const std::string& tag,
                                       const std::string& modified);

  int status;
  bool is_sent = false;
  std::vector<Line> lines = {{"Content-Type", "text/html; charset=utf-8"}};
};

/// Returns everything before the body.
std::string Response::Content::Head(std::int64_t length) const {
  std::string head = "Status: " + StatusLine(status) + "\r\n";
  for (const Line& line : lines) {
    if (HasBody(status) || !EqualWithoutCase(line.name, "Content-Type")) {
      head += line.name + ": " + line.value + "\r\n";
    }
  }
  if (HasBody(status)) {
    head += "Content-Length: " + std::to_string(length) + "\r\n";
  }
  return head + "\r\n";
}

namespace {

/// Whether the client already has the current file (RFC 9110 section 13.2.2).
bool IsNotModified(const std::string& tag, const std::string& modified) {
  const std::string tags = Header("If-None-Match");
  if (!tags.empty()) return NamesTag(tags, tag);
  const auto since = ParseHttpDate(Header("If-Modified-Since"), Now());
  const auto last = ParseHttpDate(modified, Now());
  return since && last && *last <= *since;
}

/// Whether If-Range matches the current file, or is missing (RFC 9110 section
/// 13.1.5).
bool HoldsIfRange(const std::string& tag, const std::string& modified) {
  const std::string condition = Header("If-Range");
  return condition.empty() || condition == modified ||
         (condition == tag && !IsWeakTag(tag));
}

}  // namespace

/// Chooses the part of the file to send, and sets the status and headers for
/// it. Returns nothing if the answer is sent without the file.
std::optional<ByteRange> Response::Content::ChooseRange(
    std::int64_t size, const std::string& tag, const std::string& modified) {
  const ByteRange whole{0, size};
  const std::string method = Method();
  if (status != 200 || !IsReading(method)) return whole;
  if (IsNotModified(tag, modified)) {
    status = 304;
    return std::nullopt;
  }
  // Range applies to GET only (RFC 9110 section 14.2).
  if (method != "GET" || !HoldsIfRange(tag, modified)) return whole;
  const std::optional<ByteRange> range =
      ParseRange(zan_cgi::Header("Range"), size);
  if (!range) return whole;
  const bool is_empty = range->size() == 0;
  status = is_empty ? 416 : 206;
  Set("Content-Range", ContentRange(is_empty ? std::nullopt : range, size));
  return range;
}

Response::Response(int status) {
  if (status < 200 || status > 599) {
    throw std::invalid_argument("the status must be in 200 to 599");
  }
  content_ = std::make_shared<Content>(status);
}

Response::Response(const Response&) noexcept = default;
Response& Response::operator=(const Response&) noexcept = default;
Response::~Response() = default;

Response Response::Redirect(const std::string& location) {
  if (location.empty() || HasControl(location)) {
    throw std::invalid_argument(
        "redirect to a URL that is not empty and has no control bytes");
  }
  Response response(303);
  response.content_->Set("Location", location);
  return response;
}

Response& Response::Header(const std::string& name, const std::string& value) {
  CheckName(name);
  CheckValue(value);
  content_->Set(name, value);
  return *this;
}

Response& Response::Type(const std::string& type) {
  return Header("Content-Type", type);
}

Response& Response::SetCookie(const zan_cgi::SetCookie& cookie) {
  CheckCookie(cookie);
  content_->Set("Set-Cookie", CookieLine(cookie));
  return *this;
}

Response& Response::Attachment(const std::string& name) {
  if (name.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
    throw std::invalid_argument(
        "remove line ends and zero bytes from the attachment's name");
  }
  std::string value = "attachment; filename=" + QuotedName(name);
  const bool is_ascii = std::all_of(name.begin(), name.end(), IsAscii);
  if (!is_ascii && IsUtf8(name)) value += "; filename*=" + ExtendedName(name);
  content_->Set("Content-Disposition", value);
  return *this;
}

void Response::Send(const std::string& body) {
  content_->CheckUnsent();
  const std::string head =
      content_->Head(static_cast<std::int64_t>(body.size()));
  std::string_view sent = body;
  if (!content_->SendsBody()) sent = {};
  content_->is_sent = true;
  ResponseOutput().Write(head, sent);
}

void Response::SendFile(int descriptor, const std::string& type) {
  content_->CheckUnsent();
  const struct stat file = RegularFile(descriptor);
  Type(type);
  const std::string modified =
      content_->SetUnlessSet("Last-Modified", LastModified(file));
  const std::string tag = content_->SetUnlessSet("ETag", EntityTag(file));
  content_->SetUnlessSet("Accept-Ranges", "bytes");
  const ByteRange range =
      content_->ChooseRange(file.st_size, tag, modified).value_or(ByteRange{});
  const std::string head = content_->Head(range.size());
  const bool sends_body = content_->SendsBody();
  content_->is_sent = true;
  ResponseOutput output;
  output.Write(head, "");
  if (sends_body) output.WriteFile(descriptor, range);
}

std::string Html(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

}  // namespace zan_cgi
