// Answers a GET with its three parameters and its cookie.

#include <zancgi/zancgi.h>

#include <exception>

#include "answer.h"

int main(int /*argc*/, char** argv) try {
  zan_cgi::Cgi cgi(argv[0], "bench");
  bench::Answer answer;
  for (const char* name : {"a", "b", "c"}) {
    answer.Add(name).Add("=").Add(cgi.Param(name)).Add("\n");
  }
  answer.Add("session=").Add(cgi.Cookie("session")).Add("\n");
  return answer.Send();
} catch (const std::exception&) {
  return 1;
}
