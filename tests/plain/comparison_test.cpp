// Compares the library's parser of POST bodies with the plain one: for random
// bodies, and for bodies cut at every place.

#include <chrono>
#include <cstdlib>
#include <iostream>

#include "plain/body_maker.h"
#include "plain/plain_parser.h"
#include "plain/product.h"
#include "support/fast_folder.h"
#include "support/form.h"
#include "support/test.h"
#include "support/variable.h"

namespace plain {
namespace {

using namespace support;  // NOLINT(google-build-using-namespace)

#ifdef __SANITIZE_ADDRESS__
constexpr std::size_t kRandomCases = 20'000;
#else
constexpr std::size_t kRandomCases = 200'000;
#endif
constexpr std::size_t kShards = 4;
/// Of this number of cases that never end, one is verified.
constexpr std::size_t kSpinSample = 100;

using Counts = std::map<std::string, std::size_t>;

/// Compares one case after the other, and counts.
class Comparison {
 public:
  Comparison(const Scratch& scratch, Counts& counts)
      : scratch_(scratch), counts_(counts) {}

  /// Does nothing after a failure: one report of a difference is enough.
  void Check(const Request& request) {
    if (testing::Test::HasFailure()) return;
    ++counts_["cases"];
    const Outcome plain = Parse(request);
    if (plain.spins) {
      if (counts_["spins"]++ % spin_sample == 0) CheckSpin(request);
      return;
    }
    if (plain.error.empty() && !plain.files.empty()) ++counts_["uploads"];
    if (!plain.error.empty()) ++counts_["errors"];
    // Cases that end although some reads return nothing.
    if (plain.sleeps > 0) ++counts_["pauses"];
    const std::string difference = Difference(plain, RunProduct(request));
    EXPECT_EQ(difference, "") << Describe(request);
    EXPECT_EQ(scratch_.List(), Strings{})
        << "left behind by " << Describe(request);
  }

  std::size_t spin_sample = kSpinSample;

 private:
  void CheckSpin(const Request& request) {
    EXPECT_TRUE(ProductSpins(request)) << Describe(request);
    for (const std::string& left : scratch_.List()) {
      fs::remove(scratch_ / left);
    }
  }

