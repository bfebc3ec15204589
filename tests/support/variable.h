/// @file
/// The environment of a process that changes it a million times.
#ifndef ZANCGI_TESTS_SUPPORT_VARIABLE_H
#define ZANCGI_TESTS_SUPPORT_VARIABLE_H

#include <string>

namespace support {

/// Sets an environment variable; an empty value removes it. Unlike setenv(3),
/// takes no new memory for good with each call. The value holds no zero byte.
void SetVariable(const std::string& name, const std::string& value);

}  // namespace support

#endif
