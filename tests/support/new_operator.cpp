#include "support/new_operator.h"

#include <cstdlib>
#include <new>

namespace support {
namespace {

constinit std::size_t left_until_failure = 0;
constinit bool has_failed = false;
constinit long live = 0;
constinit std::size_t noticed_size = 0;
constinit void* noticed = nullptr;

bool IsToFail() {
  if (left_until_failure == 0 || --left_until_failure > 0) return false;
  has_failed = true;
  return true;
}

void* Allocate(std::size_t size) {
  void* const memory = IsToFail() ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  ++live;
  if (size == noticed_size) noticed = memory;
  return memory;
}

void Free(void* memory) noexcept {
  if (memory != nullptr) --live;
  std::free(memory);
}

}  // namespace

void FailAllocation(std::size_t number) {
  if (number > 0) has_failed = false;
  left_until_failure = number;
}

bool AllocationHasFailed() { return has_failed; }

long LiveAllocations() { return live; }

void* LastAllocationOf(std::size_t size) {
  if (size != noticed_size) noticed = nullptr;
  noticed_size = size;
  return noticed;
}

}  // namespace support

void* operator new(std::size_t size) { return support::Allocate(size); }
void operator delete(void* memory) noexcept { support::Free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  support::Free(memory);
}
