/// @file
/// The memory that a program takes by new.
///
/// A program that uses this has new_operator.cpp among its own sources: the
/// operators defined there would otherwise be drawn into every test program.
#ifndef ZANCGI_TESTS_SUPPORT_NEW_OPERATOR_H
#define ZANCGI_TESTS_SUPPORT_NEW_OPERATOR_H

#include <cstddef>

namespace support {

/// Has the allocation of this number, counted from 1 from now on, fail, and no
/// other; 0 for none.
void FailAllocation(std::size_t number);

/// Whether the last allocation that was to fail has come.
bool AllocationHasFailed();

/// How many allocations have not been freed.
long LiveAllocations();

/// What the last allocation of this size has given; null when there was none.
/// To be called with a size first to have it noticed.
void* LastAllocationOf(std::size_t size);

}  // namespace support

#endif
