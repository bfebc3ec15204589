/// @file
/// Makes a switch and says on standard output what has come of it, for tests
/// that run it under wrappers of the C library. Marks on standard error where
/// it begins and ends.
///
/// usage: switch_program USER DIR [chroot] [pam]
///
/// Of a POST its uploads are handed over, to be spooled in the directory TMP.
#include <sys/stat.h>
#include <unistd.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

namespace {

using zan_cgi::Cgi;

void Say(const std::string& name, const std::string& value) {
  std::cout << name << ' ' << value << '\n';
}

/// Real, effective and saved.
template <class Id>
void SayIds(const std::string& name, int (*get)(Id*, Id*, Id*)) {
  Id real, effective, saved;
  if (get(&real, &effective, &saved) != 0) return;
  Say(name, std::to_string(real) + " " + std::to_string(effective) + " " +
                std::to_string(saved));
}

void SaySupplementaryGroups() {
  std::vector<gid_t> groups(64);
  const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
  groups.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  std::sort(groups.begin(), groups.end());
  std::string text;
  for (const gid_t group : groups) {
    text += (text.empty() ? "" : " ") + std::to_string(group);
  }
  Say("supplementary", text);
}

void SayPlace() {
  std::error_code error;
  Say("work_dir", std::filesystem::current_path(error).string());
}

/// What the kernel, which the wrappers do not ask, takes this process for.
void SayTrueUsers() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("Uid:\t")) Say("true_users", line.substr(5));
  }
}

void SayFile(const std::string& path) {
  Say("file", path);
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return;
  Say("owner",
      std::to_string(status.st_uid) + " " + std::to_string(status.st_gid));
  Say("mode", std::to_string(status.st_mode & 07777));
  std::ifstream file(path);
  Say("content", std::string(std::istreambuf_iterator<char>(file), {}));
}

void SayUploads(Cgi& request) {
  std::vector<std::string> names;
  request.GetFileNames(names);
  for (const std::string& name : names) SayFile(request.File(name));
}

void Switch(Cgi& request, const std::vector<std::string>& arguments) {
  const auto given = [&](const char* flag) {
    return std::find(arguments.begin() + 2, arguments.end(), flag) !=
           arguments.end();
  };
  std::cerr << "switching\n";
  try {
    request.Su(arguments[0], arguments[1], given("chroot"), given("pam"));
  } catch (const std::exception& error) {
    Say("error", error.what());
  }
  std::cerr << "switched\n";
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() < 2) {
    std::cerr << "usage: switch_program USER DIR [chroot] [pam]\n";
    return 2;
  }
  Cgi request(argv[0], "");
  request.SetTmpDir("");
  request.ParseQuery();
  Switch(request, arguments);
  SayIds<uid_t>("users", ::getresuid);
  SayIds<gid_t>("groups", ::getresgid);
  SaySupplementaryGroups();
  SayPlace();
  SayTrueUsers();
  SayUploads(request);
}
