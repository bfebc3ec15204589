/// @file
/// What nearly every test of a front end uses. Tests stand in this namespace,
/// where these names and those of the fixtures need no using-declarations.
#ifndef ZANCGI_TESTS_SUPPORT_TEST_H
#define ZANCGI_TESTS_SUPPORT_TEST_H

// IWYU pragma: begin_exports
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "support/clean_run.h"
// IWYU pragma: end_exports

namespace support {

namespace fs = std::filesystem;

using zan_cgi::Cgi;
// Tests use most of the kit.
using namespace zan_cgi::testing;  // NOLINT(google-build-using-namespace)
using Lines = std::vector<LogLine>;
using Strings = std::vector<std::string>;
using Texts = std::map<std::string, std::string>;

/// What is directly in a folder, sorted; nothing when there is none.
inline Strings NamesIn(const std::string& folder) {
  Strings names;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(folder, missing)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace support

#endif
