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

/// A browser's visit to a front end, as far as cookies go (RFC 6265). Redirects
/// are not followed.
///
/// A cookie is kept by name and path, until its Max-Age or Expires says
/// otherwise. It is not taken when it is for another domain than the request's
/// host, when it is Secure and the request is not HTTPS, or when the prefix
/// __Secure- or __Host- of its name asks for more than it has. SameSite and
/// HttpOnly have no effect: the visitor comes from nowhere else and runs no
/// scripts.
class Visit {
 public:
  /// @param front  must live as long as the visit
  explicit Visit(const Program& front) : front_(front) {}

  /// Has the front end serve a request, with the cookies that belong to it
  /// after those that it has already, and keeps those of the answer.
  /// @throws std::system_error as Program::Run()
  Response Send(Request request);

  /// Takes a cookie as if the answer to this request had set it.
  /// @param set_cookie  the value of a field Set-Cookie
  /// @param request     the request, for its host and path
  void Take(const std::string& set_cookie, const Request& request);

  /// The value of the cookie of this name that a request would be sent first;
  /// empty when there is none.
  std::string Cookie(const std::string& name, const Request& request) const;

  /// Has this time pass for the cookies, at once.
  void Wait(std::chrono::seconds time) { waited_ += time; }

 private:
  struct Kept {
    std::string name;
    std::string value;
    std::string path;
    bool is_secure = false;
    /// When it goes; the end of time for one that goes with the visit.
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
