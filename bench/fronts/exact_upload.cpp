// The workload "upload" with zan_cgi::Form.

#include <zancgi/form.h>
#include <zancgi/zancgi.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "answer.h"

int main(int /*argc*/, char** argv) try {
  const char* store = std::getenv("STORE");
  if (store == nullptr) return 1;
  const std::string target = store;
  zan_cgi::Cgi cgi(argv[0], "bench");
  // On the file system of the target, so that the upload can be renamed.
  cgi.SetTmpDir(target.substr(0, target.rfind('/')));
  zan_cgi::Form::Limits limits;
  limits.body = std::int64_t{1} << 40;
  const zan_cgi::Form form(cgi, limits);
  const zan_cgi::Form::Upload& upload = form.uploads().at(0);
  if (std::rename(form.Path(upload).c_str(), store) != 0) return 1;
  return bench::Answer().Add(std::to_string(upload.size)).Add("\n").Send();
} catch (const std::exception&) {
  return 1;
}
