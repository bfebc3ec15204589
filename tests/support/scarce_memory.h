/// @file
/// Allocations that fail.
///
/// A program that uses this has scarce_memory.cpp among its own sources: it
/// replaces operator new.
#ifndef ZANCGI_TESTS_SUPPORT_SCARCE_MEMORY_H
#define ZANCGI_TESTS_SUPPORT_SCARCE_MEMORY_H

namespace support {

/// Has one call of operator new in this process fail while it lives.
class ScarceMemory {
 public:
  /// @param number  which call, counted from 0
  explicit ScarceMemory(int number);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;
};

}  // namespace support

#endif
