#include "support/account.h"
#include "support/mount.h"

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/scratch.h>

#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace support {
namespace {

using zan_cgi::testing::IsRoot;
using zan_cgi::testing::ReadFile;

void WriteFile(const std::string& path, const std::string& content) {
  if (!(std::ofstream(path) << content).flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

std::string PasswordFile(const std::vector<Account>& accounts) {
  std::ostringstream file;
  file << "root:x:0:0::/:/bin/sh\n";
  for (const Account& account : accounts) {
    file << account.name << ":x:" << account.uid << ':' << account.gid
         << "::" << account.home << ":/bin/sh\n";
  }
  return file.str();
}

std::string GroupFile(const std::vector<Group>& groups) {
  std::ostringstream file;
  file << "root:x:0:\n";
  for (const Group& group : groups) {
    file << group.name << ":x:" << group.gid << ':';
    for (std::size_t i = 0; i < group.members.size(); ++i) {
      file << (i == 0 ? "" : ",") << group.members[i];
    }
    file << '\n';
  }
  return file.str();
}

/// What PAM says of a test is for nobody, and the C library would leave a
/// socket open.
void HideSystemLog() {
  if (!fs::exists("/dev/log")) return;
  if (::mount("/dev/null", "/dev/log", nullptr, MS_BIND, nullptr) != 0) {
    throw std::runtime_error("cannot hide the system's log");
  }
}

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

bool CanUseAccounts() {
  if (!IsRoot()) return false;
  const pid_t process = ::fork();
  if (process == 0) {
    const bool can =
        ::unshare(CLONE_NEWNS) == 0 &&
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        ::mount("none", "/etc", "tmpfs", 0, nullptr) == 0;
    ::_exit(can ? 0 : 1);
  }
  int status = 1;
  return ::waitpid(process, &status, 0) == process && status == 0;
}

void UseAccounts(const std::vector<Account>& accounts,
                 const std::vector<Group>& groups) {
  // Knows where libraries are.
  const std::string library_cache = ReadFile("/etc/ld.so.cache");
  MountPrivately("/etc", "mode=0755");
  HideSystemLog();
  WriteFile("/etc/ld.so.cache", library_cache);
  WriteFile("/etc/passwd", PasswordFile(accounts));
  WriteFile("/etc/group", GroupFile(groups));
  WriteFile("/etc/nsswitch.conf",
            "passwd: files\ngroup: files\nhosts: files\n");
  WriteFile("/etc/hosts", "127.0.0.1 localhost\n");
  fs::create_directory("/etc/pam.d");
}

void ConfigureLogin(const std::string& stack) {
  WriteFile("/etc/pam.d/login", stack);
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
