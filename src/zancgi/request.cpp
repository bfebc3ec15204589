#include "request.h"

#include <zancgi/form.h>

#include <tov/env.h>

#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <string_view>
#include <utility>

#include "form_collector.h"
#include "http_text.h"
#include "urlencoded_form.h"

namespace zan_cgi {
namespace {

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

}  // namespace

std::string Method() { return tov_env::GetEnv("REQUEST_METHOD"); }

std::string Header(const std::string& name) {
  if (!IsToken(name)) return "";
  std::string variable = name;
  for (char& c : variable) c = c == '-' ? '_' : UpperCase(c);
  if (variable != "CONTENT_TYPE" && variable != "CONTENT_LENGTH") {
    variable.insert(0, "HTTP_");
  }
  return tov_env::GetEnv(variable);
}

std::string PathInfo() { return tov_env::GetEnv("PATH_INFO"); }

bool IsHttps() {
  const std::string https = tov_env::GetEnv("HTTPS");
  return !https.empty() && https != "0" && !EqualWithoutCase(https, "off");
}

std::vector<Form::Field> QueryFields() {
  Form::Limits unlimited;
  unlimited.value = unlimited.values = unlimited.parts =
      std::numeric_limits<std::size_t>::max();
  FormCollector form(unlimited, "");
  UrlencodedParser(form).Take(tov_env::GetEnv("QUERY_STRING"), true);
  return std::move(form.fields());
}

bool IsSameSite() {
  if (std::getenv("HTTP_SEC_FETCH_SITE") != nullptr) {
    const std::string site = Header("Sec-Fetch-Site");
    return site == "same-origin" || site == "same-site" || site == "none";
  }
  return IsOriginOf(Header("Origin"), Header("Host"));
}

}  // namespace zan_cgi
