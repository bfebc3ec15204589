/// @file
/// What the tests of files look at.
#ifndef ZANCGI_TESTS_TOV_ATTRIBUTES_H
#define ZANCGI_TESTS_TOV_ATTRIBUTES_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

namespace attributes {

/// In memory, while temporary files are mostly on a disk.
constexpr char kOtherFileSystem[] = "/dev/shm";

inline struct stat StatOf(const std::string& path) {
  struct stat found {};
  EXPECT_EQ(::lstat(path.c_str(), &found), 0) << path;
  return found;
}

inline mode_t ModeOf(const std::string& path) {
  return StatOf(path).st_mode & 07777;
}

/// Whether files are copied from where temporary ones lie to there.
inline bool IsOtherFileSystemAnother() {
  return StatOf(std::filesystem::temp_directory_path()).st_dev !=
         StatOf(kOtherFileSystem).st_dev;
}

}  // namespace attributes

#endif
