// Sends its query string to the back end and answers with the size of the
// reply.

#include <zancgi/zancgi.h>

#include <cstdlib>
#include <exception>
#include <string>

#include "answer.h"

int main(int /*argc*/, char** argv) try {
  const char* query = std::getenv("QUERY_STRING");
  if (query == nullptr) return 1;
  zan_cgi::Cgi cgi(argv[0], "bench");
  const std::string answer = cgi.Query(std::string(query));
  return bench::Answer().Add(std::to_string(answer.size())).Add("\n").Send();
} catch (const std::exception&) {
  return 1;
}
