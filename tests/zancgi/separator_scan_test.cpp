#include "zancgi/separator_scan.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using zan_cgi::SeparatorScan;

/// What a scan of successive chunks has found, as one line of text.
using Account = std::string;

Account Describe(std::size_t scanned, bool complete, std::size_t matched) {
  return std::to_string(scanned) + (complete ? "!" : ".") +
         std::to_string(matched) + " ";
}

/// The rule as it is worded, without a short cut.
class Rule {
 public:
  explicit Rule(std::string separator) : separator_(std::move(separator)) {}

  Account Scan(const std::string& chunk) {
    is_broken = false;
    for (std::size_t i = 0; i < chunk.size(); ++i) {
      if (chunk[i] == separator_[matched_]) {
        ++matched_;
      } else {
        is_broken = is_broken || matched_ > 0;
        matched_ = chunk[i] == separator_[0] ? 1 : 0;
      }
      if (matched_ == separator_.size()) {
        matched_ = 0;
        return Describe(i + 1, true, separator_.size());
      }
    }
    return Describe(chunk.size(), false, matched_);
  }

  bool is_broken = false;

 private:
  std::string separator_;
  std::size_t matched_ = 0;
};

/// Memory that ends at an inaccessible page: a read beyond it is killed.
class Guarded {
 public:
  Guarded() {
    void* const memory = ::mmap(nullptr, kSize + kPage, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    end_ = static_cast<char*>(memory) + kSize;
    if (memory == MAP_FAILED || ::mprotect(end_, kPage, PROT_NONE) != 0) {
      throw std::bad_alloc();
    }
  }
  ~Guarded() { ::munmap(end_ - kSize, kSize + kPage); }
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;

  /// Puts a text right before the memory's end.
  const char* Put(const std::string& text) const {
    if (text.size() > kSize) throw std::length_error("text too long");
    return std::copy(text.begin(), text.end(), end_ - text.size()) -
           text.size();
  }

 private:
  static constexpr std::size_t kPage = 4096;
  static constexpr std::size_t kSize = 16 * kPage;

  char* end_;
};

Account ScanExactly(SeparatorScan& scan, const std::string& chunk,
                    bool& is_broken) {
  static const Guarded memory;
  const char* const begin = memory.Put(chunk);
  const SeparatorScan::Result result = scan.Scan(begin, begin + chunk.size());
  is_broken = result.match_is_broken;
  const Account account = Describe(static_cast<std::size_t>(result.end - begin),
                                   result.is_complete, scan.matched());
  if (result.is_complete) scan.Restart();
  return account;
}

/// Scans chunks by the rule and by the library. Of the matches that broke only
/// one counts that the chunk before ended in.
void Compare(const std::string& separator,
             const std::vector<std::string>& chunks) {
  Rule rule(separator);
  SeparatorScan scan(separator);
  for (const std::string& chunk : chunks) {
    const bool goes_on = scan.matched() > 0;
    bool is_broken = false;
    ASSERT_EQ(ScanExactly(scan, chunk, is_broken), rule.Scan(chunk))
        << testing::PrintToString(chunks);
    ASSERT_EQ(is_broken, goes_on && rule.is_broken)
        << testing::PrintToString(chunks);
  }
}

std::string Repeat(const std::string& text, std::size_t times) {
  std::string repeated;
  for (; times > 0; --times) repeated += text;
  return repeated;
}

TEST(SeparatorScan, FindsTheSeparatorAtEachPlace) {
  const std::string separator = "\r\n--XY";
  for (std::size_t before = 0; before < 200; ++before) {
    for (std::size_t after = 0; after < 80; after += 7) {
      Compare(separator,
              {std::string(before, 'x') + separator + std::string(after, 'x')});
    }
  }
}

TEST(SeparatorScan, ContinuesAMatchAcrossEachCut) {
  const std::string separator = "\r\n--boundary";
  const std::string data =
      std::string(100, 'x') + separator + std::string(100, 'x');
  for (std::size_t cut = 0; cut <= data.size(); ++cut) {
    Compare(separator, {data.substr(0, cut), data.substr(cut)});
  }
}

TEST(SeparatorScan, IsNotDeceivedByBeginningsOfTheSeparator) {
  const std::string separator = "\r\n--XY";
  for (std::size_t size = 1; size < separator.size(); ++size) {
    const std::string beginning = separator.substr(0, size);
    for (const std::string& end : {separator, std::string("x")}) {
      Compare(separator, {Repeat(beginning, 50) + end, end});
    }
  }
}

TEST(SeparatorScan, IsNotDeceivedByManyLookAlikes) {
  for (const std::size_t length : {1U, 2U, 3U, 4U, 5U, 9U, 20U, 70U}) {
    const std::string separator = "\r\n--" + std::string(length, 'X');
    // As close together as they can be, and the separator among them.
    for (std::size_t period = 1; period <= 20; ++period) {
      std::string pattern = separator.substr(0, period);
      pattern.resize(period, 'x');
      for (std::size_t before = 0; before < 70; before += 3) {
        Compare(separator, {std::string(before, 'x') + Repeat(pattern, 40) +
                            separator + Repeat(pattern, 40)});
      }
    }
  }
}

TEST(SeparatorScan, FollowsTheRuleWhereASeparatorRepeatsItsFirstByte) {
  // An exact search would find "\r\n--\r\n--X" after another "\r\n--".
  Compare("\r\n--\r\n--X", {"\r\n--\r\n--\r\n--X"});
  SeparatorScan scan("\r\n--\r\n--X");
  bool is_broken = false;
  EXPECT_EQ(ScanExactly(scan, "\r\n--\r\n--\r\n--X", is_broken), "13.0 ");
}

TEST(SeparatorScan, FollowsTheRuleInRandomText) {
  std::mt19937 random(7);
  const std::string letters = "\r\r\r\n\n--X";
  for (const std::string value : {"", "-", "X", "XX", "X-X", "\r", "\r\n--",
                                  "X\rX", "XXXXXXXXXXXXXXXXXXXXXXXX"}) {
    const std::string separator = "\r\n--" + value;
    for (int round = 0; round < 4000; ++round) {
      std::vector<std::string> chunks(1 + random() % 4);
      for (std::string& chunk : chunks) {
        for (std::size_t size = random() % 150; size > 0; --size) {
          chunk += letters[random() % letters.size()];
          if (random() % 40 == 0) chunk += separator;
          if (random() % 40 == 0) {
            chunk += separator.substr(0, random() % separator.size());
          }
        }
      }
      Compare(separator, chunks);
      if (HasFatalFailure()) return;
    }
  }
}

}  // namespace
