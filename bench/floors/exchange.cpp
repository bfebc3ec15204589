// fronts/query.cpp without a library: the same exchange with bare system calls.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : value;
}

int Connect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return -1;
  std::memcpy(address.sun_path, path.data(), path.size());
  const int connection = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connection < 0) return -1;
  if (::connect(connection, reinterpret_cast<const sockaddr*>(&address),
                sizeof(address)) != 0) {
    return -1;
  }
  return connection;
}

/// Returns an SCGI request: its variables as a netstring.
std::string Request(const std::string& query) {
  using std::string_view_literals::operator""sv;
  std::string variables("CONTENT_LENGTH\0000\0SCGI\0001\0"sv);
  variables.append("QUERY_STRING\0"sv).append(query).append("\0"sv);
  variables.append("REQUEST_METHOD\0GET\0"sv);
  return std::to_string(variables.size()) + ":" + variables + ",";
}

bool Send(int connection, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count =
        ::send(connection, text.data(), text.size(), MSG_NOSIGNAL);
    if (count < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

bool Receive(int connection, std::string& answer) {
  static char piece[65536];
  for (;;) {
    const ssize_t count = ::recv(connection, piece, sizeof(piece), 0);
    if (count <= 0) return count == 0;
    answer.append(piece, static_cast<std::size_t>(count));
  }
}

}  // namespace

int main() {
  const int connection = Connect(Variable("TOV_RUN_DIR") + "/bench.sock");
  if (connection < 0) return 1;
  std::string answer;
  if (!Send(connection, Request(Variable("QUERY_STRING") + "&out=xml")) ||
      !Receive(connection, answer)) {
    return 1;
  }
  ::close(connection);
  std::printf("Content-Type: text/plain\r\n\r\n%zu\n", answer.size());
  return 0;
}
