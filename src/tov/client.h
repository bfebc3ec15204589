/// @file
/// The client of back-end services: SCGI over a Unix-domain socket.
///
/// A service named N listens on the socket "N.sock" in the run directory, which
/// is the value of `TOV_RUN_DIR`, or "/run/tov" when that is unset or empty.
#ifndef TOV_CLIENT_H
#define TOV_CLIENT_H

#include <memory>
#include <string>

#include <tov/api.h>

namespace tov_client {

/// One conversation with a back end: environment lines, end mark, answer.
///
/// Every failure is a tov_err::Error, after which the object can only be
/// destroyed. Calls block without a time limit until the back end answers.
/// SIGPIPE is never raised, and interrupted system calls are retried.
class TOV_API Protocol {
 public:
  virtual ~Protocol();
  Protocol(const Protocol&) = delete;
  Protocol& operator=(const Protocol&) = delete;

  /// Adds one variable, "NAME=value", to the request.
  /// @throws tov_err::Value for a line without "=" or without a name, with a
  ///   zero byte, or with a name that the wire format reserves
  ///   (`CONTENT_LENGTH`, `SCGI`)
  void SendEnv(const std::string& line);

  /// Sends the request.
  void RequestComplete();

  /// Copies the next bytes of the answer to @p buffer, header lines included.
  ///
  /// An empty answer is a failure, and so is one that is shorter than its own
  /// Content-Length header.
  /// @param buffer  room for @p size bytes
  /// @param size    the largest number of bytes to copy
  /// @return the number of bytes copied; 0 once the answer has ended
  unsigned long GetAnswer(char* buffer, unsigned long size);

 private:
  friend TOV_API std::unique_ptr<Protocol> Connect(const std::string& name,
                                                   bool reserved);
  class Wire;
  TOV_INTERNAL explicit Protocol(std::unique_ptr<Wire> wire);

  std::unique_ptr<Wire> wire_;
};

/// Opens a connection to a back-end service.
///
/// @param name      the service; without "/", zero byte or leading dot
/// @param reserved  has no effect
/// @throws tov_err::Value for a name that is not allowed or too long for a
///   socket address; no socket is opened
/// @throws tov_err::Error when the service cannot be reached
TOV_API std::unique_ptr<Protocol> Connect(const std::string& name,
                                          bool reserved);

}  // namespace tov_client

#endif
