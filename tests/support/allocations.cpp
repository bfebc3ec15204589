#include "support/allocations.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>

namespace support {
namespace {

// Memory is asked for before any constructor of this program has run.
constinit bool is_counting = false;
constinit Shortage shortage_now;
constinit Allocations counted;

/// Whether the allocation is to succeed.
bool IsLet(std::size_t size) {
  if (!is_counting) return true;
  ++counted.count;
  counted.largest = std::max(counted.largest, size);
  const std::size_t begin = shortage_now.begin;
  const bool fails = shortage_now.lasts ? begin != 0 && counted.count >= begin
                                        : counted.count == begin;
  if (fails) errno = ENOMEM;
  return !fails;
}

}  // namespace

void BeginAllocations(const Shortage& shortage) {
  shortage_now = shortage;
  counted = {};
  is_counting = true;
}

Allocations EndAllocations() {
  is_counting = false;
  return counted;
}

}  // namespace support

using support::IsLet;

#ifdef __SANITIZE_ADDRESS__

void* operator new(std::size_t size) {
  void* const memory = IsLet(size) ? std::malloc(size) : nullptr;
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }

void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

#else

// operator new asks malloc.

extern "C" void* RealMalloc(std::size_t size) __asm__("__libc_malloc");
extern "C" void* RealCalloc(std::size_t count,
                            std::size_t size) __asm__("__libc_calloc");
extern "C" void* RealRealloc(void* memory,
                             std::size_t size) __asm__("__libc_realloc");

extern "C" void* malloc(std::size_t size) {
  return IsLet(size) ? RealMalloc(size) : nullptr;
}

extern "C" void* calloc(std::size_t count, std::size_t size) {
  return IsLet(count * size) ? RealCalloc(count, size) : nullptr;
}

extern "C" void* realloc(void* memory, std::size_t size) {
  return IsLet(size) ? RealRealloc(memory, size) : nullptr;
}

#endif
