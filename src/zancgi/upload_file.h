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

/// Appends to a file without a buffer, so that a full disk is reported by the
/// write that fails and not by the close.
///
/// After an error it stays bad, and writes have no effect. Its descriptor is
/// never 0, 1 or 2, and no other program inherits it.
class UploadFile {
 public:
  UploadFile() = default;
  ~UploadFile() { Close(); }
  UploadFile(const UploadFile&) = delete;
  UploadFile& operator=(const UploadFile&) = delete;

  /// Opens a file. Does not follow a symbolic link in its place or wait for the
  /// reader of a FIFO. O_WRONLY keeps a terminal in its place from becoming the
  /// controlling one.
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
