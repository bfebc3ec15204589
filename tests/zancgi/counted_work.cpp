#include "zancgi/counted_work.h"

#include <algorithm>

namespace support {
namespace {

void CountBytes(std::size_t count) { work.handled_bytes += count; }

}  // namespace

// Called at the beginning of each basic block of the libraries.
extern "C" void CountBlock() __asm__("__sanitizer_cov_trace_pc");
extern "C" void CountBlock() { ++work.blocks; }

// The linker leads the calls to these functions, and gives the C library's own
// ones another name. What a search or comparison does not reach is not counted.
extern "C" {
void* CountedMemcpy(void* to, const void* from,
                    std::size_t size) __asm__("__wrap_memcpy");
void* CountedMemmove(void* to, const void* from,
                     std::size_t size) __asm__("__wrap_memmove");
void* RealMemmove(void* to, const void* from,
                  std::size_t size) __asm__("__real_memmove");
void* CountedMemset(void* to, int byte,
                    std::size_t size) __asm__("__wrap_memset");
void* RealMemset(void* to, int byte, std::size_t size) __asm__("__real_memset");
int CountedMemcmp(const void* one, const void* other,
                  std::size_t size) __asm__("__wrap_memcmp");
int CountedBcmp(const void* one, const void* other,
                std::size_t size) __asm__("__wrap_bcmp");
int RealMemcmp(const void* one, const void* other,
               std::size_t size) __asm__("__real_memcmp");
void* CountedMemchr(const void* text, int byte,
                    std::size_t size) __asm__("__wrap_memchr");
void* RealMemchr(const void* text, int byte,
                 std::size_t size) __asm__("__real_memchr");
std::size_t CountedStrlen(const char* text) __asm__("__wrap_strlen");
std::size_t RealStrlen(const char* text) __asm__("__real_strlen");
// operator new, also of arrays, which calls the other one.
void* CountedNew(std::size_t size) __asm__("__wrap__Znwm");
void* RealNew(std::size_t size) __asm__("__real__Znwm");
}

void* CountedMemcpy(void* to, const void* from, std::size_t size) {
  CountBytes(size);
  return RealMemcpy(to, from, size);
}

void* CountedMemmove(void* to, const void* from, std::size_t size) {
  CountBytes(size);
  return RealMemmove(to, from, size);
}

void* CountedMemset(void* to, int byte, std::size_t size) {
  CountBytes(size);
  return RealMemset(to, byte, size);
}

int CountedMemcmp(const void* one, const void* other, std::size_t size) {
  const int result = RealMemcmp(one, other, size);
  if (result != 0) {
    const char* const begin = static_cast<const char*>(one);
    size = static_cast<std::size_t>(
        std::mismatch(begin, begin + size, static_cast<const char*>(other))
            .first -
        begin);
  }
  CountBytes(size);
  return result;
}

int CountedBcmp(const void* one, const void* other, std::size_t size) {
  return CountedMemcmp(one, other, size);
}

void* CountedMemchr(const void* text, int byte, std::size_t size) {
  void* const found = RealMemchr(text, byte, size);
  CountBytes(found == nullptr
                 ? size
                 : static_cast<std::size_t>(static_cast<const char*>(found) -
                                            static_cast<const char*>(text)));
  return found;
}

std::size_t CountedStrlen(const char* text) {
  const std::size_t size = RealStrlen(text);
  CountBytes(size);
  return size;
}

void* CountedNew(std::size_t size) {
  work.allocated_bytes += size;
  return RealNew(size);
}

}  // namespace support
