#include <zancgi/zancgi.h>

#include <tov/err.h>
#include <tov/file.h>
#include <tov/log.h>

#include <poll.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "log_levels.h"

namespace zan_cgi {
namespace {

tov_log::Module log("zancgi", "core");

std::string SourceName() { return tov_file::SplitPath(__FILE__).second; }

/// Everything before the last "/"; only the forward slash counts.
std::string FolderOf(const std::string& program) {
  const std::size_t slash = program.rfind('/');
  return slash == std::string::npos ? "." : program.substr(0, slash);
}

constexpr int kInputTimeout = 30'000;

/// Waits for something to happen to standard input and returns what; 0 when a
/// signal came first.
short WaitForInput() {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  const int count = ::poll(&input, 1, kInputTimeout);
  if (count < 0) {
    if (errno != EINTR) {
      throw std::runtime_error(std::string("polling error: ") +
                               std::strerror(errno));
    }
    if (log.Check(kDebug)) {
      log.Write(kDebug, "%s:%d poll interrupted, trying again",
                SourceName().c_str(), __LINE__);
    }
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
  if (errno == EAGAIN) return 0;
  if (log.Check(kError)) {
    log.Write(kError, "error reading stdin, code %d", errno);
  }
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
    if (log.Check(kWarning)) log.Write(kWarning, "Signal HUP received");
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

void Cgi::Data::SetWorkDir(const std::string& binary_name) {
  if (binary_name.empty()) {
    tov_err::AssertError::Raise(
        __FILE__, __LINE__,
        "void zan_cgi::Cgi::Data::SetWorkDir(const string&)",
        "passed binary name is empty");
  }
  const std::string work_dir =
      tov_file::RealPath(FolderOf(binary_name) + "/..");
  if (log.Check(kDebug)) {
    log.Write(kDebug, "%s:%d set working directory to '%s'",
              SourceName().c_str(), __LINE__, work_dir.c_str());
  }
  // Kept for compatibility: a directory that cannot be entered is no error, and
  // the process stays where it is.
  if (::chdir(work_dir.c_str()) != 0) return;
}

}  // namespace zan_cgi
