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

/// Waits for an event on standard input and returns the events; 0 after a
/// signal.
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
  // Saved, because the log may change errno.
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
    // Kept for compatibility: poll() has not failed, so this is the error of an
    // earlier call.
    throw std::runtime_error(std::string("polling error: ") +
                             std::strerror(errno));
  }
  // Checked before the hang-up, so that remaining input is read first.
  if ((events & POLLIN) != 0) return ReadInput(buffer, length);
  if ((events & POLLHUP) != 0) {
    // No signal was received, but administrators know this text.
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
  // Includes the blocks reserved for the superuser, because root writes the
  // uploads.
  return static_cast<std::uint64_t>(file_system.f_bsize) *
         static_cast<std::uint64_t>(file_system.f_bfree);
}

// The working directory.

namespace {

/// Returns everything before the last "/", or "." without one.
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
  // Kept for compatibility: if the directory cannot be entered, the process
  // stays where it is.
  if (::chdir(work_dir.c_str()) != 0) return;
}

// State of the process after a switch.

namespace {

/// Describes the process, like its root directory: it cannot be undone.
bool is_inside_accounts_folder = false;

/// Describes the process, like its identity. Null until the process becomes an
/// account; not freed at exit.
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
