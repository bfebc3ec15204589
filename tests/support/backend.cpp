#include "support/backend.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace support {
namespace {

Backend* followed = nullptr;

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    throw std::invalid_argument("socket path too long: " + path);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

int RealConnect(int socket, const sockaddr* address, socklen_t length) {
  return static_cast<int>(::syscall(SYS_connect, socket, address, length));
}

int BoundSocket(const std::string& path) {
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) Fail("socket");
  const sockaddr_un address = AddressOf(path);
  if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&address),
             sizeof(address)) != 0) {
    Fail("bind " + path);
  }
  return descriptor;
}

bool IsWholeNetstring(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) return false;
  return text.size() >= colon + 1 + std::stoul(text.substr(0, colon)) + 1;
}

/// Waits for a whole request and leaves it unread.
std::string PeekNetstring(int connection) {
  std::string text;
  while (!IsWholeNetstring(text)) {
    text.resize(text.size() + 65536);
    const ssize_t count =
        ::recv(connection, text.data(), text.size(), MSG_PEEK);
    if (count <= 0) return "";
    text.resize(static_cast<std::size_t>(count));
  }
  return text;
}

/// Reads up to and including one netstring.
std::string ReadNetstring(int connection) {
  std::string text;
  char piece[65536];
  for (;;) {
    if (IsWholeNetstring(text)) return text;
    const ssize_t count = ::read(connection, piece, sizeof(piece));
    if (count <= 0) return text;
    text.append(piece, static_cast<std::size_t>(count));
  }
}

Request ParseRequest(const std::string& raw) {
  Request request{raw, {}};
  if (!IsWholeNetstring(raw)) return request;
  std::size_t at = raw.find(':') + 1;
  const std::size_t end = raw.size() - 1;
  const auto take = [&] {
    const std::size_t zero = raw.find('\0', at);
    const std::string item = raw.substr(at, zero - at);
    at = zero + 1;
    return item;
  };
  while (at < end) {
    std::string name = take();
    std::string value = take();
    request.variables.emplace_back(std::move(name), std::move(value));
  }
  return request;
}

void SendAll(int connection, const std::string& text, std::size_t piece) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = std::min(piece, text.size() - at);
    const ssize_t sent =
        ::send(connection, text.data() + at, size, MSG_NOSIGNAL);
    if (sent < 0) return;
    at += static_cast<std::size_t>(sent);
  }
}

}  // namespace

Step Refuse() { return {Step::Kind::Refuse, ""}; }
Step Reset() { return {Step::Kind::Reset, ""}; }
Step CloseSilently() { return {Step::Kind::CloseSilently, ""}; }
Step Answer(std::string text) { return {Step::Kind::Answer, std::move(text)}; }
Step AnswerByteByByte(std::string text) {
  return {Step::Kind::AnswerByteByByte, std::move(text)};
}
Step AnswerThenReset(std::string text) {
  return {Step::Kind::AnswerThenReset, std::move(text)};
}

std::string Request::operator[](const std::string& name) const {
  for (const auto& [key, value] : variables) {
    if (key == name) return value;
  }
  return "";
}

bool Request::Has(const std::string& name) const {
  return std::any_of(
      variables.begin(), variables.end(),
      [&](const auto& variable) { return variable.first == name; });
}

Backend::Backend(std::string name)
    : name_(std::move(name)),
      socket_path_(run_dir_ / (name_ + ".sock")),
      deaf_path_(run_dir_ / "deaf"),
      listener_(BoundSocket(socket_path_)) {
  if (::listen(listener_, 16) != 0) Fail("listen");
  ::close(BoundSocket(deaf_path_));
  void* shared = ::mmap(nullptr, sizeof(*attempts_), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) Fail("mmap");
  attempts_ = new (shared) std::size_t(0);
}

Backend::~Backend() {
  ::munmap(attempts_, sizeof(*attempts_));
  ::close(listener_);
}

Backend& Backend::Then(Step step) {
  script_.push_back(std::move(step));
  return *this;
}

Backend& Backend::Times(std::size_t count, const Step& step) {
  script_.insert(script_.end(), count, step);
  return *this;
}

std::size_t Backend::Attempts() const { return *attempts_; }

void Backend::Follow(Backend* backend) { followed = backend; }

std::string Backend::TakeAttempt() {
  const std::size_t attempt = (*attempts_)++;
  const bool refused =
      attempt >= script_.size() || script_[attempt].kind == Step::Kind::Refuse;
  return refused ? deaf_path_ : socket_path_;
}

bool Backend::ServeUntilExit(int process_descriptor, int milliseconds) {
  for (;;) {
    pollfd events[] = {{listener_, POLLIN, 0}, {process_descriptor, POLLIN, 0}};
    if (::poll(events, 2, milliseconds) <= 0) return false;
    if ((events[0].revents & POLLIN) != 0) {
      ServeOne();
    } else if ((events[1].revents & POLLIN) != 0) {
      return true;
    }
  }
}

void Backend::ServeOne() {
  while (script_.at(next_to_serve_).kind == Step::Kind::Refuse) {
    ++next_to_serve_;
  }
  const Step& step = script_[next_to_serve_++];
  const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (connection < 0) Fail("accept");
  if (step.kind == Step::Kind::Reset) {
    // A Unix socket resets its peer when it is closed with data unread.
    pollfd readable{connection, POLLIN, 0};
    ::poll(&readable, 1, -1);
  } else {
    const bool unread = step.kind == Step::Kind::AnswerThenReset;
    requests_.push_back(ParseRequest(unread ? PeekNetstring(connection)
                                            : ReadNetstring(connection)));
    const bool bytewise = step.kind == Step::Kind::AnswerByteByByte;
    SendAll(connection, step.answer, bytewise ? 1 : 65536);
  }
  ::close(connection);
}

}  // namespace support

// Exported, or the shared libraries would not call it.
extern "C" __attribute__((visibility("default"))) int connect(
    int fd, const sockaddr* addr, socklen_t len) {
  using support::followed;
  const auto* local = reinterpret_cast<const sockaddr_un*>(addr);
  if (followed == nullptr || addr->sa_family != AF_UNIX ||
      followed->SocketPath() != local->sun_path) {
    return support::RealConnect(fd, addr, len);
  }
  const sockaddr_un target = support::AddressOf(followed->TakeAttempt());
  return support::RealConnect(fd, reinterpret_cast<const sockaddr*>(&target),
                              sizeof(target));
}
