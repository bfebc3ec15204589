#include "support/terminal.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support {

bool TakesTerminal(const std::function<void(const std::string& path)>& deed) {
  const pid_t process = ::fork();
  if (process == 0) {
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    char path[64];
    if (::setsid() < 0 || ::unlockpt(terminal) != 0 ||
        ::ptsname_r(terminal, path, sizeof(path)) != 0) {
      ::_exit(0);
    }
    deed(path);
    ::_exit(::open("/dev/tty", O_RDWR | O_CLOEXEC) >= 0 ? 1 : 0);
  }
  int status = 0;
  ::waitpid(process, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 1;
}

bool CanTakeTerminals() {
  return TakesTerminal([](const std::string& path) {
    static_cast<void>(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  });
}

}  // namespace support
