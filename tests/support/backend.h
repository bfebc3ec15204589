/// @file
/// A scripted SCGI server: what the back end does wrong is part of the script.
#ifndef ZANCGI_TESTS_SUPPORT_BACKEND_H
#define ZANCGI_TESTS_SUPPORT_BACKEND_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "support/scratch.h"

namespace support {

/// One attempt of the client, as the server treats it.
struct Step {
  enum class Kind {
    /// The connection is refused (nothing listens).
    Refuse,
    /// Accepted and closed with the request unread: the client sees a reset.
    Reset,
    /// The request is read, then the connection is closed without a byte.
    CloseSilently,
    /// The request is read and answered, then the connection is closed.
    Answer,
    /// Like Answer, one byte per write.
    AnswerByteByByte,
    /// The request is read, the text is sent, then the connection is reset.
    AnswerThenReset
  };

  Kind kind;
  std::string answer;
};

Step Refuse();
Step Reset();
Step CloseSilently();
Step Answer(std::string text);
Step AnswerByteByByte(std::string text);
Step AnswerThenReset(std::string text);

/// A request as it came over the wire.
struct Request {
  std::string raw;
  /// The header's variables in the order sent, CONTENT_LENGTH and SCGI first.
  std::vector<std::pair<std::string, std::string>> variables;

  /// Value of a variable; empty when it is not there.
  std::string operator[](const std::string& name) const;
  bool Has(const std::string& name) const;
};

/// A back-end service on a socket of its own run directory. Attempts beyond
/// the script are refused.
///
/// The server cannot see an attempt that it refuses, so the script is advanced
/// on the client's side: connect(2) is interposed in the test program and leads
/// a refused attempt to a socket on which nobody listens.
class Backend {
 public:
  explicit Backend(std::string name = "backend");
  ~Backend();
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;

  Backend& Then(Step step);
  /// The same step several times.
  Backend& Times(std::size_t count, const Step& step);

  const std::string& Name() const { return name_; }
  /// Value for TOV_RUN_DIR.
  const std::string& RunDir() const { return run_dir_.Path(); }
  /// The requests that were read, in order.
  const std::vector<Request>& Requests() const { return requests_; }
  /// How often a client has tried to connect, refused attempts included.
  std::size_t Attempts() const;

  /// For Child: serves until the process ends or the time is up; says whether
  /// the process has ended.
  bool ServeUntilExit(int process_descriptor, int milliseconds);
  /// For Child: the back end whose script connect(2) follows in this process.
  static void Follow(Backend* backend);
  /// For connect(2): takes the next step and returns the socket to connect to.
  std::string TakeAttempt();
  const std::string& SocketPath() const { return socket_path_; }

 private:
  void ServeOne();

  std::string name_;
  Scratch run_dir_;
  std::string socket_path_;
  std::string deaf_path_;
  std::vector<Step> script_;
  std::size_t next_to_serve_ = 0;
  std::size_t* attempts_;
  std::vector<Request> requests_;
  int listener_;
};

}  // namespace support

#endif
