/// @file
/// Records the calls that the product makes of the base library, and runs the
/// effects that a test adds to them. Functions of calls.cpp stand in for ours,
/// which ignore some arguments and do not fail where another base library may.
///
/// A call is written as in C++, with texts in single quotes. SafeSet() also has
/// the attributes, and GetAnswer() a number that counts those of a connection.
/// A log line becomes "log 9: text", with "#" for its line number. It ends in
/// UNCHECKED when no Check() of its module and level came just before.
///
/// Calls whose order and number do not matter, such as GetEnv(), are not
/// recorded, nor are those whose result shows how they were called.
#ifndef ZANCGI_TESTS_TRACE_CALLS_H
#define ZANCGI_TESTS_TRACE_CALLS_H

#include "support/test.h"

namespace support::trace {

/// Runs at a call, before its usual work. If it throws, the usual work is left
/// out.
using Effect = std::function<void()>;

struct Scene {
  /// The process, with its environment.
  Child child = {};
  /// Standard input, a regular file.
  std::string input = {};
  /// What the back end answers in one conversation after the other, at most a
  /// line with each GetAnswer().
  Strings answers = {};
  /// By call, as it is recorded, what happens at its first, its second, and so
  /// on.
  std::map<std::string, std::vector<Effect>> effects = {};
};

/// Expects that this work of a front end makes these calls, one a line, and
/// those alone. Blanks at the beginning of a line do not count. The
/// construction of the Cgi is not recorded, its end is. So are an exception
/// that ends the work, as "throws type: text", and the calls of
/// support::Recording.
///
/// The work is repeated with the log switched off, when all but the log's lines
/// must be the same.
///
/// The process begins in an empty folder with a folder "spool". It knows the
/// account "alice" of the numbers 1001 and 1002, whose home is ".".
void ExpectCalls(const Scene& scene, const std::function<void(Cgi&)>& work,
                 const std::string& expected);

/// Does the work and records an exception that ends it.
void Try(const std::function<void()>& work);

/// Records a line "= text".
void Result(const std::string& text);

}  // namespace support::trace

#endif
