#include "support/account.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace support {
namespace {

/// What follows a name and a tab in a process's status.
std::string StatusOf(pid_t process, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (!line.starts_with(name + ":\t")) continue;
    std::string value = line.substr(name.size() + 2);
    value.erase(value.find_last_not_of(' ') + 1);
    return value;
  }
  return "?";
}

std::string LinkOf(pid_t process, const std::string& name) {
  std::error_code error;
  const fs::path target =
      fs::read_symlink("/proc/" + std::to_string(process) + "/" + name, error);
  return error ? "?" : target.string();
}

std::string Describe(pid_t process) {
  return StatusOf(process, "Uid") + '\n' + StatusOf(process, "Gid") + '\n' +
         StatusOf(process, "Groups") + '\n' + LinkOf(process, "root") + '\n' +
         LinkOf(process, "cwd") + '\n';
}

/// Describes the parent each time that it asks, until it goes.
[[noreturn]] void Observe(pid_t observed, int socket) {
  char request;
  while (::read(socket, &request, 1) == 1) {
    const std::string answer = Describe(observed);
    if (::write(socket, answer.data(), answer.size()) < 0) break;
  }
  ::_exit(0);
}

}  // namespace

void ConfigureLogin(const std::string& stack) {
  if (!(std::ofstream("/etc/pam.d/login") << stack).flush()) {
    throw std::runtime_error("cannot configure PAM");
  }
}

void PrintTo(const Identity& identity, std::ostream* out) {
  *out << "users " << identity.users << ", groups " << identity.groups
       << ", supplementary " << identity.supplementary << ", root "
       << identity.root << ", work dir " << identity.work_dir;
}

Observer::Observer() {
  int sockets[2];
  const pid_t observed = ::getpid();
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) {
    throw std::runtime_error("no socket pair");
  }
  process_ = ::fork();
  if (process_ < 0) throw std::runtime_error("no process");
  if (process_ == 0) {
    ::close(sockets[0]);
    Observe(observed, sockets[1]);
  }
  ::close(sockets[1]);
  // The observed may close the low descriptors.
  socket_ = ::fcntl(sockets[0], F_DUPFD_CLOEXEC, 100);
  ::close(sockets[0]);
}

Observer::~Observer() {
  ::close(socket_);
  ::waitpid(process_, nullptr, 0);
}

Identity Observer::Look() const {
  char answer[65536];
  ssize_t size = -1;
  if (::write(socket_, "?", 1) == 1) {
    size = ::read(socket_, answer, sizeof(answer));
  }
  if (size < 0) throw std::runtime_error("no answer from the observer");
  std::istringstream lines(std::string(answer, static_cast<std::size_t>(size)));
  Identity found;
  for (std::string* line : {&found.users, &found.groups, &found.supplementary,
                            &found.root, &found.work_dir}) {
    std::getline(lines, *line);
  }
  return found;
}

bool CanBecomeAnother() {
  const uid_t user = ::getuid();
  const gid_t group = ::getgid();
  constexpr auto kKeep = static_cast<uid_t>(-1);
  const gid_t roots[] = {0};
  return ::setuid(0) == 0 || ::seteuid(0) == 0 || ::setgid(0) == 0 ||
         ::setegid(0) == 0 || ::setgroups(1, roots) == 0 ||
         ::setresuid(kKeep, kKeep, 0) == 0 ||
         ::setresgid(kKeep, kKeep, 0) == 0 ||
         ::setresuid(user + 1, kKeep, kKeep) == 0 ||
         ::setresgid(group + 1, kKeep, kKeep) == 0 || ::chroot("/") == 0;
}

}  // namespace support
