/// @file
/// The answer of a front end and the end of its process.
#ifndef ZANCGI_TESTING_RESPONSE_H
#define ZANCGI_TESTING_RESPONSE_H

#include <zancgi/testing/log.h>

#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

namespace zan_cgi::testing {

/// The answer of a CGI program, parsed as by a web server (RFC 3875 section 6),
/// and what remains of its process.
struct Response {
  /// From the field Status. Without that field, 302 for a redirect and
  /// otherwise 200. 0 if the output is no valid answer.
  int status = 0;
  /// The reason phrase after the status, such as "Not Found".
  std::string reason;
  /// The fields of the header in the order sent, Status included.
  std::vector<std::pair<std::string, std::string>> fields;
  /// The text after the header.
  std::string body;
  /// Everything written to standard output.
  std::string standard_output;
  /// Everything written to standard error, log lines included.
  std::string standard_error;
  /// The log lines in it.
  Log log;
  /// Exit status; 128 and the signal's number after a death by signal.
  int exit_status = 0;
  /// Whether the process was killed at its time limit.
  bool timed_out = false;
  /// New files in the temporary directory, as paths below it.
  std::vector<std::string> left_files;
  /// Processes that continued after the end of the front end, such as "1234
  /// sleep". They have been killed.
  std::vector<std::string> left_processes;
  /// Why standard output is no valid CGI answer; empty if it is.
  std::string malformed;

  /// Returns the value of the first header field of this name, ignoring case;
  /// empty if there is none.
  std::string Header(const std::string& name) const;
  /// Returns the values of all header fields of this name.
  std::vector<std::string> Headers(const std::string& name) const;
  /// Returns the value that a Set-Cookie field gives this cookie; empty if
  /// there is none.
  std::string Cookie(const std::string& name) const;
  /// Returns the messages that were logged at one level.
  std::vector<std::string> Logged(int level) const;

  /// Returns what no front end should do, whatever it answers: an invalid
  /// answer, an exit status other than 0, files or processes left over, an
  /// exceeded time limit. Empty if there is nothing to report.
  std::string Complaints() const;
};

/// Prints a response in the messages of failed expectations.
void PrintTo(const Response& response, std::ostream* out);

/// Parses the output of a CGI program. Sets status, reason, fields, body,
/// standard_output and malformed.
Response ParseResponse(const std::string& standard_output);

}  // namespace zan_cgi::testing

#endif
