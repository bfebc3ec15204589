/// @file
/// Private: finds the first boundary in the body of a form.
#ifndef ZANCGI_BOUNDARY_SEARCH_H
#define ZANCGI_BOUNDARY_SEARCH_H

#include <cstddef>
#include <string>

namespace zan_cgi {

/// Returns the position after the first boundary in a chunk, searched from @p
/// position, or npos.
///
/// Kept for compatibility: a byte that breaks a match is not compared again
/// with the boundary's first byte, so "--X" is not found in "---X". An exact
/// search would find more. A boundary split across two chunks is not found
/// either.
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
