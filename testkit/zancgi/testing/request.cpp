#include <zancgi/testing/form.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/request.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <type_traits>
#include <utility>
#include <vector>

namespace zan_cgi::testing {
namespace {

std::string Encoded(const std::string& text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string encoded;
  for (const char byte : text) {
    const auto value = static_cast<unsigned char>(byte);
    if (std::isalnum(value) != 0 || std::string("-._*").find(byte) < 4) {
      encoded += byte;
    } else if (byte == ' ') {
      encoded += '+';
    } else {
      encoded += '%';
      encoded += kDigits[value / 16];
      encoded += kDigits[value % 16];
    }
  }
  return encoded;
}

bool IsEscape(const std::string& text, std::size_t at) {
  const auto is_digit = [&](std::size_t index) {
    return index < text.size() &&
           std::isxdigit(static_cast<unsigned char>(text[index])) != 0;
  };
  return text[at] == '%' && is_digit(at + 1) && is_digit(at + 2);
}

std::string Decoded(const std::string& text) {
  std::string decoded;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (IsEscape(text, at)) {
      const std::string digits = text.substr(at + 1, 2);
      decoded += static_cast<char>(std::strtoul(digits.c_str(), nullptr, 16));
      at += 2;
    } else {
      decoded += text[at] == '+' ? ' ' : text[at];
    }
  }
  return decoded;
}

/// Returns the name of the CGI variable for a header.
std::string VariableOf(const std::string& header) {
  std::string name;
  for (const char byte : header) {
    name +=
        byte == '-'
            ? '_'
            : static_cast<char>(std::toupper(static_cast<unsigned char>(byte)));
  }
  const bool has_own_name = name == "CONTENT_TYPE" || name == "CONTENT_LENGTH";
  return has_own_name ? name : "HTTP_" + name;
}

std::vector<std::string> Pieces(const std::string& text, std::size_t size) {
  std::vector<std::string> pieces;
  for (std::size_t at = 0; at < text.size(); at += size) {
    pieces.push_back(text.substr(at, size));
  }
  return pieces;
}

}  // namespace

std::string UrlEncoded(const Items& items) {
  std::string text;
  for (const auto& [name, value] : items) {
    if (!text.empty()) text += '&';
    text.append(Encoded(name)).append("=").append(Encoded(value));
  }
  return text;
}

Items FromUrlEncoded(const std::string& text) {
  Items items;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('&', at), text.size());
    const std::string item = text.substr(at, end - at);
    at = end + 1;
    if (item.empty()) continue;
    const std::size_t equals = std::min(item.find('='), item.size() - 1);
    const bool has_value = item[equals] == '=';
    items.emplace_back(Decoded(has_value ? item.substr(0, equals) : item),
                       Decoded(has_value ? item.substr(equals + 1) : ""));
  }
  return items;
}

Request::Request(std::string method, std::string path, std::string query)
    : variables_{{"GATEWAY_INTERFACE", "CGI/1.1"},
                 {"SERVER_PROTOCOL", "HTTP/1.1"},
                 {"SERVER_SOFTWARE", "zancgi-testing"},
                 {"SERVER_NAME", "localhost"},
                 {"SERVER_ADDR", "127.0.0.1"},
                 {"SERVER_PORT", "80"},
                 {"REMOTE_ADDR", "127.0.0.1"},
                 {"REMOTE_PORT", "40000"},
                 {"HTTP_HOST", "localhost"},
                 {"REQUEST_METHOD", std::move(method)},
                 {"REQUEST_URI", query.empty() ? path : path + "?" + query},
                 {"SCRIPT_NAME", std::move(path)},
                 {"QUERY_STRING", std::move(query)}} {}

Request& Request::Header(const std::string& name, const std::string& value) {
  return Variable(VariableOf(name), value);
}

Request& Request::Cookie(const std::string& name, const std::string& value) {
  if (!cookies_.empty()) cookies_ += "; ";
  cookies_.append(name).append("=").append(value);
  return Header("Cookie", cookies_);
}

Request& Request::Body(std::string bytes, const std::string& content_type) {
  body_ = std::move(bytes);
  has_body_ = true;
  return Header("Content-Type", content_type);
}

Request& Request::Fields(const Items& items) {
  return Body(UrlEncoded(items), "application/x-www-form-urlencoded");
}

Request& Request::Multipart(const Form& form) {
  return Body(form.Body(), form.ContentType());
}

Request& Request::Submit(const Form& form, Encoding encoding) {
  is_submitted_ = true;
  return encoding == Encoding::Multipart ? Multipart(form)
                                         : Fields(form.UrlEncodedItems());
}

Request& Request::By(Delivery delivery) {
  delivery_ = delivery;
  piece_size_ = 0;
  return *this;
}

Request& Request::Slowly(std::size_t size, std::chrono::milliseconds pause) {
  delivery_ = Delivery::Pipe;
  piece_size_ = size;
  pause_ = pause;
  return *this;
}

Request& Request::Variable(const std::string& name, const std::string& value) {
  variables_[name] = value;
  return *this;
}

bool Request::IsHttps() const {
  const auto variable = variables_.find("HTTPS");
  return variable != variables_.end() && !variable->second.empty() &&
         variable->second != "off";
}

std::map<std::string, std::string> Request::Environment() const {
  std::map<std::string, std::string> environment = variables_;
  // An existing Content-Length header is kept.
  if (has_body_) {
    environment.emplace("CONTENT_LENGTH", std::to_string(body_.size()));
  }
  if (is_submitted_) {
    // RFC 6454 section 6.2.
    environment.emplace("HTTP_ORIGIN", (IsHttps() ? "https://" : "http://") +
                                           environment.at("HTTP_HOST"));
    environment.emplace("HTTP_SEC_FETCH_SITE", "same-origin");
    environment.emplace("HTTP_SEC_FETCH_MODE", "navigate");
    environment.emplace("HTTP_SEC_FETCH_DEST", "document");
    environment.emplace("HTTP_SEC_FETCH_USER", "?1");
  }
  return environment;
}

Input Request::StandardInput() const {
  if (!has_body_) return Input::Nothing();
  if (piece_size_ > 0) {
    return Input::SlowPipe(Pieces(body_, piece_size_), pause_);
  }
  switch (delivery_) {
    case Delivery::Socket:
      return Input::Socket(body_);
    case Delivery::File:
      return Input::File(body_);
    case Delivery::StallingPipe:
      return Input::SilentPipe(body_);
    case Delivery::Pipe:
      break;
  }
  return Input::Pipe(body_);
}

Request Get(const std::string& path, const std::string& query) {
  return {"GET", path, query};
}

Request Post(const std::string& path, const std::string& query) {
  return {"POST", path, query};
}

}  // namespace zan_cgi::testing
