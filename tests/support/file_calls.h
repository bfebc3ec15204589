/// @file
/// A view of each call that the library makes on files, for tests that do
/// something in between.
///
/// A program that uses this has file_calls.cpp among its own sources: the
/// functions defined there would otherwise be drawn into every test program.
#ifndef ZANCGI_TESTS_SUPPORT_FILE_CALLS_H
#define ZANCGI_TESTS_SUPPORT_FILE_CALLS_H

#include <functional>
#include <string_view>
#include <utility>

namespace support {

/// Takes no memory, which may be what is short. Its texts last as long as the
/// call.
struct FileCall {
  /// Such as "renameat2"; "O_TMPFILE" for open(2) of a file without a name.
  std::string_view name;
  std::string_view path;  ///< The first one; empty for a call on a descriptor.
};

/// Sees a call before it is made. Returns 0 to let it be made, or else the
/// error with which it is to fail.
using FileCallWatcher = std::function<int(const FileCall& call)>;

/// Watches this process from now on, in a child only. What the watcher itself
/// calls is not watched. Of several watchers the last counts; an empty one ends
/// it.
void WatchFileCalls(FileCallWatcher watcher);

/// Watches while it lives.
class Watch {
 public:
  explicit Watch(FileCallWatcher watcher) {
    WatchFileCalls(std::move(watcher));
  }
  ~Watch() { WatchFileCalls(nullptr); }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
};

}  // namespace support

#endif
