#include <zancgi/testing/visit.h>

#include <strings.h>
#include <time.h>
#include <zancgi/testing/form.h>
#include <zancgi/testing/program.h>
#include <zancgi/testing/request.h>
#include <zancgi/testing/response.h>

#include <algorithm>
#include <compare>
#include <cstdlib>
#include <map>
#include <memory>
#include <tuple>
#include <utility>

namespace zan_cgi::testing {
namespace {

using Clock = std::chrono::system_clock;

std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

bool IsSame(const std::string& name, const std::string& other) {
  return ::strcasecmp(name.c_str(), other.c_str()) == 0;
}

bool BeginsWith(const std::string& text, const std::string& begin) {
  return text.compare(0, begin.size(), begin) == 0;
}

/// Returns the name before the first "=" and the value after it.
Items::value_type Split(const std::string& item) {
  const std::size_t equals = item.find('=');
  if (equals == std::string::npos) return {Trimmed(item), ""};
  return {Trimmed(item.substr(0, equals)), Trimmed(item.substr(equals + 1))};
}

/// Parses a Set-Cookie field: the cookie first, then its attributes.
Items ItemsOf(const std::string& set_cookie) {
  Items items;
  for (std::size_t at = 0; at <= set_cookie.size();) {
    const std::size_t end =
        std::min(set_cookie.find(';', at), set_cookie.size());
    items.push_back(Split(set_cookie.substr(at, end - at)));
    at = end + 1;
  }
  return items;
}

/// Returns the last attribute of this name; null if there is none.
const std::string* Attribute(const Items& items, const std::string& name) {
  for (std::size_t i = items.size() - 1; i > 0; --i) {
    if (IsSame(items[i].first, name)) return &items[i].second;
  }
  return nullptr;
}

std::string PathOf(const Request& request) {
  const std::string target = request.Environment()["REQUEST_URI"];
  return target.substr(0, target.find('?'));
}

/// RFC 6265 section 5.1.4.
std::string DefaultPath(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return BeginsWith(path, "/") && slash > 0 ? path.substr(0, slash) : "/";
}

/// The same section.
bool PathMatches(const std::string& path, const std::string& cookie_path) {
  return BeginsWith(path, cookie_path) &&
         (path.size() == cookie_path.size() || cookie_path.back() == '/' ||
          path[cookie_path.size()] == '/');
}

/// RFC 6265 section 5.1.3.
bool DomainMatches(const Request& request, std::string domain) {
  if (BeginsWith(domain, ".")) domain.erase(0, 1);
  const std::string authority = request.Environment()["HTTP_HOST"];
  const std::string host = authority.substr(0, authority.find(':'));
  if (domain.empty() || IsSame(host, domain)) return true;
  return host.size() > domain.size() &&
         IsSame(host.substr(host.size() - domain.size() - 1), "." + domain);
}

/// Returns when a cookie expires. An invalid date is ignored.
Clock::time_point EndOf(const Items& items, Clock::time_point now) {
  if (const std::string* const age = Attribute(items, "Max-Age")) {
    char* end = nullptr;
    const long seconds = std::strtol(age->c_str(), &end, 10);
    if (!age->empty() && *end == '\0') {
      constexpr long kCentury = 100L * 366 * 24 * 3600;
      return seconds <= 0
                 ? Clock::time_point::min()
                 : now + std::chrono::seconds(std::min(seconds, kCentury));
    }
  }
  if (const std::string* const date = Attribute(items, "Expires")) {
    struct tm parts {};
    const char* const end =
        ::strptime(date->c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
    if (end != nullptr && *end == '\0') {
      return Clock::from_time_t(::timegm(&parts));
    }
  }
  return Clock::time_point::max();
}

/// Whether the cookie meets the requirements of its name's prefix.
bool KeepsPromise(const std::string& name, const Items& items, bool is_secure) {
  const std::string* const path = Attribute(items, "Path");
  if (BeginsWith(name, "__Secure-")) return is_secure;
  if (BeginsWith(name, "__Host-")) {
    return is_secure && path != nullptr && *path == "/" &&
           Attribute(items, "Domain") == nullptr;
  }
  return true;
}

}  // namespace

Clock::time_point Visit::Now() const { return Clock::now() + waited_; }

void Visit::Take(const std::string& set_cookie, const Request& request) {
  const Items items = ItemsOf(set_cookie);
  Kept cookie;
  std::tie(cookie.name, cookie.value) = items.front();
  cookie.is_secure = Attribute(items, "Secure") != nullptr;
  const std::string* const domain = Attribute(items, "Domain");
  const bool is_wanted =
      set_cookie.substr(0, set_cookie.find(';')).find('=') !=
          std::string::npos &&
      !cookie.name.empty() &&
      (domain == nullptr || DomainMatches(request, *domain)) &&
      (!cookie.is_secure || request.IsHttps()) &&
      KeepsPromise(cookie.name, items, cookie.is_secure);
  if (!is_wanted) return;

  const std::string* const path = Attribute(items, "Path");
  cookie.path = path != nullptr && BeginsWith(*path, "/")
                    ? *path
                    : DefaultPath(PathOf(request));
  cookie.end = EndOf(items, Now());
  const auto same =
      std::find_if(kept_.begin(), kept_.end(), [&](const Kept& each) {
        return each.name == cookie.name && each.path == cookie.path;
      });
  if (same == kept_.end()) {
    kept_.push_back(std::move(cookie));
  } else if (cookie.end <= Now()) {
    kept_.erase(same);
  } else {
    *same = std::move(cookie);
  }
}

std::vector<Visit::Kept> Visit::CookiesFor(const Request& request) const {
  const std::string path = PathOf(request);
  const Clock::time_point now = Now();
  std::vector<Kept> cookies;
  for (const Kept& each : kept_) {
    if (each.end > now && PathMatches(path, each.path) &&
        (!each.is_secure || request.IsHttps())) {
      cookies.push_back(each);
    }
  }
  // RFC 6265 section 5.4.
  std::stable_sort(cookies.begin(), cookies.end(),
                   [](const Kept& left, const Kept& right) {
                     return left.path.size() > right.path.size();
                   });
  return cookies;
}

std::string Visit::Cookie(const std::string& name,
                          const Request& request) const {
  for (const Kept& each : CookiesFor(request)) {
    if (each.name == name) return each.value;
  }
  return "";
}

Response Visit::Send(Request request) {
  for (const Kept& each : CookiesFor(request)) {
    request.Cookie(each.name, each.value);
  }
  Response response = front_.Run(request);
  for (const std::string& each : response.Headers("Set-Cookie")) {
    Take(each, request);
  }
  return response;
}

}  // namespace zan_cgi::testing
