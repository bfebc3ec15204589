// The answer of the programs of the workload "form" in C++.
#ifndef BENCH_FIELD_SUMMARY_H
#define BENCH_FIELD_SUMMARY_H

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace bench {

/// The number of values, their total size and, unless HASH is "no", their
/// FNV-1a hash. Hashing byte by byte takes longer than the request itself.
class FieldSummary {
 public:
  void Add(std::string_view value) {
    ++count_;
    size_ += value.size();
    if (!is_hashing_) return;
    for (const char byte : value) {
      hash_ ^= static_cast<unsigned char>(byte);
      hash_ *= 1099511628211U;
    }
  }

  std::string Line() const {
    std::string line = std::to_string(count_) + " " + std::to_string(size_);
    if (is_hashing_) line += " " + HexDigits();
    return line + "\n";
  }

 private:
  static bool IsHashWanted() {
    const char* value = std::getenv("HASH");
    return value == nullptr || std::string_view(value) != "no";
  }

  std::string HexDigits() const {
    std::string digits(16, '0');
    std::uint64_t rest = hash_;
    for (std::size_t i = digits.size(); i-- > 0; rest >>= 4) {
      digits[i] = "0123456789abcdef"[rest & 15];
    }
    return digits;
  }

  std::size_t count_ = 0;
  std::size_t size_ = 0;
  std::uint64_t hash_ = 14695981039346656037U;
  bool is_hashing_ = IsHashWanted();
};

}  // namespace bench

#endif
