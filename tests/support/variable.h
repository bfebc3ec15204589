/// @file
/// Environment variables: set without growth, and read as a number.
#ifndef ZANCGI_TESTS_SUPPORT_VARIABLE_H
#define ZANCGI_TESTS_SUPPORT_VARIABLE_H

#include <cstddef>
#include <string>

namespace support {

/// Sets an environment variable; an empty value removes it. Unlike setenv(3),
/// takes no new memory for good with each call. The value holds no zero byte.
void SetVariable(const std::string& name, const std::string& value);

/// Returns the number in an environment variable, or another one if it is not
/// set.
std::size_t NumberInVariable(const char* name, std::size_t otherwise);

}  // namespace support

#endif
