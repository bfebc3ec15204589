#include "support/scarce_memory.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace support {
namespace {

/// How many calls still succeed before one fails; negative when none is to.
constinit int successes_left = -1;

bool IsToFail() {
  if (successes_left < 0) return false;
  return successes_left-- == 0;
}

}  // namespace

ScarceMemory::ScarceMemory(int number) { successes_left = number; }

ScarceMemory::~ScarceMemory() { successes_left = -1; }

}  // namespace support

void* operator new(std::size_t size) {
  void* memory = support::IsToFail() ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }

void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
