// Takes an upload and is killed before it can clear it away.
#include <zancgi/zancgi.h>

#include <csignal>

int main(int, char** argv) {
  zan_cgi::Cgi cgi(argv[0], "");
  cgi.SetTmpDir("");
  cgi.Param("a");
  std::raise(SIGKILL);
}
