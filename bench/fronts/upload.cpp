// Stores the file of a POST as $STORE and answers with its size.

#include <zancgi/zancgi.h>

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
  const std::string upload = cgi.File(cgi.Param("u"));
  if (std::rename(upload.c_str(), store) != 0) return 1;
  return bench::Answer()
      .Add(std::to_string(cgi.GetFileSize()))
      .Add("\n")
      .Send();
} catch (const std::exception&) {
  return 1;
}
