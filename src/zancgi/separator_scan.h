/// @file
/// Private: finding the end of a file in the body of a form.
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
/// first byte only. Where the separator's first byte, the CR, does not come
/// again in it, this finds exactly the occurrences of the separator: a byte
/// inside a match is then never the beginning of another one. So any exact
/// search may take its place, and the fast one does. Otherwise (a boundary
/// value that holds a CR) the rule overlooks some occurrences, which is kept,
/// so the rule itself is followed.
class SeparatorScan {
 public:
  /// @param separator  CR LF "--" and any bytes
  explicit SeparatorScan(const std::string& separator)
      : separator_(separator),
        begins_only_once_(separator.rfind(separator.front()) == 0) {
    const std::size_t count = separator_.copy(beginning_.data(), kBeginning);
    needed_ = (1U << count) - 1;
  }

  /// What one chunk has brought.
  struct Result {
    const char* end;       ///< Behind the last byte looked at.
    bool is_complete;      ///< The separator ends at #end.
    bool match_is_broken;  ///< The match that went on from before broke.
  };

  /// Scans [begin, end) up to the separator's end, going on with a match that
  /// the previous chunk ended in.
  Result Scan(const char* begin, const char* end) {
#ifdef __SSE2__
    if (begins_only_once_) return ScanFast(begin, end);
#endif
    return ScanByRule(begin, end);
  }

  /// How many bytes of the separator the scanned bytes end in, all of them
  /// after a complete match.
  std::size_t matched() const { return matched_; }

  /// Begins a new search.
  void Restart() { matched_ = 0; }

  std::size_t size() const { return separator_.size(); }

 private:
  Result ScanByRule(const char* begin, const char* end) {
    const std::size_t known = matched_;
    const char* const stop = FollowRule(begin, end);
    // Unbroken, it has grown by each byte.
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

  /// Passes over blocks in which no separator begins. Returns where the first
  /// one begins, or where what is left is too short for a block; no match is
  /// open there, so the rule can go on from either.
  ///
  /// First and third byte are compared at 64 places at once: both together are
  /// rare even in data that is chosen to be slow, since the search for one
  /// frequent byte is what a client could make slow.
  const char* PassBlocks(const char* at, const char* end) const {
    constexpr std::ptrdiff_t kBlock = 64;
    // So many bytes after each place in the block can be read.
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

  /// A bit for each of 64 places where the separator may begin.
  std::uint64_t CandidatesAt(const char* at) const {
    const __m128i first = _mm_set1_epi8(separator_[0]);
    const __m128i third = _mm_set1_epi8(separator_[2]);
    const auto compare = [&](std::size_t lane) {
      return _mm_and_si128(_mm_cmpeq_epi8(Load(at + lane), first),
                           _mm_cmpeq_epi8(Load(at + lane + 2), third));
    };
    // Mostly there is none, which is found out without the bits.
    const __m128i any = _mm_or_si128(_mm_or_si128(compare(0), compare(16)),
                                     _mm_or_si128(compare(32), compare(48)));
    return _mm_movemask_epi8(any) == 0 ? 0 : PlacesWhere(compare);
  }

  /// Compares further bytes at all places, as long as there are many. A CR
  /// comes only once in the separator, so where two places are N bytes apart,
  /// the first fails at its byte N: what is left lies apart. From the eighth
  /// byte downwards, since the wider apart, the fewer there are anyway.
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

  /// A bit for each of 64 places, from what is found in 16 of them at once.
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

  /// Compares the first 16 bytes. In data full of look-alikes this decides
  /// nearly always, without a call; and a client cannot make many places pass
  /// it, because the next CR is 16 bytes away then.
  bool MayBeSeparator(const char* at) const {
    const __m128i alike = _mm_cmpeq_epi8(Load(at), Load(beginning_.data()));
    return (~static_cast<unsigned>(_mm_movemask_epi8(alike)) & needed_) == 0;
  }

  bool IsSeparator(const char* at) const {
    return std::memcmp(at, separator_.data(), size()) == 0;
  }
#endif

  /// So many look-alikes in 64 bytes are compared one by one before all others
  /// are thinned out together.
  static constexpr int kMostComparedSingly = 6;
  static constexpr std::size_t kBeginning = 16;

  std::string separator_;
  bool begins_only_once_;
  std::array<char, kBeginning> beginning_{};  ///< The separator's first bytes.
  unsigned needed_ = 0;  ///< A bit for each of them that there is.
  std::size_t matched_ = 0;
};

}  // namespace zan_cgi

#endif
