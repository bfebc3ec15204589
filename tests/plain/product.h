/// @file
/// Runs the library's parser on the requests of the plain parser.
///
/// Use it in a child process only, because it replaces calls of the system and
/// of the base library.
#ifndef ZANCGI_TESTS_PLAIN_PRODUCT_H
#define ZANCGI_TESTS_PLAIN_PRODUCT_H

#include <iosfwd>
#include <string>

#include "plain/plain_parser.h"

namespace plain {

/// Runs Data::ParseInput() to its end. A parser that spins is only detected if
/// each pass writes a log line.
Outcome RunProduct(const Request& request);

/// Returns whether the parser writes log lines without end or is still busy
/// after 20 ms of processor time, in a process of its own.
bool ProductSpins(const Request& request);

/// For the descriptions.
void PrintTo(const File& file, std::ostream* out);

/// Describes the differences; empty if there are none.
std::string Difference(const Outcome& plain, const Outcome& product);

/// Describes the request, so that a test can repeat it.
std::string Describe(const Request& request);

}  // namespace plain

#endif
