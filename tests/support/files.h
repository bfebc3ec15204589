/// @file
/// Attributes of files, and a second file system.
#ifndef ZANCGI_TESTS_SUPPORT_FILES_H
#define ZANCGI_TESTS_SUPPORT_FILES_H

#include "support/test.h"

namespace support {

/// In memory, while temporary files are mostly on a disk.
constexpr char kOtherFileSystem[] = "/dev/shm";

/// The attributes of a file itself; fails the test when there is none.
inline struct stat StatOf(const std::string& path) {
  struct stat found {};
  EXPECT_EQ(::lstat(path.c_str(), &found), 0) << path;
  return found;
}

inline mode_t ModeOf(const std::string& path) {
  return StatOf(path).st_mode & 07777;
}

/// Whether anything is there, be it a link to nothing.
inline bool IsThere(const std::string& path) {
  return fs::exists(fs::symlink_status(path));
}

/// Why nothing can be copied from where temporary files lie to there; empty
/// when it can.
inline std::string WhyNoOtherFileSystem() {
  struct stat other {};
  const bool is_usable =
      ::stat(kOtherFileSystem, &other) == 0 &&
      ::access(kOtherFileSystem, W_OK) == 0 &&
      other.st_dev != StatOf(fs::temp_directory_path()).st_dev;
  return is_usable
             ? ""
             : std::string("needs another file system at ") + kOtherFileSystem;
}

}  // namespace support

#endif
