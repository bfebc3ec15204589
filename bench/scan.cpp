// Measures the search for the end of a file in the body of a form, above all in
// the worst case: a client chooses both the boundary and the data.
//
//   scan [--quick | --check]
//
// Runs the library's scan, the plain rule that it implements, and other search
// functions on the same data in 64 KB chunks, as an upload is read. Prints a
// JSON line for each reported combination of boundary, data and chunk size:
//
//   {"kind": KIND, "boundary": B, "data": D, "chunk": N,
//    "gbps": {FUNCTION: [GB/s in each round], ...}, "ratio": R}
//
// Before each measurement, checks that scan and rule agree. With --check, does
// only this.
//
// The ratio is the scan's time divided by the plain rule's, the median of the
// rounds. The kinds:
//
//   usual              ordinary data, and data known to slow a function down
//   slowest FUNCTION   the slowest of all systematic cases for this function
//   worst              the systematic cases with the largest ratios, in
//                      descending order
//   worst-cr           the same for boundaries that contain a CR, for which the
//                      scan applies the plain rule itself
//   worst-chunks       the same for small chunks. An upload in such chunks also
//                      needs system calls, which are not part of these times.

#include <string.h>
#include <time.h>
#include <zancgi/separator_scan.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t kChunk = 65536;

/// A function that searches successive chunks for a separator.
class Searcher {
 public:
  Searcher() = default;
  Searcher(const Searcher&) = delete;
  Searcher& operator=(const Searcher&) = delete;
  virtual ~Searcher() = default;

  /// Returns whether the separator ends in this chunk.
  virtual bool IsIn(const char* begin, const char* end) = 0;

  /// Starts a new search.
  virtual void Restart() {}
};

class Scan : public Searcher {
 public:
  explicit Scan(const std::string& separator) : scan_(separator) {}

  bool IsIn(const char* begin, const char* end) override {
    return scan_.Scan(begin, end).is_complete;
  }

  void Restart() override { scan_.Restart(); }

 private:
  zan_cgi::SeparatorScan scan_;
};

/// The plain rule, byte by byte: a byte equal to the separator's next byte
/// extends the match. Any other byte ends the match, and may begin a new one.
class Rule : public Searcher {
 public:
  explicit Rule(std::string separator) : separator_(std::move(separator)) {}

  bool IsIn(const char* begin, const char* end) override {
    const char* const separator = separator_.data();
    const std::size_t size = separator_.size();
    std::size_t matched = matched_;
    for (const char* at = begin; at != end; ++at) {
      if (*at == separator[matched]) {
        if (++matched == size) return true;
      } else {
        matched = *at == separator[0] ? 1 : 0;
      }
    }
    matched_ = matched;
    return false;
  }

  void Restart() override { matched_ = 0; }

 private:
  const std::string separator_;
  std::size_t matched_ = 0;
};

/// This and the following functions have an advantage: they search each chunk
/// separately, while an upload must find separators across chunks.
class Memmem : public Searcher {
 public:
  explicit Memmem(std::string separator) : separator_(std::move(separator)) {}

  bool IsIn(const char* begin, const char* end) override {
    return ::memmem(begin, static_cast<std::size_t>(end - begin),
                    separator_.data(), separator_.size()) != nullptr;
  }

 private:
  const std::string separator_;
};

class MemchrForCr : public Searcher {
 public:
  explicit MemchrForCr(std::string separator)
      : separator_(std::move(separator)) {}

  bool IsIn(const char* begin, const char* end) override {
    const std::size_t size = separator_.size();
    while (static_cast<std::size_t>(end - begin) >= size) {
      const auto places = static_cast<std::size_t>(end - begin) - size + 1;
      const void* const found = std::memchr(begin, '\r', places);
      if (found == nullptr) return false;
      if (std::memcmp(found, separator_.data(), size) == 0) return true;
      begin = static_cast<const char*>(found) + 1;
    }
    return false;
  }

 private:
  const std::string separator_;
};

class Horspool : public Searcher {
 public:
  explicit Horspool(std::string separator)
      : separator_(std::move(separator)),
        search_(separator_.begin(), separator_.end()) {}

  bool IsIn(const char* begin, const char* end) override {
    return std::search(begin, end, search_) != end;
  }

 private:
  const std::string separator_;
  const std::boyer_moore_horspool_searcher<std::string::const_iterator> search_;
};

constexpr std::array<const char*, 5> kSearcherNames = {
    "scan", "plain", "memmem", "memchr", "horspool"};
constexpr std::size_t kScan = 0;
constexpr std::size_t kRule = 1;

