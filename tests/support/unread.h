/// @file
/// What of a body nobody has read.
#ifndef ZANCGI_TESTS_SUPPORT_UNREAD_H
#define ZANCGI_TESTS_SUPPORT_UNREAD_H

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstddef>

namespace support {

/// How many bytes standard input holds, a pipe or a file.
inline std::size_t BytesUnread() {
  int count = 0;
  ::ioctl(STDIN_FILENO, FIONREAD, &count);
  return static_cast<std::size_t>(count);
}

}  // namespace support

#endif
