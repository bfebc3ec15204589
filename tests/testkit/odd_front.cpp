/// @file
/// A front end that does what its query string says, well or badly.

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zancgi/account.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace {

void Answer(const std::string& text) {
  std::cout << "Content-Type: text/plain\r\n\r\n" << text;
}

void ShowEnvironment() {
  std::vector<std::string> lines;
  for (char** line = environ; *line != nullptr; ++line)
    lines.emplace_back(*line);
  std::sort(lines.begin(), lines.end());
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  Answer(text);
}

void ShowBody() {
  Answer(std::string(std::istreambuf_iterator<char>(std::cin), {}));
}

/// Shows the cookies, and sets one as a header of the request says.
void ExchangeCookies() {
  const char* const cookies = ::getenv("HTTP_COOKIE");
  const char* const set = ::getenv("HTTP_X_SET");
  if (set != nullptr) std::cout << "Set-Cookie: " << set << "\r\n";
  Answer(cookies == nullptr ? "" : cookies);
}

void ShowKindOfInput() {
  struct stat status {};
  ::fstat(STDIN_FILENO, &status);
  Answer(S_ISFIFO(status.st_mode)   ? "pipe"
         : S_ISSOCK(status.st_mode) ? "socket"
         : S_ISREG(status.st_mode)  ? "file"
                                    : "other");
}

void ShowIdentity() {
  Answer(std::to_string(::getuid()) + " " + std::to_string(::getgid()) + " " +
         std::to_string(::getgroups(0, nullptr)));
}

/// Becomes the account of the test kit and makes a file in its home.
void BecomeVisitor() {
  zan_cgi::Cgi cgi("/bin/odd", "");
  zan_cgi::BecomeAccount(cgi, "visitor");
  std::ofstream("made") << "by the visitor";
  ShowIdentity();
}

void ShowDescriptors() {
  std::string text;
  for (int number = 0; number < 1024; ++number) {
    if (::fcntl(number, F_GETFD) >= 0) text += std::to_string(number) + " ";
  }
  Answer(text);
}

void ShowIgnoredSignals() {
  struct sigaction action {};
  ::sigaction(SIGPIPE, nullptr, &action);
  sigset_t blocked;
  ::sigprocmask(SIG_BLOCK, nullptr, &blocked);
  Answer(std::to_string(action.sa_handler == SIG_IGN) +
         std::to_string(::sigismember(&blocked, SIGUSR1)));
}

void Hang() {
  // A process of its own session, as a daemon is.
  if (::fork() == 0) ::setsid();
  for (;;) ::pause();
}

void LeaveProcess() {
  Answer("");
  if (::fork() != 0) return;
  ::setsid();
  ::close(STDOUT_FILENO);
  for (;;) ::pause();
}

void LeaveFiles() {
  Answer("");
  namespace fs = std::filesystem;
  const fs::path folder = std::string(::getenv("TMP")) + "/folder";
  fs::create_directory(folder);
  ::close(::open((folder / "file").c_str(), O_CREAT | O_WRONLY, 0600));
}

void ParseParameters() {
  zan_cgi::Cgi cgi("a/odd_front", "backend");
  std::string text = cgi.Param("a") + "|" + cgi.Param("b") + "|" +
                     cgi.Cookie("c") + "|" + cgi.Cookie("d") + "|";
  std::vector<std::string> names;
  cgi.GetFileNames(names);
  for (const std::string& name : names) {
    text +=
        name + ":" + std::to_string(std::filesystem::file_size(cgi.File(name)));
  }
  Answer(text);
}

void Ask() {
  zan_cgi::Cgi cgi("a/odd_front", "backend");
  const std::string first = cgi.Query(std::string("func=a"));
  Answer(first + "," + cgi.Query(std::string("func=b")));
}

const std::map<std::string, std::function<void()>> kDeeds = {
    {"environment", ShowEnvironment},
    {"body", ShowBody},
    {"cookies", ExchangeCookies},
    {"kind", ShowKindOfInput},
    {"identity", ShowIdentity},
    {"become", BecomeVisitor},
    {"descriptors", ShowDescriptors},
    {"signals", ShowIgnoredSignals},
    {"folder", [] { Answer(std::filesystem::current_path()); }},
    {"hang", Hang},
    {"process", LeaveProcess},
    {"files", LeaveFiles},
    {"parameters", ParseParameters},
    {"ask", Ask},
    {"nothing", [] {}},
    {"fail", [] { ::_exit(3); }},
    {"die", [] { ::raise(SIGTERM); }},
};

}  // namespace

int main(int, char** argv) {
  std::string deed = ::getenv("QUERY_STRING");
  deed = deed.substr(0, deed.find('&'));
  try {
    if (deed == "name") {
      Answer(argv[0]);
    } else {
      kDeeds.at(deed)();
    }
  } catch (const std::exception& error) {
    std::cout << "Status: 502 Bad Gateway\nContent-Type: text/plain\n\n"
              << error.what();
  }
}
