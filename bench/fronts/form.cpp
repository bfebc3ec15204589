// Answers a POST of the fields f0, f1, ... with a summary of their values.

#include <zancgi/zancgi.h>

#include <exception>
#include <string>
#include <vector>

#include "../field_summary.h"
#include "answer.h"

int main(int /*argc*/, char** argv) try {
  zan_cgi::Cgi cgi(argv[0], "bench");
  std::vector<std::string> names;
  cgi.GetParams(names);
  bench::FieldSummary fields;
  for (const std::string& name : names) fields.Add(cgi.Param(name));
  return bench::Answer().Add(fields.Line()).Send();
} catch (const std::exception&) {
  return 1;
}
