// A back end that answers "func=N" with a document of N bytes.
//
//   scgi_echo SOCKET
//
// Serves one connection after another on the Unix socket, with few system
// calls. Prints a line as soon as it listens. Exits at the end of its standard
// input, so that it does not outlive the process that started it.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "descriptor.h"

namespace {

using bench::Descriptor;
using bench::ThrowErrno;

Descriptor Listen(std::string_view path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    throw std::runtime_error("the path of the socket is too long");
  }
  path.copy(address.sun_path, path.size());
  Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::bind(listener.Number(), reinterpret_cast<const sockaddr*>(&address),
             sizeof(address)) != 0) {
    ThrowErrno("cannot bind");
  }
  if (::listen(listener.Number(), SOMAXCONN) != 0) ThrowErrno("cannot listen");
  return listener;
}

/// Returns the variables of a request, the content of its netstring; empty
/// until the request is complete.
std::string_view Variables(std::string_view received) {
  const std::size_t colon = received.find(':');
  if (colon == std::string_view::npos) return {};
  const std::size_t size = std::stoul(std::string(received.substr(0, colon)));
  const std::string_view rest = received.substr(colon + 1);
  return rest.size() > size ? rest.substr(0, size) : std::string_view();
}

std::string ReadVariables(const Descriptor& connection) {
  std::string received;
  std::array<char, 65536> piece;
  while (Variables(received).empty()) {
    const ssize_t count =
        ::recv(connection.Number(), piece.data(), piece.size(), 0);
    if (count <= 0) throw std::runtime_error("a request is incomplete");
    received.append(piece.data(), static_cast<std::size_t>(count));
  }
  return std::string(Variables(received));
}

/// Returns N from "func=N" at the beginning of the query.
std::size_t RequestedSize(const std::string& variables) {
  constexpr char kPrefix[] = "\0QUERY_STRING\0func=";
  constexpr std::size_t kPrefixSize = sizeof(kPrefix) - 1;
  const std::size_t found = variables.find(kPrefix, 0, kPrefixSize);
  if (found == std::string::npos) {
    throw std::runtime_error("the query does not begin with \"func\"");
  }
  return std::stoul(variables.substr(found + kPrefixSize));
}

std::string MakeDocument(std::size_t size) {
  constexpr std::string_view kBegin = "<?xml version=\"1.0\"?>\n<doc>";
  constexpr std::string_view kEnd = "</doc>\n";
  constexpr std::string_view kRow = "<row name=\"value\"/>\n";
  if (size < kBegin.size() + kEnd.size()) {
    throw std::runtime_error("a document cannot be that short");
  }
  std::string document(kBegin);
  while (document.size() < size) document += kRow;
  document.resize(size - kEnd.size());
  return document.append(kEnd);
}

/// Returns the document of this size, made at the first request for it.
const std::string& Document(std::size_t size) {
  static std::map<std::size_t, std::string> documents;
  std::string& document = documents[size];
  if (document.empty()) document = MakeDocument(size);
  return document;
}

void Send(const Descriptor& connection, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count =
        ::send(connection.Number(), text.data(), text.size(), MSG_NOSIGNAL);
    if (count < 0) ThrowErrno("cannot send");
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

void Serve(const Descriptor& connection) try {
  Send(connection, Document(RequestedSize(ReadVariables(connection))));
} catch (const std::exception& error) {
  static_cast<void>(std::fprintf(stderr, "scgi_echo: %s\n", error.what()));
}

/// Waits for a connection. Returns false at the end of standard input.
bool WaitForConnection(const Descriptor& listener) {
  std::array<pollfd, 2> events = {
      {{STDIN_FILENO, POLLIN, 0}, {listener.Number(), POLLIN, 0}}};
  if (::poll(events.data(), events.size(), -1) < 0) ThrowErrno("cannot wait");
  return events[0].revents == 0;
}

void ServeAll(const Descriptor& listener) {
  std::puts("listening");
  static_cast<void>(std::fflush(stdout));
  while (WaitForConnection(listener)) {
    Serve(Descriptor(
        ::accept4(listener.Number(), nullptr, nullptr, SOCK_CLOEXEC)));
  }
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) {
    static_cast<void>(std::fprintf(stderr, "usage: scgi_echo SOCKET\n"));
    return 2;
  }
  ServeAll(Listen(argv[1]));
  return 0;
} catch (const std::exception& error) {
  static_cast<void>(std::fprintf(stderr, "scgi_echo: %s\n", error.what()));
  return 1;
}
