/// @file
/// A place for many small files.
#ifndef ZANCGI_TESTS_SUPPORT_FAST_FOLDER_H
#define ZANCGI_TESTS_SUPPORT_FAST_FOLDER_H

#include <unistd.h>

#include <filesystem>
#include <string>

namespace support {

/// In memory, where that can be had: files cost little there.
inline std::string FastFolder() {
  const char* const memory = "/dev/shm";
  return ::access(memory, W_OK) == 0
             ? memory
             : std::filesystem::temp_directory_path().string();
}

}  // namespace support

#endif