std::vector<std::unique_ptr<Searcher>> MakeSearchers(
    const std::string& separator) {
  std::vector<std::unique_ptr<Searcher>> searchers;
  searchers.push_back(std::make_unique<Scan>(separator));
  searchers.push_back(std::make_unique<Rule>(separator));
  searchers.push_back(std::make_unique<Memmem>(separator));
  searchers.push_back(std::make_unique<MemchrForCr>(separator));
  searchers.push_back(std::make_unique<Horspool>(separator));
  return searchers;
}

std::string SeparatorFor(const std::string& boundary) {
  return "\r\n--" + boundary;
}

/// Data of any size that a client could send. The name is for the results.
struct Data {
  std::string name;
  std::function<std::string(std::size_t size)> make;
};

/// Pseudo-random numbers, the same in each run.
class Random {
 public:
  std::uint64_t Next() {
    state_ = state_ * 6364136223846793005U + 1442695040888963407U;
    return state_ >> 33;
  }

 private:
  std::uint64_t state_ = 1;
};

Data Repeated(const std::string& unit) {
  return {unit + " repeated", [unit](std::size_t size) {
            std::string bytes;
            while (bytes.size() < size) bytes += unit;
            bytes.resize(size);
            return bytes;
          }};
}

/// Returns the pieces in pseudo-random order.
Data Mixed(const std::string& name, const std::vector<std::string>& pieces) {
  return {name, [pieces](std::size_t size) {
            Random random;
            std::string bytes;
            while (bytes.size() < size) {
              bytes += pieces[random.Next() % pieces.size()];
            }
            bytes.resize(size);
            return bytes;
          }};
}

Data RandomBytes() {
  return {"random bytes", [](std::size_t size) {
            Random random;
            std::string bytes(size, '\0');
            for (char& byte : bytes) byte = static_cast<char>(random.Next());
            return bytes;
          }};
}

Data Text() {
  return Mixed("lines of text", {"the ", "upload ", "of ", "a ", "file\r\n",
                                 "well-known ", "in ", "pieces, "});
}

std::vector<Data> OrdinaryData() {
  return {RandomBytes(), Text(), Repeated(std::string(1, '\0'))};
}

/// Returns data that slows down at least one of the functions.
std::vector<Data> KnownHostileData(const std::string& separator) {
  const std::string longest = separator.substr(0, separator.size() - 1);
  return {Repeated("\r"),
          Repeated("\r\n"),
          Repeated("\r\r--"),
          Repeated("\r\n-"),
          Repeated("\r\n--"),
          Repeated("-"),
          Repeated(longest),
          Repeated(separator.substr(1)),
          Repeated(separator.substr(separator.size() - 1)),
          Mixed("CR, LF and dashes mixed", {"\r", "\n", "-"})};
}

std::vector<Data> WellKnownData(const std::string& separator) {
  std::vector<Data> all = OrdinaryData();
  for (Data& data : KnownHostileData(separator)) all.push_back(std::move(data));
  return all;
}

/// Returns all words of up to @p largest letters, except repetitions and
/// rotations of others.
std::vector<std::string> WordsToRepeat(std::size_t largest) {
  const std::string letters = "\r\n-x";
  std::vector<std::string> words = {""};
  std::vector<std::string> chosen;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string word = words[i];
    std::string rotated = word;
    bool is_least = !word.empty();
    for (std::size_t turn = 1; turn < word.size(); ++turn) {
      std::rotate(rotated.begin(), rotated.begin() + 1, rotated.end());
      is_least = is_least && word < rotated;
    }
    if (is_least) chosen.push_back(word);
    if (word.size() == largest) continue;
    for (const char letter : letters) words.push_back(word + letter);
  }
  return chosen;
}

std::vector<std::string> BeginningsOf(const std::string& separator) {
  std::vector<std::string> beginnings;
  for (std::size_t size = 1; size < separator.size(); ++size) {
    beginnings.push_back(separator.substr(0, size));
  }
  return beginnings;
}

std::string WithOneByteWrong(std::string text, std::size_t at) {
  text[at] = '_';
  return text;
}

