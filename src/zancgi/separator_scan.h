/// @file
/// Private: finds the end of a file in the body of a form.
#ifndef ZANCGI_SEPARATOR_SCAN_H
#define ZANCGI_SEPARATOR_SCAN_H

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace zan_cgi {

/// Searches a stream of bytes, chunk by chunk, for the separator that ends a
/// file: CR LF "--" and the boundary value.
///
/// The rule, byte by byte: a byte equal to the separator's next byte extends
/// the match; a byte that breaks a match is compared again with the separator's
/// first byte only.
///
/// If the separator's first byte, the CR, occurs only once in it, no separator
/// can begin inside a match. The rule then finds exactly the occurrences of the
/// separator, so a faster exact search is used. If the boundary value contains
/// a CR, the rule misses some occurrences. This is kept for compatibility, so
/// the rule itself is followed.
class SeparatorScan {
 public:
  /// @param separator  CR LF "--" and any bytes
  explicit SeparatorScan(const std::string& separator)
      : separator_(separator),
        begins_only_once_(separator.rfind(separator.front()) == 0) {
    const std::size_t count = separator_.copy(beginning_.data(), kBeginning);
    needed_ = (1U << count) - 1;
  }

  /// The result of scanning one chunk.
  struct Result {
    const char* end;       ///< After the last scanned byte.
    bool is_complete;      ///< The separator ends at #end.
    bool match_is_broken;  ///< The match from earlier chunks ended here.
  };

  /// Scans [begin, end) up to the separator's end. Continues a match at the end
  /// of the previous chunk.
  Result Scan(const char* begin, const char* end) {
#ifdef __SSE2__
    if (begins_only_once_) return ScanFast(begin, end);
#endif
    return ScanByRule(begin, end);
  }

  /// Returns how many bytes of the separator the scanned bytes end in; its size
  /// after a complete match.
  std::size_t matched() const { return matched_; }

  /// Starts a new search.
  void Restart() { matched_ = 0; }

  std::size_t size() const { return separator_.size(); }

 private:
  Result ScanByRule(const char* begin, const char* end) {
    const std::size_t known = matched_;
    const char* const stop = FollowRule(begin, end);
    // An unbroken match has grown by every scanned byte.
    const auto scanned = static_cast<std::size_t>(stop - begin);
    return {stop, matched_ == size(), known > 0 && matched_ != known + scanned};
  }

  const char* FollowRule(const char* begin, const char* end) {
    const char* const separator = separator_.data();
    const std::size_t size = separator_.size();
    std::size_t matched = matched_;
    for (const char* at = begin; at != end; ++at) {
      if (*at == separator[matched]) {
        if (++matched == size) {
          matched_ = size;
          return at + 1;
        }
      } else {
        matched = *at == separator[0] ? 1 : 0;
      }
    }
    matched_ = matched;
    return end;
  }

#ifdef __SSE2__
  Result ScanFast(const char* begin, const char* end) {
    const char* at = begin;
    bool is_broken = false;
    if (matched_ > 0) {
      while (at != end && matched_ < size() && *at == separator_[matched_]) {
        ++at;
        ++matched_;
      }
      if (matched_ == size()) return {at, true, false};
      if (at == end) return {end, false, false};
      matched_ = 0;
      is_broken = true;
    }
    const char* const stop = FollowRule(PassBlocks(at, end), end);
    return {stop, matched_ == size(), is_broken};
  }

  /// Skips blocks in which no separator begins. Returns where the first one
  /// begins, or where the rest is too short for a block. No match is open at
  /// either place, so the rule can continue there.
  ///
  /// The first and third byte are compared at 64 places at once. A client could
  /// slow down the search for one frequent byte, but both together are rare
  /// even in hostile data.
  const char* PassBlocks(const char* at, const char* end) const {
    constexpr std::ptrdiff_t kBlock = 64;
    // This many bytes after each place in the block can be read.
    const auto reach =
        static_cast<std::ptrdiff_t>(std::max(size(), kBeginning));
    for (; end - at >= kBlock + reach; at += kBlock) {
      std::uint64_t places = CandidatesAt(at);
      for (int seen = 0; places != 0; places &= places - 1) {
        if (++seen == kMostComparedSingly + 1) places = ThinOut(at, places);
        if (places == 0) break;
        const char* const place = at + std::countr_zero(places);
        if (MayBeSeparator(place) && IsSeparator(place)) return place;
      }
    }
    return at;
  }

  /// Returns a bit for each of 64 places where the separator may begin.
  std::uint64_t CandidatesAt(const char* at) const {
    const __m128i first = _mm_set1_epi8(separator_[0]);
    const __m128i third = _mm_set1_epi8(separator_[2]);
    const auto compare = [&](std::size_t lane) {
      return _mm_and_si128(_mm_cmpeq_epi8(Load(at + lane), first),
                           _mm_cmpeq_epi8(Load(at + lane + 2), third));
    };
    // Usually no place matches, which this test shows without the bits.
    const __m128i any = _mm_or_si128(_mm_or_si128(compare(0), compare(16)),
                                     _mm_or_si128(compare(32), compare(48)));
    return _mm_movemask_epi8(any) == 0 ? 0 : PlacesWhere(compare);
  }

  /// Compares further bytes at all places while there are many. A CR occurs
  /// only once in the separator, so of two places N bytes apart the first fails
  /// at its byte N. The remaining places lie far apart. The comparison goes
  /// from the eighth byte down, because places that lie further apart are few
  /// anyway.
  std::uint64_t ThinOut(const char* at, std::uint64_t places) const {
    for (std::size_t i = std::min<std::size_t>(size(), 8) - 1;
         i > 0 && HasMany(places); --i) {
      const __m128i byte = _mm_set1_epi8(separator_[i]);
      places &= PlacesWhere([&](std::size_t lane) {
        return _mm_cmpeq_epi8(Load(at + lane + i), byte);
      });
    }
    return places;
  }

  static bool HasMany(std::uint64_t places) {
    for (int i = 0; i < 3; ++i) places &= places - 1;
    return places != 0;
  }

  /// Returns a bit for each of 64 places; @p compare tests 16 of them at once.
  template <class Compare>
  static std::uint64_t PlacesWhere(const Compare& compare) {
    std::uint64_t places = 0;
    for (std::size_t lane = 0; lane < 64; lane += 16) {
      const auto found =
          static_cast<unsigned>(_mm_movemask_epi8(compare(lane)));
      places |= std::uint64_t{found} << lane;
    }
    return places;
  }

  static __m128i Load(const char* at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i_u*>(at));
  }

  /// Compares the first 16 bytes. This is nearly always enough, even in hostile
  /// data, and needs no call. Few places can pass, because the next CR is then
  /// 16 bytes away.
  bool MayBeSeparator(const char* at) const {
    const __m128i alike = _mm_cmpeq_epi8(Load(at), Load(beginning_.data()));
    return (~static_cast<unsigned>(_mm_movemask_epi8(alike)) & needed_) == 0;
  }

  bool IsSeparator(const char* at) const {
    return std::memcmp(at, separator_.data(), size()) == 0;
  }
#endif

  /// Up to this number of candidates in 64 bytes are compared one by one.
  /// Beyond it the rest are thinned out together.
  static constexpr int kMostComparedSingly = 6;
  static constexpr std::size_t kBeginning = 16;

  std::string separator_;
  bool begins_only_once_;
  std::array<char, kBeginning> beginning_{};  ///< The separator's first bytes.
  unsigned needed_ = 0;  ///< A bit for each byte of beginning_ that is set.
  std::size_t matched_ = 0;
};

}  // namespace zan_cgi

#endif
