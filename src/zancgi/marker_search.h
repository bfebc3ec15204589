/// @file
/// Private: finds a rare text in data.
#ifndef ZANCGI_MARKER_SEARCH_H
#define ZANCGI_MARKER_SEARCH_H

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace zan_cgi {

/// Finds each occurrence of a text, in time linear in the size of the data.
///
/// The C library's search is linear for any data. Uploads are large, so most of
/// their data is skipped faster: the text's first and last byte are compared at
/// 64 places at once.
class MarkerSearch {
 public:
  /// @param marker  not empty
  explicit MarkerSearch(std::string marker) : marker_(std::move(marker)) {}

  const std::string& marker() const { return marker_; }

  /// Returns the first place at or after a position, or npos.
  std::size_t Find(std::string_view data, std::size_t from) const {
    const char* const end = data.data() + data.size();
    const char* at = data.data() + from;
#ifdef __SSE2__
    const auto reach = static_cast<std::ptrdiff_t>(kBlock + marker_.size() - 1);
    for (; end - at >= reach; at += kBlock) {
      if (!MayHoldMarker(at)) continue;
      const char* const found = Search(at, at + reach);
      if (found != nullptr)
        return static_cast<std::size_t>(found - data.data());
    }
#endif
    const char* const found = Search(at, end);
    return found == nullptr ? std::string_view::npos
                            : static_cast<std::size_t>(found - data.data());
  }

 private:
  const char* Search(const char* begin, const char* end) const {
    // The buffer may not be allocated yet.
    if (begin == end) return nullptr;
    return static_cast<const char*>(
        ::memmem(begin, static_cast<std::size_t>(end - begin), marker_.data(),
                 marker_.size()));
  }

#ifdef __SSE2__
  static constexpr std::size_t kBlock = 64;

  /// Whether the marker's first and last byte occur at the right distance at
  /// one of the places of a block.
  bool MayHoldMarker(const char* block) const {
    const __m128i first = _mm_set1_epi8(marker_.front());
    const __m128i last = _mm_set1_epi8(marker_.back());
    const auto compare = [&](std::size_t lane) {
      const char* const at = block + lane;
      return _mm_and_si128(_mm_cmpeq_epi8(Load(at), first),
                           _mm_cmpeq_epi8(Load(at + marker_.size() - 1), last));
    };
    const __m128i any = _mm_or_si128(_mm_or_si128(compare(0), compare(16)),
                                     _mm_or_si128(compare(32), compare(48)));
    return _mm_movemask_epi8(any) != 0;
  }

  static __m128i Load(const char* at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i_u*>(at));
  }
#endif

  const std::string marker_;
};

}  // namespace zan_cgi

#endif
