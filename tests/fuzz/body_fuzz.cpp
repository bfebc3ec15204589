/// @file
/// The body of a POST and the pieces in which it comes, compared with the
/// plain parser.
///
/// An input can be read and written by hand. Its first four lines say how the
/// body comes, the rest is the body:
///
/// 1. `CONTENT_TYPE`.
/// 2. The declared length: empty when it is true, "+2" or "-1" when it is off
///    by so much, otherwise the text of `CONTENT_LENGTH`.
/// 3. Letters for what else happens, some with a number; see Settle().
/// 4. Numbers: the sizes of the reads. After these, reads give all that is
///    asked for.
#include <zancgi/testing/scratch.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/harness.h"
#include "plain/plain_parser.h"
#include "plain/product.h"

namespace {

std::uint64_t TakeNumber(std::string_view& text, std::uint64_t limit) {
  std::uint64_t number = 0;
  while (!text.empty() && text[0] >= '0' && text[0] <= '9') {
    const auto digit = static_cast<std::uint64_t>(text[0] - '0');
    number = std::min(number * 10 + digit, limit);
    text.remove_prefix(1);
  }
  return number;
}

std::string UpToZero(const std::string& text) {
  return text.substr(0, text.find('\0'));
}

std::string LengthText(const std::string& line, std::size_t true_length) {
  const bool is_offset =
      line.size() > 1 && (line[0] == '+' || line[0] == '-') &&
      line.find_first_not_of("0123456789", 1) == std::string::npos;
  if (!line.empty() && !is_offset) return UpToZero(line);
  std::string_view digits = line;
  if (is_offset) digits.remove_prefix(1);
  const auto offset = static_cast<long>(TakeNumber(digits, 1'000'000'000));
  const auto length = static_cast<long>(true_length);
  return std::to_string(line[0] == '-' ? length - offset : length + offset);
}

std::vector<std::size_t> TakeNumbers(std::string_view text) {
  std::vector<std::size_t> numbers;
  for (;;) {
    const std::size_t begin = text.find_first_of("0123456789");
    if (begin == std::string_view::npos) return numbers;
    text.remove_prefix(begin);
    numbers.push_back(TakeNumber(text, 1'000'000));
  }
}

/// The first byte 1A of the body stands for so many "x".
void Fill(std::string& body, std::size_t count) {
  const std::size_t found = body.find('\x1a');
  if (found != std::string::npos) body.replace(found, 1, count, 'x');
}

void Settle(std::string_view letters, const zan_cgi::testing::Scratch& scratch,
            plain::Request& request) {
  bool is_from_environment = false;
  request.tmp_dir = scratch.Path();
  while (!letters.empty()) {
    const char letter = letters[0];
    letters.remove_prefix(1);
    // Reads that find nothing would block, or are interrupted.
    if (letter == 'b') request.input.nothing = plain::Nothing::kWouldBlock;
    if (letter == 'i') request.input.nothing = plain::Nothing::kSignal;
    // End of file instead of a hang-up.
    if (letter == 'e') request.input.hangs_up = false;
    if (letter == 'f') request.free_space_fails = true;
    if (letter == 'l') request.file_limit = TakeNumber(letters, 100'000);
    if (letter == 's') request.free_space = TakeNumber(letters, 1'000'000'000);
    // The directory is missing, or comes from the environment.
    if (letter == 'm') request.tmp_dir = scratch / "missing";
    if (letter == 'm') request.files_open = false;
    if (letter == 't') is_from_environment = true;
    if (letter == 'x') {
      Fill(request.input.bytes, TakeNumber(letters, 300'000));
    }
  }
  if (is_from_environment) request.tmp.swap(request.tmp_dir);
}

plain::Request ToRequest(std::string_view input,
                         const zan_cgi::testing::Scratch& scratch) {
  plain::Request request;
  request.content_type = UpToZero(fuzz::TakeLine(input));
  const std::string length = fuzz::TakeLine(input);
  const std::string letters = fuzz::TakeLine(input);
  request.input.reads = TakeNumbers(fuzz::TakeLine(input));
  request.input.bytes = input;
  Settle(letters, scratch, request);
  request.content_length = LengthText(length, request.input.bytes.size());
  return request;
}

/// Changes an input where chance alone seldom succeeds.
class Mutation {
 public:
  Mutation(std::string_view input, unsigned seed) : random_(seed) {
    for (std::string& line : settings_) line = fuzz::TakeLine(input);
    reads_ = TakeNumbers(fuzz::TakeLine(input));
    body_ = input;
  }

  /// Has a read end at or near a byte of a line end or a boundary.
  void Cut() {
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < body_.size(); ++i) {
      if (body_[i] == '\r' || body_[i] == '\n' || body_[i] == '-') {
        places.push_back(i);
      }
    }
    if (places.empty()) return;
    CutAt(places[Below(places.size())] + Below(3));
  }

  /// Repeats what stands between two line ends, several lines perhaps.
  void Repeat() {
    const std::size_t begin = LineBegin();
    const std::size_t end = LineBegin();
    if (begin < end) body_.insert(end, body_.substr(begin, end - begin));
  }

  /// Has a read find nothing, or takes one away.
  void ChangeReads() {
    const auto place =
        reads_.begin() + static_cast<std::ptrdiff_t>(Below(reads_.size() + 1));
    if (place == reads_.end() || Below(4) == 0) {
      reads_.insert(place, 0);
    } else {
      reads_.erase(place);
    }
  }

  std::string Result() const {
    std::string result;
    for (const std::string& line : settings_) result += line + "\n";
    for (const std::size_t read : reads_) result += std::to_string(read) + " ";
    return result + "\n" + body_;
  }

 private:
  std::size_t Below(std::size_t limit) { return random_() % limit; }

  std::size_t LineBegin() {
    const std::size_t found = body_.find('\n', Below(body_.size() + 1));
    return found == std::string::npos ? body_.size() : found + 1;
  }

  void CutAt(std::size_t place) {
    std::size_t begin = 0;
    for (auto read = reads_.begin(); read != reads_.end(); ++read) {
      const std::size_t end = begin + *read;
      if (place == end) return;
      if (place < end) {
        *read = end - place;
        reads_.insert(read, place - begin);
        return;
      }
      begin = end;
    }
    reads_.push_back(place - begin);
  }

  std::minstd_rand random_;
  std::string settings_[3];
  std::vector<std::size_t> reads_;
  std::string body_;
};

std::string Mutated(std::string_view input, unsigned seed) {
  Mutation mutation(input, seed);
  if (seed % 4 == 0) {
    mutation.Repeat();
  } else if (seed % 4 == 1) {
    mutation.ChangeReads();
  } else {
    mutation.Cut();
  }
  return mutation.Result();
}

unsigned long compared = 0;
unsigned long spinning = 0;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  return std::atexit([] {
    std::fprintf(stderr, "%lu bodies compared, %lu left out: they spin\n",
                 compared, spinning);
  });
}

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size,
                                        std::size_t max_size);

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data,
                                               std::size_t size,
                                               std::size_t max_size,
                                               unsigned seed) {
  if (seed % 3 == 0) {
    const std::string mutated =
        Mutated({reinterpret_cast<const char*>(data), size}, seed / 3);
    if (mutated.size() <= max_size) {
      std::copy(mutated.begin(), mutated.end(), data);
      return mutated.size();
    }
  }
  return LLVMFuzzerMutate(data, size, max_size);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  static const zan_cgi::testing::Scratch scratch;
  const plain::Request request =
      ToRequest({reinterpret_cast<const char*>(data), size}, scratch);
  const plain::Outcome outcome = plain::Parse(request);
  if (outcome.spins) {
    ++spinning;
    return 0;
  }
  ++compared;
  const fuzz::DescriptorWatch watch;
  std::string account = plain::Difference(outcome, plain::RunProduct(request));
  if (!scratch.List().empty()) account += "a temporary file is left\n";
  if (!account.empty()) {
    fuzz::ReportFinding(account + plain::Describe(request));
  }
  return 0;
}
