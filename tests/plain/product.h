/// @file
/// The library's own parser, run on what the plain one is run on.
///
/// Belongs into a child process: what the parser calls of the system and of the
/// base library is answered by a script.
#ifndef ZANCGI_TESTS_PLAIN_PRODUCT_H
#define ZANCGI_TESTS_PLAIN_PRODUCT_H

#include <string>

#include "plain/plain_parser.h"

namespace plain {

/// Runs Data::ParseInput() to its end. It may spin only where each pass writes
/// a log line, since only that is noticed.
Outcome RunProduct(const Request& request);

/// Returns whether the parser writes log lines without end or is still busy
/// after 20 ms of processor time, in a process of its own.
bool ProductSpins(const Request& request);

/// A readable account of what differs; empty when nothing does.
std::string Difference(const Outcome& plain, const Outcome& product);

/// The request in the form of a C++ initializer, for a test that repeats it.
std::string Describe(const Request& request);

}  // namespace plain

#endif
