#include <zancgi/testing/account.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/scratch.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "mount.h"

namespace fs = std::filesystem;

namespace zan_cgi::testing {
namespace {

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

/// Hides the log socket: PAM's messages about tests concern nobody, and the C
/// library would leave a socket open.
void HideSystemLog() {
  if (!fs::exists("/dev/log")) return;
  if (::mount("/dev/null", "/dev/log", nullptr, MS_BIND, nullptr) != 0) {
    throw std::runtime_error("cannot hide the system's log");
  }
}

/// Checks this in a process of its own.
bool CanMountPrivately() {
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

}  // namespace

std::string WhyNoAccounts() {
  if (!IsRoot()) return "needs root";
  static const bool can_mount = CanMountPrivately();
  return can_mount ? "" : "needs the right to mount";
}

void UseAccounts(const std::vector<Account>& accounts,
                 const std::vector<Group>& groups) {
  // The cache lists the folders of the libraries.
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

ThrowAwayAccount::ThrowAwayAccount(const std::string& name, uid_t number)
    : entry_{name, number, number, scratch_.MakeDir(name)} {
  // The account can search every folder above its home, and all belong to root.
  fs::permissions(scratch_.Path(), fs::perms{0755});
  fs::permissions(Home(), fs::perms{0700});
  if (IsRoot() && ::chown(Home().c_str(), number, number) != 0) {
    throw std::runtime_error("cannot give " + Home() + " away");
  }
}

void ThrowAwayAccount::Use() const {
  UseAccounts({entry_}, {{entry_.name, entry_.gid, {}}});
}

}  // namespace zan_cgi::testing
