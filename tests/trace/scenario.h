/// @file
/// What a front end does, and what of it the base library must see.
#ifndef ZANCGI_TESTS_TRACE_SCENARIO_H
#define ZANCGI_TESTS_TRACE_SCENARIO_H

#include "support/form.h"
#include "support/record.h"
#include "support/test.h"
#include "trace/script.h"

namespace support::trace {

/// What a front end does.
using Act = std::function<void()>;

/// Expects that an act, in a child process of its own, makes these calls, one a
/// line, and those alone. Blanks at the beginning of a line do not count.
///
/// Consecutive lines that begin with "| " may come in any order. Among the
/// calls are those of the system that find and become accounts, change the
/// directory or ask for free space, as support::Recording writes them.
///
/// The act is repeated with the log switched off, when all but the log's lines
/// must be the same.
///
/// The process begins in an empty folder with a folder "spool". It knows the
/// accounts "alice", of the numbers 1001 and 1002, and "root"; the home of both
/// is ".".
void ExpectTrace(const Script& script, const Act& act,
                 const std::string& expected);

/// Serves a request: the trace begins after the construction, and the end of
/// the request belongs to it.
Act Serve(const std::function<void(Cgi&)>& work);

/// Does the work. An exception becomes a line "throws type: text".
void Try(const Act& work);

/// Writes a line "= text" into the trace.
void Result(const std::string& text);

/// Writes each parameter's name and value as results.
void ReportParams(Cgi& cgi);

/// A GET of this query string.
Script Get(const std::string& query);

/// A POST of this body, whose uploads go to the folder "spool".
Script Post(const std::string& body,
            const std::string& content_type = support::kForm);

/// What a request is admitted with.
struct Admitted {
  bool is_multipart = true;
  std::string spool = "spool";
  /// In bytes; empty when that cannot be found out.
  std::string free_space = "512000";
};

/// The trace of the first parse of such a body, up to where it is read.
std::string Admission(const std::string& body, const Admitted& admitted = {});

/// The same of the making of an upload's file, which is the nth.
std::string Making(int number);

/// The same of the removal of an upload that is there.
std::string Dropping(const std::string& path);

/// What a complete body ends with.
std::string End(const std::string& body);

/// An effect that throws.
template <class Error>
Effect Throw(const Error& error) {
  return [error] { throw error; };
}

/// The same of the base library's error.
Effect Fail(const std::string& text = "no");

}  // namespace support::trace

#endif
