/// @file
/// Private: keeps descriptors above the standard ones.
#ifndef ZANCGI_DESCRIPTOR_H
#define ZANCGI_DESCRIPTOR_H

#include <fcntl.h>
#include <unistd.h>

namespace zan_cgi {

/// Returns a descriptor above 2 for one that was just opened. In a process
/// started without standard descriptors, or one that has closed them, it could
/// be 0, 1 or 2, and would be read as the request's body or written to as its
/// answer. A replacement is close-on-exec.
///
/// A negative @p fresh is returned unchanged. If there is no other number,
/// closes the descriptor and returns a negative number.
inline int MoveAboveStdio(int fresh) {
  if (fresh < 0 || fresh > STDERR_FILENO) return fresh;
  const int higher = ::fcntl(fresh, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  ::close(fresh);
  return higher;
}

}  // namespace zan_cgi

#endif
