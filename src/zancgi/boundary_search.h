/// @file
/// Private: finding the first boundary in the body of a form.
#ifndef ZANCGI_BOUNDARY_SEARCH_H
#define ZANCGI_BOUNDARY_SEARCH_H

#include <cstddef>
#include <string>

namespace zan_cgi {

/// Returns the position after the first boundary in a chunk, searched from a
/// position on, or npos.
///
/// Kept for compatibility: a byte that breaks a match is not compared again
/// with the boundary's first byte, so "---X" does not hold "--X". An exact
/// search would find more. And a boundary that two chunks share is not found.
inline std::size_t FindBoundaryEnd(const std::string& boundary,
                                   const char* chunk, std::size_t size,
                                   std::size_t position) {
  std::size_t matched = 0;
  for (; position < size; ++position) {
    matched = chunk[position] == boundary[matched] ? matched + 1 : 0;
    if (matched == boundary.size()) return position + 1;
  }
  return std::string::npos;
}

}  // namespace zan_cgi

#endif
