/// @file
/// What this process has done so far.
#ifndef ZANCGI_TESTS_ZANCGI_COUNTED_WORK_H
#define ZANCGI_TESTS_ZANCGI_COUNTED_WORK_H

#include <cstddef>
#include <cstdint>

namespace support {

struct Work {
  /// Basic blocks of the libraries that have run.
  std::uint64_t blocks = 0;
  /// Bytes that the C library has copied, compared or searched.
  std::uint64_t handled_bytes = 0;
  /// Bytes of memory asked of operator new.
  std::uint64_t allocated_bytes = 0;
};

inline constinit Work work;

/// memcpy(), not counted.
extern "C" void* CopyUncounted(void* to, const void* from,
                               std::size_t size) __asm__("__real_memcpy");

}  // namespace support

#endif
