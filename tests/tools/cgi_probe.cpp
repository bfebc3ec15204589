// A CGI program that tells what it was given: arguments, folder, environment,
// descriptors, how its body came and how the body ended. The answer is a line
// for each fact, its text in hexadecimal; then an empty line and the body.
//
// What it reads: so many bytes as CONTENT_LENGTH says, or, when the query is
// "to-the-end", all there are.

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string Hex(const std::string& text) {
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    hex += digits[byte >> 4U];
    hex += digits[byte & 15U];
  }
  return hex;
}

void Tell(const char* what, const std::string& text) {
  std::printf("%s %s\n", what, Hex(text).c_str());
}

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::string KindOf(int descriptor) {
  struct stat status = {};
  if (::fstat(descriptor, &status) != 0) {
    return "closed";
  }
  if (S_ISFIFO(status.st_mode)) {
    return "pipe";
  }
  if (S_ISSOCK(status.st_mode)) {
    return "socket";
  }
  if (S_ISREG(status.st_mode)) {
    return "file";
  }
  return "device";
}

// What poll tells of the standard input, without waiting long.
std::string Polled() {
  pollfd input = {0, POLLIN, 0};
  ::poll(&input, 1, 100);
  std::string told;
  for (const auto& [flag, name] :
       {std::pair{POLLIN, "readable "}, std::pair{POLLHUP, "hang-up "},
        std::pair{POLLNVAL, "invalid "}, std::pair{POLLERR, "error "}}) {
    told += (input.revents & flag) != 0 ? name : "";
  }
  return told;
}

std::vector<int> OpenDescriptors() {
  std::vector<int> found;
  DIR* folder = ::opendir("/proc/self/fd");
  while (const dirent* entry = ::readdir(folder)) {
    const auto descriptor =
        static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
    if (entry->d_name[0] != '.' && descriptor != ::dirfd(folder)) {
      found.push_back(descriptor);
    }
  }
  ::closedir(folder);
  return found;
}

std::string ReadBody(std::uint64_t length) {
  std::string body;
  std::vector<char> buffer(std::size_t{1} << 16U);
  while (body.size() < length) {
    const auto wanted =
        std::min<std::uint64_t>(length - body.size(), buffer.size());
    const ssize_t got = ::read(0, buffer.data(), wanted);
    Tell("read", std::to_string(got));
    if (got <= 0) {
      break;
    }
    body.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return body;
}

}  // namespace

int main(int argc, char** argv) {
  std::printf("Content-Type: text/plain\r\n\r\n");
  for (int i = 0; i < argc; ++i) {
    Tell("argument", argv[i]);
  }
  std::array<char, 4096> folder = {};
  Tell("folder", ::getcwd(folder.data(), folder.size()));
  for (char** variable = environ; *variable != nullptr; ++variable) {
    Tell("variable", *variable);
  }
  for (const int descriptor : OpenDescriptors()) {
    Tell("open", std::to_string(descriptor));
  }
  for (const int descriptor : {0, 1}) {
    Tell("kind", KindOf(descriptor));
  }
  const std::string length = Variable("CONTENT_LENGTH");
  const std::string body =
      ReadBody(Variable("QUERY_STRING") == "to-the-end" ? UINT64_MAX
               : length.empty()                         ? 0
                                : std::strtoull(length.c_str(), nullptr, 10));
  Tell("polled", Polled());
  std::printf("\n");
  std::fwrite(body.data(), 1, body.size(), stdout);
}
