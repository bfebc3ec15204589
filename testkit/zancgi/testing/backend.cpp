#include <zancgi/testing/backend.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <zancgi/testing/form.h>
#include <zancgi/testing/request.h>
#include <zancgi/testing/scratch.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "system.h"

namespace zan_cgi::testing {
namespace {

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    throw std::invalid_argument("socket path too long: " + path);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

/// Returns a bound socket to which any user may connect.
int BoundSocket(const std::string& path) {
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) Fail("socket");
  const sockaddr_un address = AddressOf(path);
  if (::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address),
             sizeof(address)) != 0) {
    Fail("bind " + path);
  }
  ::chmod(path.c_str(), 0777);
  return socket.Release();
}

/// Reads the length of a netstring and the colon after it.
std::string ReadLength(int connection) {
  std::string length;
  char byte;
  while (RetryInterrupted([&] { return ::read(connection, &byte, 1); }) == 1) {
    length.push_back(byte);
    if (byte == ':') break;
  }
  return length;
}

/// Reads a netstring. Waits for its final comma but leaves it unread: closing a
/// Unix socket with an unread byte resets the peer. If the netstring is
/// incomplete, returns what was received.
std::string ReadUpToComma(int connection) {
  std::string text = ReadLength(connection);
  std::size_t left = std::strtoul(text.c_str(), nullptr, 10);
  char piece[65536];
  while (left > 0) {
    const ssize_t count = RetryInterrupted([&] {
      return ::read(connection, piece, std::min(left, sizeof(piece)));
    });
    if (count <= 0) return text;
    text.append(piece, static_cast<std::size_t>(count));
    left -= static_cast<std::size_t>(count);
  }
  char comma;
  const auto peek = [&] { return ::recv(connection, &comma, 1, MSG_PEEK); };
  if (RetryInterrupted(peek) == 1) text.push_back(comma);
  return text;
}

void TakeComma(int connection) {
  char comma;
  static_cast<void>(::recv(connection, &comma, 1, MSG_DONTWAIT));
}

Query ParseQuery(const std::string& raw) {
  Query query{raw, {}};
  if (raw.empty() || raw.back() != ',') return query;
  std::size_t at = raw.find(':') + 1;
  const std::size_t end = raw.size() - 1;
  const auto take = [&] {
    const std::size_t zero = std::min(raw.find('\0', at), end);
    std::string item = raw.substr(at, zero - at);
    at = zero + 1;
    return item;
  };
  while (at < end) {
    std::string name = take();
    std::string value = at < end ? take() : "";
    query.variables.emplace_back(std::move(name), std::move(value));
  }
  return query;
}

void SendAll(int connection, const std::string& text, std::size_t piece) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = std::min(piece, text.size() - at);
    const ssize_t sent = RetryInterrupted([&] {
      return ::send(connection, text.data() + at, size, MSG_NOSIGNAL);
    });
    if (sent < 0) return;
    at += static_cast<std::size_t>(sent);
  }
}

}  // namespace

Step Refuse() { return {Step::Kind::Refuse, ""}; }
Step Reset() { return {Step::Kind::Reset, ""}; }
Step CloseSilently() { return {Step::Kind::CloseSilently, ""}; }
Step StaySilent() { return {Step::Kind::StaySilent, ""}; }
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

std::string Query::Item(const std::string& name) const {
  for (const auto& [key, value] : FromUrlEncoded((*this)["QUERY_STRING"])) {
    if (key == name) return value;
  }
  return "";
}

Backend::Backend(std::string name)
    : name_(std::move(name)), socket_path_(run_dir_ / (name_ + ".sock")) {
  ::chmod(run_dir_.Path().c_str(), 0755);
  // Without a listener, as after a crash of the service.
  ::close(BoundSocket(socket_path_));
}

Backend::~Backend() { StopListening(); }

Backend& Backend::Then(Step step) {
  script_.push_back(std::move(step));
  return *this;
}

Backend& Backend::Times(std::size_t count, const Step& step) {
  script_.insert(script_.end(), count, step);
  return *this;
}

Backend& Backend::On(const std::string& function, Step step) {
  if (step.kind == Step::Kind::Refuse) {
    throw std::invalid_argument("a query that is read cannot be refused");
  }
  rules_[function] = std::move(step);
  return *this;
}

Backend& Backend::Otherwise(std::function<Step(const Query&)> rule) {
  otherwise_ = std::move(rule);
  return *this;
}

bool Backend::RefusesAt(std::size_t step) const {
  return step < script_.size() ? script_[step].kind == Step::Kind::Refuse
                               : !HasRules();
}

Step Backend::RuleFor(const Query& query) {
  const auto rule = rules_.find(query.Item("func"));
  if (rule != rules_.end()) return rule->second;
  if (otherwise_) return otherwise_(query);
  unexpected_.push_back(query);
  return CloseSilently();
}

void Backend::Listen() {
  ::unlink(socket_path_.c_str());
  listener_ = BoundSocket(socket_path_);
  if (::listen(listener_, 16) != 0) Fail("listen");
}

void Backend::StopListening() {
  if (listener_ >= 0) ::close(listener_);
  listener_ = -1;
}

void Backend::BeginRun() {
  if (!ClosesToRefuse() || !RefusesAt(next_)) Listen();
}

void Backend::BecomeClient() {
  if (listener_ >= 0) ::close(listener_);
}

void Backend::EndRun() {
  StopListening();
  for (const int connection : silent_) ::close(connection);
  silent_.clear();
  const bool has_refused = next_ < script_.size() && RefusesAt(next_);
  if (ClosesToRefuse() && has_refused) ++next_;
}

void Backend::ServeUntil(int descriptor) {
  for (;;) {
    // poll(2) ignores negative descriptors.
    pollfd events[] = {{listener_, POLLIN, 0}, {descriptor, POLLIN, 0}};
    if (::poll(events, 2, -1) < 0 && errno != EINTR) Fail("poll");
    if ((events[0].revents & POLLIN) != 0) {
      ServeOne();
    } else if (events[1].revents != 0) {
      return;
    }
  }
}

void Backend::ServeOne() {
  while (next_ < script_.size() && RefusesAt(next_)) ++next_;
  const Descriptor connection(RetryInterrupted(
      [&] { return ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC); }));
  if (!connection) Fail("accept");
  if (next_ == script_.size()) {
    queries_.push_back(ParseQuery(ReadUpToComma(connection.Get())));
    return Treat(RuleFor(queries_.back()), connection.Get());
  }
  const Step& step = script_[next_++];
  // Closed now, before the client can connect again.
  if (ClosesToRefuse() && RefusesAt(next_)) StopListening();
  if (step.kind == Step::Kind::Reset) {
    pollfd readable{connection.Get(), POLLIN, 0};
    RetryInterrupted([&] { return ::poll(&readable, 1, -1); });
    return;
  }
  queries_.push_back(ParseQuery(ReadUpToComma(connection.Get())));
  Treat(step, connection.Get());
}

/// Carries out a step. The comma of the query is still unread.
void Backend::Treat(const Step& step, int connection) {
  const bool resets = step.kind == Step::Kind::Reset ||
                      step.kind == Step::Kind::AnswerThenReset;
  if (!resets) TakeComma(connection);
  if (step.kind == Step::Kind::StaySilent) {
    silent_.push_back(::fcntl(connection, F_DUPFD_CLOEXEC, 0));
    return;
  }
  const bool bytewise = step.kind == Step::Kind::AnswerByteByByte;
  SendAll(connection, step.answer, bytewise ? 1 : 65536);
}

}  // namespace zan_cgi::testing
