#include <zancgi/testing/backend.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace zan_cgi::testing {
namespace {

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

/// Waits for a whole query and leaves it unread.
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

Query ParseQuery(const std::string& raw) {
  Query query{raw, {}};
  if (!IsWholeNetstring(raw)) return query;
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
    query.variables.emplace_back(std::move(name), std::move(value));
  }
  return query;
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

std::string Query::operator[](const std::string& name) const {
  for (const auto& [key, value] : variables) {
    if (key == name) return value;
  }
  return "";
}

bool Query::Has(const std::string& name) const {
  return std::any_of(
      variables.begin(), variables.end(),
      [&](const auto& variable) { return variable.first == name; });
}

Backend::Backend(std::string name)
    : name_(std::move(name)), socket_path_(run_dir_ / (name_ + ".sock")) {}

Backend::~Backend() { StopListening(); }

Backend& Backend::Then(Step step) {
  script_.push_back(std::move(step));
  return *this;
}

Backend& Backend::Times(std::size_t count, const Step& step) {
  script_.insert(script_.end(), count, step);
  return *this;
}

bool Backend::Refuses() const {
  return next_ == script_.size() || script_[next_].kind == Step::Kind::Refuse;
}

void Backend::Listen() {
  ::unlink(socket_path_.c_str());
  listener_ = BoundSocket(socket_path_);
  if (::listen(listener_, 16) != 0) Fail("listen");
}

void Backend::StopListening() {
  if (listener_ < 0) return;
  ::close(listener_);
  listener_ = -1;
}

void Backend::BeginRun() {
  if (!ClosesToRefuse() || !Refuses()) Listen();
}

void Backend::BecomeClient() {
  if (listener_ >= 0) ::close(listener_);
}

void Backend::EndRun() {
  StopListening();
  if (ClosesToRefuse() && Refuses() && next_ < script_.size()) ++next_;
}

bool Backend::ServeUntilExit(int process_descriptor,
                             std::chrono::milliseconds limit) {
  for (;;) {
    // A descriptor below 0 is none to poll(2).
    pollfd events[] = {{listener_, POLLIN, 0}, {process_descriptor, POLLIN, 0}};
    if (::poll(events, 2, static_cast<int>(limit.count())) <= 0) return false;
    if ((events[0].revents & POLLIN) != 0) {
      ServeOne();
    } else if ((events[1].revents & POLLIN) != 0) {
      return true;
    }
  }
}

void Backend::ServeOne() {
  while (script_.at(next_).kind == Step::Kind::Refuse) ++next_;
  const Step& step = script_[next_++];
  const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (connection < 0) Fail("accept");
  // Before the client can come again.
  if (ClosesToRefuse() && Refuses()) StopListening();
  if (step.kind == Step::Kind::Reset) {
    // A Unix socket resets its peer when it is closed with data unread.
    pollfd readable{connection, POLLIN, 0};
    ::poll(&readable, 1, -1);
  } else {
    const bool unread = step.kind == Step::Kind::AnswerThenReset;
    queries_.push_back(ParseQuery(unread ? PeekNetstring(connection)
                                         : ReadNetstring(connection)));
    const bool bytewise = step.kind == Step::Kind::AnswerByteByByte;
    SendAll(connection, step.answer, bytewise ? 1 : 65536);
  }
  ::close(connection);
}

}  // namespace zan_cgi::testing
