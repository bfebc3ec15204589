/// @file
/// Allocations that fail where a test says.
///
/// A program that uses this has allocations.cpp among its own sources: the
/// functions defined there would otherwise be drawn into every test program.
/// Under the address sanitizer, which keeps malloc(3) to itself, only operator
/// new is seen.
#ifndef ZANCGI_TESTS_SUPPORT_ALLOCATIONS_H
#define ZANCGI_TESTS_SUPPORT_ALLOCATIONS_H

#include <cstddef>

namespace support {

/// Which allocations fail.
struct Shortage {
  /// The first one that fails, counted from 1; 0 for none.
  std::size_t begin = 0;
  /// Whether all that follow fail, too.
  bool lasts = false;
};

/// What was asked for.
struct Allocations {
  std::size_t count = 0;
  std::size_t largest = 0;  ///< In bytes.
};

/// Counts the allocations of this process from now on, and has some fail.
void BeginAllocations(const Shortage& shortage = {});
/// Ends that.
Allocations EndAllocations();

}  // namespace support

#endif
