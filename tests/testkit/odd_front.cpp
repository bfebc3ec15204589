/// @file
/// A front end that does what its query string says, well or badly.

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>
#include <zancgi/account.h>
#include <zancgi/zancgi.h>

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
  std::string text;
  for (char** line = environ; *line != nullptr; ++line) {
    text.append(*line).append("\n");
  }
  Answer(text);
}

/// Shows the cookies, and sets one as a header of the request says.
void ExchangeCookies() {
  const char* const cookies = ::getenv("HTTP_COOKIE");
  const char* const set = ::getenv("HTTP_X_SET");
  if (set != nullptr) std::cout << "Set-Cookie: " << set << "\r\n";
  Answer(cookies == nullptr ? "" : cookies);
}

void ShowKindOfInput() {
  namespace fs = std::filesystem;
  const fs::file_type type = fs::status("/proc/self/fd/0").type();
  Answer(type == fs::file_type::fifo      ? "pipe"
         : type == fs::file_type::socket  ? "socket"
         : type == fs::file_type::regular ? "file"
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

void LeaveProcess() {
  Answer("");
  if (::fork() != 0) return;
  ::setsid();
  ::close(STDOUT_FILENO);
  for (;;) ::pause();
}

void LeaveFiles() {
  Answer("");
  const std::string folder = std::string(::getenv("TMP")) + "/folder";
  std::filesystem::create_directory(folder);
  std::ofstream(folder + "/file");
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
    {"body",
     [] {
       Answer({std::istreambuf_iterator<char>(std::cin), {}});
     }},
    {"cookies", ExchangeCookies},
    {"kind", ShowKindOfInput},
    {"identity", ShowIdentity},
    {"become", BecomeVisitor},
    {"descriptors", ShowDescriptors},
    {"signals", ShowIgnoredSignals},
    {"folder", [] { Answer(std::filesystem::current_path()); }},
    {"hang",
     [] {
       // A process of its own session, as a daemon is.
       if (::fork() == 0) ::setsid();
       for (;;) ::pause();
     }},
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