  const Scratch& scratch_;
  Counts& counts_;
};

/// Runs a comparison in a child with a time limit for any number of cases, and
/// returns its counts.
template <class Body>
Counts Compare(const Body& body) {
  const Scratch scratch(FastFolder());
  const auto outcome = RunCleanly(Child().TimeLimit(std::chrono::hours(1)),
                                  [&](const Reporter& report) {
                                    Counts counts;
                                    Comparison comparison(scratch, counts);
                                    body(comparison, scratch.Path());
                                    for (const auto& [what, count] : counts) {
                                      report(what, std::to_string(count));
                                    }
                                  });
  Counts counts;
  for (const auto& [what, count] : outcome.reported) {
    counts[what] = std::stoul(count);
  }
  return counts;
}

class RandomBodies : public testing::TestWithParam<std::size_t> {};

TEST_P(RandomBodies, AreParsedAlike) {
  const std::size_t cases =
      NumberInVariable("ZANCGI_RANDOM_CASES", kRandomCases) / kShards;
  const std::size_t seed =
      NumberInVariable("ZANCGI_RANDOM_SEED", 20261121) * kShards + GetParam();
  Counts counts =
      Compare([&](Comparison& comparison, const std::string& folder) {
        BodyMaker maker(seed, folder);
        for (std::size_t i = 0; i < cases; ++i) comparison.Check(maker.Make());
      });
  std::cout << counts["cases"] << " cases from seed " << seed << ": "
            << counts["uploads"] << " with uploads, " << counts["errors"]
            << " with errors, " << counts["pauses"]
            << " with reads of nothing, " << counts["spins"]
            << " without an end\n";
  // Otherwise the bodies would prove little.
  EXPECT_GT(counts["uploads"], cases / 10);
  EXPECT_GT(counts["errors"], cases / 50);
  EXPECT_GT(counts["pauses"], cases / 100);
  EXPECT_GT(counts["spins"], cases / 1000);
}

INSTANTIATE_TEST_SUITE_P(Shard, RandomBodies,
                         testing::Range(std::size_t{0}, kShards));

struct NamedBody {
  const char* name;
  std::string content_type;
  std::string bytes;
};

/// Short enough for every pair of cuts.
const NamedBody kShortBodies[] = {
    {"Field", kForm, Field("a", "1") + kFormEnd},
    {"Upload", kForm,
     Part("name=\"u\"; filename=\"f\"\r\nContent-Type: text/plain", "x\r\n-y") +
         kFormEnd},
    {"QueryString", kEncoded, "a=1&b=%41+c&=x&d"},
    {"EmptyUpload", kForm, Upload("u", "f", "") + kFormEnd},
    {"BoundaryWithCr", "multipart/form-data; boundary=\rX",
     "--\rX\r\nContent-Disposition: form-data; name=\"u\"; filename=\"f\"\r\n"
     "\r\n\r\n--\r\r\n--\rX--\r\n"},
};

const NamedBody kBodies[] = {
    {"TwoFields", kForm, Field("a", "1\r\n2") + Field("a", "3") + kFormEnd},
    {"Mixed", kForm,
     Field("a", "1") + Upload("u", "f", "\r\n\r\n--X\r--XY\n") +
         Field("b", "") + Upload("v", "g", "last") + kFormEnd},
    {"SameFileName", kForm,
     Upload("u", "f", "first") + Upload("v", "f", "second") + kFormEnd},
    {"EmptyFileInput", kForm, Upload("u", "", "") + Field("a", "1") + kFormEnd},
    {"Preamble", kForm, "preamble\r\n" + Field("a", "1") + kFormEnd + "end"},
    {"OtherDisposition", kForm,
     "--XY\r\nContent-Disposition: attachment; filename=\"x\"\r\n\r\nskipped"
     "\r\n" +
         Field("a", "1") + kFormEnd},
    {"AfterTheEnd", kForm,
     Upload("u", "f", "data") + kFormEnd + Upload("u", "f", "more") + kFormEnd},
    {"ManySeparatorBeginnings", kForm,
     Upload("u", "f", "\r\r\n\r\n-\r\n--\r\n--X\r\n--X\r\n--XX\r") + kFormEnd},
};

void PrintTo(const NamedBody& body, std::ostream* out) { *out << body.name; }

std::string NameOf(const testing::TestParamInfo<NamedBody>& info) {
  return info.param.name;
}

Request ToRequest(const NamedBody& body, const std::string& folder) {
  Request request;
  request.content_length = std::to_string(body.bytes.size());
  request.content_type = body.content_type;
  request.tmp_dir = folder;
  request.input.bytes = body.bytes;
  return request;
}

using Reads = std::vector<std::size_t>;

/// Compares a body that comes by each of these reads, and checks every so
/// many-th case that never ends.
Counts CompareReads(const NamedBody& body, const std::vector<Reads>& each,
                    std::size_t spin_sample = kSpinSample,
                    Nothing nothing = Nothing::kRead) {
  return Compare([&](Comparison& comparison, const std::string& folder) {
    comparison.spin_sample = spin_sample;
    Request request = ToRequest(body, folder);
    request.input.nothing = nothing;
    for (const Reads& reads : each) {
      request.input.reads = reads;
      comparison.Check(request);
    }
  });
}

class CutBody : public testing::TestWithParam<NamedBody> {};

TEST_P(CutBody, IsParsedAlikeInTwoOrMorePieces) {
  const std::size_t size = GetParam().bytes.size();
  std::vector<Reads> each;
  for (std::size_t piece = 1; piece <= size; ++piece) {
    each.push_back({piece});
    each.emplace_back(size / piece, piece);
  }
  CompareReads(GetParam(), each);
}

TEST_P(CutBody, IsParsedAlikeWithAnEmptyRead) {
  std::vector<Reads> each = {{0}};
  for (std::size_t at = 1; at <= GetParam().bytes.size(); ++at) {
    each.push_back({at, 0});
  }
  CompareReads(GetParam(), each, 10);
}

TEST_P(CutBody, IsParsedAlikeWhenItEndsEarly) {
  Compare([](Comparison& comparison, const std::string& folder) {
    Request request = ToRequest(GetParam(), folder);
    const std::string whole_length = request.content_length;
    while (!request.input.bytes.empty()) {
      request.input.bytes.pop_back();
      request.content_length = whole_length;
      comparison.Check(request);
      request.content_length = std::to_string(request.input.bytes.size());
      comparison.Check(request);
    }
  });
}

INSTANTIATE_TEST_SUITE_P(Short, CutBody, testing::ValuesIn(kShortBodies),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(Long, CutBody, testing::ValuesIn(kBodies), NameOf);

class ShortBody : public testing::TestWithParam<NamedBody> {};

TEST_P(ShortBody, IsParsedAlikeWithTwoCuts) {
  const std::size_t size = GetParam().bytes.size();
  std::vector<Reads> each;
  for (std::size_t first = 1; first < size; ++first) {
    for (std::size_t second = 1; second < size - first; ++second) {
      each.push_back({first, second});
    }
  }
  CompareReads(GetParam(), each);
}

INSTANTIATE_TEST_SUITE_P(, ShortBody, testing::ValuesIn(kShortBodies), NameOf);

class ReadOfNothing : public testing::TestWithParam<Nothing> {};

TEST_P(ReadOfNothing, WithoutABoundaryDelaysTheBodyOnly) {
  for (NamedBody body : {kShortBodies[2], kShortBodies[1]}) {
    body.content_type = kEncoded;
    const std::size_t size = body.bytes.size();
    std::vector<Reads> each;
    for (std::size_t first = 1; first < size; ++first) {
      for (std::size_t second = 1; second <= size - first; ++second) {
        each.push_back({0, first, 0, 0, second, 0});
      }
    }
    Counts counts = CompareReads(body, each, kSpinSample, GetParam());
    EXPECT_EQ(counts["pauses"], each.size());
  }
}

INSTANTIATE_TEST_SUITE_P(, ReadOfNothing,
                         testing::Values(Nothing::kRead, Nothing::kWouldBlock,
                                         Nothing::kSignal));

TEST(EmptyRead, MakesTheParserSpinAtEachPlace) {
  std::vector<Reads> each;
  for (std::size_t at = 1; at < kShortBodies[0].bytes.size(); ++at) {
    each.push_back({at, 0});
  }
  Counts counts = CompareReads(kShortBodies[0], each, 1);
  EXPECT_EQ(counts["spins"], each.size());
}

}  // namespace
}  // namespace plain
