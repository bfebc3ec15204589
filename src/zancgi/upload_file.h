/// @file
/// Private: the file that an upload is written to.
#ifndef ZANCGI_UPLOAD_FILE_H
#define ZANCGI_UPLOAD_FILE_H

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "descriptor.h"

namespace zan_cgi {

/// An output stream that appends to a file and holds nothing back: a full disk
/// shows at the write that it fails, not at the close.
///
/// Once something has failed it stays bad, and writes have no effect. Its
/// descriptor is never 0, 1 or 2, whatever the process was started with, and no
/// other program inherits it.
class UploadFile {
 public:
  UploadFile() = default;
  ~UploadFile() { Close(); }
  UploadFile(const UploadFile&) = delete;
  UploadFile& operator=(const UploadFile&) = delete;

  /// Opens a file. Does not follow a link that somebody has put in its place,
  /// nor wait for the reader of a FIFO. A terminal in its place does not become
  /// that of the process, because it is opened for writing only.
  void Open(const std::string& path) {
    constexpr int kFlags =
        O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    descriptor_ = MoveAboveStdio(::open(path.c_str(), kFlags, 0600));
    is_bad_ = descriptor_ < 0;
  }

  bool IsOpen() const { return descriptor_ >= 0; }
  bool IsBad() const { return is_bad_; }

  void Write(const char* data, std::size_t size) {
    while (size > 0 && !is_bad_) {
      const ssize_t count = ::write(descriptor_, data, size);
      if (count > 0) {
        data += count;
        size -= static_cast<std::size_t>(count);
      } else if (count == 0 || errno != EINTR) {
        is_bad_ = true;
      }
    }
  }

  void Close() {
    if (IsOpen()) ::close(descriptor_);
    descriptor_ = -1;
  }

 private:
  int descriptor_ = -1;
  bool is_bad_ = false;
};

}  // namespace zan_cgi

#endif