/// Returns data that resembles the separator.
std::vector<Data> SimilarData(const std::string& separator, bool is_quick) {
  const std::vector<std::string> beginnings = BeginningsOf(separator);
  std::vector<Data> all;
  for (const std::string& beginning : beginnings) {
    const bool is_representative = beginning.size() <= 8 ||
                                   beginning.size() % 16 == 0 ||
                                   beginning.size() + 1 == separator.size();
    if (is_quick && !is_representative) continue;
    all.push_back(Repeated(beginning));
    all.push_back(Repeated(beginning + "_"));
    all.push_back(Mixed(beginning + " and CR mixed", {beginning, "\r"}));
  }
  // If a separator contains two CRs, the rule may miss one that begins inside a
  // partial match.
  all.push_back(
      Repeated(separator.substr(0, separator.rfind('\r')) + separator));
  all.push_back(Repeated(WithOneByteWrong(separator, separator.size() - 1)));
  all.push_back(Repeated(WithOneByteWrong(separator, separator.size() / 2)));
  all.push_back(Mixed("all its beginnings mixed", beginnings));
  all.push_back(Mixed("all its beginnings and dashes mixed", [&] {
    std::vector<std::string> pieces = beginnings;
    pieces.insert(pieces.end(), beginnings.size(), "-");
    return pieces;
  }()));
  all.push_back(Mixed("CR and dashes mixed", {"\r", "-"}));
  all.push_back(Mixed("candidates of two kinds mixed", {"\r\n-", "\r\n--"}));
  all.push_back(
      Mixed("candidates and others mixed", {"\r\n--", "\r\n-", "x", "-"}));
  return all;
}

std::vector<Data> SystematicData(const std::string& separator, bool is_quick) {
  std::vector<Data> all = WellKnownData(separator);
  for (const std::string& word : WordsToRepeat(is_quick ? 3 : 4)) {
    all.push_back(Repeated(word));
  }
  for (Data& data : SimilarData(separator, is_quick)) {
    all.push_back(std::move(data));
  }
  std::set<std::string> names;
  std::erase_if(
      all, [&](const Data& data) { return !names.insert(data.name).second; });
  return all;
}

std::string LettersOf(std::size_t size) {
  const std::string letters = "0123456789abcdefghijklmnopqrstuvwxyz";
  std::string boundary;
  while (boundary.size() < size) boundary += letters;
  boundary.resize(size);
  return boundary;
}

constexpr char kUsualBoundary[] = "------------------------0123456789abcdef";

std::vector<std::string> SystematicBoundaries(bool is_quick) {
  const std::vector<std::size_t> sizes =
      is_quick ? std::vector<std::size_t>{1, 5, 12, 29, 70}
               : std::vector<std::size_t>{1,  2,  3,  4,  5,  8,  11, 12, 13,
                                          16, 20, 27, 28, 29, 32, 44, 60, 70};
  std::vector<std::string> boundaries = {kUsualBoundary, "\n", "\n--"};
  for (const std::size_t size : sizes) {
    boundaries.push_back(LettersOf(size));
    boundaries.emplace_back(size, '-');
  }
  for (const std::size_t size : sizes) {
    if (is_quick || size % 4 != 0) continue;
    boundaries.emplace_back(size, 'x');
    boundaries.push_back(std::string(size - 1, '-') + "x");
  }
  for (const std::string with_cr :
       {"\r", "\r\n--", "x\ry", "-----------------------------\r"}) {
    boundaries.push_back(with_cr);
  }
  return boundaries;
}

bool ContainsCr(const std::string& boundary) {
  return boundary.find('\r') != std::string::npos;
}

/// Returns whether the function finds the separator in chunks of this size.
bool IsFound(Searcher& searcher, const std::string& data, std::size_t chunk) {
  searcher.Restart();
  const char* const end = data.data() + data.size();
  for (const char* at = data.data(); at != end;) {
    const char* const next =
        at + std::min(chunk, static_cast<std::size_t>(end - at));
    if (searcher.IsIn(at, next)) return true;
    at = next;
  }
  return false;
}

/// Returns processor time, which other processes hardly affect.
std::chrono::nanoseconds OwnTime() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) +
         std::chrono::nanoseconds(time.tv_nsec);
}

/// Returns nanoseconds per byte. The data must not contain the separator.
double TimeOf(Searcher& searcher, const std::string& data, std::size_t chunk,
              std::chrono::nanoseconds at_least) {
  const std::chrono::nanoseconds start = OwnTime();
  std::chrono::nanoseconds time{};
  std::size_t passes = 0;
  for (std::size_t more = 1; time < at_least; more *= 2) {
    for (std::size_t i = 0; i < more; ++i) {
      if (IsFound(searcher, data, chunk)) {
        throw std::runtime_error("the data contains the separator");
      }
    }
    passes += more;
    time = OwnTime() - start;
  }
  return static_cast<double>(time.count()) /
         static_cast<double>(passes * data.size());
}

double MedianOf(std::vector<double> numbers) {
  std::sort(numbers.begin(), numbers.end());
  return numbers[numbers.size() / 2];
}

