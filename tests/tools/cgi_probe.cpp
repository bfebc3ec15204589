// A CGI program that reports its arguments, directory, environment and
// descriptors, each read of its body, and the end of the body. Each fact is a
// word and a text, and ends with NUL; one more NUL precedes the body.
//
// It reads CONTENT_LENGTH bytes or, if the query is "to-the-end", everything.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;

void Report(const char* what, const std::string& text) {
  std::printf("%s %s%c", what, text.c_str(), '\0');
}

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

// Each open descriptor and its target, including the one of this listing.
void ReportDescriptors() {
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code closed;
    Report("open", entry.path().filename().string() + " " +
                       fs::read_symlink(entry.path(), closed).string());
  }
}

std::string ReadBody(std::uint64_t length) {
  std::string body;
  std::vector<char> buffer(std::size_t{1} << 16U);
  while (body.size() < length) {
    const auto wanted =
        std::min<std::uint64_t>(length - body.size(), buffer.size());
    const ssize_t got = ::read(0, buffer.data(), wanted);
    Report("read", std::to_string(got));
    if (got <= 0) {
      break;
    }
    body.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return body;
}

// The events of standard input after the body.
void ReportEnd() {
  pollfd input = {0, POLLIN, 0};
  ::poll(&input, 1, 100);
  Report("polled", std::to_string(input.revents));
}

}  // namespace

int main(int argc, char** argv) {
  std::printf("Content-Type: text/plain\r\n\r\n");
  std::for_each_n(argv, argc,
                  [](const char* text) { Report("argument", text); });
  Report("folder", fs::current_path().string());
  for (char** variable = environ; *variable != nullptr; ++variable) {
    Report("variable", *variable);
  }
  ReportDescriptors();
  const bool to_the_end = Variable("QUERY_STRING") == "to-the-end";
  const std::string length = Variable("CONTENT_LENGTH");
  const std::string body = ReadBody(
      to_the_end ? UINT64_MAX : std::strtoull(length.c_str(), nullptr, 10));
  ReportEnd();
  std::putchar('\0');
  std::fwrite(body.data(), 1, body.size(), stdout);
}
