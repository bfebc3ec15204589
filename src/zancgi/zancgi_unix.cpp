#include <zancgi/zancgi.h>

#include <tov/err.h>
#include <tov/file.h>
#include <tov/log.h>

#include <poll.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "confinement.h"
#include "unix_log.h"

namespace zan_cgi {

tov_log::Module unix_log("zancgi", "core");

// Reading the body.

namespace {

tov_log::Module& log = unix_log;

constexpr int kInputTimeoutMs = 30'000;

/// Waits for something to happen to standard input and returns what; 0 when a
/// signal came first.
short WaitForInput() {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  const int count = ::poll(&input, 1, kInputTimeoutMs);
  if (count < 0) {
    if (errno != EINTR) {
      throw std::runtime_error(std::string("polling error: ") +
                               std::strerror(errno));
    }
    ZANCGI_LOG_HERE(kDebug, "poll interrupted, trying again");
    return 0;
  }
  if (count == 0) {
    ::close(STDIN_FILENO);
    throw std::runtime_error("timeout");
  }
  return input.revents;
}

long ReadInput(char* buffer, long length) {
  const ssize_t count =
      ::read(STDIN_FILENO, buffer, static_cast<std::size_t>(length));
  if (count >= 0) return count;
  // Kept, since the log may change it.
  const int error = errno;
  if (error == EAGAIN) return 0;
  ZANCGI_LOG(kError, "error reading stdin, code %d", error);
  return -1;
}

}  // namespace

long Cgi::Data::Read(char* buffer, long length) {
  const short events = WaitForInput();
  if ((events & POLLNVAL) != 0) {
    throw std::runtime_error("invalid polling request");
  }
  if ((events & POLLERR) != 0) {
    // The number of whatever call has failed last, since poll() has not: kept
    // for compatibility.
    throw std::runtime_error(std::string("polling error: ") +
                             std::strerror(errno));
  }
  // Before the hang-up: what the writer has left is read first.
  if ((events & POLLIN) != 0) return ReadInput(buffer, length);
  if ((events & POLLHUP) != 0) {
    // No signal, although it says so: administrators know this text.
    ZANCGI_LOG(kWarning, "Signal HUP received");
    return -1;
  }
  return 0;
}

std::uint64_t Cgi::Data::FreeSpaceSize(const std::string& path) {
  struct statfs64 file_system;
  if (::statfs64(path.c_str(), &file_system) != 0) {
    throw std::runtime_error("Cannot run statfs on " + path);
  }
  // All free blocks, those kept for the superuser too: that is who writes.
  return static_cast<std::uint64_t>(file_system.f_bsize) *
         static_cast<std::uint64_t>(file_system.f_bfree);
}

// The working directory.

namespace {

/// Everything before the last "/"; only the forward slash counts.
std::string FolderOf(const std::string& program) {
  const std::size_t slash = program.rfind('/');
  return slash == std::string::npos ? "." : program.substr(0, slash);
}

}  // namespace

void Cgi::Data::SetWorkDir(const std::string& binary_name) {
  if (binary_name.empty()) {
    tov_err::AssertError::Raise(
        __FILE__, __LINE__,
        "void zan_cgi::Cgi::Data::SetWorkDir(const string&)",
        "passed binary name is empty");
  }
  const std::string work_dir =
      tov_file::RealPath(FolderOf(binary_name) + "/..");
  ZANCGI_LOG_HERE(kDebug, "set working directory to '%s'", work_dir.c_str());
  // Kept for compatibility: a directory that cannot be entered is no error, and
  // the process stays where it is.
  if (::chdir(work_dir.c_str()) != 0) return;
}

// What a switch has made of the process.

namespace {

/// Of the process, like the root directory itself: there is no way back.
bool is_inside_accounts_folder = false;

/// Of the process, like its identity; null until it has become an account.
/// Lives until the process ends.
char* account_home = nullptr;

}  // namespace

bool IsInsideAccountsFolder() { return is_inside_accounts_folder; }

void SetInsideAccountsFolder() { is_inside_accounts_folder = true; }

const char* AccountHome() { return account_home; }

void SetAccountHome(char* home) {
  std::free(account_home);
  account_home = home;
}

}  // namespace zan_cgi