/// One boundary with one kind of data, and its measurements.
struct Case {
  std::string boundary;
  Data data;
  std::size_t chunk = kChunk;
  /// Nanoseconds per byte in each round, by index of the function.
  std::map<std::size_t, std::vector<double>> times;
  double ratio = 0;
};

struct Effort {
  std::size_t bytes;
  std::size_t rounds;
  std::chrono::nanoseconds slice;
};

/// Measures the functions in turn, so that a disturbance affects all of them.
void Measure(Case& one, const std::vector<std::size_t>& chosen,
             const Effort& effort) {
  const std::vector<std::unique_ptr<Searcher>> searchers =
      MakeSearchers(SeparatorFor(one.boundary));
  const std::string data = one.data.make(effort.bytes);
  std::vector<double> ratios;
  one.times.clear();
  for (std::size_t round = 0; round < effort.rounds; ++round) {
    for (const std::size_t index : chosen) {
      one.times[index].push_back(
          TimeOf(*searchers[index], data, one.chunk, effort.slice));
    }
    ratios.push_back(one.times[kScan].back() / one.times[kRule].back());
  }
  one.ratio = MedianOf(ratios);
}

/// Returns whether the data contains no separator. Throws unless scan and rule
/// agree.
bool ContainsNoSeparator(const Case& one, std::size_t bytes) {
  const std::string separator = SeparatorFor(one.boundary);
  const std::string data = one.data.make(bytes);
  Scan scan(separator);
  Rule rule(separator);
  const bool is_found = IsFound(rule, data, one.chunk);
  if (IsFound(scan, data, one.chunk) != is_found) {
    throw std::runtime_error("scan and rule disagree");
  }
  return !is_found;
}

std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < ' ' || c == '"' || c == '\\') {
      std::array<char, 8> escape{};
      static_cast<void>(
          std::snprintf(escape.data(), escape.size(), "\\u%04x", byte));
      quoted += escape.data();
    } else {
      quoted += c;
    }
  }
  return quoted + '"';
}

std::string Number(double number) {
  std::array<char, 32> text{};
  static_cast<void>(std::snprintf(text.data(), text.size(), "%.4g", number));
  return text.data();
}

/// One byte per nanosecond is one gigabyte per second.
std::string SpeedsText(const std::vector<double>& times) {
  std::string text;
  for (const double time : times) {
    text += (text.empty() ? "" : ", ") + Number(1 / time);
  }
  return "[" + text + "]";
}

std::string AllSpeedsText(const Case& one) {
  std::string text;
  for (const auto& [index, times] : one.times) {
    text += text.empty() ? "" : ", ";
    text += Quoted(kSearcherNames.at(index)) + ": " + SpeedsText(times);
  }
  return "{" + text + "}";
}

void Print(const std::string& kind, const Case& one) {
  std::printf(
      "{\"kind\": %s, \"boundary\": %s, \"data\": %s, \"chunk\": %zu, "
      "\"gbps\": %s, \"ratio\": %s}\n",
      Quoted(kind).c_str(), Quoted(one.boundary).c_str(),
      Quoted(one.data.name).c_str(), one.chunk, AllSpeedsText(one).c_str(),
      Number(one.ratio).c_str());
  static_cast<void>(std::fflush(stdout));
}

const std::vector<std::size_t> kAllSearchers = {0, 1, 2, 3, 4};
const std::vector<std::size_t> kScanAndRule = {kScan, kRule};

/// How much is measured in a run.
struct Budget {
  bool is_quick;
  Effort screening;
  Effort confirming;
  std::size_t confirmed;
};

Budget BudgetFor(bool is_quick) {
  using std::chrono::microseconds;
  if (is_quick) {
    return {true,
            {2 * kChunk, 3, microseconds(100)},
            {4 * kChunk, 5, microseconds(1000)},
            8};
  }
  return {false,
          {4 * kChunk, 3, microseconds(100)},
          {16 * kChunk, 15, microseconds(3000)},
          20};
}

/// Returns the cases whose data does not contain the separator. Throws unless
/// scan and rule agree on all cases.
std::vector<Case> CasesOf(const std::string& boundary,
                          const std::vector<Data>& all, std::size_t chunk,
                          const Budget& budget) {
  std::vector<Case> cases;
  for (const Data& data : all) {
    Case one{boundary, data, chunk, {}, 0};
    if (ContainsNoSeparator(one, budget.confirming.bytes)) {
      cases.push_back(std::move(one));
    }
  }
  return cases;
}

