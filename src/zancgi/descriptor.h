/// @file
/// Private: numbers of descriptors.
#ifndef ZANCGI_DESCRIPTOR_H
#define ZANCGI_DESCRIPTOR_H

#include <fcntl.h>
#include <unistd.h>

namespace zan_cgi {

/// Takes a descriptor that was just opened and returns one that is not 0, 1 or
/// 2, whatever the process was started with or has closed since: it would be
/// read as the request's body or written to as its answer. Close-on-exec.
///
/// Returns a negative @p fresh as it is. When no other number is to be had, the
/// descriptor is closed and the result negative.
inline int MoveAboveStdio(int fresh) {
  if (fresh < 0 || fresh > STDERR_FILENO) return fresh;
  const int higher = ::fcntl(fresh, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  ::close(fresh);
  return higher;
}

}  // namespace zan_cgi

#endif
