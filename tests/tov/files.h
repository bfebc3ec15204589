/// @file
/// What the tests of files have in common.
#ifndef ZANCGI_TESTS_TOV_FILES_H
#define ZANCGI_TESTS_TOV_FILES_H

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tov/file.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/scratch.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/file_calls.h"

namespace files {

namespace fs = std::filesystem;

using support::FileCall;
using support::FileCallWatcher;
using tov_file::Attrs;
using zan_cgi::testing::BecomeOrdinaryUser;
using zan_cgi::testing::Child;
using zan_cgi::testing::IsRoot;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::ReadFile;
using zan_cgi::testing::Reporter;
using zan_cgi::testing::Scratch;
using Names = std::vector<std::string>;

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

/// Why nothing can be copied from where temporary files lie to there; empty
/// when it can.
inline std::string WhyNoOtherFileSystem() {
  return StatOf(fs::temp_directory_path()).st_dev !=
                 StatOf(kOtherFileSystem).st_dev
             ? ""
             : std::string("needs another file system at ") + kOtherFileSystem;
}

/// Watches the calls on files while it lives.
class Watch {
 public:
  explicit Watch(FileCallWatcher watcher) {
    support::WatchFileCalls(std::move(watcher));
  }
  ~Watch() { support::WatchFileCalls(nullptr); }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
};

}  // namespace files

#endif