void ShowUsualBoundary(const Budget& budget) {
  const std::vector<Data> all = WellKnownData(SeparatorFor(kUsualBoundary));
  for (Case& one : CasesOf(kUsualBoundary, all, kChunk, budget)) {
    Measure(one, kAllSearchers, budget.confirming);
    Print("usual", one);
  }
}

/// Returns the functions to compare. For a boundary that contains a CR, an
/// exact search has other results than the rule.
const std::vector<std::size_t>& ComparableSearchers(
    const std::string& boundary) {
  return ContainsCr(boundary) ? kScanAndRule : kAllSearchers;
}

std::vector<Case> Screen(const Budget& budget) {
  std::vector<Case> screened;
  for (const std::string& boundary : SystematicBoundaries(budget.is_quick)) {
    const std::vector<Data> all =
        SystematicData(SeparatorFor(boundary), budget.is_quick);
    for (Case& one : CasesOf(boundary, all, kChunk, budget)) {
      Measure(one, ComparableSearchers(boundary), budget.screening);
      screened.push_back(std::move(one));
    }
  }
  return screened;
}

std::vector<Case> ScreenSmallChunks(const Budget& budget) {
  constexpr std::array<std::size_t, 8> kChunks = {1,   16,  64,   100,
                                                  160, 256, 1000, 4096};
  std::vector<Case> screened;
  for (const std::size_t chunk : kChunks) {
    for (const std::string& boundary :
         {std::string(kUsualBoundary), std::string("X"), LettersOf(70)}) {
      const std::vector<Data> all = WellKnownData(SeparatorFor(boundary));
      for (Case& one : CasesOf(boundary, all, chunk, budget)) {
        Measure(one, kScanAndRule, budget.screening);
        screened.push_back(std::move(one));
      }
    }
  }
  return screened;
}

void ShowSlowestOfEachSearcher(const std::vector<Case>& cases,
                               const Budget& budget) {
  for (const std::size_t index : kAllSearchers) {
    const auto time = [index](const Case& one) {
      const auto found = one.times.find(index);
      return found == one.times.end() ? 0 : MedianOf(found->second);
    };
    Case slowest = *std::max_element(cases.begin(), cases.end(),
                                     [&](const Case& left, const Case& right) {
                                       return time(left) < time(right);
                                     });
    Measure(slowest, ComparableSearchers(slowest.boundary), budget.confirming);
    Print(std::string("slowest ") + kSearcherNames.at(index), slowest);
  }
}

void SortByRatio(std::vector<Case>& cases) {
  std::sort(cases.begin(), cases.end(),
            [](const Case& left, const Case& right) {
              return left.ratio > right.ratio;
            });
}

/// Measures the worst cases again, for longer, and prints them.
void ShowWorst(const std::string& kind, std::vector<Case> cases,
               const Budget& budget) {
  SortByRatio(cases);
  cases.resize(std::min(cases.size(), budget.confirmed));
  for (Case& one : cases) Measure(one, kScanAndRule, budget.confirming);
  SortByRatio(cases);
  for (const Case& one : cases) Print(kind, one);
}

/// Throws unless scan and rule agree on all cases.
void CheckAll(const Budget& budget) {
  for (const std::string& boundary : SystematicBoundaries(budget.is_quick)) {
    const std::vector<Data> all =
        SystematicData(SeparatorFor(boundary), budget.is_quick);
    for (const std::size_t chunk : {std::size_t{1}, std::size_t{100}, kChunk}) {
      static_cast<void>(CasesOf(boundary, all, chunk, budget));
    }
  }
}

void RunAll(const Budget& budget) {
  ShowUsualBoundary(budget);
  std::vector<Case> cases = Screen(budget);
  ShowSlowestOfEachSearcher(cases, budget);
  const auto with_cr =
      std::partition(cases.begin(), cases.end(),
                     [](const Case& one) { return !ContainsCr(one.boundary); });
  ShowWorst("worst", {cases.begin(), with_cr}, budget);
  ShowWorst("worst-cr", {with_cr, cases.end()}, budget);
  ShowWorst("worst-chunks", ScreenSmallChunks(budget), budget);
}

}  // namespace

int main(int argc, char** argv) try {
  const std::string option = argc > 1 ? argv[1] : "";
  if (argc > 2 || (argc == 2 && option != "--quick" && option != "--check")) {
    static_cast<void>(
        std::fprintf(stderr, "usage: scan [--quick | --check]\n"));
    return 2;
  }
  if (option == "--check") {
    CheckAll(BudgetFor(true));
  } else {
    RunAll(BudgetFor(option == "--quick"));
  }
  return 0;
} catch (const std::exception& error) {
  static_cast<void>(std::fprintf(stderr, "scan: %s\n", error.what()));
  return 1;
}
