#include "zancgi/counted_work.h"

#include <algorithm>

namespace support {
namespace {

void CountBytes(std::size_t count) { work.handled_bytes += count; }

std::size_t BytesUpTo(const void* end, const void* begin) {
  return static_cast<std::size_t>(static_cast<const char*>(end) -
                                  static_cast<const char*>(begin));
}

}  // namespace

// Called at the beginning of each basic block of the libraries.
extern "C" void CountBlock() __asm__("__sanitizer_cov_trace_pc");
extern "C" void CountBlock() { ++work.blocks; }

// The linker leads the calls to these functions, and gives the C library's own
// ones another name. What a search or comparison does not reach is not counted.
extern "C" {
void* __real_memmove(void* to, const void* from, std::size_t size);
void* __real_memset(void* to, int byte, std::size_t size);
int __real_memcmp(const void* one, const void* other, std::size_t size);
void* __real_memchr(const void* text, int byte, std::size_t size);
std::size_t __real_strlen(const char* text);
void* __real__Znwm(std::size_t size);

void* __wrap_memcpy(void* to, const void* from, std::size_t size) {
  CountBytes(size);
  return CopyUncounted(to, from, size);
}

void* __wrap_memmove(void* to, const void* from, std::size_t size) {
  CountBytes(size);
  return __real_memmove(to, from, size);
}

void* __wrap_memset(void* to, int byte, std::size_t size) {
  CountBytes(size);
  return __real_memset(to, byte, size);
}

int __wrap_memcmp(const void* one, const void* other, std::size_t size) {
  const int result = __real_memcmp(one, other, size);
  const char* const begin = static_cast<const char*>(one);
  CountBytes(result != 0
                 ? BytesUpTo(std::mismatch(begin, begin + size,
                                           static_cast<const char*>(other))
                                 .first,
                             begin)
                 : size);
  return result;
}

int __wrap_bcmp(const void* one, const void* other, std::size_t size) {
  return __wrap_memcmp(one, other, size);
}

void* __wrap_memchr(const void* text, int byte, std::size_t size) {
  void* const found = __real_memchr(text, byte, size);
  CountBytes(found == nullptr ? size : BytesUpTo(found, text));
  return found;
}

std::size_t __wrap_strlen(const char* text) {
  const std::size_t size = __real_strlen(text);
  CountBytes(size);
  return size;
}

// operator new, also of arrays, which calls the other one.
void* __wrap__Znwm(std::size_t size) {
  work.allocated_bytes += size;
  return __real__Znwm(size);
}
}

}  // namespace support
