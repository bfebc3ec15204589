/// @file
/// What a front end has answered, and how it has ended.
#ifndef ZANCGI_TESTING_RESPONSE_H
#define ZANCGI_TESTING_RESPONSE_H

#include <zancgi/testing/log.h>

#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

namespace zan_cgi::testing {

/// The answer of a CGI program, parsed as a web server does it (RFC 3875
/// section 6), and what its process has left behind.
struct Response {
  /// From the field Status; without one 302 for a redirect and else 200; 0 when
  /// the answer is none.
  int status = 0;
  /// The words behind the status, such as "Not Found".
  std::string reason;
  /// The fields of the header in the order sent, Status included.
  std::vector<std::pair<std::string, std::string>> fields;
  /// What follows the header.
  std::string body;
  /// All that was written to standard output.
  std::string standard_output;
  /// All that was written to standard error, log lines included.
  std::string standard_error;
  /// The log lines among that.
  Log log;
  /// 128 and the signal's number after a death by signal.
  int exit_status = 0;
  /// Whether the process has been ended because its time was up.
  bool timed_out = false;
  /// Files in the temporary directory that were not there before, as paths
  /// below it.
  std::vector<std::string> left_files;
  /// Processes that went on behind the end of the front end, such as
  /// "1234 sleep". They have been ended.
  std::vector<std::string> left_processes;
  /// Why standard output holds no CGI answer; empty when it does.
  std::string malformed;

  /// Value of the first header field of this name, in whatever case; empty when
  /// there is none.
  std::string Header(const std::string& name) const;
  /// Values of all header fields of this name.
  std::vector<std::string> Headers(const std::string& name) const;
  /// What a Set-Cookie gives to this cookie; empty when none does.
  std::string Cookie(const std::string& name) const;
  /// The texts that were logged at one level.
  std::vector<std::string> Logged(int level) const;

  /// All that no front end should do, whatever it answers: an answer that is
  /// none, an exit status other than 0, files or processes left behind, its
  /// time used up. Empty when there is nothing to complain of.
  std::string Complaints() const;
};

/// For messages of failed expectations.
void PrintTo(const Response& response, std::ostream* out);

/// Parses what a CGI program has written. Sets status, reason, fields, body,
/// standard_output and malformed.
Response ParseResponse(const std::string& standard_output);

}  // namespace zan_cgi::testing

#endif
