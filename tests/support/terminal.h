/// @file
/// Terminals that a process may take for its own by opening them.
#ifndef ZANCGI_TESTS_SUPPORT_TERMINAL_H
#define ZANCGI_TESTS_SUPPORT_TERMINAL_H

#include <functional>
#include <string>

namespace support {

/// Whether a process that leads a session without a terminal gets one as its
/// controlling terminal by this deed, which is given the path of one.
bool TakesTerminal(const std::function<void(const std::string& path)>& deed);

/// Whether that can happen here: whether a plain open(2) does it.
bool CanTakeTerminals();

}  // namespace support

#endif
