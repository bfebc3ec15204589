// fronts/get.cpp with libcgicc.

#include <cgicc/Cgicc.h>

#include <exception>
#include <iostream>

namespace {

std::string CookieOf(const cgicc::CgiEnvironment& environment,
                     const std::string& name) {
  for (const cgicc::HTTPCookie& cookie : environment.getCookieList()) {
    if (cookie.getName() == name) return cookie.getValue();
  }
  return {};
}

}  // namespace

int main() try {
  const cgicc::Cgicc cgi;
  std::cout << "Content-Type: text/plain\r\n\r\n";
  for (const char* name : {"a", "b", "c"}) {
    std::cout << name << '=' << cgi(name) << '\n';
  }
  std::cout << "session=" << CookieOf(cgi.getEnvironment(), "session") << '\n';
  return std::cout.flush() ? 0 : 1;
} catch (const std::exception&) {
  return 1;
}
