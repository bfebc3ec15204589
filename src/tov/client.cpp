#include <tov/client.h>
#include <tov/env.h>
#include <tov/err.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "answer_length.h"
#include "descriptor.h"

namespace tov_client {
namespace {

using tov_internal::Descriptor;
using tov_internal::RetryInterrupted;
using tov_internal::ThrowSystemError;

void CheckName(const std::string& name) {
  const bool allowed = !name.empty() && name.front() != '.' &&
                       name.find('/') == std::string::npos &&
                       name.find('\0') == std::string::npos;
  if (!allowed) throw tov_err::Value("back-end name", name);
}

std::string SocketPath(const std::string& name) {
  std::string run_dir = tov_env::GetEnv("TOV_RUN_DIR");
  if (run_dir.empty()) run_dir = "/run/tov";
  return run_dir + "/" + name + ".sock";
}

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    throw tov_err::Value("path of the back end's socket", path);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

Descriptor OpenSocket() {
  return tov_internal::MoveAboveStdio(
      ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

Descriptor ConnectTo(const std::string& path) {
  const sockaddr_un address = AddressOf(path);
  Descriptor socket = OpenSocket();
  if (!socket) ThrowSystemError("cannot open a socket", errno);
  const int result = RetryInterrupted([&] {
    return ::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address),
                     sizeof(address));
  });
  if (result != 0) {
    ThrowSystemError("cannot connect to the back end at '" + path + "'", errno);
  }
  return socket;
}

void AppendVariable(std::string& header, std::string_view name,
                    std::string_view value) {
  header.append(name).push_back('\0');
  header.append(value).push_back('\0');
}

}  // namespace

/// The wire format: one netstring out, the answer's bytes in.
class Protocol::Wire {
 public:
  Wire(std::string name, Descriptor socket)
      : name_(std::move(name)), socket_(std::move(socket)) {
    // The wire format requires both, in this order.
    AppendVariable(header_, "CONTENT_LENGTH", "0");
    AppendVariable(header_, "SCGI", "1");
  }

  void AddVariable(const std::string& line) {
    ExpectRequestOpen(true);
    const std::size_t equals = line.find('=');
    const std::string name = line.substr(0, equals);
    const bool allowed = equals != std::string::npos && !name.empty() &&
                         name != "CONTENT_LENGTH" && name != "SCGI" &&
                         line.find('\0') == std::string::npos;
    // The message has the name only: it may be displayed, and the value may
    // hold a session id.
    if (!allowed) throw tov_err::Value("environment variable", name);
    const std::string_view text = line;
    AppendVariable(header_, name, text.substr(equals + 1));
  }

  void SendRequest() {
    ExpectRequestOpen(true);
    request_open_ = false;
    SendAll(std::to_string(header_.size()) + ":" + header_ + ",");
    header_.clear();
  }

  std::size_t TakeAnswer(char* buffer, std::size_t size) {
    ExpectRequestOpen(false);
    if (size == 0 || (begin_ == end_ && !ReadAhead())) return 0;
    const std::size_t count = std::min(size, end_ - begin_);
    std::memcpy(buffer, ahead_.get() + begin_, count);
    begin_ += count;
    return count;
  }

 private:
  static constexpr std::size_t kReadAhead = 65536;

  void ExpectRequestOpen(bool open) const {
    if (request_open_ == open) return;
    throw tov_err::Error(
        std::string("the request to back end '") + name_ +
        (open ? "' is complete already" : "' is not complete yet"));
  }

  void SendAll(const std::string& text) {
    for (std::size_t sent = 0; sent < text.size();) {
      const ssize_t count = RetryInterrupted([&] {
        return ::send(socket_.Get(), text.data() + sent, text.size() - sent,
                      MSG_NOSIGNAL);
      });
      if (count < 0) {
        ThrowSystemError("cannot send the request to back end '" + name_ + "'",
                         errno);
      }
      sent += static_cast<std::size_t>(count);
    }
  }

  /// Returns whether there is more of the answer.
  bool ReadAhead() {
    if (ended_) return false;
    if (!ahead_) ahead_.reset(new char[kReadAhead]);
    const ssize_t count = RetryInterrupted(
        [&] { return ::recv(socket_.Get(), ahead_.get(), kReadAhead, 0); });
    if (count < 0) {
      ThrowSystemError("cannot read the answer of back end '" + name_ + "'",
                       errno);
    }
    begin_ = 0;
    end_ = static_cast<std::size_t>(count);
    if (count > 0) {
      length_.Feed({ahead_.get(), end_});
    } else {
      ended_ = true;
      CheckWholeAnswerCame();
    }
    return count > 0;
  }

  void CheckWholeAnswerCame() const {
    if (length_.IsEmpty()) {
      throw tov_err::Error("back end '" + name_ +
                           "' closed the connection without an answer");
    }
    if (!length_.IsConsistent()) {
      throw tov_err::Error("back end '" + name_ +
                           "' sent a Content-Length that makes no sense");
    }
    if (length_.IsTruncated()) {
      throw tov_err::Error("the answer of back end '" + name_ +
                           "' is shorter than its Content-Length");
    }
  }

  std::string name_;
  Descriptor socket_;
  std::string header_;
  bool request_open_ = true;

  std::unique_ptr<char[]> ahead_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  bool ended_ = false;
  tov_internal::AnswerLength length_;
};

Protocol::Protocol(std::unique_ptr<Wire> wire) : wire_(std::move(wire)) {}

Protocol::~Protocol() = default;

void Protocol::SendEnv(const std::string& line) { wire_->AddVariable(line); }

void Protocol::RequestComplete() { wire_->SendRequest(); }

unsigned long Protocol::GetAnswer(char* buffer, unsigned long size) {
  return wire_->TakeAnswer(buffer, size);
}

std::unique_ptr<Protocol> Connect(const std::string& name, bool /*reserved*/) {
  CheckName(name);
  Descriptor socket = ConnectTo(SocketPath(name));
  std::unique_ptr<Protocol::Wire> wire(
      new Protocol::Wire(name, std::move(socket)));
  return std::unique_ptr<Protocol>(new Protocol(std::move(wire)));
}

}  // namespace tov_client
