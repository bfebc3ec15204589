// fronts/get.cpp with librudecgi, which treats cookies like parameters.

#include <rude/cgi.h>

#include <exception>
#include <iostream>

int main() try {
  const rude::CGI cgi;
  std::cout << "Content-Type: text/plain\r\n\r\n";
  for (const char* name : {"a", "b", "c", "session"}) {
    std::cout << name << '=' << cgi.value(name) << '\n';
  }
  return std::cout.flush() ? 0 : 1;
} catch (const std::exception&) {
  return 1;
}
