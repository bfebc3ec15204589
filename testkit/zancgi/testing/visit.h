/// @file
/// A visitor who keeps cookies from one request to the next.
#ifndef ZANCGI_TESTING_VISIT_H
#define ZANCGI_TESTING_VISIT_H

#include <zancgi/testing/program.h>
#include <zancgi/testing/request.h>
#include <zancgi/testing/response.h>

#include <chrono>
#include <string>
#include <vector>

namespace zan_cgi::testing {

/// A browser's visit to a front end, as far as cookies are concerned (RFC
/// 6265). Redirects are not followed.
///
/// Cookies are identified by name and path and kept until their Max-Age or
/// Expires. A cookie is rejected if it is for a domain other than the request's
/// host, if it is Secure and the request is not HTTPS, or if it lacks what the
/// prefix __Secure- or __Host- of its name requires. SameSite and HttpOnly have
/// no effect: the visitor comes from no other site and runs no scripts.
class Visit {
 public:
  /// @param front  must exist as long as the visit
  explicit Visit(const Program& front) : front_(front) {}

  /// Runs the front end with a request, to which it adds the matching cookies,
  /// and keeps the cookies of the answer.
  /// @throws std::system_error as Program::Run()
  Response Send(Request request);

  /// Stores a cookie as if the answer to this request had set it.
  /// @param set_cookie  the value of a field Set-Cookie
  /// @param request     the request, for its host and path
  void Take(const std::string& set_cookie, const Request& request);

  /// Returns the value of the first cookie of this name that would be sent with
  /// a request; empty if there is none.
  std::string Cookie(const std::string& name, const Request& request) const;

  /// Advances the time for cookies without waiting.
  void Wait(std::chrono::seconds time) { waited_ += time; }

 private:
  struct Kept {
    std::string name;
    std::string value;
    std::string path;
    bool is_secure = false;
    /// When it expires; the maximum for a cookie of this visit only.
    std::chrono::system_clock::time_point end =
        std::chrono::system_clock::time_point::max();
  };

  std::chrono::system_clock::time_point Now() const;
  std::vector<Kept> CookiesFor(const Request& request) const;

  const Program& front_;
  std::vector<Kept> kept_;  ///< In the order in which they were first set.
  std::chrono::seconds waited_{0};
};

}  // namespace zan_cgi::testing

#endif
