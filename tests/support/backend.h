/// @file
/// A scripted back end that can refuse single attempts.
#ifndef ZANCGI_TESTS_SUPPORT_BACKEND_H
#define ZANCGI_TESTS_SUPPORT_BACKEND_H

#include <zancgi/testing/backend.h>

#include <cstddef>
#include <string>

namespace support {

/// A back end whose step to refuse is one attempt, like every other step.
///
/// The server cannot see an attempt that it refuses, so the script is advanced
/// on the client's side: connect(2) is interposed in the test program and leads
/// a refused attempt to a socket on which nobody listens.
class Backend : public zan_cgi::testing::Backend {
 public:
  explicit Backend(const std::string& name = "backend");
  ~Backend() override;

  /// How often a client has tried to connect, refused attempts included.
  std::size_t Attempts() const;

  /// Has connect(2) of this process follow the script.
  void BecomeClient() override;
  /// For connect(2): whether this is the service's socket.
  bool Serves(const std::string& path) const { return path == SocketPath(); }
  /// For connect(2): takes the next step and returns the socket to connect to.
  std::string TakeAttempt();

 protected:
  bool ClosesToRefuse() const override { return false; }

 private:
  std::string deaf_path_;
  std::size_t* attempts_;
};

}  // namespace support

#endif
