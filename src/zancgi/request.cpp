#include "request.h"

#include <zancgi/form.h>

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <string_view>

#include "../common/url_decoder.h"
#include "http_text.h"

namespace zan_cgi {
namespace {

std::string Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

bool StartsWithoutCase(std::string_view text, std::string_view start) {
  return EqualWithoutCase(text.substr(0, start.size()), start);
}

std::string_view WithoutPort(std::string_view host, std::string_view port) {
  if (host.ends_with(port)) host.remove_suffix(port.size());
  return host;
}

/// Whether an origin (RFC 6454 section 6.2) has this host and port.
bool IsOriginOf(std::string_view origin, std::string_view host) {
  struct Scheme {
    std::string_view start;
    std::string_view default_port;
  };
  for (const Scheme& scheme :
       {Scheme{"http://", ":80"}, Scheme{"https://", ":443"}}) {
    if (StartsWithoutCase(origin, scheme.start)) {
      origin.remove_prefix(scheme.start.size());
      origin = WithoutPort(origin, scheme.default_port);
      host = WithoutPort(host, scheme.default_port);
      return !host.empty() && EqualWithoutCase(origin, host);
    }
  }
  return false;
}

Form::Field DecodedField(std::string_view piece) {
  const std::size_t equals = std::min(piece.find('='), piece.size());
  Form::Field field;
  field.name = common::UrlDecoder(piece.substr(0, equals)).Run();
  piece.remove_prefix(std::min(equals + 1, piece.size()));
  field.value = common::UrlDecoder(piece).Run();
  return field;
}

}  // namespace

std::string Method() { return Variable("REQUEST_METHOD"); }

std::string Header(const std::string& name) {
  if (!IsToken(name)) return "";
  std::string variable = name;
  for (char& c : variable) c = c == '-' ? '_' : UpperCase(c);
  if (variable != "CONTENT_TYPE" && variable != "CONTENT_LENGTH") {
    variable.insert(0, "HTTP_");
  }
  return Variable(variable.c_str());
}

std::string PathInfo() { return Variable("PATH_INFO"); }

bool IsHttps() {
  const std::string https = Variable("HTTPS");
  return !https.empty() && https != "0" && !EqualWithoutCase(https, "off");
}

std::vector<Form::Field> QueryFields() {
  const std::string query = Variable("QUERY_STRING");
  std::vector<Form::Field> fields;
  std::size_t begin = 0;
  while (begin < query.size()) {
    const std::size_t end = std::min(query.find('&', begin), query.size());
    const std::string_view piece(query.data() + begin, end - begin);
    if (!piece.empty()) fields.push_back(DecodedField(piece));
    begin = end + 1;
  }
  return fields;
}

bool IsSameSite() {
  if (std::getenv("HTTP_SEC_FETCH_SITE") != nullptr) {
    const std::string site = Header("Sec-Fetch-Site");
    return site == "same-origin" || site == "same-site" || site == "none";
  }
  return IsOriginOf(Header("Origin"), Header("Host"));
}

}  // namespace zan_cgi
